// Read planning: the runtime's watch list becomes merged block reads of at most
// 128 units; the same merge plans recipe blocks.
#include "kq71_protocol.h"
#include "protocol.h"
#include "register_table.h"

#include <QtCore/QDebug>
#include <QtCore/QStringList>

#include <algorithm>
#include <vector>

namespace {

int pieceLimitOrBlock(int limit)
{
    return limit >= 1 ? limit : int(MAX_BLOCK_UNITS);
}

// Keys of one station and register, converted to the register's own units.
void normaliseForCyclicRead(KEY_ADDRESS &key)
{
    const QStringList parts = key.regName.split(QLatin1Char('_'));
    const int k = rowKind(rangeRowFor(key.regName));
    if (k <= 0)
        return;
    if (parts.size() > 1 && parts.last() == QLatin1String("bit")) {
        // Bit-in-word key: read the whole words that hold its bits.
        const qint64 bits = qint64(key.length) + key.address % k;
        key.length = int(bits % k != 0 ? bits / k + 1 : bits / k);
        key.address = key.address / k;
        key.regName = parts.first();
    } else if (k != 1) {
        key.length = int(key.length * (16.0 / k));
    }
}

void normaliseForRecipe(KEY_ADDRESS &key)
{
    const int idx = getIndexFromRegName(key.regName);
    if (idx < 0 || rowKind(idx) == 1)
        return;
    const int w = rowWidth(idx);
    if (w > 0)
        key.length = int(key.length * (16.0 / w));
}

// Ascending by weight compared unsigned; equal weights keep their order, as a
// neighbour-swapping sort would leave them.
void sortByWeight(QList<KEY_ADDRESS> &keys)
{
    std::vector<std::pair<quint32, int> > order;
    order.reserve(keys.size());
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS &k = keys.at(i);
        order.push_back(std::make_pair(quint32(getRegAddressWeight(k.station, k.regName, k.address, k.length)), i));
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const std::pair<quint32, int> &a, const std::pair<quint32, int> &b) {
                         return a.first < b.first;
                     });
    QList<KEY_ADDRESS> sorted;
    sorted.reserve(keys.size());
    for (size_t i = 0; i < order.size(); ++i)
        sorted.append(keys.at(order[i].second));
    keys.swap(sorted);
}

QString planLine(const char *pattern, int index, const KEY_ADDRESS &key)
{
    return QString::fromLatin1(pattern).arg(QString::number(index), key.regName, QString::number(key.address),
                                            QString::number(key.length));
}

bool joins(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode)
{
    const qint64 span = qint64(next.address) + next.length - block.address;
    return judgeAddrMerge(block, next, mode) == 0 && span <= MAX_BLOCK_UNITS;
}

void widen(KEY_ADDRESS &block, const KEY_ADDRESS &next)
{
    const qint64 span = qint64(next.address) + next.length - block.address;
    if (span > block.length)
        block.length = int(span);
    if (next.address < block.address)
        block.address = next.address;
}

// Collects emitted blocks; in recipe mode it also records which keys (items)
// each block covers, so that every value keeps its place whatever the cut.
class BlockSink {
public:
    BlockSink(const QList<KEY_ADDRESS> &keys, bool recipe) : keys_(keys), recipe_(recipe), groupStart_(0) {}

    void startGroup(int keyIndex) { groupStart_ = keyIndex; }

    void put(const KEY_ADDRESS &block, int groupEnd)
    {
        out.append(block);
        if (!recipe_)
            return;
        const qint64 bEnd = qint64(block.address) + block.length;
        int first = -1, last = -1;
        for (int k = groupStart_; k <= groupEnd && k < keys_.size(); ++k) {
            const KEY_ADDRESS &key = keys_.at(k);
            const qint64 kEnd = qint64(key.address) + key.length;
            if (key.address < bEnd && kEnd > block.address) {
                if (first < 0)
                    first = k;
                last = k;
            }
        }
        if (first < 0)
            first = last = groupStart_;
        driver.rcpBlockStarts.append(first);
        driver.rcpBlockItems.append(qMakePair(first, last - first + 1));
    }

    // Puts out 128-unit pieces from the front of an overlong block.
    void cutLong(KEY_ADDRESS &block, int groupEnd)
    {
        while (block.length > MAX_BLOCK_UNITS) {
            KEY_ADDRESS piece = block;
            piece.length = MAX_BLOCK_UNITS;
            put(piece, groupEnd);
            block.address += MAX_BLOCK_UNITS;
            block.length -= MAX_BLOCK_UNITS;
        }
    }

    QList<KEY_ADDRESS> out;

private:
    const QList<KEY_ADDRESS> &keys_;
    bool recipe_;
    int groupStart_;
};

} // namespace

void addrMerge(QList<KEY_ADDRESS> &keys, int mode)
{
    if (keys.isEmpty())
        return;
    const bool recipe = mode == 2;
    if (recipe) {
        for (int i = 0; i < keys.size(); ++i)
            normaliseForRecipe(keys[i]);
    } else {
        for (int i = 0; i < keys.size(); ++i)
            normaliseForCyclicRead(keys[i]);
        for (int i = 0; i < keys.size(); ++i)
            qDebug() << planLine("step0:id=%1,reg=%2,address=%3,len=%4", i, keys.at(i));
        sortByWeight(keys);
    }

    // Touching or overlapping keys.
    BlockSink touching(keys, recipe);
    KEY_ADDRESS block = keys.first();
    for (int i = 1; i < keys.size(); ++i) {
        const KEY_ADDRESS &key = keys.at(i);
        touching.cutLong(block, i - 1);
        if (joins(block, key, 0)) {
            widen(block, key);
        } else {
            touching.put(block, i - 1);
            block = key;
            touching.startGroup(i);
        }
    }
    touching.cutLong(block, keys.size() - 1);
    touching.put(block, keys.size() - 1);

    if (recipe) {
        keys.swap(touching.out);
        return;
    }

    // Bridge gaps up to mergeGap; blocks are not cut again here.
    const QList<KEY_ADDRESS> &blocks = touching.out;
    QList<KEY_ADDRESS> bridged;
    KEY_ADDRESS current = blocks.first();
    for (int i = 1; i < blocks.size(); ++i) {
        if (joins(current, blocks.at(i), 1)) {
            widen(current, blocks.at(i));
        } else {
            bridged.append(current);
            current = blocks.at(i);
        }
    }
    bridged.append(current);
    keys.swap(bridged);
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
        _DATA_ &unit = driver.dataAreas[i];
        unit.bitWritePending = 0;
        unit.monitorFlags = 0;
        unit.bitMonitorMask = 0;
    }
    QList<KEY_ADDRESS> working;
    working.reserve(keys->size());
    for (int i = 0; i < keys->size(); ++i) {
        const KEY_ADDRESS &key = keys->at(i);
        working.append(key);
        qDebug() << planLine("step:id=%1,reg=%2,address=%3,len=%4", i, key);
        _setDataAreaMonitorFlag(key.station, key.regName, key.address, key.length);
    }
    driver.cyclicReads.clear();
    if (working.isEmpty())
        return 0;
    addrMerge(working, 1);
    for (int i = 0; i < working.size(); ++i) {
        const KEY_ADDRESS &block = working.at(i);
        VARIABLE job;
        job.id = CYCLIC_READ_ID;
        job.station = block.station;
        job.regName = block.regName;
        job.address = block.address;
        job.length = block.length;
        driver.cyclicReads.append(job);
    }
    for (int k = 0; k < driver.cyclicReads.size(); ++k) {
        const VARIABLE &job = driver.cyclicReads.at(k);
        qDebug() << QString::fromLatin1("step3:id=%1,std=%2,reg=%3,address=%4,len=%5")
                        .arg(QString::number(k), QString::number(job.station), job.regName,
                             QString::number(job.address), QString::number(job.length));
    }
    return driver.cyclicReads.size();
}
