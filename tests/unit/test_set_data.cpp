// The runtime's writes: jobs on the write queue, their frames, and the mirror
// of the written values in the cache.
#include "test_support.h"

using namespace kq71test;

namespace {

class SetData : public DriverTest {
protected:
    FakePlc plc;
    int pending(const char *reg, int a) { return driver.dataAreas.at(getIndexOfDataArea(1, reg, a)).writePending; }
};

TEST_F(SetData, WriteIsMirroredAtOnceAndSentAsOneFrame)
{
    set(1, "D", 100, 2, {0x34, 0x12, 0x78, 0x56}, 7);
    ASSERT_EQ(1, driver.writeJobs.size());
    EXPECT_EQ(7, driver.writeJobs.first().id);
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
    EXPECT_EQ(1, pending("D", 101));
    FRAME_PRO f;
    EXPECT_EQ(1, step(plc, &f));
    EXPECT_EQ(withCrc({1, 0x10, 0x43, 0x9C, 0, 2, 4, 0x12, 0x34, 0x56, 0x78}), sentBytes(f));
    EXPECT_EQ(7, f.var.id);
    EXPECT_TRUE(driver.writeJobs.isEmpty());
    EXPECT_EQ((std::map<int, quint16>{{0x439C, 0x1234}, {0x439D, 0x5678}}), plc.regs);
    EXPECT_EQ(0, pending("D", 101));
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
}

TEST_F(SetData, QueuedWriteToTheSameRangeIsReplacedInPlaceButNeverTheHead)
{
    watch({key(1, "D", 100, 2)});
    set(1, "D", 100, 2, {1, 0, 2, 0}, 1);
    set(1, "D", 100, 2, {1, 0, 2, 0}, 2); // the head is never replaced
    EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D", 101}}), reports());
    set(1, "D", 100, 2, {5, 0, 6, 0}, 3);
    ASSERT_EQ(2, driver.writeJobs.size());
    EXPECT_EQ(3, driver.writeJobs.at(1).id);
    EXPECT_EQ((Bytes{5, 0, 6, 0}), Bytes(driver.writeJobs.at(1).data, driver.writeJobs.at(1).data + 4));
}

TEST_F(SetData, FullWriteQueueReusesItsLastSlot)
{
    for (int i = 0; i < MAX_QUEUED_JOBS; ++i)
        set(1, "D", i, 1, {1, 0}, i);
    set(1, "D", 9000, 1, {1, 0}, 99);
    ASSERT_EQ(MAX_QUEUED_JOBS, driver.writeJobs.size());
    EXPECT_EQ(9000, driver.writeJobs.at(512).address);
}

TEST_F(SetData, InterleavedRegistersAreWrittenOneWordPerJob)
{
    DebugCapture debug;
    set(1, "V", 5, 3, {0x11, 0, 0x22, 0, 0x33, 0});
    EXPECT_EQ((std::vector<std::string>{"addVarToList 1 \"V\" 5 1 2", "addVarToList 1 \"V\" 6 1 2",
                                        "addVarToList 1 \"V\" 7 1 2"}),
              debug.startingWith("addVarToList"));
    EXPECT_EQ(3, runUntilIdle(plc));
    EXPECT_EQ((std::map<int, quint16>{{0x6483, 0x11}, {0x6485, 0x22}, {0x6487, 0x33}}), plc.regs);
    set(1, "Z", 10, 2, {1, 2, 3, 4});
    EXPECT_EQ((Bytes{1, 2, 3, 4}), get(1, "Z", 10, 2, 4));
}

TEST_F(SetData, ChangedBitsAreReportedWatchedOrNot)
{
    set(1, "X", 0, 3, {1, 0, 1});
    EXPECT_EQ((Reports{{1, 1, "X", 0}, {1, 1, "X", 2}}), reports());
    EXPECT_EQ(1, pending("X", 1));
}

TEST_F(SetData, CacheOnlyWritesQueueNothing)
{
    configure("1#1#0#3#10");
    set(1, "D", 100, 1, {0x78, 0x56});
    EXPECT_TRUE(driver.writeJobs.isEmpty());
    EXPECT_EQ(0x5678, word(1, "D", 100));
    EXPECT_EQ(1, pending("D", 100));
}

// Writes of every size reach the PLC whole: pieces by the configured limit,
// capped to what one request carries, 32-bit pieces on double-word bounds.
struct WriteCase {
    const char *what, *property, *reg;
    int address, length, wireBase;
    bool bits;
    int jobs; // -1: not pinned down
};
void PrintTo(const WriteCase &c, std::ostream *os) { *os << c.what; }

class WholeWrites : public SetData, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(WholeWrites, EveryValueReachesThePlcAndTheCache)
{
    const WriteCase &c = GetParam();
    configure(c.property);
    Bytes values(c.bits ? c.length : 2 * c.length);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = c.bits ? (i * 7 % 3 == 0) : static_cast<unsigned char>(i * 13 + 1);
    set(1, c.reg, c.address, c.length, values);
    if (c.jobs >= 0)
        EXPECT_EQ(c.jobs, driver.writeJobs.size());
    runUntilIdle(plc);
    for (int i = 0; i < c.length; ++i) {
        const int expected = c.bits ? values[i] : values[2 * i] | values[2 * i + 1] << 8;
        ASSERT_EQ(expected, c.bits ? plc.bits[c.wireBase + i] : plc.regs[c.wireBase + i]) << "unit " << i;
    }
    EXPECT_EQ(values, get(1, c.reg, c.address, c.length, int(values.size())));
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, WholeWrites,
    ::testing::Values(WriteCase{"bits over the piece limit", "1#0#0#3#2", "M", 0, 20, 0x200, true, 2},
                      WriteCase{"bits over one request", "1#0#0#3#200", "M", 0, 1500, 0x200, true, -1},
                      WriteCase{"words over one request", "1#0#0#3#1000", "D", 0, 600, 0x4338, false, -1},
                      WriteCase{"words without a usable limit", "1#0#0#3#0", "D", 0, 300, 0x4338, false, 3},
                      WriteCase{"32-bit in one job", "1#0#0#3#64", "200CC", 200, 4, 0x42C8, false, 1},
                      WriteCase{"32-bit with an odd limit", "1#0#0#3#3", "200CC", 200, 8, 0x42C8, false, 4}));

} // namespace
