// May two ranges share one block read? The rule of this family.
#ifndef KQ71_MERGE_RULE_H
#define KQ71_MERGE_RULE_H

#include "vorn_kq71_ap.h"

// 0 when next may join block, 1 when not. mode 0: touching/overlapping only;
// other modes: gaps up to mergeGap units.
int judgeAddrMergeWithGap(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap);
// The same rule for two ranges already known to share station and register.
int judgeRangeMerge(int blockAddress, int blockLength, int nextAddress, int nextLength, int mode, int mergeGap);

#endif
