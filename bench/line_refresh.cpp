// The line itself: one full refresh of a panel's watch list over the simulated
// PLC at a given baud rate, through the stand-in runtime and the driver loaded
// by file name. The simulated line keeps virtual time, so the run takes only
// CPU time; that CPU time is what the driver and the runtime's loop add to
// the frames' own wire time.
#include "driver_library.h"
#include "plc_map.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <QtCore/QtGlobal>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <ctime>
#include <random>

namespace {

void silence(QtMsgType, const QMessageLogContext &, const QString &) {}

double threadCpuUs()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

// The simulated link, with the CPU time spent inside it (the simulated PLC
// and the line model, which on a panel are the PLC and the serial driver).
class TimedLink : public kq71rt::Link {
public:
    explicit TimedLink(kq71rt::Link &inner) : inner_(inner) {}
    bool open(QString *error) override { return inner_.open(error); }
    QString describe() const override { return inner_.describe(); }
    QByteArray exchange(const QByteArray &request, int expected, int timeoutMs) override
    {
        const double t0 = threadCpuUs();
        const QByteArray reply = inner_.exchange(request, expected, timeoutMs);
        linkError_ = inner_.linkError();
        cpuUs += threadCpuUs() - t0;
        return reply;
    }
    qint64 clockUs() const override { return inner_.clockUs(); }
    qint64 wireTimeUs() const override { return inner_.wireTimeUs(); }
    void idle(qint64 us) override { inner_.idle(us); }

    double cpuUs = 0;

private:
    kq71rt::Link &inner_;
};

kq71rt::DriverLibrary *loadDriver()
{
    static kq71rt::DriverLibrary lib;
    if (!lib.loaded()) {
        const QByteArray fromEnv = qgetenv("KQ71_DRIVER");
        QString error;
        if (!lib.load(fromEnv.isEmpty() ? QString::fromLatin1(KQ71_DRIVER_FILE) : QString::fromLocal8Bit(fromEnv),
                      &error)) {
            fprintf(stderr, "%s\n", qPrintable(error));
            return nullptr;
        }
    }
    return &lib;
}

KEY_ADDRESS key(const char *reg, int address, int length, int dataType)
{
    KEY_ADDRESS k;
    k.station = 1;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    k.dataType = dataType;
    return k;
}

// A panel's watch list on station 1: data words, relays, inputs and 32-bit
// counters, each key one screen object (1-4 words, 1-16 bits, one or two
// 32-bit values), addresses drawn within the areas a program uses.
QList<KEY_ADDRESS> panelWatchList(int n, unsigned seed)
{
    struct Area {
        const char *reg;
        int lo, count, dataType, maxLength, step, share;
    };
    static const Area areas[] = {
        {"D", 0, 4000, 0, 4, 1, 40},   {"M", 0, 3000, -1, 16, 1, 30}, {"X", 0, 256, -1, 8, 1, 10},
        {"256CC", 256, 1000, 0, 2, 2, 15}, {"200CC", 200, 56, 0, 2, 2, 5},
    };
    std::mt19937 rng(seed);
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < n; ++i) {
        int pick = int(rng() % 100);
        const Area *a = areas;
        while (pick >= a->share) {
            pick -= a->share;
            ++a;
        }
        const int length = (1 + int(rng() % unsigned(a->maxLength))) * a->step;
        keys.append(key(a->reg, a->lo + int(rng() % unsigned(a->count)), length, a->dataType));
    }
    return keys;
}

// Values that move under every watched unit, so that each refresh brings
// changes to report and read back.
void moveEverything(kq71sim::PlcSimulator &sim, const QList<KEY_ADDRESS> &keys)
{
    for (const KEY_ADDRESS &k : keys) {
        const bool dword = kq71rt::unitKindOf(k.regName) == kq71rt::UnitKind::DoubleWord;
        kq71rt::addMovers(sim, k.regName, k.address, dword ? k.length / 2 : k.length);
    }
}

// One refresh of a 2,000-key watch list. cpu_time is the whole loop: the
// driver, the runtime (which reads back every reported value), the simulated
// PLC and the line model. Counters per refresh: wire_us, the frames' wire
// time (each character 11 bits at the baud rate, 3.5 characters of silence
// after each frame); link_cpu_us, the CPU time inside the simulated link.
void BM_LineRefresh(benchmark::State &state)
{
    qInstallMessageHandler(silence);
    kq71rt::DriverLibrary *lib = loadDriver();
    if (!lib) {
        state.SkipWithError("driver not loaded");
        return;
    }
    const int baud = int(state.range(0));
    kq71sim::PlcSimulator sim;
    kq71rt::SimLinkOptions simOptions;
    simOptions.baud = baud;
    kq71rt::SimLink simLink(sim, simOptions);
    TimedLink link(simLink);
    QString error;
    link.open(&error);
    kq71rt::Runtime rt(*lib, link);
    rt.start();
    const QList<KEY_ADDRESS> keys = panelWatchList(2000, 5);
    moveEverything(sim, keys);
    const int jobs = rt.watch(keys);

    const double charUs = 11e6 / baud;
    double wireUs = 0, linkCpuUs = 0, frames = 0, reports = 0, bad = 0, simWireUs = 0;
    auto refresh = [&](bool count) {
        const double cpu0 = link.cpuUs;
        const qint64 simWire0 = link.wireTimeUs();
        for (int j = 0; j < jobs; ++j) {
            const kq71rt::Exchange ex = rt.step();
            if (count) {
                wireUs += (ex.request.size() + ex.reply.size() + 2 * 3.5) * charUs;
                frames += ex.sent ? 1 : 0;
                bad += ex.result == 1 ? 0 : 1;
            }
            // The panel reads each changed value back, as its screens do.
            const QVector<kq71rt::ChangeReport> changed = rt.takeReports();
            for (const kq71rt::ChangeReport &c : changed) {
                const bool dword = kq71rt::unitKindOf(c.regName) == kq71rt::UnitKind::DoubleWord;
                benchmark::DoNotOptimize(rt.read(c.station, c.regName, c.address, dword ? 2 : 1));
            }
            if (count)
                reports += changed.size();
        }
        if (count) {
            linkCpuUs += link.cpuUs - cpu0;
            simWireUs += double(link.wireTimeUs() - simWire0);
        }
    };
    refresh(false); // the first values arrive; every unit changes once
    for (auto _ : state)
        refresh(true);

    using benchmark::Counter;
    state.counters["wire_us"] = Counter(wireUs, Counter::kAvgIterations);
    state.counters["link_cpu_us"] = Counter(linkCpuUs, Counter::kAvgIterations);
    state.counters["sim_wire_us"] = Counter(simWireUs, Counter::kAvgIterations);
    state.counters["frames"] = Counter(frames, Counter::kAvgIterations);
    state.counters["reports"] = Counter(reports, Counter::kAvgIterations);
    state.counters["bad_replies"] = Counter(bad, Counter::kAvgIterations);
    state.counters["keys"] = keys.size();
    state.counters["blocks"] = jobs;
}
BENCHMARK(BM_LineRefresh)->Arg(115200)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
