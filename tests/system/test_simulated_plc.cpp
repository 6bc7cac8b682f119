// The built driver against the simulated PLC in process: what the panel would
// show must be what the PLC holds.
#include "system_support.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

using namespace kq71test;
using namespace kq71rt;

namespace {

class SimulatedPlc : public ::testing::Test {
protected:
    void SetUp() override
    {
        QString why;
        ASSERT_NE(driver(&why), nullptr) << why.toStdString();
    }

    // Fills a register range with random values and returns them.
    std::vector<quint32> fill(kq71sim::PlcSimulator &sim, const QString &reg, int address, int units, quint32 seed)
    {
        std::mt19937 rng(seed);
        std::vector<quint32> v;
        const UnitKind kind = unitKindOf(reg);
        for (int i = 0; i < units; ++i) {
            const quint32 x = kind == UnitKind::Bit ? rng() & 1 : kind == UnitKind::Word ? rng() & 0xFFFF : rng();
            setSimValue(sim, reg, address + i, x);
            v.push_back(x);
        }
        return v;
    }

    void expectCacheMatchesSim(SimBench &b, const QString &reg, int address, int units)
    {
        for (int i = 0; i < units; ++i)
            EXPECT_EQ(cachedValue(b.rt, 1, reg, address + i), simValue(b.sim, reg, address + i))
                << unitName(reg, address + i).toStdString();
    }
};

TEST_F(SimulatedPlc, LongBlocksOfWordsAndBitsReadBackAsThePlcHoldsThem)
{
    RuntimeOptions ro;
    ro.gap = 16;
    SimBench b(kq71sim::SimOptions(), ro);
    fill(b.sim, "D", 0, 300, 1);
    fill(b.sim, "M", 0, 500, 2);
    fill(b.sim, "X", 0, 256, 3);

    // 300 words, 500 bits and 256 bits in blocks of at most 128 units.
    const int jobs = b.rt.watch({wordKey("D", 0, 300), bitKey("M", 0, 500), bitKey("X", 0, 256)});
    ASSERT_EQ(jobs, 3 + 4 + 2);
    int longest = 0;
    for (int ended = 0, i = 0; ended < 2 * jobs && i < 1000; ++i) {
        const Exchange ex = b.rt.step();
        ASSERT_TRUE(ex.sent);
        ASSERT_EQ(ex.result, 1) << ex.describe().toStdString();
        longest = std::max(longest, (uchar(ex.request[4]) << 8) | uchar(ex.request[5]));
        ++ended;
    }
    EXPECT_EQ(longest, 128);
    expectCacheMatchesSim(b, "D", 0, 300);
    expectCacheMatchesSim(b, "M", 0, 500);
    expectCacheMatchesSim(b, "X", 0, 256);
}

TEST_F(SimulatedPlc, InterleavedVAndZRegistersEachReadAndWriteTheirOwnWords)
{
    SimBench b;
    fill(b.sim, "V", 0, 10, 4);
    fill(b.sim, "Z", 0, 10, 5);
    const int jobs = b.rt.watch({wordKey("V", 0, 10), wordKey("Z", 0, 10)});
    ASSERT_TRUE(runCyclicReads(b.rt, jobs));
    expectCacheMatchesSim(b, "V", 0, 10);
    expectCacheMatchesSim(b, "Z", 0, 10);

    b.rt.write(1, "V", 3, 2, valueBytes(UnitKind::Word, 0x1234) + valueBytes(UnitKind::Word, 0x4321), 30);
    b.rt.write(1, "Z", 4, 1, valueBytes(UnitKind::Word, 0x5678), 31);
    ASSERT_TRUE(runCyclicReads(b.rt, 2 * jobs));
    EXPECT_EQ(simValue(b.sim, "V", 3), 0x1234u);
    EXPECT_EQ(simValue(b.sim, "V", 4), 0x4321u);
    EXPECT_EQ(simValue(b.sim, "Z", 4), 0x5678u);
    expectCacheMatchesSim(b, "V", 0, 10);
    expectCacheMatchesSim(b, "Z", 0, 10);
}

TEST_F(SimulatedPlc, ThirtyTwoBitValuesTravelLowWordFirstBothWays)
{
    SimBench b;
    const quint32 counters[] = {70000, 0xFFFFFFFE, 0x12345678, 0};
    for (int i = 0; i < 4; ++i)
        setSimValue(b.sim, "200CC", 200 + i, counters[i]);
    fill(b.sim, "256CP", 300, 3, 6);
    // The watch list counts 16-bit words: two per value.
    const int jobs = b.rt.watch({wordKey("200CC", 200, 8), wordKey("256CP", 300, 6)});
    ASSERT_TRUE(runCyclicReads(b.rt, jobs));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(cachedValue(b.rt, 1, "200CC", 200 + i), counters[i]);
    expectCacheMatchesSim(b, "256CP", 300, 3);

    b.rt.write(1, "256CP", 301, 2, valueBytes(UnitKind::DoubleWord, 0xDEADBEEF), 32);
    ASSERT_TRUE(runCyclicReads(b.rt, 2 * jobs));
    const UnitPlace p = placeOf("256CP", 301);
    EXPECT_EQ(b.sim.reg(p.wire), 0xBEEF);
    EXPECT_EQ(b.sim.reg(p.wire + 1), 0xDEAD);
    EXPECT_EQ(cachedValue(b.rt, 1, "256CP", 301), 0xDEADBEEFu);
}

TEST_F(SimulatedPlc, ConditionReadsEndTheirBatchOnceWithEveryValueCached)
{
    RuntimeOptions ro;
    ro.gap = 16;
    SimBench b(kq71sim::SimOptions(), ro);
    fill(b.sim, "D", 500, 40, 7);
    fill(b.sim, "M", 100, 5, 8);
    b.rt.conditionRead(wordKey("D", 500, 40), 40);  // three pieces of at most 16 words
    b.rt.conditionRead(bitKey("M", 100, 5), 41);
    int frames = 0;
    for (int i = 0; i < 100 && !b.rt.drained(); ++i) {
        if (!b.rt.step().sent)
            continue;
        ++frames;
        if (frames < 4)
            EXPECT_TRUE(b.rt.takeBatchEnds().isEmpty()) << "batch ended early, frame " << frames;
    }
    EXPECT_EQ(frames, 4);
    EXPECT_EQ(b.rt.takeBatchEnds(), QVector<int>{0});
    expectCacheMatchesSim(b, "D", 500, 40);
    expectCacheMatchesSim(b, "M", 100, 5);
}

TEST_F(SimulatedPlc, ConditionReadThatIsNeverAnsweredEndsItsBatchAsFailed)
{
    kq71sim::SimOptions so;
    so.station = 2;  // deaf to station 1
    RuntimeOptions ro;
    ro.retries = 2;
    ro.timeoutMs = 50;
    SimBench b(so, ro);
    b.rt.conditionRead(wordKey("D", 500, 4), 42);
    ASSERT_TRUE(runUntilIdle(b.rt, 100));
    EXPECT_EQ(b.rt.takeBatchEnds(), QVector<int>{-1});
    EXPECT_EQ(b.rt.stats().retries, 1u);
    EXPECT_EQ(b.rt.stats().givenUp, 1u);
    EXPECT_EQ(b.rt.stats().lastError, "1#D500(4): no reply within 50 ms");
    EXPECT_GE(b.rt.stats().wireTimeUs, 2 * 50000);
}

TEST_F(SimulatedPlc, WriteThatIsGivenUpFallsBackToTheReadValueAndIsReported)
{
    SimBench b;
    setSimValue(b.sim, "D", 100, 5);
    const int jobs = b.rt.watch({wordKey("D", 100, 1)});
    ASSERT_TRUE(runCyclicReads(b.rt, jobs));
    b.rt.takeReports();

    kq71sim::FaultRates refuse;
    refuse.exception = 1;
    b.sim.setFaults(refuse);
    b.rt.write(1, "D", 100, 1, valueBytes(UnitKind::Word, 7), 43);
    EXPECT_EQ(cachedValue(b.rt, 1, "D", 100), 7u);  // shown at once
    EXPECT_EQ(b.rt.takeReports().size(), 1);
    int givenUp = 0;
    for (int i = 0; i < 10 && !givenUp; ++i) {
        const Exchange ex = b.rt.step();
        if (ex.write && ex.result == 2)
            givenUp = 1;
    }
    ASSERT_TRUE(givenUp);
    EXPECT_EQ(simValue(b.sim, "D", 100), 5u);
    EXPECT_EQ(cachedValue(b.rt, 1, "D", 100), 5u);
    const QVector<ChangeReport> r = b.rt.takeReports();
    ASSERT_EQ(r.size(), 1);
    EXPECT_EQ(r[0].regName, "D");
    EXPECT_EQ(r[0].address, 100);
}

TEST_F(SimulatedPlc, RecipeWrittenToThePlcReadsBackIntoTheRecipeBuffer)
{
    SimBench b;
    auto item = [](int device, const char *reg, int address, int words, int offset) {
        _RCP_VAR_PRO r;
        r.deviceId = device;
        r.station = 1;
        r.regName = reg;
        r.address = address;
        r.length = words;
        r.bufOffset = offset;
        return r;
    };
    // D100 and D102 touch: one block, whose words stand back to back in the
    // buffer. A 32-bit item holds one value.
    const QVector<_RCP_VAR_PRO> items = {item(1, "D", 100, 2, 0),     item(1, "D", 102, 3, 2),
                                         item(1, "200CC", 210, 2, 5), item(1, "200CC", 211, 2, 7),
                                         item(1, "V", 20, 2, 9),      item(1, "TP", 7, 1, 11),
                                         item(2, "D", 300, 1, 12)};
    ASSERT_EQ(b.rt.setRecipe(items), 6);

    std::mt19937 rng(9);
    unsigned char *buf = b.rt.recipeBuffer();
    auto word = [&](int w) { return quint32(buf[2 * w] | buf[2 * w + 1] << 8); };
    for (int i = 0; i < 2 * 13; ++i)
        buf[i] = uchar(rng());
    b.rt.startRecipe(RecipeDirection::Write);
    ASSERT_TRUE(b.rt.runUntil([&] { return !b.rt.recipeRunning(RecipeDirection::Write); }, 100));
    EXPECT_EQ(b.rt.stats().givenUp, 0u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(simValue(b.sim, "D", 100 + i), word(i)) << "D" << 100 + i;
    EXPECT_EQ(simValue(b.sim, "200CC", 210), word(5) | word(6) << 16);
    EXPECT_EQ(simValue(b.sim, "200CC", 211), word(7) | word(8) << 16);
    EXPECT_EQ(simValue(b.sim, "V", 20), word(9));
    EXPECT_EQ(simValue(b.sim, "V", 21), word(10));
    EXPECT_EQ(simValue(b.sim, "TP", 7), word(11));
    EXPECT_EQ(simValue(b.sim, "D", 300), 0u) << "another device's item was written";

    fill(b.sim, "D", 100, 5, 10);
    fill(b.sim, "200CC", 210, 2, 11);
    fill(b.sim, "V", 20, 2, 12);
    fill(b.sim, "TP", 7, 1, 13);
    std::fill(buf, buf + 2 * 13, 0);
    b.rt.startRecipe(RecipeDirection::Read);
    ASSERT_TRUE(b.rt.runUntil([&] { return !b.rt.recipeRunning(RecipeDirection::Read); }, 100));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(word(i), simValue(b.sim, "D", 100 + i)) << "word " << i;
    EXPECT_EQ(word(5) | word(6) << 16, simValue(b.sim, "200CC", 210));
    EXPECT_EQ(word(7) | word(8) << 16, simValue(b.sim, "200CC", 211));
    EXPECT_EQ(word(9), simValue(b.sim, "V", 20));
    EXPECT_EQ(word(10), simValue(b.sim, "V", 21));
    EXPECT_EQ(word(11), simValue(b.sim, "TP", 7));
    const QVector<int> stored = b.rt.takeRecipeWords();
    EXPECT_EQ(std::set<int>(stored.begin(), stored.end()), (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
}

// Under every kind of line fault, no write is lost without a word: each one
// is acknowledged (and then in the PLC), reported failed, or replaced by a
// later write to the same address before it went out. Once the faults stop,
// every watched value comes back to what the PLC holds.
TEST_F(SimulatedPlc, FaultyLineLosesNoWriteSilentlyAndConvergesOnceFaultsStop)
{
    kq71sim::SimOptions so;
    so.seed = 17;
    kq71sim::FaultRates &f = so.faults;
    f.drop = f.cut = f.badCrc = f.exception = f.noise = f.echo = f.delay = 0.04;
    f.wrongStation = f.wrongFunction = 0.02;
    f.delayMs = 300;  // past the timeout: the reply comes too late
    RuntimeOptions ro;
    ro.timeoutMs = 100;
    ro.gap = 8;
    SimBench b(so, ro);

    struct Area {
        const char *reg;
        int first, units;
    };
    const Area areas[] = {{"D", 0, 40}, {"M", 0, 40}, {"200CC", 200, 4}, {"V", 0, 4}};
    QList<KEY_ADDRESS> keys;
    for (const Area &a : areas) {
        fill(b.sim, a.reg, a.first, a.units, 20 + a.units);
        const UnitKind k = unitKindOf(a.reg);
        keys << (k == UnitKind::Bit ? bitKey(a.reg, a.first, a.units)
                                    : wordKey(a.reg, a.first, k == UnitKind::DoubleWord ? 2 * a.units : a.units));
    }
    const int jobs = b.rt.watch(keys);

    struct Write {
        QString reg;
        int address;
        quint32 value;
        int result;
    };
    const int FIRST_ID = 100;
    std::vector<Write> writes;
    std::mt19937 rng(23);
    int cyclicEnded = 0;
    auto pump = [&](int steps) {
        for (int i = 0; i < steps; ++i) {
            const Exchange ex = b.rt.step();
            if (ex.write && ex.jobId >= FIRST_ID && (ex.result == 1 || ex.result == 2))
                writes.at(size_t(ex.jobId - FIRST_ID)).result = ex.result;
            if (ex.jobId == 4 && !ex.write && (ex.result == 1 || ex.result == 2))
                ++cyclicEnded;
        }
    };
    for (int n = 0; n < 300; ++n) {
        const Area &a = areas[rng() % 4];
        const UnitKind k = unitKindOf(a.reg);
        Write w{a.reg, a.first + int(rng() % quint32(a.units)), 0, 0};
        w.value = k == UnitKind::Bit ? rng() & 1 : k == UnitKind::Word ? rng() & 0xFFFF : rng();
        b.rt.write(1, w.reg, w.address, k == UnitKind::Bit ? 1 : k == UnitKind::Word ? 1 : 2, valueBytes(k, w.value),
                   FIRST_ID + int(writes.size()));
        writes.push_back(w);
        pump(4);
    }
    EXPECT_GT(b.sim.stats().faults, 100u);
    EXPECT_GT(b.rt.stats().retries, 0u);

    b.sim.setFaults(kq71sim::FaultRates());
    cyclicEnded = 0;
    for (int i = 0; i < 100 && cyclicEnded < 3 * jobs; ++i)
        pump(10);
    ASSERT_GE(cyclicEnded, 3 * jobs);

    std::map<std::pair<QString, int>, size_t> last;
    for (size_t i = 0; i < writes.size(); ++i)
        last[{writes[i].reg, writes[i].address}] = i;
    int acked = 0, failed = 0;
    for (size_t i = 0; i < writes.size(); ++i) {
        const Write &w = writes[i];
        const size_t lastOfUnit = last[{w.reg, w.address}];
        if (w.result == 0) {
            EXPECT_LT(i, lastOfUnit) << "write " << i << " to " << unitName(w.reg, w.address).toStdString()
                                     << " vanished without a result";
            continue;
        }
        (w.result == 1 ? acked : failed)++;
        if (i == lastOfUnit && w.result == 1)
            EXPECT_EQ(simValue(b.sim, w.reg, w.address), w.value)
                << "acknowledged write " << i << " to " << unitName(w.reg, w.address).toStdString()
                << " is not in the PLC";
    }
    EXPECT_GT(acked, 100);
    EXPECT_GT(failed + int(b.rt.stats().givenUp), 0);
    for (const Area &a : areas)
        expectCacheMatchesSim(b, a.reg, a.first, a.units);
}

} // namespace
