// The runtime reads values from the cache, in its own byte order.
#include "protocol.h"
#include "register_table.h"

namespace {
// A unit shows its written value while that write is pending.
const quint8 *shownBytes(const _DATA_ &unit)
{
    return unit.writePending == 1 ? unit.writtenValue : unit.readValue;
}
} // namespace

int intf_getData(int station, QString *regName, int address, int length, unsigned char *values)
{
    if (!regName || !values)
        return 0;
    ServiceLock lock;
    const int kind = rowKind(rangeRowFor(*regName));
    if (kind != 1 && kind != 16 && kind != 32)
        return 1;
    const QString name = kind == 1 ? *regName : areaName(*regName);
    AreaKey area(name);
    const int units = boundedUnits(address, kind == 32 ? length / 2 : length);
    for (int i = 0; i < units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        const quint8 *s = shownBytes(driver.dataAreas.at(idx));
        if (kind == 1) {
            values[i] = s[0];
        } else if (kind == 16) {
            values[2 * i] = s[1];
            values[2 * i + 1] = s[0];
        } else {
            values[4 * i] = s[1];
            values[4 * i + 1] = s[0];
            values[4 * i + 2] = s[3];
            values[4 * i + 3] = s[2];
        }
    }
    return 1;
}
