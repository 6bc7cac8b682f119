// The cache of PLC memory: one record per unit ever named, in creation order,
// with an index beside the list so that no lookup scans it.
#include "protocol.h"
#include "register_table.h"

int boundedUnits(int address, qint64 length)
{
    if (length <= 0)
        return 0;
    if (length > MAX_RANGE_UNITS)
        length = MAX_RANGE_UNITS;
    const qint64 room = qint64(2147483647) - address + 1; // addresses up to INT_MAX
    return int(length < room ? length : room);
}

AreaKey::AreaKey(const QString &regName) : name(regName), nameId(driver.dataIndex.findNameId(regName)) {}

int getIndexOfDataArea(int station, AreaKey &area, int address)
{
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
    const int kind = rowKind(rangeRowFor(regName));
    int units;
    QString name;
    if (kind == 1) {
        name = regName;
        units = boundedUnits(address, length);
    } else if (kind == 16) {
        name = areaName(regName);
        units = boundedUnits(address, length);
    } else if (kind == 32) {
        name = areaName(regName);
        units = boundedUnits(address, length / 2); // the runtime counts 16-bit words
    } else {
        return 0;
    }
    AreaKey area(name);
    for (int i = 0; i < units; ++i) {
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
