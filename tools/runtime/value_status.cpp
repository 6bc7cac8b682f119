#include "value_status.h"

namespace kq71rt {

const char *qualityName(Quality q)
{
    switch (q) {
    case Quality::Good:
        return "good";
    case Quality::Stale:
        return "stale";
    default:
        return "never-read";
    }
}

const char *stationStateName(StationState s)
{
    switch (s) {
    case StationState::Online:
        return "online";
    case StationState::Offline:
        return "offline";
    default:
        return "unknown";
    }
}

ValueStatus::Change ValueStatus::jobEnded(int station, bool good)
{
    Station &s = stations_[station];
    const StationState before = s.state;
    if (good) {
        anyGood_ = true;
        s.givenUpInRow = 0;
        s.state = StationState::Online;
    } else {
        ++s.givenUpInRow;
        if (s.givenUpInRow >= offlineAfter_)
            s.state = StationState::Offline;
    }
    if (before != StationState::Offline && s.state == StationState::Offline)
        return Change::WentOffline;
    if (before == StationState::Offline && s.state == StationState::Online)
        return Change::CameOnline;
    return Change::None;
}

void ValueStatus::readEnded(int station, const QString &reg, int address, int length, bool good, qint64 nowMs)
{
    for (int i = 0; i < length; ++i) {
        Unit &u = units_[UnitKey{station, reg, address + i}];
        u.lastFailed = !good;
        if (good)
            u.lastGoodMs = nowMs;
    }
}

Quality ValueStatus::quality(int station, const QString &reg, int address, qint64 nowMs) const
{
    const auto it = units_.constFind(UnitKey{station, reg, address});
    if (it == units_.constEnd())
        return Quality::NeverRead;
    // A read given up makes the unit stale even when none ever succeeded:
    // its value is then unknown (lastGoodMs -1), not 0.
    if (it->lastFailed || (staleAfterMs_ > 0 && nowMs - it->lastGoodMs > staleAfterMs_))
        return Quality::Stale;
    return Quality::Good;
}

qint64 ValueStatus::lastGoodMs(int station, const QString &reg, int address) const
{
    const auto it = units_.constFind(UnitKey{station, reg, address});
    return it == units_.constEnd() ? -1 : it->lastGoodMs;
}

bool ValueStatus::lastReadFailed(int station, const QString &reg, int address) const
{
    const auto it = units_.constFind(UnitKey{station, reg, address});
    return it != units_.constEnd() && it->lastFailed;
}

StationState ValueStatus::state(int station) const
{
    return stations_.value(station).state;
}

int ValueStatus::givenUpInRow(int station) const { return stations_.value(station).givenUpInRow; }

} // namespace kq71rt
