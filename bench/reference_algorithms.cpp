#include "reference_algorithms.h"

#include <QtCore/QStringList>

#include <vector>

namespace kq71ref {

namespace {

// The register names in table order and the unit width of each; any other
// name is a 16-bit word register. Written out here rather than taken from the
// driver, so that a slip in the driver's table cannot hide in both.
const char *const NAMES[] = {"X", "Y", "S", "M", "T", "C", "200C", "256C", "D", "V",
                             "Z", "TC", "TP", "CC", "CP", "200CC", "200CP", "256CC", "256CP"};
const int KINDS[] = {1, 1, 1, 1, 1, 1, 1, 1, 16, 16, 16, 16, 16, 16, 16, 32, 32, 32, 32};
const int NAME_COUNT = int(sizeof(NAMES) / sizeof(NAMES[0]));

int nameIndex(const QString &name)
{
    for (int i = 0; i < NAME_COUNT; ++i)
        if (name == QLatin1String(NAMES[i]))
            return i;
    return -1;
}

int kindOf(const QString &name)
{
    const int i = nameIndex(name);
    return i < 0 ? 16 : KINDS[i];
}

quint32 weight(const KEY_ADDRESS &k)
{
    const quint32 row = quint32(k.station) * quint32(NAME_COUNT) + quint32(nameIndex(k.regName));
    return row * 65535u + quint32(k.address);
}

void normalise(KEY_ADDRESS &key)
{
    const QStringList parts = key.regName.split(QLatin1Char('_'));
    const int k = kindOf(key.regName);
    if (parts.size() > 1 && parts.last() == QLatin1String("bit")) {
        key.length = key.length + key.address % k;
        const double quotient = double(key.length) / k;
        key.length = key.length % k != 0 ? int(quotient + 1.0) : int(quotient);
        key.address = int(double(key.address) / k);
        key.regName = parts.first();
    } else if (k != 1) {
        key.length = int(key.length * (16.0 / k));
    }
}

int judge(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap)
{
    if (block.station != next.station)
        return 1;
    if (block.regName != next.regName)
        return 1;
    const int gap = next.address - (block.address + block.length);
    if (mode == 0 ? gap > 0 : gap > mergeGap)
        return 1;
    if (block.address >= 8000)
        return 0;
    return next.address + next.length > 8000 ? 1 : 0;
}

// Joins next to the block when the rule allows it and the union of the two
// stays within 128 units.
bool widenBy(KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap)
{
    const int start = qMin(block.address, next.address);
    const int end = qMax(block.address + block.length, next.address + next.length);
    if (judge(block, next, mode, mergeGap) != 0 || end - start > 128)
        return false;
    block.address = start;
    block.length = end - start;
    return true;
}

void cutAt128(KEY_ADDRESS &block, QList<KEY_ADDRESS> &out)
{
    while (block.length > 128) {
        KEY_ADDRESS piece = block;
        piece.length = 128;
        out.append(piece);
        block.address += 128;
        block.length -= 128;
    }
}

} // namespace

int linearIndexOfDataArea(QList<_DATA_> &areas, int station, const QString &regName, int address)
{
    for (int i = 0; i < areas.size(); ++i) {
        const _DATA_ &a = areas.at(i);
        if (a.station == station && a.regName == regName && a.address == address)
            return i;
    }
    _DATA_ unit;
    unit.station = station;
    unit.regName = regName;
    unit.address = address;
    areas.append(unit);
    return areas.size() - 1;
}

QList<KEY_ADDRESS> bubblePlan(QList<KEY_ADDRESS> keys, int mergeGap)
{
    for (int i = 0; i < keys.size(); ++i)
        normalise(keys[i]);
    // Nothing to read, or more than the wire's address space.
    for (int i = keys.size() - 1; i >= 0; --i) {
        if (keys.at(i).length <= 0)
            keys.removeAt(i);
        else if (keys.at(i).length > 65536)
            keys[i].length = 65536;
    }
    // M relays from 8000 on live in another wire area: a key across is read
    // as two.
    for (int i = keys.size() - 1; i >= 0; --i) {
        KEY_ADDRESS &k = keys[i];
        if (k.regName == QLatin1String("M") && k.address < 8000 && qint64(k.address) + k.length > 8000) {
            KEY_ADDRESS high = k;
            high.address = 8000;
            high.length = k.address + k.length - 8000;
            k.length = 8000 - k.address;
            keys.insert(i + 1, high);
        }
    }
    if (keys.isEmpty())
        return keys;

    // A neighbour-swapping sort; each key's weight is worked out once.
    const int n = keys.size();
    std::vector<quint32> w(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        w[size_t(i)] = weight(keys.at(i));
    for (int pass = 0; pass < n - 1; ++pass) {
        bool swapped = false;
        for (int j = 0; j < n - 1 - pass; ++j) {
            if (w[size_t(j)] > w[size_t(j) + 1]) {
                std::swap(w[size_t(j)], w[size_t(j) + 1]);
#if QT_VERSION >= 0x050D00
                keys.swapItemsAt(j, j + 1);
#else
                keys.swap(j, j + 1); // Qt 4's name for it
#endif
                swapped = true;
            }
        }
        if (!swapped)
            break;
    }

    QList<KEY_ADDRESS> touching;
    KEY_ADDRESS block = keys.first();
    for (int i = 1; i < n; ++i) {
        cutAt128(block, touching);
        if (!widenBy(block, keys.at(i), 0, mergeGap)) {
            touching.append(block);
            block = keys.at(i);
        }
    }
    cutAt128(block, touching);
    touching.append(block);

    QList<KEY_ADDRESS> bridged;
    KEY_ADDRESS current = touching.first();
    for (int i = 1; i < touching.size(); ++i) {
        if (!widenBy(current, touching.at(i), 1, mergeGap)) {
            bridged.append(current);
            current = touching.at(i);
        }
    }
    bridged.append(current);
    return bridged;
}

} // namespace kq71ref
