#include "plc_address.h"
#include "register_table.h"

namespace kq71 {

bool isInterleaved(const QString &regName)
{
    return regName == QLatin1String("V") || regName == QLatin1String("Z");
}

long long plcAddress(int idx, const QString &regName, int a, bool interleave)
{
    const long long base = ADDRESS_REG_OFFSET[idx];
    long long address = a;
    if (rowKind(idx) == 1) {
        if (regName == QLatin1String("M") && a >= M_HIGH_START)
            return address - M_HIGH_SHIFT;
        return base + address;
    }
    // 32-bit counters take two PLC registers each and are numbered from 200
    // or from 256 in their areas.
    if (rowWidth(idx) == 32) {
        if (regName.contains(QLatin1String("200")))
            address = (address - 100) * 2;
        else if (regName.contains(QLatin1String("256")))
            address = (address - 128) * 2;
    }
    if (interleave && isInterleaved(regName))
        address *= 2;
    return base + address;
}

} // namespace kq71
