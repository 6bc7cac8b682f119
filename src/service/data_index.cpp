#include "data_index.h"

namespace {
const int INITIAL_SLOTS = 64; // power of two
}

DataAreaIndex::DataAreaIndex() : count_(0), generation_(0) {}

int DataAreaIndex::findNameId(const QString &regName) const
{
    QHash<QString, int>::const_iterator it = names_.constFind(regName);
    return it != names_.constEnd() ? it.value() : -1;
}

int DataAreaIndex::addName(const QString &regName)
{
    const int known = findNameId(regName);
    if (known >= 0)
        return known;
    const int id = names_.size();
    names_.insert(regName, id);
    return id;
}

unsigned DataAreaIndex::hashKey(int station, int nameId, int address)
{
    // Murmur-style mixing: addresses are dense, so spread neighbouring keys.
    unsigned h = unsigned(address) * 0x9E3779B1u;
    h ^= unsigned(station) * 0x85EBCA77u + unsigned(nameId) * 0xC2B2AE3Du;
    h ^= h >> 15;
    h *= 0x27D4EB2Fu;
    h ^= h >> 13;
    return h;
}

int DataAreaIndex::find(int station, int nameId, int address) const
{
    if (slots_.isEmpty())
        return -1;
    const unsigned mask = unsigned(slots_.size()) - 1;
    unsigned i = hashKey(station, nameId, address) & mask;
    const Slot *s = slots_.constData();
    // The table is never more than three quarters full, so the probe ends at an
    // empty slot.
    for (;;) {
        const Slot &slot = s[i];
        if (slot.position < 0)
            return -1;
        if (slot.address == address && slot.station == station && slot.nameId == nameId)
            return slot.position;
        i = (i + 1) & mask;
    }
}

void DataAreaIndex::insert(int station, int nameId, int address, int position)
{
    if (4 * (count_ + 1) > 3 * slots_.size())
        grow();
    const unsigned mask = unsigned(slots_.size()) - 1;
    unsigned i = hashKey(station, nameId, address) & mask;
    Slot *s = slots_.data();
    while (s[i].position >= 0)
        i = (i + 1) & mask;
    s[i].station = station;
    s[i].nameId = nameId;
    s[i].address = address;
    s[i].position = position;
    ++count_;
}

void DataAreaIndex::grow()
{
    QVector<Slot> old = slots_;
    const int newSize = old.isEmpty() ? INITIAL_SLOTS : old.size() * 2;
    Slot empty = {0, 0, 0, -1};
    slots_ = QVector<Slot>(newSize, empty);
    count_ = 0;
    for (int i = 0; i < old.size(); ++i) {
        const Slot &s = old.at(i);
        if (s.position >= 0)
            insert(s.station, s.nameId, s.address, s.position);
    }
}

void DataAreaIndex::clear()
{
    slots_ = QVector<Slot>();
    count_ = 0;
    names_.clear();
    ++generation_;
}
