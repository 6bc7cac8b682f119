// The runtime reads values from the cache, in its own byte order.
#include "vorn_kq71_ap.h"
#include "byte_order.h"
#include "data_area.h"
#include "bit_in_word.h"

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
    BitRange bits;
    switch (bitsInWordRange(*regName, address, length, &bits)) {
    case BITS_IN_WORD:
        readBitsInWords(station, bits, values);
        return 1;
    case REFUSED_BITS_IN_WORD:
        return 0; // nothing written into the runtime's buffer
    case NOT_BITS_IN_WORD:
        break;
    }
    const UnitRange r = cacheRange(*regName, address, length, RUNTIME_LENGTH);
    const int bytes = r.traits.bytesPerUnit();
    AreaKey area(r.area);
    for (int i = 0; i < r.units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        swapUnitBytes(shownBytes(driver.dataAreas.at(idx)), values + qint64(i) * bytes, bytes);
    }
    return 1;
}
