// Every internal header of the driver, for tests, fuzz targets and benchmarks
// that reach past the entry points.
#ifndef KQ71_TEST_DRIVER_INTERNALS_H
#define KQ71_TEST_DRIVER_INTERNALS_H

#include "address_check.h"
#include "bit_in_word.h"
#include "addr_merge.h"
#include "byte_order.h"
#include "change_notify.h"
#include "checksum.h"
#include "data_area.h"
#include "driver_state.h"
#include "error_text.h"
#include "exchange_cycle.h"
#include "frame_queue.h"
#include "frames.h"
#include "job_queue.h"
#include "merge_rule.h"
#include "multi_copy.h"
#include "recipe.h"
#include "register_table.h"
#include "register_traits.h"
#include "reply_decode.h"
#include "set_data.h"
#include "write_completion.h"

#endif
