// Costs of the driver's hot paths, driven through the entry points as the
// runtime drives them, and through internal routines where that isolates one
// cost. The limits are ratios within one run, checked by bench/check_limits.py
// over the JSON output; absolute times on a shared machine prove little.
#include "driver_internals.h"
#include "reference_algorithms.h"

#include <QtCore/QtGlobal>
#if QT_VERSION >= 0x050000
#include <QtCore/QLoggingCategory>
#endif

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <random>
#include <vector>

namespace {

#if QT_VERSION >= 0x050000
void silence(QtMsgType, const QMessageLogContext &, const QString &) {}
void installSilence() { qInstallMessageHandler(silence); }
void withDebugLines() { QLoggingCategory::setFilterRules(QString()); }
// The literal planner writes no debug lines; where the two are compared, the
// driver writes none either.
void withoutDebugLines() { QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); }
#else
// Qt 4 has no logging rules: the driver always writes its debug lines there,
// and the comparisons with the literal planner include them.
void silence(QtMsgType, const char *) {}
void installSilence() { qInstallMsgHandler(silence); }
void withDebugLines() {}
void withoutDebugLines() {}
#endif

long reportCount = 0;
void countReport(int, int, const QString &, int) { ++reportCount; }

std::vector<unsigned char> sharedMem(KQ71_SHARED_MEM_MIN + 16);
std::vector<unsigned char> recipeBuf(65536);
QMutex runtimeMutex;

// Property text: device id 1, writes go to the PLC, 3 tries, merge gap 16
// (which is also the longest write piece in words).
void configure()
{
    installSilence();
    withDebugLines();
    int status = 0;
    intf_setAddrValueChangeCallBack(countReport);
    intf_initProperty(sharedMem.data(), nullptr, recipeBuf.data(), &status, "1#0#0#3#16", &runtimeMutex);
    reportCount = 0;
}

KEY_ADDRESS key(int station, const char *reg, int address, int length, int dataType = 0)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    k.dataType = dataType;
    return k;
}

// A panel's watch list: words, relays, inputs, 32-bit counters and bits in
// words, on four stations, each address inside its register's range. Lengths
// are what a screen object names: 1-4 words (2-8 for 32-bit values), 1-16 bits.
QList<KEY_ADDRESS> watchList(int n, unsigned seed)
{
    struct Kind {
        const char *reg;
        int lo, hi, dataType, maxLength, lengthStep;
    };
    static const Kind kinds[] = {
        {"D", 0, 9999, 0, 4, 1},      {"D", 0, 9999, 0, 4, 1},    {"D", 0, 9999, 0, 4, 1},
        {"M", 0, 9999, -1, 16, 1},    {"M", 0, 9999, -1, 16, 1},  {"X", 0, 255, -1, 16, 1},
        {"TC", 0, 9999, 0, 4, 1},     {"256CC", 256, 9999, 0, 4, 2}, {"200CP", 200, 255, 0, 4, 2},
        {"D_bit", 0, 159999, -1, 16, 1},
    };
    std::mt19937 rng(seed);
    QList<KEY_ADDRESS> keys;
    keys.reserve(n);
    for (int i = 0; i < n; ++i) {
        const Kind &k = kinds[rng() % (sizeof(kinds) / sizeof(kinds[0]))];
        const int station = 1 + int(rng() % 4);
        const int address = k.lo + int(rng() % unsigned(k.hi - k.lo + 1));
        const int length = (1 + int(rng() % unsigned(k.maxLength))) * k.lengthStep;
        keys.append(key(station, k.reg, address, length, k.dataType));
    }
    return keys;
}

// Puts `units` records in the cache on stations from 2 up (the benchmarks'
// own blocks are on station 1), 10,000 addresses per register, as a panel's
// cache grows over many screens.
void fillCache(int units)
{
    static const char *const regs[] = {"D", "M", "TC", "TP", "S", "T", "V", "Z"};
    ServiceLock lock;
    int made = 0;
    for (int station = 2; made < units; ++station) {
        for (const char *reg : regs) {
            const QString name = QString::fromLatin1(reg);
            for (int a = 0; a < 10000 && made < units; ++a, ++made)
                getIndexOfDataArea(station, name, a);
        }
    }
}

// Units of station 2's D words in a cache filled by fillCache.
int filledWords(int units) { return qMin(units, 10000); }

QByteArray withCrc(QByteArray r)
{
    const unsigned short crc =
        computate_check(reinterpret_cast<const unsigned char *>(r.constData()), static_cast<unsigned short>(r.size()));
    r.append(char(crc & 0xFF));
    r.append(char(crc >> 8));
    return r;
}

// A good reply to a read frame. Every third data word takes one of two values
// by round, so that alternating rounds change a third of the units.
QByteArray replyFor(const FRAME_PRO &frame, int round)
{
    QByteArray r;
    r.append(char(frame.frame[0]));
    r.append(char(frame.frame[1]));
    const int bytes = frame.recvLen - 5;
    r.append(char(bytes & 0xFF));
    for (int i = 0; i < bytes / 2; ++i) {
        const int v = (i % 3 == 0) ? (round & 1) * 1000 + i : i;
        r.append(char((v >> 8) & 0xFF));
        r.append(char(v & 0xFF));
    }
    if (bytes % 2)
        r.append(char(round & 1 ? 0x55 : 0xAA));
    return withCrc(r);
}

// The plan's next frame, queued and copied out.
FRAME_PRO nextFrame()
{
    FRAME_PRO frame;
    intf_getSendFrame(&frame);
    return frame;
}

// Shown with every result: change reports per iteration, and the cache's size.
void showCounts(benchmark::State &state, long reports)
{
    state.counters["reports"] = benchmark::Counter(double(reports), benchmark::Counter::kAvgIterations);
    state.counters["cache"] = driver.dataAreas.size();
}

// --- cache lookups: decode, read, write -----------------------------------

// One good 128-word read reply decoded into the cache, a third of the units
// changing, every unit watched, the callback registered.
void BM_Decode(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)) - 128);
    QList<KEY_ADDRESS> watch;
    watch.append(key(1, "D", 0, 128));
    intf_addrMerge(&watch);
    const FRAME_PRO frame = nextFrame();
    const QByteArray replies[2] = {replyFor(frame, 0), replyFor(frame, 1)};
    int round = 0;
    reportCount = 0;
    for (auto _ : state) {
        ServiceLock lock;
        analyzeFrameOfVal(replies[round++ & 1], frame.itemCount, frame.dataPos, frame.var);
    }
    showCounts(state, reportCount);
}
BENCHMARK(BM_Decode)->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000)->Arg(100000)->Arg(300000);

// Starting addresses of 16-word ranges spread over station 2's D words.
std::vector<int> spreadStarts(int units, int count)
{
    std::vector<int> starts;
    const int span = filledWords(units) - 16;
    for (int k = 0; k < count; ++k)
        starts.push_back(span * k / count);
    return starts;
}

// intf_getData of 16 words, from 64 places spread over the cache in turn.
void BM_GetData(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)));
    const std::vector<int> starts = spreadStarts(int(state.range(0)), 64);
    QString d = QString::fromLatin1("D");
    unsigned char values[64];
    size_t i = 0;
    for (auto _ : state) {
        intf_getData(2, &d, starts[i++ % starts.size()], 16, values);
        benchmark::DoNotOptimize(values);
    }
    state.counters["cache"] = driver.dataAreas.size();
}
BENCHMARK(BM_GetData)->Arg(1000)->Arg(100000);

// intf_setData of 16 words to 8 watched places in turn: one write job each,
// the values mirrored into the cache, a third of the words changing.
void BM_SetData(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)));
    const std::vector<int> starts = spreadStarts(int(state.range(0)), 8);
    QList<KEY_ADDRESS> watch;
    for (int s : starts)
        watch.append(key(2, "D", s, 16));
    intf_addrMerge(&watch);
    unsigned char values[2][64];
    for (int r = 0; r < 2; ++r)
        for (int w = 0; w < 16; ++w) {
            const int v = (w % 3 == 0) ? r * 1000 + w : w;
            values[r][2 * w] = static_cast<unsigned char>(v & 0xFF);
            values[r][2 * w + 1] = static_cast<unsigned char>(v >> 8);
        }
    QString d = QString::fromLatin1("D");
    reportCount = 0;
    size_t i = 0;
    for (auto _ : state) {
        const size_t k = i++;
        intf_setData(2, &d, starts[k % starts.size()], 16, values[(k / starts.size()) & 1], 1);
    }
    showCounts(state, reportCount);
    state.counters["queued"] = driver.writeJobs.size();
}
BENCHMARK(BM_SetData)->Arg(1000)->Arg(100000);

// --- one exchange ---------------------------------------------------------

// intf_getSendFrame and intf_dealRcvFrame of one 128-word block, a third of
// the units changing; the same block over and over.
void BM_Exchange(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)) - 128);
    QList<KEY_ADDRESS> watch;
    watch.append(key(1, "D", 0, 128));
    intf_addrMerge(&watch);
    const FRAME_PRO first = nextFrame();
    QByteArray replies[2] = {replyFor(first, 0), replyFor(first, 1)};
    QString error;
    FRAME_PRO frame;
    int round = 0;
    reportCount = 0;
    for (auto _ : state) {
        intf_getSendFrame(&frame);
        benchmark::DoNotOptimize(intf_dealRcvFrame(&replies[round++ & 1], &error));
    }
    showCounts(state, reportCount);
}
BENCHMARK(BM_Exchange)->Arg(1000)->Arg(100000);

// One round of the plan, in the order the cycle takes it: each block's reply
// in two versions (values a third apart), the first one handed in already.
void primeReplies(int jobs, std::vector<QByteArray> replies[2])
{
    QString error;
    for (int j = 0; j < jobs; ++j) {
        const FRAME_PRO f = nextFrame();
        replies[0].push_back(replyFor(f, 0));
        replies[1].push_back(replyFor(f, 1));
        intf_dealRcvFrame(&replies[0].back(), &error);
    }
}

// Exchanges of a plan that covers the whole cache: each exchange decodes a
// block the previous 781 did not touch, so the cache is cold as on a panel
// that polls many screens' worth of units.
void BM_ExchangeRoundRobin(benchmark::State &state)
{
    configure();
    const int units = int(state.range(0));
    QList<KEY_ADDRESS> watch;
    for (int made = 0, station = 1; made < units; ++station)
        for (int a = 0; a < 9984 && made < units; a += 128, made += 128)
            watch.append(key(station, "D", a, 128));
    const int jobs = intf_addrMerge(&watch);
    std::vector<QByteArray> replies[2];
    QString error;
    primeReplies(jobs, replies);
    FRAME_PRO frame;
    size_t i = 0;
    reportCount = 0;
    for (auto _ : state) {
        const size_t j = i % size_t(jobs), round = (i / size_t(jobs) + 1) & 1;
        ++i;
        intf_getSendFrame(&frame);
        benchmark::DoNotOptimize(intf_dealRcvFrame(&replies[round][j], &error));
    }
    showCounts(state, reportCount);
    state.counters["blocks"] = jobs;
}
BENCHMARK(BM_ExchangeRoundRobin)->Arg(100000);

// One refresh of a watch list: every block of its plan sent and answered,
// a third of the words changing, against a cache of 100,000 units. The list
// names either 10,000 bits inside words (D_bit 0..9999, 625 words) or the 625
// words that hold them; the plan is the same, the watched objects differ.
void refreshOfWatch(benchmark::State &state, const KEY_ADDRESS &watched)
{
    configure();
    fillCache(100000);
    QList<KEY_ADDRESS> watch;
    watch.append(watched);
    const int jobs = intf_addrMerge(&watch);
    std::vector<QByteArray> replies[2];
    QString error;
    primeReplies(jobs, replies);
    FRAME_PRO frame;
    int round = 1;
    reportCount = 0;
    for (auto _ : state) {
        for (int j = 0; j < jobs; ++j) {
            intf_getSendFrame(&frame);
            benchmark::DoNotOptimize(intf_dealRcvFrame(&replies[round & 1][size_t(j)], &error));
        }
        ++round;
    }
    showCounts(state, reportCount);
    state.counters["blocks"] = jobs;
}

void BM_RefreshBitsInWords(benchmark::State &state)
{
    refreshOfWatch(state, key(1, "D_bit", 0, 10000, -1));
}
BENCHMARK(BM_RefreshBitsInWords);

void BM_RefreshWords(benchmark::State &state)
{
    refreshOfWatch(state, key(1, "D", 0, 625));
}
BENCHMARK(BM_RefreshWords);

// --- planning -----------------------------------------------------------------

// intf_addrMerge of a watch list: marks, plan and debug lines.
void BM_AddrMerge(benchmark::State &state)
{
    configure();
    const QList<KEY_ADDRESS> keys = watchList(int(state.range(0)), 7);
    for (auto _ : state) {
        QList<KEY_ADDRESS> copy = keys;
        benchmark::DoNotOptimize(intf_addrMerge(&copy));
    }
    state.counters["blocks"] = driver.cyclicReads.size();
    state.counters["cache"] = driver.dataAreas.size();
}
BENCHMARK(BM_AddrMerge)
    ->Arg(500)->Arg(1000)->Arg(2000)->Arg(5000)->Arg(10000)->Arg(20000)->Arg(50000)
    ->Unit(benchmark::kMillisecond);

// --- against the literal algorithms --------------------------------------

// The records a lookup looks for: `count` keys drawn from a filled cache.
struct LookupKey {
    int station;
    QString regName;
    int address;
};
std::vector<LookupKey> drawKeys(int count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::vector<LookupKey> keys;
    for (int i = 0; i < count; ++i) {
        const _DATA_ &unit = driver.dataAreas.at(int(rng() % unsigned(driver.dataAreas.size())));
        keys.push_back(LookupKey{unit.station, unit.regName, unit.address});
    }
    return keys;
}

// 128 lookups of cached units through the index.
void BM_LookupIndexed(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)));
    const std::vector<LookupKey> keys = drawKeys(128, 11);
    ServiceLock lock;
    for (auto _ : state)
        for (const LookupKey &k : keys)
            benchmark::DoNotOptimize(getIndexOfDataArea(k.station, k.regName, k.address));
}
BENCHMARK(BM_LookupIndexed)->Arg(1000)->Arg(100000);

// The same 128 lookups by scanning the same records from the start.
void BM_LookupLinear(benchmark::State &state)
{
    configure();
    fillCache(int(state.range(0)));
    const std::vector<LookupKey> keys = drawKeys(128, 11);
    QList<_DATA_> areas = driver.dataAreas;
    for (auto _ : state)
        for (const LookupKey &k : keys)
            benchmark::DoNotOptimize(kq71ref::linearIndexOfDataArea(areas, k.station, k.regName, k.address));
}
BENCHMARK(BM_LookupLinear)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// A watch list that names `units` units in all, as the runtime counts them
// (bits, words; 32-bit values in words).
QList<KEY_ADDRESS> watchListNaming(int units, unsigned seed)
{
    QList<KEY_ADDRESS> keys = watchList(units, seed);
    int named = 0, n = 0;
    while (n < keys.size() && named < units)
        named += keys.at(n++).length;
    return keys.mid(0, n);
}

// Planning alone (addrMerge) of a watch list naming N units, without marks or
// debug lines.
void BM_PlanMerge(benchmark::State &state)
{
    configure();
    withoutDebugLines();
    const QList<KEY_ADDRESS> keys = watchListNaming(int(state.range(0)), 7);
    ServiceLock lock;
    for (auto _ : state) {
        QList<KEY_ADDRESS> copy = keys;
        addrMerge(copy, 1);
        benchmark::DoNotOptimize(copy.size());
    }
    withDebugLines();
    state.counters["keys"] = keys.size();
}
BENCHMARK(BM_PlanMerge)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The same lists through the bubble-sort planner.
void BM_PlanBubble(benchmark::State &state)
{
    configure();
    const QList<KEY_ADDRESS> keys = watchListNaming(int(state.range(0)), 7);
    for (auto _ : state)
        benchmark::DoNotOptimize(kq71ref::bubblePlan(keys, driver.mergeGap).size());
    state.counters["keys"] = keys.size();
}
// One pass of the literal planner over 100,000 units takes seconds: once is enough.
BENCHMARK(BM_PlanBubble)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond)->Repetitions(1);

// --- memory -------------------------------------------------------------------

size_t heapInUse()
{
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd; // small blocks in the arenas, large ones mapped
}

// Heap taken by a cache of N units, index included: measured, before and
// after filling an emptied cache.
void BM_CacheMemory(benchmark::State &state)
{
    const int units = int(state.range(0));
    double perUnit = 0;
    for (auto _ : state) {
        configure();
        // Emptying the cache keeps the index's array for reuse; start from
        // none, as a freshly loaded driver does.
        driver.dataIndex = DataAreaIndex();
        const size_t before = heapInUse();
        fillCache(units);
        const size_t after = heapInUse();
        perUnit = double(after - before) / units;
    }
    state.counters["bytes_per_unit"] = perUnit;
    state.counters["cache"] = driver.dataAreas.size();
}
BENCHMARK(BM_CacheMemory)->Arg(1000)->Arg(65537)->Arg(100000)->Arg(131071)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
