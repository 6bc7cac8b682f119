// Reports of changed units to the runtime's callback.
#include "change_notify.h"
#include "driver_state.h"

void reportValueChange(int deviceId, int station, const QString &regName, int address)
{
    const ValueChangeCallBack callBack = driver.valueChangeCallBack;
    if (!callBack)
        return;
    // The runtime's code may take its own mutex, which another of its threads
    // may hold while it waits for us: the call is made without our lock.
    const QString name = regName;
    ServiceUnlocked unlocked;
    callBack(deviceId, station, name, address);
}

namespace {
// The record is copied out before the call: the callback may read the cache,
// which can append records and so move the list's storage.
void reportIfWatched(int index)
{
    if (!driver.valueChangeCallBack || index < 0 || index >= driver.dataAreas.size())
        return;
    const _DATA_ &unit = driver.dataAreas.at(index);
    if (!(unit.monitorFlags & 1))
        return;
    const int station = unit.station;
    const int address = unit.address;
    const QString regName = unit.regName;
    reportValueChange(driver.deviceId, station, regName, address);
}
} // namespace

void _bitDataChange(int index)
{
    reportIfWatched(index);
}

// The old and new values only matter for bits watched inside a unit, which no
// register of this family has.
void _wordDataChange(const int *, const int *, int index, int)
{
    reportIfWatched(index);
}

void _dwordDataChange(const int *, const int *, int index, int)
{
    reportIfWatched(index);
}
