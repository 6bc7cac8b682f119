// Costs of the driver's hot paths, driven through the entry points as the
// runtime drives them. Figures are compared as ratios within one run.
#include "kq71_protocol.h"
#include "protocol.h"

#include <QtCore/QtGlobal>

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

void silence(QtMsgType, const QMessageLogContext &, const QString &) {}
void ignoreReport(int, int, const QString &, int) {}

std::vector<unsigned char> sharedMem(KQ71_SHARED_MEM_MIN + 16);
std::vector<unsigned char> recipeBuf(65536);
QMutex runtimeMutex;

void configure(const char *property)
{
    qInstallMessageHandler(silence);
    int status = 0;
    intf_setAddrValueChangeCallBack(ignoreReport);
    intf_initProperty(sharedMem.data(), nullptr, recipeBuf.data(), &status, property, &runtimeMutex);
}

KEY_ADDRESS key(int station, const char *reg, int address, int length)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    return k;
}

// A watch list spread over D, M, X and 32-bit registers, as a panel's screens name them.
QList<KEY_ADDRESS> watchList(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    QList<KEY_ADDRESS> keys;
    const char *regs[] = {"D", "M", "X", "200CC", "D", "256CP", "TC"};
    for (int i = 0; i < n; ++i) {
        const char *reg = regs[rng() % 7];
        const int station = 1 + int(rng() % 4);
        keys.append(key(station, reg, int(rng() % 9000), 1 + int(rng() % 4)));
    }
    return keys;
}

// Fills the cache with units D 0 .. units-1 on station 2 (the block read below
// is on station 1), so that lookups run against a cache of that size.
void fillCache(int units)
{
    std::vector<unsigned char> values(2 * 1024);
    QString d = QString::fromLatin1("D");
    for (int a = 0; a < units; a += 1024)
        intf_getData(2, &d, a, qMin(1024, units - a), values.data());
}

QByteArray replyFor(const FRAME_PRO &frame, int round)
{
    QByteArray r;
    r.append(char(frame.frame[0]));
    r.append(char(frame.frame[1]));
    const int bytes = frame.recvLen - 5;
    r.append(char(bytes & 0xFF));
    for (int i = 0; i < bytes / 2; ++i) {
        // A third of the units change from one round to the next.
        const int v = (i % 3 == 0) ? (round & 1) * 1000 + i : i;
        r.append(char((v >> 8) & 0xFF));
        r.append(char(v & 0xFF));
    }
    const unsigned short crc = computate_check(reinterpret_cast<const unsigned char *>(r.constData()),
                                               static_cast<unsigned short>(r.size()));
    r.append(char(crc & 0xFF));
    r.append(char(crc >> 8));
    return r;
}

void BM_AddrMerge(benchmark::State &state)
{
    configure("1#0#0#3#16");
    const QList<KEY_ADDRESS> keys = watchList(int(state.range(0)), 7);
    for (auto _ : state) {
        QList<KEY_ADDRESS> copy = keys;
        benchmark::DoNotOptimize(intf_addrMerge(&copy));
    }
    state.counters["jobs"] = driver.cyclicReads.size();
}
BENCHMARK(BM_AddrMerge)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

// Decoding of one good 128-word reply, a third of the units changing.
void BM_DecodeBlock(benchmark::State &state)
{
    configure("1#0#0#3#16");
    fillCache(int(state.range(0)));
    QList<KEY_ADDRESS> watch;
    watch.append(key(1, "D", 0, 128));
    intf_addrMerge(&watch);
    FRAME_PRO frame;
    intf_getSendFrame(&frame);
    const QByteArray replies[2] = {replyFor(frame, 0), replyFor(frame, 1)};
    int round = 0;
    for (auto _ : state) {
        ServiceLock lock;
        analyzeFrameOfVal(replies[round++ & 1], frame.itemCount, frame.dataPos, frame.var);
    }
    state.counters["cache"] = driver.dataAreas.size();
}
BENCHMARK(BM_DecodeBlock)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// One full exchange: the next frame out, its reply back in.
void BM_Exchange(benchmark::State &state)
{
    configure("1#0#0#3#16");
    fillCache(int(state.range(0)));
    QList<KEY_ADDRESS> watch;
    watch.append(key(1, "D", 0, 128));
    intf_addrMerge(&watch);
    FRAME_PRO frame;
    intf_getSendFrame(&frame);
    QByteArray replies[2] = {replyFor(frame, 0), replyFor(frame, 1)};
    QString error;
    int round = 0;
    for (auto _ : state) {
        intf_getSendFrame(&frame);
        benchmark::DoNotOptimize(intf_dealRcvFrame(&replies[round++ & 1], &error));
    }
    state.counters["cache"] = driver.dataAreas.size();
}
BENCHMARK(BM_Exchange)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
