// Where a register's units lie in the PLC memory map, so that the read and
// write builders always address the same cell.
#ifndef KQ71_PLC_ADDRESS_H
#define KQ71_PLC_ADDRESS_H

#include "register_traits.h"

namespace kq71 {

// Start address on the wire for unit a of the register at table row idx
// (0..18), before it is cut to 16 bits. interleave applies the V/Z doubling,
// which reads and single-register writes use and multi-register writes do not.
// 64-bit, so any int the runtime hands in stays defined.
long long plcAddress(int idx, const QString &regName, int a, bool interleave);

} // namespace kq71

#endif
