// watch: the cyclic plan of the driver, shown as a live table.
#include "commands.h"
#include "output.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kq71cli {

using namespace kq71rt;

namespace {

const int CYCLIC_JOB_ID = 4;
const qint64 HIGHLIGHT_MS = 1000;

struct Row {
    TypedAddress one;  // the single unit this row shows
    UnitValue value;
    bool known = false;
    bool failing = false;
    qint64 changedMs = -1000000;
};

class WatchView {
public:
    WatchView(Session &s, const QVector<TypedAddress> &targets) : s_(s), tty_(!s.options.json && isatty(1))
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
        clock_.start();
    }

    bool tty() const { return tty_; }

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
            printJson(statsJson(s_.runtime->stats()));
        } else {
            printLine(statsText(s_.runtime->stats()));
        }
    }

    // A cyclic read ended: its units are fresh, or stale when it was given up.
    void jobEnded(const Exchange &ex)
    {
        for (Row &r : rows_) {
            if (r.one.regName == ex.regName && r.one.address >= ex.address && r.one.address < ex.address + ex.length) {
                r.failing = ex.result == 2;
                r.known = r.known || ex.result == 1;
            }
        }
    }

    void changed(const ChangeReport &report)
    {
        const QList<int> hits = index_.values(key(report.regName, report.address));
        for (int i : hits) {
            refresh(rows_[i]);
            rows_[i].changedMs = clock_.elapsed();
            dirty_ = true;
            if (!shown_ || tty_)
                continue;
            if (s_.options.json) {
                QJsonObject o = valueJson(rows_[i].value);
                o["type"] = "change";
                printJson(o);
            } else {
                printLine(QString("%1 = %2").arg(rows_[i].value.name, valueText(rows_[i].value)));
            }
        }
    }

    // After the first full poll every value is known: show them all once.
    void showAll()
    {
        if (shown_)
            return;
        shown_ = true;
        dirty_ = true;
        for (Row &r : rows_) {
            refresh(r);
            if (tty_)
                continue;
            if (s_.options.json) {
                QJsonObject o = valueJson(r.value);
                o["type"] = "value";
                printJson(o);
            } else {
                printLine(QString("%1 = %2%3").arg(r.value.name, valueText(r.value), r.failing ? "  (no reply)" : ""));
            }
        }
    }

    void event(const QString &type, const QString &text)
    {
        dirty_ = true;
        if (tty_)
            return;  // the table's statistics carry it
        if (s_.options.json)
            printJson(QJsonObject{{"type", type}, {"job", text}});
        else
            printLine(QString("%1: %2").arg(type == "givenUp" ? "given up" : type, text));
    }

    void maybeDraw()
    {
        if (!tty_)
            return;
        const qint64 now = clock_.elapsed();
        if ((dirty_ && now - lastDrawMs_ >= 100) || now - lastDrawMs_ >= 500)
            draw();
    }

private:
    static QString key(const QString &reg, int address) { return reg + '/' + QString::number(address); }

    void refresh(Row &r)
    {
        const QByteArray b = s_.runtime->read(s_.options.station, r.one.regName, r.one.address, r.one.driverLength());
        r.value = decodeValues(r.one, b).value(0);
    }

    void draw()
    {
        winsize ws{};
        const int height = ioctl(1, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0 ? ws.ws_row : 24;
        const int fit = qMax(1, height - 8);
        const qint64 now = clock_.elapsed();
        QString out = "\x1b[H";
        auto line = [&out](const QString &l) { out += l + "\x1b[K\n"; };
        line(QString("kq71 watch  %1  (Ctrl-C stops)").arg(s_.link->describe()));
        line(QString());
        line(QString("%1 %2 %3 %4 %5").arg("ADDRESS", -12).arg("DECIMAL", 12).arg("HEX", 12).arg("SIGNED", 12)
                 .arg("FLOAT", 14));
        for (int i = 0; i < rows_.size() && i < fit; ++i) {
            const Row &r = rows_[i];
            const UnitValue &v = r.value;
            QString l = QString("%1 %2 %3 %4 %5")
                            .arg(v.name, -12)
                            .arg(r.known || shown_ ? QString::number(v.raw) : QString("..."), 12)
                            .arg(hexText(v), 12)
                            .arg(signedText(v), 12)
                            .arg(floatText(v), 14);
            if (r.failing)
                l += "  no reply";
            if (now - r.changedMs < HIGHLIGHT_MS)
                l = "\x1b[1m" + l + "\x1b[0m";
            line(l);
        }
        if (rows_.size() > fit)
            line(QString("... %1 more").arg(rows_.size() - fit));
        line(QString());
        for (const QString &l : statsText(s_.runtime->stats()).split('\n'))
            line(l);
        out += "\x1b[J";
        std::fputs(out.toLocal8Bit().constData(), stdout);
        std::fflush(stdout);
        dirty_ = false;
        lastDrawMs_ = now;
    }

    Session &s_;
    bool tty_;
    QVector<Row> rows_;
    QMultiHash<QString, int> index_;
    QElapsedTimer clock_;
    bool shown_ = false;
    bool dirty_ = true;
    qint64 lastDrawMs_ = -1000;
};

} // namespace

int cmdWatch(Session &s)
{
    if (s.options.args.isEmpty()) {
        printError(false, "watch: name at least one address, e.g. kq71 watch D100:4 X20:8");
        return EXIT_USAGE;
    }
    QVector<TypedAddress> targets;
    if (!s.resolve(s.options.args, ACCESS_READ, &targets))
        return EXIT_FAILED;
    Runtime &rt = *s.runtime;

    QList<KEY_ADDRESS> keys;
    for (const TypedAddress &target : targets) {
        KEY_ADDRESS key;
        key.station = s.options.station;
        key.regName = target.regName;
        key.address = target.address;
        key.dataType = target.dataType();
        key.length = target.driverLength();
        keys << key;
        if (s.sim && s.options.simMove)
            addMovers(*s.sim, target.regName, target.address, target.count);
    }
    const int jobs = rt.watch(keys);
    if (jobs <= 0) {
        printError(s.options.json, "the driver planned no reads for these addresses");
        return EXIT_FAILED;
    }

    WatchView view(s, targets);
    view.begin();
    QHash<QString, bool> failingJobs;
    qint64 cyclicDone = 0;
    const qint64 startUs = s.link->clockUs();
    for (;;) {
        if (interrupted())
            break;
        if (s.options.count > 0 && cyclicDone >= qint64(s.options.count) * jobs)
            break;
        if (s.options.seconds > 0 && s.link->clockUs() - startUs >= qint64(s.options.seconds * 1e6))
            break;
        const Exchange ex = rt.step();
        if (!ex.sent) {
            s.link->idle(5000);
        } else if (ex.result == 1 || ex.result == 2) {
            const QString job = QString("%1#%2%3(%4)").arg(ex.station).arg(ex.regName).arg(ex.address).arg(ex.length);
            if (ex.jobId == CYCLIC_JOB_ID && !ex.write) {
                ++cyclicDone;
                view.jobEnded(ex);
            }
            if (ex.result == 2 && !failingJobs.value(job)) {
                failingJobs[job] = true;
                view.event("givenUp", ex.describe());
            } else if (ex.result == 1 && failingJobs.value(job)) {
                failingJobs[job] = false;
                view.event("recovered", ex.errorText);
            }
        }
        for (const ChangeReport &r : rt.takeReports())
            view.changed(r);
        if (cyclicDone >= jobs)
            view.showAll();
        view.maybeDraw();
    }
    view.showAll();
    view.end();
    return EXIT_OK;
}

} // namespace kq71cli
