// Read planning: keys become merged block reads of at most 128 units.
#ifndef SERVICE_ADDR_MERGE_H
#define SERVICE_ADDR_MERGE_H

#include "vorn_kq71_ap.h"

#include <vector>

// One block of a plan: the range it reads, the key it started from, and for
// recipe plans the keys (items) it covers, so that every value keeps its
// place however the blocks are cut.
struct PlannedBlock {
    int station;
    QString regName;
    int address;
    int length;
    int source;    // index of the key the block started from
    int firstItem; // recipe plans: first key covered
    int itemCount; // recipe plans: keys covered
};

// mode 2 plans recipe blocks (keys sorted, in recipe lengths; touching keys
// merge); any other mode a cyclic plan (keys in watch-list lengths, sorted by
// weight, gaps up to the merge gap bridged).
std::vector<PlannedBlock> planBlocks(const QList<KEY_ADDRESS> &keys, int mode);

// The plan as keys: each block keeps every field of the key it started from.
void addrMerge(QList<KEY_ADDRESS> &keys, int mode);
// The configured piece limit of bit keys or of word keys; below 1 it is one block.
int configuredPieceLimit(bool bits);
// Cuts key into pieces of at most maxLength units (below 1: one block).
void groupingKey(const KEY_ADDRESS &key, int maxLength, QList<KEY_ADDRESS> &out, int copyData);
// The family's merge rule with the driver's merge gap.
int judgeAddrMerge(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode);

#endif
