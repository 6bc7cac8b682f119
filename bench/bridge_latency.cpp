// The bridge end to end: a value changes in the simulated PLC (paced like a
// real 115200 baud line), the driver polls it, the bridge publishes it, a
// mosquitto broker on loopback passes it on, a subscriber receives it. The
// latency is set against the line's own cycle time (one poll of every tag).
// A second benchmark runs the line in virtual time with every tag changing
// on every poll and reports the CPU time per published value.
#include "bridge.h"
#include "broker.h"
#include "plc_map.h"
#include "sim_link.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QtGlobal>

#include <benchmark/benchmark.h>
#include <mosquitto.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <mutex>
#include <random>
#include <unordered_map>

using namespace kq71bridge;
using namespace kq71rt;

namespace {

using Clock = std::chrono::steady_clock;

void silence(QtMsgType, const QMessageLogContext &, const QString &) {}

double processCpuUs()
{
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

DriverLibrary &driver()
{
    static DriverLibrary lib;
    if (!lib.loaded()) {
        QString error;
        if (!lib.load(KQ71_DRIVER_FILE, &error))
            qFatal("%s", qPrintable(error));
    }
    return lib;
}

QVector<Tag> wordTags(int n)
{
    QJsonArray list;
    for (int i = 0; i < n; ++i)
        list.append(QJsonObject{{"name", QString("w%1").arg(i)}, {"address", QString("D%1").arg(i)}, {"type", "uint16"}});
    QVector<Tag> tags;
    QStringList errors;
    if (!parseTags(QJsonDocument(list).toJson(), driver(), registerCatalogue(driver()), 1, &tags, &errors))
        qFatal("%s", qPrintable(errors.join('\n')));
    return tags;
}

// A subscriber on raw libmosquitto that stamps each message as it arrives.
class Stamper {
public:
    explicit Stamper(int port)
    {
        mosq_ = mosquitto_new(nullptr, true, this);
        mosquitto_message_callback_set(mosq_, [](mosquitto *, void *self, const mosquitto_message *m) {
            auto *s = static_cast<Stamper *>(self);
            const auto now = Clock::now();
            std::lock_guard<std::mutex> lock(s->mutex_);
            s->arrivals_[std::string(m->topic) + '=' +
                         std::string(static_cast<const char *>(m->payload), size_t(m->payloadlen))] = now;
        });
        mosquitto_connect_callback_set(mosq_, [](mosquitto *m, void *, int) {
            mosquitto_subscribe(m, nullptr, "bench/tag/+", 0);
        });
        mosquitto_connect(mosq_, "127.0.0.1", port, 30);
        mosquitto_loop_start(mosq_);
    }
    ~Stamper()
    {
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, false);
        mosquitto_destroy(mosq_);
    }
    bool arrived(const std::string &key, Clock::time_point *at)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = arrivals_.find(key);
        if (it == arrivals_.end())
            return false;
        *at = it->second;
        return true;
    }

private:
    mosquitto *mosq_;
    std::mutex mutex_;
    std::unordered_map<std::string, Clock::time_point> arrivals_;
};

struct Bench {
    Bench(int tags, bool paced) : link(sim, SimLinkOptions{115200, paced}), runtime(driver(), link), tags(wordTags(tags))
    {
        QString error;
        if (!broker.start(&error))
            qFatal("%s", qPrintable(error));
        link.open(&error);
        runtime.start();
        MqttSettings ms;
        ms.port = broker.port;
        mqtt.reset(new MqttClient(ms));
        BridgeOptions bo;
        bo.root = "bench";
        bridge.reset(new Bridge(runtime, *mqtt, this->tags, bo));
        bridge->log = [](const QString &) {};
        if (!bridge->start(&error) || !mqtt->start(&error))
            qFatal("%s", qPrintable(error));
    }
    ~Bench() { bridge->shutdown(); }

    // Until connected and one full poll has published every tag.
    void warmUp()
    {
        const auto end = Clock::now() + std::chrono::seconds(60);
        while ((bridge->stats().connects == 0 || bridge->stats().cyclicReads < quint64(bridge->stats().plannedReads)) &&
               Clock::now() < end)
            bridge->step();
    }

    kq71test::TestBroker broker;
    kq71sim::PlcSimulator sim;
    SimLink link;
    Runtime runtime;
    QVector<Tag> tags;
    std::unique_ptr<MqttClient> mqtt;
    std::unique_ptr<Bridge> bridge;
};

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5))];
}

// Changes of distinct tags spread over about two poll cycles; each one's
// time from the change to its arrival at the subscriber.
void BM_BridgeLatency(benchmark::State &state)
{
    qInstallMessageHandler(silence);
    const int n = int(state.range(0));
    Bench b(n, true);
    b.warmUp();
    Stamper subscriber(b.broker.port);
    std::mt19937 rng(7);
    std::vector<double> latencies;
    double cycleMs = 0;
    for (auto _ : state) {
        const int samples = std::min(n, 100);
        // The cycle time, from the poll just before.
        const auto t0 = Clock::now();
        const quint64 reads0 = b.bridge->stats().cyclicReads;
        while (b.bridge->stats().cyclicReads < reads0 + quint64(b.bridge->stats().plannedReads))
            b.bridge->step();
        cycleMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        const double spacingMs = 2 * cycleMs / samples;

        std::vector<int> order(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i)
            order[size_t(i)] = i;
        std::shuffle(order.begin(), order.end(), rng);
        struct Change {
            std::string key;
            Clock::time_point at;
            bool done;
        };
        std::vector<Change> changes;
        const auto start = Clock::now(), end = start + std::chrono::milliseconds(qint64(6 * cycleMs) + 10000);
        quint16 value = quint16(1000 + state.iterations());
        while (Clock::now() < end) {
            const double elapsedMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
            while (int(changes.size()) < samples && elapsedMs >= spacingMs * double(changes.size())) {
                const int tag = order[changes.size()];
                b.sim.setReg(placeOf("D", tag).wire, ++value);
                changes.push_back({"bench/tag/w" + std::to_string(tag) + '=' + std::to_string(value), Clock::now(),
                                   false});
            }
            b.bridge->step();
            bool all = int(changes.size()) == samples;
            for (Change &c : changes) {
                Clock::time_point at;
                if (!c.done && subscriber.arrived(c.key, &at)) {
                    c.done = true;
                    latencies.push_back(std::chrono::duration<double, std::milli>(at - c.at).count());
                }
                all = all && c.done;
            }
            if (all)
                break;
        }
    }
    state.counters["tags"] = n;
    state.counters["cycle_ms"] = cycleMs;
    state.counters["samples"] = double(latencies.size());
    state.counters["median_ms"] = percentile(latencies, 0.5);
    state.counters["p99_ms"] = percentile(latencies, 0.99);
    state.counters["median_cycles"] = cycleMs > 0 ? percentile(latencies, 0.5) / cycleMs : 0;
    state.counters["p99_cycles"] = cycleMs > 0 ? percentile(latencies, 0.99) / cycleMs : 0;
}
BENCHMARK(BM_BridgeLatency)->Arg(100)->Arg(10000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Every tag changes on every poll; the line keeps virtual time, so the run
// is all CPU: the driver, the bridge and libmosquitto (and the simulated
// PLC and the broker's share of this machine, which a plant does not pay).
void BM_BridgeCpuPerValue(benchmark::State &state)
{
    qInstallMessageHandler(silence);
    const int n = int(state.range(0));
    Bench b(n, false);
    b.warmUp();
    for (int i = 0; i < n; ++i)
        b.sim.addCounter(placeOf("D", i).wire);
    double cpuUs = 0;
    quint64 values = 0;
    for (auto _ : state) {
        const quint64 v0 = b.bridge->stats().valuesPublished, reads0 = b.bridge->stats().cyclicReads;
        const double c0 = processCpuUs();
        while (b.bridge->stats().cyclicReads < reads0 + 3 * quint64(b.bridge->stats().plannedReads))
            b.bridge->step();
        cpuUs += processCpuUs() - c0;
        values += b.bridge->stats().valuesPublished - v0;
    }
    state.counters["values"] = double(values);
    state.counters["cpu_us_per_value"] = values ? cpuUs / double(values) : 0;
}
BENCHMARK(BM_BridgeCpuPerValue)->Arg(10000)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
