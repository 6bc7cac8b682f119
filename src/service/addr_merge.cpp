// Read planning: the runtime's watch list becomes merged block reads of at most
// 128 units; the same merge plans recipe blocks.
#include "vorn_kq71_ap.h"
#include "addr_merge.h"
#include "data_area.h"
#include "bit_in_word.h"
#include "debug_line.h"
#include "merge_rule.h"
#include "register_table.h"
#include "register_traits.h"

#include <QtCore/QDebug>
#include <QtCore/QStringList>

#include <algorithm>
#include <vector>

namespace {

typedef PlannedBlock PlanKey;

// Converts a key to the register's own units for a cyclic read.
void normaliseForCyclicRead(PlanKey &key)
{
    BitRange bits;
    switch (bitsInWordRange(key.regName, key.address, key.length, &bits)) {
    case BITS_IN_WORD: {
        // Bit-in-word key: read the whole words that hold its bits.
        const kq71::WordSpan words = kq71::wordsHoldingBits(bits.address, bits.bits);
        key.address = words.address;
        key.length = words.length;
        key.regName = bits.area;
        return;
    }
    case REFUSED_BITS_IN_WORD:
        key.length = 0; // names no unit
        return;
    case NOT_BITS_IN_WORD:
        break;
    }
    key.length = int(kq71::registerTraits(key.regName).unitsOfLength(key.length));
}

void normaliseForRecipe(PlanKey &key)
{
    const kq71::RegisterTraits t = kq71::registerTraits(key.regName);
    if (t.known())
        key.length = int(t.unitsOfLength(key.length));
}

// Ascending by weight compared unsigned; equal weights keep their order, as a
// neighbour-swapping sort would leave them.
void sortByWeight(std::vector<PlanKey> &keys)
{
    std::vector<std::pair<quint32, int> > order;
    order.reserve(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        const PlanKey &k = keys[i];
        order.push_back(std::make_pair(quint32(getRegAddressWeight(k.station, k.regName, k.address, k.length)),
                                       int(i)));
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const std::pair<quint32, int> &a, const std::pair<quint32, int> &b) {
                         return a.first < b.first;
                     });
    std::vector<PlanKey> sorted;
    sorted.reserve(keys.size());
    for (size_t i = 0; i < order.size(); ++i)
        sorted.push_back(keys[order[i].second]);
    keys.swap(sorted);
}

void planLine(const char *tag, int index, const QString &regName, int address, int length)
{
    if (!QuotedDebugLine::enabled())
        return;
    QuotedDebugLine().text(tag).text(":id=").number(index).text(",reg=").name(regName).text(",address=")
        .number(address).text(",len=").number(length).send();
}

void jobLine(int index, const VARIABLE &job)
{
    if (!QuotedDebugLine::enabled())
        return;
    QuotedDebugLine().text("step3:id=").number(index).text(",std=").number(job.station).text(",reg=")
        .name(job.regName).text(",address=").number(job.address).text(",len=").number(job.length).send();
}

// The merge rule on plan keys.
int judge(const PlanKey &block, const PlanKey &next, int mode)
{
    if (block.station != next.station || block.regName != next.regName)
        return 1;
    return judgeRangeMerge(block.address, block.length, next.address, next.length, mode, driver.mergeGap);
}

// A key joins the block when the rule allows it and their union spans at most
// one block. The union keeps the block's end: after a long key was cut, the
// next key may start before the part of it still to be read.
qint64 unionSpan(const PlanKey &block, const PlanKey &next)
{
    const qint64 start = qMin(block.address, next.address);
    const qint64 end = qMax(qint64(block.address) + block.length, qint64(next.address) + next.length);
    return end - start;
}

bool joins(const PlanKey &block, const PlanKey &next, int mode)
{
    return unionSpan(block, next) <= MAX_BLOCK_UNITS && judge(block, next, mode) == 0;
}

void widen(PlanKey &block, const PlanKey &next)
{
    block.length = int(unionSpan(block, next));
    block.address = qMin(block.address, next.address);
}

// Collects blocks; in recipe mode it also notes which keys (items) each block
// covers.
class BlockSink {
public:
    BlockSink(const std::vector<PlanKey> &keys, bool recipe) : keys_(keys), recipe_(recipe), groupStart_(0) {}

    void startGroup(int keyIndex) { groupStart_ = keyIndex; }

    void put(PlanKey block, int groupEnd)
    {
        if (!recipe_) {
            out.push_back(block);
            return;
        }
        const qint64 bEnd = qint64(block.address) + block.length;
        int first = -1, last = -1;
        for (int k = groupStart_; k <= groupEnd && k < int(keys_.size()); ++k) {
            const PlanKey &key = keys_[k];
            const qint64 kEnd = qint64(key.address) + key.length;
            if (key.address < bEnd && kEnd > block.address) {
                if (first < 0)
                    first = key.source;
                last = key.source;
            }
        }
        if (first < 0)
            first = last = keys_[groupStart_].source;
        block.firstItem = first;
        block.itemCount = last - first + 1;
        out.push_back(block);
    }

    // Puts out 128-unit pieces from the front of an overlong block.
    void cutLong(PlanKey &block, int groupEnd)
    {
        while (block.length > MAX_BLOCK_UNITS) {
            PlanKey piece = block;
            piece.length = MAX_BLOCK_UNITS;
            put(piece, groupEnd);
            block.address += MAX_BLOCK_UNITS;
            block.length -= MAX_BLOCK_UNITS;
        }
    }

    std::vector<PlanKey> out;

private:
    const std::vector<PlanKey> &keys_;
    bool recipe_;
    int groupStart_;
};

} // namespace

// Cyclic reads: convert, sort, merge touching keys, then bridge gaps. Recipe
// blocks: the keys come sorted; merge touching keys only.
std::vector<PlannedBlock> planBlocks(const QList<KEY_ADDRESS> &input, int mode)
{
    std::vector<PlanKey> keys;
    keys.reserve(input.size());
    for (int i = 0; i < input.size(); ++i) {
        const KEY_ADDRESS &k = input.at(i);
        PlanKey p = {k.station, k.regName, k.address, k.length, i, i, 1};
        keys.push_back(p);
    }
    const bool recipe = mode == 2;
    if (recipe) {
        for (size_t i = 0; i < keys.size(); ++i)
            normaliseForRecipe(keys[i]);
    } else {
        for (size_t i = 0; i < keys.size(); ++i)
            normaliseForCyclicRead(keys[i]);
        for (size_t i = 0; i < keys.size(); ++i)
            planLine("step0", int(i), keys[i].regName, keys[i].address, keys[i].length);
    }
    // A key that names no unit reads nothing, and no key reaches beyond the
    // range one call may name: every block stays a request a PLC can answer.
    // M relays on both sides of their boundary are read from their own areas.
    std::vector<PlanKey> kept;
    kept.reserve(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
        PlanKey &k = keys[i];
        k.length = boundedUnits(k.address, k.length);
        if (k.length <= 0)
            continue;
        // The cheap test first: the name is looked up only for keys that span 8000.
        if (k.address < kq71::RELAY_BOUNDARY && qint64(k.address) + k.length > kq71::RELAY_BOUNDARY &&
            kq71::registerTraits(k.regName).crossesRelayBoundary(k.address, k.length)) {
            PlanKey high = k;
            high.address = kq71::RELAY_BOUNDARY;
            high.length = k.address + k.length - kq71::RELAY_BOUNDARY;
            k.length = kq71::RELAY_BOUNDARY - k.address;
            kept.push_back(k);
            kept.push_back(high);
            continue;
        }
        kept.push_back(k);
    }
    keys.swap(kept);
    if (keys.empty())
        return keys;
    if (!recipe)
        sortByWeight(keys);

    // Touching or overlapping keys.
    BlockSink touching(keys, recipe);
    PlanKey block = keys.front();
    for (int i = 1; i < int(keys.size()); ++i) {
        const PlanKey &key = keys[i];
        touching.cutLong(block, i - 1);
        if (joins(block, key, 0)) {
            widen(block, key);
        } else {
            touching.put(block, i - 1);
            block = key;
            touching.startGroup(i);
        }
    }
    touching.cutLong(block, int(keys.size()) - 1);
    touching.put(block, int(keys.size()) - 1);
    if (recipe)
        return touching.out;

    // Bridge gaps up to mergeGap; blocks are not cut again here.
    const std::vector<PlanKey> &blocks = touching.out;
    std::vector<PlanKey> bridged;
    PlanKey current = blocks.front();
    for (size_t i = 1; i < blocks.size(); ++i) {
        if (joins(current, blocks[i], 1)) {
            widen(current, blocks[i]);
        } else {
            bridged.push_back(current);
            current = blocks[i];
        }
    }
    bridged.push_back(current);
    return bridged;
}

int judgeAddrMerge(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode)
{
    return judgeAddrMergeWithGap(block, next, mode, driver.mergeGap);
}

void addrMerge(QList<KEY_ADDRESS> &keys, int mode)
{
    const std::vector<PlannedBlock> blocks = planBlocks(keys, mode);
    QList<KEY_ADDRESS> out;
    out.reserve(int(blocks.size()));
    for (size_t i = 0; i < blocks.size(); ++i) {
        // A block keeps every field of the key it started from.
        KEY_ADDRESS block = keys.at(blocks[i].source);
        block.regName = blocks[i].regName;
        block.address = blocks[i].address;
        block.length = blocks[i].length;
        out.append(block);
    }
    keys.swap(out);
}

namespace {
int pieceLimitOrBlock(int limit)
{
    return limit >= 1 ? limit : int(MAX_BLOCK_UNITS);
}
} // namespace

int configuredPieceLimit(bool bits)
{
    return pieceLimitOrBlock(bits ? driver.maxBitsPerPiece : driver.maxWordsPerPiece);
}

void groupingKey(const KEY_ADDRESS &key, int maxLength, QList<KEY_ADDRESS> &out, int copyData)
{
    const int max = pieceLimitOrBlock(maxLength);
    if (key.length <= max) {
        out.append(key);
        return;
    }
    const int n = key.length / max + (key.length % max ? 1 : 0);
    const int rest = key.length % max ? key.length % max : max;
    const int b = key.dataType == -1 ? 1 : 2;
    for (int i = 0; i < n; ++i) {
        KEY_ADDRESS piece = key;
        piece.address = int(qint64(key.address) + qint64(i) * max);
        piece.length = i == n - 1 ? rest : max;
        if (copyData == 1) {
            const qint64 from = qint64(i) * max * b;
            const qint64 bytes = qint64(piece.length) * b;
            for (qint64 j = 0; j < bytes && j < KQ71_DATA_BYTES && from + j < KQ71_DATA_BYTES; ++j)
                piece.data[j] = key.data[from + j];
        }
        out.append(piece);
    }
}

int intf_addrMerge(QList<KEY_ADDRESS> *keys)
{
    if (!keys)
        return 0;
    ServiceLock lock;
    for (int i = 0; i < driver.dataAreas.size(); ++i) {
        // Watch marks only: bits written and pending stay pending.
        _DATA_ &unit = driver.dataAreas[i];
        unit.monitorFlags = 0;
        unit.bitMonitorMask = 0;
    }
    for (int i = 0; i < keys->size(); ++i) {
        const KEY_ADDRESS &key = keys->at(i);
        planLine("step", i, key.regName, key.address, key.length);
        _setDataAreaMonitorFlag(key.station, key.regName, key.address, key.length);
    }
    driver.cyclicReads.clear();
    if (keys->isEmpty())
        return 0;
    const std::vector<PlannedBlock> blocks = planBlocks(*keys, 1);
    for (size_t i = 0; i < blocks.size(); ++i) {
        VARIABLE job;
        job.id = CYCLIC_READ_ID;
        job.station = blocks[i].station;
        job.regName = blocks[i].regName;
        job.address = blocks[i].address;
        job.length = blocks[i].length;
        driver.cyclicReads.append(job);
    }
    for (int k = 0; k < driver.cyclicReads.size(); ++k)
        jobLine(k, driver.cyclicReads.at(k));
    return driver.cyclicReads.size();
}
