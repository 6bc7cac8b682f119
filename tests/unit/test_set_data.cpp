// The runtime's writes: jobs on the write queue, their frames, the mirror of
// the written values in the cache, and how a write ends: acknowledged (the
// written value becomes the read value) or given up (back to the value read).
#include "test_support.h"

using namespace kq71test;

namespace {

class SetData : public DriverTest {
protected:
    void readFive(const char *property) // D 100 watched and read once as 5
    {
        configure(property);
        watch({key(1, "D", 100, 1)});
        plc.regs[0x439C] = 5;
        ASSERT_EQ(1, step());
        reports();
    }
    void giveUpNextWrite()
    {
        nextFrame();
        ASSERT_EQ(CYCLE_WRITE, driver.cycleState);
        EXPECT_EQ(2, answerWith(WRITE_REFUSED));
    }
};

TEST_F(SetData, WriteIsMirroredAtOnceSentAsOneFrameAndBecomesTheReadValueOnTheAck)
{
    readFive("1#0#0#3#10");
    set(1, "D", 100, 2, {0x34, 0x12, 0x78, 0x56}, 7);
    EXPECT_EQ((Reports{{1, 1, "D", 100}}), reports()); // D101 is not watched
    ASSERT_EQ(1, driver.writeJobs.size());
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
    EXPECT_EQ(1, pending("D", 101));
    FRAME_PRO f;
    EXPECT_EQ(1, step(&f));
    EXPECT_EQ(CYCLE_WRITE, driver.cycleState);
    EXPECT_EQ(withCrc({1, 0x10, 0x43, 0x9C, 0, 2, 4, 0x12, 0x34, 0x56, 0x78}), sentBytes(f));
    EXPECT_EQ(7, f.var.id);
    EXPECT_TRUE(driver.writeJobs.isEmpty());
    EXPECT_EQ((std::map<int, quint16>{{0x439C, 0x1234}, {0x439D, 0x5678}}), plc.regs);
    EXPECT_EQ(0, pending("D", 101));
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
    ASSERT_EQ(1, step()); // the PLC holds the written values now: nothing changed
    EXPECT_TRUE(reports().empty());
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
    ASSERT_EQ(513, driver.writeJobs.size());
    EXPECT_EQ(9000, driver.writeJobs.at(512).address);
}

TEST_F(SetData, InterleavedRegistersAreWrittenOneWordPerJob)
{
    DebugCapture debug;
    set(1, "V", 5, 3, {0x11, 0, 0x22, 0, 0x33, 0});
    EXPECT_EQ((std::vector<std::string>{"addVarToList 1 \"V\" 5 1 2", "addVarToList 1 \"V\" 6 1 2",
                                        "addVarToList 1 \"V\" 7 1 2"}),
              debug.startingWith("addVarToList"));
    EXPECT_EQ(3, runUntilIdle());
    EXPECT_EQ((std::map<int, quint16>{{0x6483, 0x11}, {0x6485, 0x22}, {0x6487, 0x33}}), plc.regs);
}

TEST_F(SetData, ChangedBitsAreReportedWatchedOrNotAndCacheOnlyWritesQueueNothing)
{
    set(1, "X", 0, 3, {1, 0, 1});
    EXPECT_EQ((Reports{{1, 1, "X", 0}, {1, 1, "X", 2}}), reports());
    EXPECT_EQ(1, pending("X", 1));
    configure("1#1#0#3#10");
    set(1, "D", 100, 1, {0x78, 0x56});
    EXPECT_TRUE(driver.writeJobs.isEmpty());
    EXPECT_EQ(0x5678, word("D", 100));
    EXPECT_EQ(1, pending("D", 100));
}

// Writes of every size reach the PLC whole: pieces by the configured limit,
// capped to what one request carries, 32-bit pieces on double-word bounds.
TEST_F(SetData, EveryValueOfAWriteReachesThePlcAndTheCache)
{
    const struct {
        const char *what, *property, *reg;
        int address, length, wireBase;
        bool bits;
        int jobs; // -1: not pinned down
    } cases[] = {
        {"bits over the piece limit", "1#0#0#3#2", "M", 0, 20, 0x200, true, 2},
        {"bits over one request", "1#0#0#3#200", "M", 0, 1500, 0x200, true, -1},
        {"words over one request", "1#0#0#3#1000", "D", 0, 600, 0x4338, false, -1},
        {"words without a usable limit", "1#0#0#3#0", "D", 0, 300, 0x4338, false, 3},
        {"32-bit in one job", "1#0#0#3#64", "200CC", 200, 4, 0x42C8, false, 1},
        {"32-bit with an odd limit", "1#0#0#3#3", "200CC", 200, 8, 0x42C8, false, 4},
        {"interleaved", "1#0#0#3#10", "Z", 10, 2, 0x648C, false, 2}, // Z k at 0x6478 + 2k
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure(c.property);
        plc = FakePlc();
        Bytes values(c.bits ? c.length : 2 * c.length);
        for (size_t i = 0; i < values.size(); ++i)
            values[i] = c.bits ? (i * 7 % 3 == 0) : static_cast<unsigned char>(i * 13 + 1);
        set(1, c.reg, c.address, c.length, values);
        if (c.jobs >= 0)
            EXPECT_EQ(c.jobs, driver.writeJobs.size());
        runUntilIdle();
        const int stride = std::string(c.reg) == "Z" ? 2 : 1;
        for (int i = 0; i < c.length; ++i) {
            const int expected = c.bits ? values[i] : values[2 * i] | values[2 * i + 1] << 8;
            ASSERT_EQ(expected, c.bits ? plc.bits[c.wireBase + i] : plc.regs[c.wireBase + stride * i]) << "unit " << i;
        }
        EXPECT_EQ(values, get(1, c.reg, c.address, c.length, int(values.size())));
    }
}

TEST_F(SetData, AcknowledgementAfterAChangingReadStillInstallsTheWrittenValue)
{
    readFive("1#0#0#3#10");
    set(1, "D", 100, 1, {7, 0});
    {
        ServiceLock lock; // a read reply that overtook the write
        analyzeFrameOfVal(QByteArray("\x01\x03\x02\x00\x09", 5), 1, 3, job("D", 100, 1));
    }
    EXPECT_EQ(9, word("D", 100));
    reports();
    ASSERT_EQ(1, step());
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(7, word("D", 100));
}

TEST_F(SetData, GivenUpWriteFallsBackToTheReadValueAndReports)
{
    for (int written : {7, 5}) { // a failure is reported even when nothing would change
        readFive("1#0#0#1#10");
        set(1, "D", 100, 1, {Bytes::value_type(written), 0});
        reports();
        std::vector<int> seen; // what the runtime reads inside the report
        Recorder::get().hook = [&](const Report &) { seen.push_back(word("D", 100)); };
        giveUpNextWrite();
        Recorder::get().hook = nullptr;
        EXPECT_EQ((Reports{{1, 1, "D", 100}}), reports()) << written;
        EXPECT_EQ(std::vector<int>{5}, seen) << written;
        EXPECT_EQ(0, pending("D", 100));
        EXPECT_TRUE(driver.writeJobs.isEmpty());
    }
    set(1, "X", 4, 2, {1, 1}); // bits: every unit, watched or not
    reports();
    giveUpNextWrite();
    EXPECT_EQ((Reports{{1, 1, "X", 4}, {1, 1, "X", 5}}), reports());
    EXPECT_EQ((Bytes{0, 0}), get(1, "X", 4, 2, 2));
}

} // namespace
