#include "merge_rule.h"
#include "register_traits.h"

namespace {
// No merged block may cross this address: the M relays change area there.
const long long MERGE_LIMIT = kq71::RELAY_BOUNDARY;
}

int judgeRangeMerge(int blockAddress, int blockLength, int nextAddress, int nextLength, int mode, int mergeGap)
{
    const long long gap = static_cast<long long>(nextAddress) - (static_cast<long long>(blockAddress) + blockLength);
    if (mode == 0 ? gap > 0 : gap > mergeGap)
        return 1;
    if (blockAddress >= MERGE_LIMIT)
        return 0;
    return static_cast<long long>(nextAddress) + nextLength > MERGE_LIMIT ? 1 : 0;
}

int judgeAddrMergeWithGap(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap)
{
    if (block.station != next.station)
        return 1;
    if (block.regName != next.regName)
        return 1;
    return judgeRangeMerge(block.address, block.length, next.address, next.length, mode, mergeGap);
}
