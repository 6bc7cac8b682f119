// How far a runtime may trust each value it shows, and whether each station
// answers: what a panel, a command line or a gateway marks next to a value.
#ifndef KQ71_RUNTIME_VALUE_STATUS_H
#define KQ71_RUNTIME_VALUE_STATUS_H

#include <QtCore/QHash>
#include <QtCore/QString>

namespace kq71rt {

enum class Quality {
    NeverRead,  // no read of it has ended yet: the cache's 0 means nothing
    Good,       // read, and recently enough
    Stale,      // its last read was given up (perhaps its only one), or it is
                // older than the stale age; lastGoodMs() tells which value it has
};

enum class StationState {
    Unknown,  // no job of it has ended yet
    Online,   // its last job ended well, or too few in a row were given up
    Offline,  // several jobs in a row given up; online again at the next good reply
};

const char *qualityName(Quality q);       // "never-read", "good", "stale"
const char *stationStateName(StationState s);  // "unknown", "online", "offline"

class ValueStatus {
public:
    // offlineAfter: jobs in a row given up that make a station offline.
    explicit ValueStatus(int offlineAfter = 3) : offlineAfter_(qMax(offlineAfter, 1)) {}

    // Values older than this are stale; 0 (the default) ages nothing.
    void setStaleAfterMs(qint64 ms) { staleAfterMs_ = ms; }
    qint64 staleAfterMs() const { return staleAfterMs_; }

    enum class Change { None, WentOffline, CameOnline };

    // Any job of the station ended: good, or given up. Returns the change of
    // the station's state this causes.
    Change jobEnded(int station, bool good);
    // A read of `length` units from `address` ended at nowMs (any clock, used
    // consistently): the units are fresh, or stale when it was given up.
    void readEnded(int station, const QString &reg, int address, int length, bool good, qint64 nowMs);

    Quality quality(int station, const QString &reg, int address, qint64 nowMs) const;
    // When the unit was last read well; -1 when never.
    qint64 lastGoodMs(int station, const QString &reg, int address) const;
    // Whether the unit's last read was given up.
    bool lastReadFailed(int station, const QString &reg, int address) const;

    StationState state(int station) const;
    // The stations any job has ended for.
    QList<int> stations() const { return stations_.keys(); }
    int givenUpInRow(int station) const;
    // Whether any job of any station has ended well.
    bool anyGood() const { return anyGood_; }

private:
    struct UnitKey {
        int station;
        QString reg;
        int address;
        bool operator==(const UnitKey &o) const
        {
            return station == o.station && address == o.address && reg == o.reg;
        }
    };
    friend uint qHash(const UnitKey &k, uint seed) { return qHash(k.reg, seed) ^ uint(k.address * 31 + k.station); }
    struct Unit {
        qint64 lastGoodMs = -1;
        bool lastFailed = false;
    };
    struct Station {
        int givenUpInRow = 0;
        StationState state = StationState::Unknown;
    };

    int offlineAfter_;
    qint64 staleAfterMs_ = 0;
    bool anyGood_ = false;
    QHash<UnitKey, Unit> units_;
    QHash<int, Station> stations_;
};

} // namespace kq71rt

#endif
