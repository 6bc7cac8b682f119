#include "kq71_protocol.h"

namespace {
// No merged block may cross this address: the M relays change area there.
const long long MERGE_LIMIT = 8000;
}

int judgeAddrMergeWithGap(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap)
{
    if (block.station != next.station)
        return 1;
    if (block.regName != next.regName)
        return 1;
    const long long gap = static_cast<long long>(next.address) - (static_cast<long long>(block.address) + block.length);
    if (mode == 0 ? gap > 0 : gap > mergeGap)
        return 1;
    if (block.address >= MERGE_LIMIT)
        return 0;
    return static_cast<long long>(next.address) + next.length > MERGE_LIMIT ? 1 : 0;
}
