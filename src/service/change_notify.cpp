// Reports of changed units to the runtime's callback.
#include "change_notify.h"
#include "driver_state.h"
#include "register_traits.h"

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
// The bit-in-word name of the word register reported last: a refresh reports
// bits of one register after another, and the name is made once for them.
const QString &bitNameOf(const QString &area)
{
    static QString lastArea, lastName;
    if (lastName.isEmpty() || area != lastArea) {
        lastArea = area;
        lastName = kq71::bitInWordName(area);
    }
    return lastName;
}

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

void _wordDataChange(const int *oldValue, const int *newValue, int index, int mode)
{
    if (!driver.valueChangeCallBack || index < 0 || index >= driver.dataAreas.size())
        return;
    const _DATA_ &unit = driver.dataAreas.at(index);
    // Stored bytes are high byte first; the packing puts the first one low.
    const unsigned flipped = oldValue && newValue ? unsigned(*oldValue ^ *newValue) : 0u;
    const unsigned changed = ((flipped & 0xFFu) << 8) | ((flipped >> 8) & 0xFFu);
    const unsigned bits = mode == REPORT_WORD_AND_BITS ? changed & unsigned(unit.bitMonitorMask) & 0xFFFFu : 0u;
    const int station = unit.station;
    const int word = unit.address;
    const QString area = unit.regName;
    reportIfWatched(index);
    if (!bits)
        return;
    const QString name = bitNameOf(area);
    for (int b = 0; b < kq71::BITS_PER_WORD; ++b) {
        if (bits & (1u << b))
            reportValueChange(driver.deviceId, station, name, word * kq71::BITS_PER_WORD + b);
    }
}

void _dwordDataChange(const int *, const int *, int index, int)
{
    reportIfWatched(index);
}
