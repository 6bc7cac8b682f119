// The cache of PLC memory: one record per unit ever named, in creation order,
// with an index beside the list so that no lookup scans it.
#include "data_area.h"
#include "bit_in_word.h"

int boundedUnits(int address, qint64 length)
{
    if (length <= 0)
        return 0;
    if (length > MAX_RANGE_UNITS)
        length = MAX_RANGE_UNITS;
    const qint64 room = qint64(2147483647) - address + 1; // addresses up to INT_MAX
    return int(length < room ? length : room);
}

UnitRange cacheRange(const QString &regName, int address, qint64 length, LengthCount count)
{
    UnitRange r;
    r.traits = kq71::registerTraits(regName);
    r.area = kq71::cacheAreaName(regName, r.traits);
    r.address = address;
    r.units = boundedUnits(address, count == RUNTIME_LENGTH ? r.traits.unitsOfLength(length) : length);
    return r;
}

AreaKey::AreaKey(const QString &regName)
    : name(regName), nameId(driver.dataIndex.findNameId(regName)), generation(driver.dataIndex.generation())
{
}

int getIndexOfDataArea(int station, AreaKey &area, int address)
{
    if (area.generation != driver.dataIndex.generation()) {
        area.nameId = driver.dataIndex.findNameId(area.name);
        area.generation = driver.dataIndex.generation();
    }
    if (area.nameId >= 0) {
        const int found = driver.dataIndex.find(station, area.nameId, address);
        if (found >= 0)
            return found;
    } else {
        area.nameId = driver.dataIndex.addName(area.name);
    }
    _DATA_ unit;
    unit.station = station;
    unit.regName = area.name;
    unit.address = address;
    driver.dataAreas.append(unit);
    const int position = driver.dataAreas.size() - 1;
    driver.dataIndex.insert(station, area.nameId, address, position);
    return position;
}

int getIndexOfDataArea(int station, const QString &regName, int address)
{
    AreaKey area(regName);
    return getIndexOfDataArea(station, area, address);
}

void clearDataAreas()
{
    driver.dataAreas.clear();
    driver.dataIndex.clear();
}

int _setDataAreaMonitorFlag(int station, const QString &regName, int address, int length)
{
    BitRange bits;
    switch (bitsInWordRange(regName, address, length, &bits)) {
    case BITS_IN_WORD:
        markWatchedBits(station, bits);
        return 0;
    case REFUSED_BITS_IN_WORD:
        return 0;
    case NOT_BITS_IN_WORD:
        break;
    }
    const UnitRange r = cacheRange(regName, address, length, RUNTIME_LENGTH);
    AreaKey area(r.area);
    for (int i = 0; i < r.units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        driver.dataAreas[idx].monitorFlags |= 1;
    }
    return 0;
}

int _setBitValue(int value, int bit, int on)
{
    if (bit < 0 || bit > 31)
        return value;
    const unsigned mask = 1u << bit;
    const unsigned v = unsigned(value);
    return int(on ? (v | mask) : (v & ~mask));
}
