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
};

TEST_F(SimulatedPlc, ConditionReadThatIsNeverAnsweredEndsItsBatchAsFailed)
{
    kq71sim::SimOptions so;
    so.station = 2; // deaf to station 1
    RuntimeOptions ro;
    ro.retries = 2;
    ro.timeoutMs = 50;
    SimBench b(so, ro);
    b.rt.conditionRead(area("D", 500, 4), 42);
    ASSERT_TRUE(runUntilIdle(b.rt, 100));
    EXPECT_EQ(b.rt.takeBatchEnds(), QVector<int>{-1});
    EXPECT_EQ(b.rt.stats().retries, 1u);
    EXPECT_EQ(b.rt.stats().givenUp, 1u);
    EXPECT_EQ(b.rt.stats().lastError, "1#D500(4): no reply within 50 ms");
    EXPECT_GE(b.rt.stats().wireTimeUs, 2 * 50000);
}

// Bits inside words through the whole runtime: watched bits report, written
// bits reach the PLC in word writes, and the other bits of each word keep the
// values the PLC held, also in a word the driver had never read.
TEST_F(SimulatedPlc, BitsInWordsChangeOnlyTheirOwnBitsOfThePlcsWords)
{
    SimBench b;
    setSimValue(b.sim, "D", 100, 0xA5A5);
    setSimValue(b.sim, "D", 101, 0x00FF);
    setSimValue(b.sim, "D", 200, 0x1234);
    const int jobs = b.rt.watch({area("D_bit", 1605, 1), area("D_bit", 1614, 4)});
    ASSERT_EQ(jobs, 1);
    ASSERT_TRUE(runCyclicReads(b.rt, 1));
    QVector<int> bits;
    for (const ChangeReport &r : b.rt.takeReports())
        if (r.regName == "D_bit")
            bits << r.address;
    EXPECT_EQ(bits, (QVector<int>{1605, 1615, 1616, 1617}));

    b.rt.write(1, "D_bit", 1605, 1, QByteArray("\x00", 1), 7);
    b.rt.write(1, "D_bit", 1614, 4, QByteArray("\x01\x00\x00\x01", 4), 8);
    b.rt.write(1, "D_bit", 3200, 1, QByteArray("\x01", 1), 9); // D200, never read
    ASSERT_TRUE(runCyclicReads(b.rt, 4));
    EXPECT_EQ(simValue(b.sim, "D", 100), 0x6585u); // bits 5 and 15 cleared, 14 set
    EXPECT_EQ(simValue(b.sim, "D", 101), 0x00FEu); // bit 0 cleared
    EXPECT_EQ(simValue(b.sim, "D", 200), 0x1235u);
    EXPECT_EQ(b.rt.read(1, "D_bit", 1614, 4), QByteArray("\x01\x00\x00\x01", 4));
    EXPECT_EQ(cachedValue(b.rt, 1, "D", 200), 0x1235u);
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
    ASSERT_EQ(b.rt.setRecipe({item(1, "D", 100, 2, 0), item(1, "D", 102, 3, 2), item(1, "200CC", 210, 2, 5),
                              item(1, "200CC", 211, 2, 7), item(1, "V", 20, 2, 9), item(1, "TP", 7, 1, 11),
                              item(2, "D", 300, 1, 12)}),
              6);
    // Where each unit stands in the buffer, in words.
    const struct {
        const char *reg;
        int address, word;
    } places[] = {{"D", 100, 0}, {"D", 101, 1},     {"D", 102, 2},     {"D", 103, 3}, {"D", 104, 4},
                  {"200CC", 210, 5}, {"200CC", 211, 7}, {"V", 20, 9}, {"V", 21, 10}, {"TP", 7, 11}};
    unsigned char *buf = b.rt.recipeBuffer();
    auto valueAt = [&](const char *reg, int w) {
        const quint32 low = buf[2 * w] | buf[2 * w + 1] << 8;
        const quint32 high = buf[2 * w + 2] | buf[2 * w + 3] << 8;
        return unitKindOf(reg) == UnitKind::DoubleWord ? low | high << 16 : low;
    };
    std::mt19937 rng(9);
    for (int i = 0; i < 2 * 13; ++i)
        buf[i] = uchar(rng());
    b.rt.startRecipe(RecipeDirection::Write);
    ASSERT_TRUE(b.rt.runUntil([&] { return !b.rt.recipeRunning(RecipeDirection::Write); }, 100));
    EXPECT_EQ(b.rt.stats().givenUp, 0u);
    for (const auto &p : places)
        EXPECT_EQ(simValue(b.sim, p.reg, p.address), valueAt(p.reg, p.word)) << p.reg << p.address;
    EXPECT_EQ(simValue(b.sim, "D", 300), 0u) << "another device's item was written";

    for (const auto &p : places)
        fillSim(b.sim, p.reg, p.address, 1, quint32(p.word + 10));
    std::fill(buf, buf + 2 * 13, 0);
    b.rt.startRecipe(RecipeDirection::Read);
    ASSERT_TRUE(b.rt.runUntil([&] { return !b.rt.recipeRunning(RecipeDirection::Read); }, 100));
    for (const auto &p : places)
        EXPECT_EQ(valueAt(p.reg, p.word), simValue(b.sim, p.reg, p.address)) << p.reg << p.address;
    const QVector<int> stored = b.rt.takeRecipeWords();
    EXPECT_EQ(std::set<int>(stored.begin(), stored.end()), (std::set<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
}

// Every register family under every kind of line fault: no write is lost
// without a word, each one is acknowledged (and then in the PLC), reported
// failed, or replaced by a later write to the same address before it went
// out. Once the faults stop, every watched value comes back to what the PLC
// holds.
TEST_F(SimulatedPlc, FaultyLineLosesNoWriteSilentlyAndConvergesOnceFaultsStop)
{
    kq71sim::SimOptions so;
    so.seed = 17;
    kq71sim::FaultRates &f = so.faults;
    f.drop = f.cut = f.badCrc = f.exception = f.noise = f.echo = f.delay = 0.04;
    f.wrongStation = f.wrongFunction = 0.02;
    f.delayMs = 300; // past the timeout: the reply comes too late
    RuntimeOptions ro;
    ro.timeoutMs = 100;
    ro.gap = 8;
    SimBench b(so, ro);
    const struct {
        const char *reg;
        int first, units;
    } areas[] = {{"D", 0, 40}, {"M", 0, 40}, {"200CC", 200, 4}, {"V", 0, 4}, {"Z", 0, 4}, {"X", 0, 16}, {"256CP", 300, 2}};
    QList<KEY_ADDRESS> keys;
    for (const auto &a : areas) {
        fillSim(b.sim, a.reg, a.first, a.units, 20 + a.units);
        keys << area(a.reg, a.first, a.units);
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
            if (ex.result != 1 && ex.result != 2)
                continue;
            if (ex.write && ex.jobId >= FIRST_ID)
                writes.at(size_t(ex.jobId - FIRST_ID)).result = ex.result;
            cyclicEnded += ex.jobId == 4 && !ex.write;
        }
    };
    for (int n = 0; n < 300; ++n) {
        const auto &a = areas[rng() % 7];
        const UnitKind k = unitKindOf(a.reg);
        Write w{a.reg, a.first + int(rng() % quint32(a.units)), 0, 0};
        w.value = k == UnitKind::Bit ? rng() & 1 : k == UnitKind::Word ? rng() & 0xFFFF : rng();
        b.rt.write(1, w.reg, w.address, k == UnitKind::DoubleWord ? 2 : 1, valueBytes(k, w.value),
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
        const std::string unit = unitName(w.reg, w.address).toStdString();
        const bool lastOfUnit = i == last[{w.reg, w.address}];
        EXPECT_TRUE(w.result != 0 || !lastOfUnit) << "write " << i << " to " << unit << " vanished without a result";
        (w.result == 1 ? acked : failed) += w.result != 0;
        if (lastOfUnit && w.result == 1)
            EXPECT_EQ(simValue(b.sim, w.reg, w.address), w.value) << "acknowledged write " << i << " to " << unit;
    }
    EXPECT_GT(acked, 100);
    EXPECT_GT(failed + int(b.rt.stats().givenUp), 0);
    for (const auto &a : areas)
        b.expectCacheMatchesSim(a.reg, a.first, a.units);
}

} // namespace
