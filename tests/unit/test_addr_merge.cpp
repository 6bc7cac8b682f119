// Planning of the cyclic reads from the watch list.
#include "test_support.h"

#include <tuple>

using namespace kq71test;

namespace {

class AddrMerge : public DriverTest {};

using Job = std::tuple<int, std::string, int, int>; // station, register, address, length

struct MergeCase {
    const char *what;
    int mergeGap;
    std::vector<KEY_ADDRESS> keys;
    std::vector<Job> jobs;
};
void PrintTo(const MergeCase &c, std::ostream *os) { *os << c.what; }

class MergePlans : public DriverTest, public ::testing::WithParamInterface<MergeCase> {};

TEST_P(MergePlans, WatchListBecomesThePlan)
{
    const MergeCase &c = GetParam();
    configure(("1#0#0#3#" + std::to_string(c.mergeGap)).c_str());
    EXPECT_EQ(int(c.jobs.size()), watch(c.keys));
    std::vector<Job> plan;
    for (const VARIABLE &v : driver.cyclicReads) {
        EXPECT_EQ(4, v.id);
        plan.emplace_back(v.station, v.regName.toStdString(), v.address, v.length);
    }
    EXPECT_EQ(c.jobs, plan);
}

const int BIT = -1;
INSTANTIATE_TEST_SUITE_P(
    EdgeCases, MergePlans,
    ::testing::Values(
        MergeCase{"touching", 10, {key(1, "D", 105, 3), key(1, "D", 100, 5)}, {Job{1, "D", 100, 8}}},
        MergeCase{"gap bridged", 10, {key(1, "D", 100, 5), key(1, "D", 110, 2)}, {Job{1, "D", 100, 12}}},
        MergeCase{"gap too wide", 4, {key(1, "D", 100, 5), key(1, "D", 110, 2)},
                  {Job{1, "D", 100, 5}, Job{1, "D", 110, 2}}},
        MergeCase{"gap 0 joins touching keys only", 0, {key(1, "D", 100, 5), key(1, "D", 105, 3), key(1, "D", 109, 1)},
                  {Job{1, "D", 100, 8}, Job{1, "D", 109, 1}}},
        MergeCase{"negative gap", -5, {key(1, "D", 100, 5), key(1, "D", 105, 3)}, {Job{1, "D", 100, 8}}},
        MergeCase{"no block crosses 8000", 10, {key(1, "D", 7990, 5), key(1, "D", 7995, 10)},
                  {Job{1, "D", 7990, 5}, Job{1, "D", 7995, 10}}},
        MergeCase{"a block may end at 8000", 10, {key(1, "D", 7990, 5), key(1, "D", 7995, 5)}, {Job{1, "D", 7990, 10}}},
        MergeCase{"above 8000 merges freely", 10, {key(1, "M", 8000, 10, BIT), key(1, "M", 8010, 10, BIT)},
                  {Job{1, "M", 8000, 20}}},
        MergeCase{"long key cut at 128", 10, {key(1, "D", 0, 200)}, {Job{1, "D", 0, 128}, Job{1, "D", 128, 72}}},
        MergeCase{"union over 128 stays two", 10, {key(1, "D", 0, 100), key(1, "D", 50, 100)},
                  {Job{1, "D", 0, 100}, Job{1, "D", 50, 100}}},
        MergeCase{"bridged block kept to 128", 30, {key(1, "D", 0, 100), key(1, "D", 120, 20)},
                  {Job{1, "D", 0, 100}, Job{1, "D", 120, 20}}},
        MergeCase{"bits in words", 10, {key(1, "D_bit", 35, 20, BIT), key(1, "D_bit", 64, 16, BIT)},
                  {Job{1, "D", 2, 3}}},
        MergeCase{"32-bit lengths halved", 10, {key(1, "200CC", 200, 4), key(1, "256CC", 300, 3)},
                  {Job{1, "200CC", 200, 2}, Job{1, "256CC", 300, 1}}},
        MergeCase{"stations in order, never merged", 10, {key(2, "D", 0, 1), key(1, "D", 0, 1)},
                  {Job{1, "D", 0, 1}, Job{2, "D", 0, 1}}},
        MergeCase{"registers in table order", 10, {key(1, "D", 0, 1), key(1, "X", 0, 1, BIT)},
                  {Job{1, "X", 0, 1}, Job{1, "D", 0, 1}}},
        MergeCase{"unknown name on station 0 last", 10, {key(0, "Q", 0, 1), key(3, "D", 5, 1)},
                  {Job{3, "D", 5, 1}, Job{0, "Q", 0, 1}}}));

TEST_F(AddrMerge, NewWatchListReplacesTheMarksAndEmptyListPlansNothing)
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

TEST_F(AddrMerge, PlanningWritesItsDebugLines)
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

} // namespace
