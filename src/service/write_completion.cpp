// Settling a write once the PLC acknowledged it or the driver gave it up.
#include "write_completion.h"
#include "byte_order.h"
#include "change_notify.h"
#include "data_area.h"
#include "bit_in_word.h"

#include <string.h>

void _write_FailOrSuc(int station, const QString &regName, int address, int length, int success)
{
    const UnitRange r = cacheRange(regName, address, length, UNIT_COUNT);
    AreaKey area(r.area);
    for (int i = 0; i < r.units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        if (r.traits.unitBits == kq71::UNIT_WORD && settleBitWrite(idx, success != 0))
            continue;
        _DATA_ &unit = driver.dataAreas[idx];
        // Cleared before any report: a reader inside the report sees the read value.
        unit.writePending = 0;
        if (success) {
            unit.spareFlag |= WORD_SEEN;
            memcpy(unit.readValue, unit.writtenValue, size_t(r.traits.bytesPerUnit()));
            continue;
        }
        if (r.traits.isBit()) {
            reportValueChange(driver.deviceId, station, regName, address + i);
        } else if (r.traits.unitBits == kq71::UNIT_WORD) {
            const int readValue = uchar2int16(unit.readValue[0], unit.readValue[1]);
            const int written = uchar2int16(unit.writtenValue[0], unit.writtenValue[1]);
            _wordDataChange(&readValue, &written, idx, 0);
        } else {
            _dwordDataChange(0, 0, idx, 0);
        }
        if (cacheClearedSince(area))
            return;
    }
}
