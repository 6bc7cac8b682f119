// Planning of reads: the watch list becomes the plan of cyclic reads, and
// condition reads are queued in pieces. The literal algorithms that the
// benchmarks race against must give the driver's results, or a speed-up would
// compare different work.
#include "reference_algorithms.h"
#include "test_support.h"

#include <cstring>
#include <random>

using namespace kq71test;

namespace {

using Job = std::tuple<int, std::string, int, int>; // station or id, register, address, length

std::vector<Job> jobsOf(const QList<VARIABLE> &list, bool byId)
{
    std::vector<Job> out;
    for (const VARIABLE &v : list)
        out.emplace_back(byId ? v.id : v.station, v.regName.toStdString(), v.address, v.length);
    return out;
}

std::vector<std::string> debugLines(const std::string &prefix)
{
    std::vector<std::string> out;
    for (const std::string &l : DebugCapture::lines)
        if (l.compare(0, prefix.size(), prefix) == 0)
            out.push_back(l);
    return out;
}

using Planning = DriverTest;

TEST_F(Planning, WatchListBecomesThePlan)
{
    const struct { const char *what; int mergeGap; std::vector<KEY_ADDRESS> keys; std::vector<Job> jobs; } cases[] = {
        {"gap bridged", 10, {key(1, "D", 100, 5), key(1, "D", 110, 2)}, {Job{1, "D", 100, 12}}},
        {"a key inside a cut long key leaves the rest of it read", 10, {key(1, "D", 1000, 300), key(1, "D", 1010, 3)},
         {Job{1, "D", 1000, 128}, Job{1, "D", 1128, 128}, Job{1, "D", 1256, 44}, Job{1, "D", 1010, 3}}},
        {"keys naming no unit plan nothing", 10, {key(1, "D", 100, 0), key(1, "200CC", 200, 1), key(1, "D", 5, -3)}, {}},
        {"bits in words", 10, {key(1, "D_bit", 35, 20, BIT), key(1, "D_bit", 64, 16, BIT)}, {Job{1, "D", 2, 3}}},
        {"32-bit lengths halved", 10, {key(1, "200CC", 200, 4), key(1, "256CC", 300, 3)},
         {Job{1, "200CC", 200, 2}, Job{1, "256CC", 300, 1}}},
        {"stations, then registers in table order", 10, {key(2, "D", 0, 1), key(1, "D", 0, 1), key(1, "X", 0, 1, BIT)},
         {Job{1, "X", 0, 1}, Job{1, "D", 0, 1}, Job{2, "D", 0, 1}}},
        {"unknown name on station 0 last", 10, {key(0, "Q", 0, 1), key(3, "D", 5, 1)},
         {Job{3, "D", 5, 1}, Job{0, "Q", 0, 1}}},
    };
    for (const auto &c : cases) {
        configure("1#0#0#3#" + std::to_string(c.mergeGap));
        EXPECT_EQ(int(c.jobs.size()), watch(c.keys)) << c.what;
        EXPECT_EQ(c.jobs, jobsOf(driver.cyclicReads, false)) << c.what;
        for (const VARIABLE &v : driver.cyclicReads)
            EXPECT_EQ(4, v.id) << c.what;
    }
}

TEST_F(Planning, NewWatchListReplacesTheMarksAndWritesItsDebugLines)
{
    DebugCapture debug;
    watch({key(1, "D", 105, 3), key(1, "D_bit", 35, 20, BIT), key(1, "200CC", 200, 2)});
    EXPECT_EQ((std::vector<std::string>{
                  "step:id=0,reg=D,address=105,len=3", "step:id=1,reg=D_bit,address=35,len=20",
                  "step:id=2,reg=200CC,address=200,len=2", "step0:id=0,reg=D,address=105,len=3",
                  "step0:id=1,reg=D,address=2,len=2", "step0:id=2,reg=200CC,address=200,len=1",
                  "step3:id=0,std=1,reg=D,address=2,len=2", "step3:id=1,std=1,reg=D,address=105,len=3",
                  "step3:id=2,std=1,reg=200CC,address=200,len=1"}),
              debugLines("step"));
    EXPECT_EQ((std::vector<int>{1, 1, 0}),
              (std::vector<int>{unit("D", 107).monitorFlags, unit("200CC", 200).monitorFlags,
                                unit("200CC", 201).monitorFlags}));
    EXPECT_EQ(0, watch({}));
    EXPECT_TRUE(driver.cyclicReads.isEmpty());
    EXPECT_EQ(0, unit("D", 107).monitorFlags);
    EXPECT_EQ(3u, debugLines("step3:").size()); // an empty list plans (and writes) nothing
}

TEST_F(Planning, ConditionReadIsQueuedInPiecesCountedInTheRegistersUnits)
{
    const struct { const char *property; KEY_ADDRESS key; std::vector<Job> jobs; } cases[] = {
        {"1#0#0#3#64", key(1, "D", 10, 150), {Job{5, "D", 10, 64}, Job{5, "D", 74, 64}, Job{5, "D", 138, 22}}},
        {"1#0#0#3#64", key(1, "S", 0, 600, BIT), {Job{5, "S", 0, 512 * 16}, Job{5, "S", 512, 88 * 16}}},
        // M relays are read on each side of 8000, each from its own area
        {"1#0#0#3#64", key(1, "M", 7990, 1, BIT), {Job{5, "M", 7990, 10}, Job{5, "M", 8000, 6}}},
        {"1#0#0#3#64", key(1, "200CC", 200, 3), {Job{5, "200CC", 200, 1}}},
        // bits inside words read the words holding them, piece after piece
        {"1#0#0#3#2", key(1, "D_bit", 35, 20, BIT), {Job{5, "D", 2, 2}, Job{5, "D", 3, 1}}},
        // without a usable limit, pieces are blocks of 128 units
        {"1#0#0#3#-1", key(1, "M", 0, 200, BIT), {Job{5, "M", 0, 128 * 16}, Job{5, "M", 128, 72 * 16}}},
        // numbers not decimal or too big read as 0; a huge limit is itself the limit
        {"a#b#c#99999999999#-7", key(1, "D", 0, 300), {Job{5, "D", 0, 128}, Job{5, "D", 128, 128}, Job{5, "D", 256, 44}}},
        {"1#0#0#-3#2147483647", key(1, "D", 0, 300), {Job{5, "D", 0, 300}}},
        // no units: negative lengths, or one word of a 32-bit value
        {"1#0#0#3#64", key(1, "D", 100, INT_MIN), {}},
        {"1#0#0#3#64", key(1, "200CC", 200, 1), {}},
    };
    for (const auto &c : cases) {
        configure(c.property);
        KEY_ADDRESS k = c.key;
        EXPECT_EQ(1, intf_addConditionRead(&k, 5));
        EXPECT_EQ(c.jobs, jobsOf(driver.conditionReads, true)) << c.property;
        if (!c.jobs.empty())
            EXPECT_EQ(c.jobs.back(), jobsOf(QList<VARIABLE>{driver.lastCondition}, true).at(0)) << c.property;
    }
}

// The write queue keeps the same rule (one function for both queues).
TEST_F(Planning, RepeatedConditionReadRefreshesAWaitingJobButNeverTheHead)
{
    for (const auto &[address, id] : std::vector<std::pair<int, int>>{{0, 1}, {0, 2}, {10, 3}, {10, 4}}) {
        KEY_ADDRESS k = key(1, "D", address, 1);
        intf_addConditionRead(&k, id);
    }
    EXPECT_EQ((std::vector<Job>{Job{1, "D", 0, 1}, Job{2, "D", 0, 1}, Job{4, "D", 10, 1}}),
              jobsOf(driver.conditionReads, true));
}

TEST_F(Planning, TheLinearScanOfTheBenchmarksFindsTheSameRecords)
{
    std::mt19937 rng(3);
    // Names that differ by case, a bit-in-word name, an unknown one, none.
    const char *const names[] = {"D", "d", "M", "D_bit", "Q", ""};
    QList<_DATA_> literal;
    ServiceLock lock;
    for (int i = 0; i < 6000; ++i) { // enough distinct keys for the index to grow several times
        const int station = int(rng() % 3), address = int(rng() % 500) - 20;
        const QString name = QString::fromLatin1(names[rng() % 6]);
        ASSERT_EQ(kq71ref::linearIndexOfDataArea(literal, station, name, address),
                  getIndexOfDataArea(station, name, address))
            << "lookup " << i << ": " << station << " " << name.toStdString() << " " << address;
    }
    ASSERT_EQ(literal.size(), driver.dataAreas.size());
}

// A watch list that meets every rule of the planner: equal weights (repeated
// addresses; "Q", an unknown name, weighs as 256CP of the station before),
// station 0 (where unknown names sort last), keys at the 8000 boundary, bits
// in words, 32-bit registers (a key of one word names no unit), keys longer
// than one block and keys that start inside what is left of a cut one.
QList<KEY_ADDRESS> randomWatchList(std::mt19937 &rng, int n)
{
    static const struct { const char *reg; int lo, span, dataType; } areas[] = {
        {"D", 0, 300, 0},      {"D", 7900, 200, 0},    {"M", 7950, 100, -1}, {"X", 0, 64, -1},
        {"200CC", 200, 56, 0}, {"256CP", 256, 100, 0}, {"Q", 256, 100, 0},   {"D_bit", 0, 5000, -1},
        {"TC", 0, 300, 0},
    };
    QList<KEY_ADDRESS> keys;
    for (int i = 0; i < n; ++i) {
        const auto &a = areas[rng() % (sizeof(areas) / sizeof(areas[0]))];
        const int length = 1 + int(rng() % (rng() % 10 == 0 ? 400 : 12));
        KEY_ADDRESS k = key(int(rng() % 3), a.reg, a.lo + int(rng() % unsigned(a.span)), length, a.dataType);
        // Marks that show which key each block started from.
        k.tag = i;
        k.label = QString::number(i);
        k.data[0] = static_cast<unsigned char>(i);
        k.data[KQ71_DATA_BYTES - 1] = static_cast<unsigned char>(i >> 8);
        keys.append(k);
    }
    return keys;
}

std::string describe(const KEY_ADDRESS &k)
{
    return std::to_string(k.station) + " " + k.regName.toStdString() + " " + std::to_string(k.address) + " +" +
           std::to_string(k.length) + " from key " + std::to_string(k.tag) + " " + k.label.toStdString() + " type " +
           std::to_string(k.dataType);
}

class BubblePlanner : public DriverTest, public ::testing::WithParamInterface<int> {};

TEST_P(BubblePlanner, PlansTheSameBlocksFromTheSameKeys)
{
    const int gap = GetParam();
    configure("1#0#0#3#" + std::to_string(gap));
    std::mt19937 rng(unsigned(100 + gap));
    for (int trial = 0; trial < 60; ++trial) {
        const QList<KEY_ADDRESS> keys = randomWatchList(rng, 1 + int(rng() % 150));
        const QList<KEY_ADDRESS> literal = kq71ref::bubblePlan(keys, gap);
        QList<KEY_ADDRESS> blocks = keys;
        {
            ServiceLock lock;
            addrMerge(blocks, 1);
        }
        ASSERT_EQ(literal.size(), blocks.size()) << "trial " << trial;
        for (int i = 0; i < blocks.size(); ++i) {
            const KEY_ADDRESS &a = literal.at(i), &b = blocks.at(i);
            ASSERT_EQ(describe(a), describe(b)) << "trial " << trial << ", block " << i;
            ASSERT_EQ(0, std::memcmp(a.data, b.data, sizeof(a.data))) << "trial " << trial << ", block " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(MergeGaps, BubblePlanner, ::testing::Values(0, 3, 16, 127));

} // namespace
