// Planning of reads: the watch list becomes the plan of cyclic reads, and
// condition reads are queued in pieces.
#include "test_support.h"

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

class Planning : public DriverTest {};

TEST_F(Planning, WatchListBecomesThePlan)
{
    const struct {
        const char *what;
        int mergeGap;
        std::vector<KEY_ADDRESS> keys;
        std::vector<Job> jobs;
    } cases[] = {
        {"touching", 10, {key(1, "D", 105, 3), key(1, "D", 100, 5)}, {Job{1, "D", 100, 8}}},
        {"gap bridged", 10, {key(1, "D", 100, 5), key(1, "D", 110, 2)}, {Job{1, "D", 100, 12}}},
        {"gap too wide", 4, {key(1, "D", 100, 5), key(1, "D", 110, 2)}, {Job{1, "D", 100, 5}, Job{1, "D", 110, 2}}},
        {"gap 0 joins touching keys only", 0, {key(1, "D", 100, 5), key(1, "D", 105, 3), key(1, "D", 109, 1)},
         {Job{1, "D", 100, 8}, Job{1, "D", 109, 1}}},
        {"negative gap", -5, {key(1, "D", 100, 5), key(1, "D", 105, 3)}, {Job{1, "D", 100, 8}}},
        {"no block crosses 8000", 10, {key(1, "D", 7990, 5), key(1, "D", 7995, 10)},
         {Job{1, "D", 7990, 5}, Job{1, "D", 7995, 10}}},
        {"a block may end at 8000", 10, {key(1, "D", 7990, 5), key(1, "D", 7995, 5)}, {Job{1, "D", 7990, 10}}},
        {"above 8000 merges freely", 10, {key(1, "M", 8000, 10, BIT), key(1, "M", 8010, 10, BIT)},
         {Job{1, "M", 8000, 20}}},
        {"touching keys up to 128 units", 10, {key(1, "D", 0, 100), key(1, "D", 100, 28)}, {Job{1, "D", 0, 128}}},
        {"long key cut at 128", 10, {key(1, "D", 0, 200)}, {Job{1, "D", 0, 128}, Job{1, "D", 128, 72}}},
        {"union over 128 stays two", 10, {key(1, "D", 0, 100), key(1, "D", 50, 100)},
         {Job{1, "D", 0, 100}, Job{1, "D", 50, 100}}},
        {"a key inside a cut long key leaves the rest of it read", 10, {key(1, "D", 1000, 300), key(1, "D", 1010, 3)},
         {Job{1, "D", 1000, 128}, Job{1, "D", 1128, 128}, Job{1, "D", 1256, 44}, Job{1, "D", 1010, 3}}},
        {"keys naming no unit plan nothing", 10, {key(1, "D", 100, 0), key(1, "200CC", 200, 1), key(1, "D", 5, -3)}, {}},
        {"bridged block kept to 128", 30, {key(1, "D", 0, 100), key(1, "D", 120, 20)},
         {Job{1, "D", 0, 100}, Job{1, "D", 120, 20}}},
        {"bits in words", 10, {key(1, "D_bit", 35, 20, BIT), key(1, "D_bit", 64, 16, BIT)}, {Job{1, "D", 2, 3}}},
        {"bits in words from mid-word", 10, {key(1, "D_bit", 40, 10, BIT)}, {Job{1, "D", 2, 2}}},
        {"32-bit lengths halved", 10, {key(1, "200CC", 200, 4), key(1, "256CC", 300, 3)},
         {Job{1, "200CC", 200, 2}, Job{1, "256CC", 300, 1}}},
        {"stations in order, never merged", 10, {key(2, "D", 0, 1), key(1, "D", 0, 1)},
         {Job{1, "D", 0, 1}, Job{2, "D", 0, 1}}},
        {"registers in table order", 10, {key(1, "D", 0, 1), key(1, "X", 0, 1, BIT)},
         {Job{1, "X", 0, 1}, Job{1, "D", 0, 1}}},
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

TEST_F(Planning, NewWatchListReplacesTheMarksAndEmptyListPlansNothing)
{
    auto watched = [](const char *reg, int a) { return driver.dataAreas[getIndexOfDataArea(1, reg, a)].monitorFlags; };
    watch({key(1, "D", 100, 2), key(1, "200CC", 200, 2)});
    EXPECT_EQ(1, watched("D", 101));
    EXPECT_EQ(1, watched("200CC", 200));
    EXPECT_EQ(0, watched("200CC", 201));
    DebugCapture debug;
    EXPECT_EQ(0, watch({}));
    EXPECT_TRUE(driver.cyclicReads.isEmpty());
    EXPECT_EQ(0, watched("D", 101));
    EXPECT_TRUE(debug.startingWith("step0:").empty() && debug.startingWith("step3:").empty());
}

TEST_F(Planning, PlanningWritesItsDebugLines)
{
    DebugCapture debug;
    watch({key(1, "D", 105, 3), key(1, "D_bit", 35, 20, BIT)});
    using Lines = std::vector<std::string>;
    EXPECT_EQ((Lines{"step:id=0,reg=D,address=105,len=3", "step:id=1,reg=D_bit,address=35,len=20"}),
              debug.startingWith("step:"));
    EXPECT_EQ((Lines{"step0:id=0,reg=D,address=105,len=3", "step0:id=1,reg=D,address=2,len=2"}),
              debug.startingWith("step0:"));
    EXPECT_EQ((Lines{"step3:id=0,std=1,reg=D,address=2,len=2", "step3:id=1,std=1,reg=D,address=105,len=3"}),
              debug.startingWith("step3:"));
}

TEST_F(Planning, ConditionReadIsQueuedInPiecesCountedInTheRegistersUnits)
{
    const struct {
        const char *property;
        KEY_ADDRESS key;
        std::vector<Job> jobs;
    } cases[] = {
        {"1#0#0#3#64", key(1, "D", 10, 150), {Job{5, "D", 10, 64}, Job{5, "D", 74, 64}, Job{5, "D", 138, 22}}},
        {"1#0#0#3#64", key(1, "S", 0, 600, BIT), {Job{5, "S", 0, 512 * 16}, Job{5, "S", 512, 88 * 16}}},
        // M relays are read on each side of 8000, each from its own area
        {"1#0#0#3#64", key(1, "M", 7990, 1, BIT), {Job{5, "M", 7990, 10}, Job{5, "M", 8000, 6}}},
        {"1#0#0#3#64", key(1, "200CC", 200, 3), {Job{5, "200CC", 200, 1}}},
        // bits inside words read the words holding them, piece after piece
        {"1#0#0#3#2", key(1, "D_bit", 35, 20, BIT), {Job{5, "D", 2, 2}, Job{5, "D", 3, 1}}},
        // without a usable limit, pieces are blocks of 128 units
        {"1#0#0#3#0", key(1, "D", 0, 300), {Job{5, "D", 0, 128}, Job{5, "D", 128, 128}, Job{5, "D", 256, 44}}},
        {"1#0#0#3#-1", key(1, "M", 0, 200, BIT), {Job{5, "M", 0, 128 * 16}, Job{5, "M", 128, 72 * 16}}},
    };
    for (const auto &c : cases) {
        configure(c.property);
        KEY_ADDRESS k = c.key;
        EXPECT_EQ(1, intf_addConditionRead(&k, 5));
        EXPECT_EQ(c.jobs, jobsOf(driver.conditionReads, true)) << c.property;
        EXPECT_EQ(c.jobs.back(), jobsOf(QList<VARIABLE>{driver.lastCondition}, true).at(0)) << c.property;
    }
}

TEST_F(Planning, RepeatedConditionReadRefreshesAWaitingJobButNeverTheHeadAndTheQueueIsBounded)
{
    const int ids[][2] = {{0, 1}, {0, 2}, {10, 3}, {10, 4}};
    for (const auto &a : ids) {
        KEY_ADDRESS k = key(1, "D", a[0], 1);
        intf_addConditionRead(&k, a[1]);
    }
    EXPECT_EQ((std::vector<Job>{Job{1, "D", 0, 1}, Job{2, "D", 0, 1}, Job{4, "D", 10, 1}}),
              jobsOf(driver.conditionReads, true));

    configure("1#0#0#3#10"); // a full queue reuses its last slot
    for (int i = 0; i <= 513; ++i) {
        KEY_ADDRESS k = key(1, "D", i < 513 ? i : 9000, 1);
        intf_addConditionRead(&k, i < 513 ? i : 7);
    }
    ASSERT_EQ(513, driver.conditionReads.size());
    EXPECT_EQ((Job{7, "D", 9000, 1}), jobsOf(driver.conditionReads, true).at(512));
    EXPECT_EQ((Job{511, "D", 511, 1}), jobsOf(driver.conditionReads, true).at(511));
}

} // namespace
