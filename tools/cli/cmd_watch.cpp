// watch: the cyclic plan of the driver, polled once per interval and shown as
// a live table on a terminal, or as timed lines (text or JSON) in a pipe.
#include "commands.h"
#include "output.h"
#include "value_status.h"

#include <QtCore/QDateTime>
#include <QtCore/QHash>

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kq71cli {

using namespace kq71rt;

namespace {

const int CYCLIC_JOB_ID = 4;
const qint64 HIGHLIGHT_MS = 1000;
// Jobs in a row given up before a station counts as offline.
const int OFFLINE_AFTER = 3;
// A value is stale when older than this many intervals (or rounds of the
// plan, when a round takes longer), and never sooner than the floor.
const int STALE_ROUNDS = 3;
const qint64 STALE_FLOOR_MS = 1000;

struct Row {
    TypedAddress one;  // the single unit this row shows
    UnitValue value;
    Quality shownQuality = Quality::NeverRead;
    qint64 changedMs = -1000000;
};

class WatchView {
public:
    WatchView(Session &s, const QVector<TypedAddress> &targets, const ValueStatus &status)
        : s_(s), status_(status), tty_(!s.options.json && isatty(1))
    {
        for (const TypedAddress &target : targets) {
            for (int i = 0; i < target.count; ++i) {
                Row r;
                r.one = target;
                r.one.address = target.address + i;
                r.one.count = 1;
                r.value = decodeValues(r.one, QByteArray()).value(0);
                index_.insert(key(target.regName, r.one.address), rows_.size());
                rows_ << r;
            }
        }
        wallStart_ = QDateTime::currentDateTimeUtc();
        clockStartUs_ = s.link->clockUs();
    }

    void begin()
    {
        if (tty_)
            std::fputs("\x1b[?25l\x1b[2J", stdout);
    }

    void end()
    {
        if (tty_) {
            draw();
            std::fputs("\x1b[?25h", stdout);
            std::fflush(stdout);
        } else if (s_.options.json) {
            QJsonObject o = statsJson(s_.runtime->stats());
            o["time"] = isoTime(now());
            printJson(o);
        } else {
            printLine(statsText(s_.runtime->stats()));
        }
    }

    qint64 nowMs() const { return s_.link->clockUs() / 1000; }

    void changed(const ChangeReport &report)
    {
        const QList<int> hits = index_.values(key(report.regName, report.address));
        for (int i : hits) {
            refresh(rows_[i]);
            rows_[i].changedMs = nowMs();
            dirty_ = true;
            if (!shown_)
                continue;
            // The line shows the quality too: no second line for it.
            rows_[i].shownQuality = quality(rows_[i]);
            if (!tty_)
                printRow(rows_[i], "change");
        }
    }

    // After the first full round every value has been tried: show them all once.
    void showAll()
    {
        if (shown_)
            return;
        shown_ = true;
        dirty_ = true;
        for (Row &r : rows_) {
            refresh(r);
            r.shownQuality = quality(r);
            if (!tty_)
                printRow(r, "value");
        }
    }

    // Shows every unit whose quality changed since it was last shown: a read
    // given up, a value grown too old, a good read again.
    void qualityChanges()
    {
        if (!shown_)
            return;
        for (Row &r : rows_) {
            const Quality q = quality(r);
            if (q == r.shownQuality)
                continue;
            r.shownQuality = q;
            refresh(r);
            dirty_ = true;
            if (!tty_)
                printRow(r, "quality");
        }
    }

    void event(const QString &type, const QJsonObject &fields, const QString &text)
    {
        dirty_ = true;
        if (type != "givenUp" && type != "recovered")
            notice_ = QString("%1 %2").arg(localTime(now()), text);
        if (tty_)
            return;  // the table's status lines carry it
        if (s_.options.json) {
            QJsonObject o = fields;
            o["type"] = type;
            o["time"] = isoTime(now());
            printJson(o);
        } else {
            printLine(QString("%1 %2").arg(localTime(now()), text));
        }
    }

    void maybeDraw()
    {
        if (!tty_)
            return;
        const qint64 t = nowMs();
        if ((dirty_ && t - lastDrawMs_ >= 100) || t - lastDrawMs_ >= 500 || t < lastDrawMs_)
            draw();
    }

private:
    static QString key(const QString &reg, int address) { return reg + '/' + QString::number(address); }

    // Wall time of the link's clock: the simulator's virtual time runs ahead.
    QDateTime now() const { return wallAt(nowMs()); }
    QDateTime wallAt(qint64 clockMs) const { return wallStart_.addMSecs(clockMs - clockStartUs_ / 1000); }

    Quality quality(const Row &r) const { return status_.quality(s_.options.station, r.one.regName, r.one.address, nowMs()); }
    bool hasValue(const Row &r) const { return status_.lastGoodMs(s_.options.station, r.one.regName, r.one.address) >= 0; }

    QString mark(const Row &r) const
    {
        switch (quality(r)) {
        case Quality::Good:
            return QString();
        case Quality::NeverRead:
            return "never read";
        default: {
            const qint64 last = status_.lastGoodMs(s_.options.station, r.one.regName, r.one.address);
            if (last < 0)
                return "STALE: no reply, never read";
            const QString age = QString::number((nowMs() - last) / 1000.0, 'f', 1);
            if (status_.lastReadFailed(s_.options.station, r.one.regName, r.one.address))
                return QString("STALE: no reply, value of %1 s ago").arg(age);
            return QString("STALE: %1 s old").arg(age);
        }
        }
    }

    void printRow(const Row &r, const char *type)
    {
        const QString station = stationStateName(status_.state(s_.options.station));
        if (s_.options.json) {
            QJsonObject o;
            if (hasValue(r)) {
                o = valueJson(r.value);
                o["readAt"] = isoTime(wallAt(status_.lastGoodMs(s_.options.station, r.one.regName, r.one.address)));
            } else {
                // Never read well: the cache's 0 is no value.
                o = QJsonObject{{"name", r.value.name}, {"reg", r.value.regName}, {"address", r.value.address},
                                {"value", QJsonValue::Null}, {"readAt", QJsonValue::Null}};
            }
            o["type"] = type;
            o["time"] = isoTime(now());
            o["quality"] = qualityName(quality(r));
            o["station"] = s_.options.station;
            o["stationState"] = station;
            printJson(o);
            return;
        }
        QString line = QString("%1 %2 = %3").arg(localTime(now()), r.value.name,
                                                hasValue(r) ? valueText(r.value) : QString("?"));
        const QString m = mark(r);
        if (!m.isEmpty())
            line += "  [" + m + "]";
        printLine(line);
    }

    void refresh(Row &r)
    {
        const QByteArray b = s_.runtime->read(s_.options.station, r.one.regName, r.one.address, r.one.driverLength());
        r.value = decodeValues(r.one, b).value(0);
    }

    void draw()
    {
        winsize ws{};
        const int height = ioctl(1, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0 ? ws.ws_row : 24;
        const int fit = qMax(1, height - 9);
        const qint64 t = nowMs();
        QString out = "\x1b[H";
        auto line = [&out](const QString &l) { out += l + "\x1b[K\n"; };
        line(QString("kq71 watch  %1  %2  station %3 %4  (Ctrl-C stops)")
                 .arg(s_.link->describe(), localTime(now()))
                 .arg(s_.options.station)
                 .arg(stationStateName(status_.state(s_.options.station))));
        line(QString());
        line(QString("%1 %2 %3 %4 %5  %6").arg("ADDRESS", -12).arg("DECIMAL", 12).arg("HEX", 12).arg("SIGNED", 12)
                 .arg("FLOAT", 14).arg("QUALITY"));
        for (int i = 0; i < rows_.size() && i < fit; ++i) {
            const Row &r = rows_[i];
            const UnitValue &v = r.value;
            const bool known = hasValue(r);
            QString l = QString("%1 %2 %3 %4 %5  %6")
                            .arg(v.name, -12)
                            .arg(known ? QString::number(v.raw) : QString("?"), 12)
                            .arg(known ? hexText(v) : QString(), 12)
                            .arg(known ? signedText(v) : QString(), 12)
                            .arg(known ? floatText(v) : QString(), 14)
                            .arg(quality(r) == Quality::Good ? QString("good") : mark(r));
            if (t - r.changedMs < HIGHLIGHT_MS)
                l = "\x1b[1m" + l + "\x1b[0m";
            line(l);
        }
        if (rows_.size() > fit)
            line(QString("... %1 more").arg(rows_.size() - fit));
        line(QString());
        for (const QString &l : statsText(s_.runtime->stats()).split('\n'))
            line(l);
        line(notice_);
        out += "\x1b[J";
        std::fputs(out.toLocal8Bit().constData(), stdout);
        std::fflush(stdout);
        dirty_ = false;
        lastDrawMs_ = t;
    }

    Session &s_;
    const ValueStatus &status_;
    bool tty_;
    QVector<Row> rows_;
    QMultiHash<QString, int> index_;
    QDateTime wallStart_;
    qint64 clockStartUs_ = 0;
    bool shown_ = false;
    bool dirty_ = true;
    qint64 lastDrawMs_ = -1000;
    QString notice_;
};

} // namespace

int cmdWatch(Session &s)
{
    if (s.options.args.isEmpty()) {
        printError(s.options.json, "watch: name at least one address, e.g. kq71 watch D100:4 X20:8");
        return EXIT_USAGE;
    }
    QVector<TypedAddress> targets;
    if (!s.resolve(s.options.args, ACCESS_READ, &targets))
        return EXIT_USAGE;
    Runtime &rt = *s.runtime;

    QList<KEY_ADDRESS> keys;
    for (const TypedAddress &target : targets) {
        keys << watchKey(s.options.station, target);
        if (s.sim && s.options.simMove)
            addMovers(*s.sim, target.regName, target.address, target.count);
    }
    const int jobs = rt.watch(keys);
    if (jobs <= 0) {
        printError(s.options.json, "the driver planned no reads for these addresses");
        return EXIT_FAILED;
    }

    ValueStatus status(OFFLINE_AFTER);
    const qint64 intervalUs = qint64(s.options.intervalMs) * 1000;
    WatchView view(s, targets, status);
    view.begin();
    QHash<QString, bool> failingJobs;
    qint64 cyclicDone = 0;
    int roundDone = 0;
    const qint64 startUs = s.link->clockUs();
    qint64 roundStartUs = startUs;
    const auto timeIsUp = [&] {
        return s.options.seconds > 0 && s.link->clockUs() - startUs >= qint64(s.options.seconds * 1e6);
    };
    for (;;) {
        if (interrupted() || timeIsUp())
            break;
        if (s.options.count > 0 && cyclicDone >= qint64(s.options.count) * jobs)
            break;
        if (roundDone >= jobs) {
            // A round of the plan is done: the next starts one interval after
            // this one started (at once when the round took longer).
            const qint64 roundUs = s.link->clockUs() - roundStartUs;
            status.setStaleAfterMs(qMax(STALE_ROUNDS * qMax(intervalUs, roundUs) / 1000, STALE_FLOOR_MS));
            while (s.link->clockUs() - roundStartUs < intervalUs && !interrupted() && !timeIsUp()) {
                s.link->idle(qMin<qint64>(50000, intervalUs - (s.link->clockUs() - roundStartUs)));
                view.qualityChanges();
                view.maybeDraw();
            }
            roundStartUs = s.link->clockUs();
            roundDone = 0;
            continue;
        }
        const Exchange ex = rt.step();
        for (const LinkEvent &e : s.link->takeEvents())
            view.event("link", QJsonObject{{"state", e.up ? "up" : "down"}, {"message", e.text}},
                       QString("link %1: %2").arg(e.up ? "up" : "down", e.text));
        if (!ex.sent) {
            s.link->idle(5000);
        } else if (ex.result == 1 || ex.result == 2) {
            const bool good = ex.result == 1;
            const QString job = QString("%1#%2%3(%4)").arg(ex.station).arg(ex.regName).arg(ex.address).arg(ex.length);
            if (ex.jobId == CYCLIC_JOB_ID && !ex.write) {
                ++cyclicDone;
                ++roundDone;
                status.readEnded(ex.station, ex.regName, ex.address, ex.length, good, view.nowMs());
            }
            switch (status.jobEnded(ex.station, good)) {
            case ValueStatus::Change::WentOffline:
                view.event("station",
                           QJsonObject{{"station", ex.station}, {"state", "offline"}, {"message", ex.describe()}},
                           QString("station %1 offline: %2 jobs in a row given up, the last %3")
                               .arg(ex.station)
                               .arg(status.givenUpInRow(ex.station))
                               .arg(ex.describe()));
                break;
            case ValueStatus::Change::CameOnline:
                view.event("station", QJsonObject{{"station", ex.station}, {"state", "online"}},
                           QString("station %1 online again").arg(ex.station));
                break;
            default:
                break;
            }
            if (!good && !failingJobs.value(job)) {
                failingJobs[job] = true;
                view.event("givenUp", QJsonObject{{"job", ex.describe()}}, "given up: " + ex.describe());
            } else if (good && failingJobs.value(job)) {
                failingJobs[job] = false;
                view.event("recovered", QJsonObject{{"job", ex.errorText}}, "recovered: " + ex.errorText);
            }
        }
        for (const ChangeReport &r : rt.takeReports())
            view.changed(r);
        if (cyclicDone >= jobs)
            view.showAll();
        view.qualityChanges();
        view.maybeDraw();
    }
    view.showAll();
    view.end();
    if (!status.anyGood()) {
        printError(s.options.json, "no good reply from the PLC while watching");
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

} // namespace kq71cli
