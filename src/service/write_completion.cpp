// Settling a write once the PLC acknowledged it or the driver gave it up.
#include "kq71_protocol.h"
#include "protocol.h"
#include "register_table.h"

#include <string.h>

void _write_FailOrSuc(int station, const QString &regName, int address, int length, int success)
{
    const int kind = rowKind(rangeRowFor(regName));
    if (kind != 1 && kind != 16 && kind != 32)
        return;
    const QString name = kind == 1 ? regName : areaName(regName);
    AreaKey area(name);
    const int units = boundedUnits(address, length);
    for (int i = 0; i < units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        _DATA_ &unit = driver.dataAreas[idx];
        // Cleared before any report: a reader inside the report sees the read value.
        unit.writePending = 0;
        const int used = kind == 1 ? 1 : kind / 8;
        if (success) {
            memcpy(unit.readValue, unit.writtenValue, size_t(used));
            continue;
        }
        if (kind == 1) {
            reportValueChange(driver.deviceId, station, regName, address + i);
        } else if (kind == 16) {
            const int readValue = uchar2int16(unit.readValue[0], unit.readValue[1]);
            const int written = uchar2int16(unit.writtenValue[0], unit.writtenValue[1]);
            _wordDataChange(&readValue, &written, idx, 0);
        } else {
            _dwordDataChange(0, 0, idx, 0);
        }
    }
}
