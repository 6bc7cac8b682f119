// The cache of PLC memory: one _DATA_ record per unit ever named, found
// through the index, and the watch marks on it.
#ifndef SERVICE_DATA_AREA_H
#define SERVICE_DATA_AREA_H

#include "driver_state.h"
#include "register_traits.h"

// Units of a range starting at address, bounded so that no address overflows.
int boundedUnits(int address, qint64 length);

// The cache units a call names: the register's traits, the name the cache
// keeps them under, and how many there are from `address` on, bounded.
struct UnitRange {
    kq71::RegisterTraits traits;
    QString area;
    int address;
    int units;
};
// How the length handed to cacheRange counts: as the runtime's value calls
// and watch list count it (16-bit words, or bits), or in units (jobs).
enum LengthCount { RUNTIME_LENGTH, UNIT_COUNT };
UnitRange cacheRange(const QString &regName, int address, qint64 length, LengthCount count);

// A register name with its index id looked up once, for loops over a range.
// A cache cleared meanwhile (the callback may re-initialise the driver) voids
// the id; the lookup then takes it anew.
struct AreaKey {
    QString name;
    int nameId;          // -1 until a record carries the name
    unsigned generation; // of the index the id belongs to
    explicit AreaKey(const QString &regName);
};
// True when the cache was cleared after the key was made or last used: a
// loop over a call's units stops there, its units belong to the old cache.
inline bool cacheClearedSince(const AreaKey &area)
{
    return area.generation != driver.dataIndex.generation();
}
// Find-or-create: the position of the unit's record in driver.dataAreas.
int getIndexOfDataArea(int station, AreaKey &area, int address);
int getIndexOfDataArea(int station, const QString &regName, int address);
void clearDataAreas();

int _setDataAreaMonitorFlag(int station, const QString &regName, int address, int length);
int _setBitValue(int value, int bit, int on);

#endif
