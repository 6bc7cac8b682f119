// Records filled as a runtime fills them, for every suite that builds them.
#ifndef KQ71_TEST_RECORDS_H
#define KQ71_TEST_RECORDS_H

#include "vorn_kq71_ap.h"

namespace kq71test {

// A record naming units: KEY_ADDRESS, VARIABLE or _RCP_VAR_PRO.
template <class T> T named(int station, const QString &reg, int address, int length)
{
    T r;
    r.station = station;
    r.regName = reg;
    r.address = address;
    r.length = length;
    return r;
}
inline KEY_ADDRESS key(int station, const QString &reg, int address, int length, int dataType = 0)
{
    KEY_ADDRESS k = named<KEY_ADDRESS>(station, reg, address, length);
    k.dataType = dataType;
    return k;
}

} // namespace kq71test

#endif
