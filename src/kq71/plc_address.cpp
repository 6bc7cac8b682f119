#include "plc_address.h"

namespace kq71 {

long long plcAddress(int idx, const QString &regName, int a, bool interleave)
{
    const RegisterTraits t = rowTraits(idx);
    const long long base = ADDRESS_REG_OFFSET[idx];
    long long address = a;
    if (t.isBit()) {
        if (t.relaySplit && a >= RELAY_BOUNDARY)
            return address - RELAY_HIGH_SHIFT;
        return base + address;
    }
    // 32-bit counters take two PLC registers each and are numbered from 200
    // or from 256 in their areas.
    if (t.unitBits == UNIT_DWORD) {
        if (regName.contains(QLatin1String("200")))
            address = (address - 100) * 2;
        else if (regName.contains(QLatin1String("256")))
            address = (address - 128) * 2;
    }
    if (interleave && t.interleaved)
        address *= 2;
    return base + address;
}

} // namespace kq71
