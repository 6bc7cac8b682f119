// How a write ends: acknowledged (the written value becomes the read value) or
// given up (the runtime falls back to the value last read).
#include "test_support.h"

using namespace kq71test;

namespace {

class WriteCompletion : public DriverTest {
protected:
    FakePlc plc;

    void readFive(const char *property) // D 100 watched and read once as 5
    {
        configure(property);
        watch({key(1, "D", 100, 1)});
        plc.regs[0x439C] = 5;
        ASSERT_EQ(1, step(plc));
        reports();
    }
    void giveUpNextWrite()
    {
        nextFrame();
        ASSERT_EQ(CYCLE_WRITE, driver.cycleState);
        EXPECT_EQ(2, answerWith(QByteArray("\x01\x86\x02\xC3\xA1", 5)));
    }
    int pending(const char *reg, int a) { return driver.dataAreas.at(getIndexOfDataArea(1, reg, a)).writePending; }
};

TEST_F(WriteCompletion, AcknowledgedWriteBecomesTheReadValueWithoutReport)
{
    readFive("1#0#0#3#10");
    set(1, "D", 100, 1, {7, 0});
    EXPECT_EQ((Reports{{1, 1, "D", 100}}), reports());
    ASSERT_EQ(1, step(plc));
    EXPECT_EQ(CYCLE_WRITE, driver.cycleState);
    EXPECT_EQ(0, pending("D", 100));
    EXPECT_EQ(7, word(1, "D", 100));
    ASSERT_EQ(1, step(plc)); // the PLC now holds 7: nothing changed
    EXPECT_TRUE(reports().empty());
}

TEST_F(WriteCompletion, GivenUpWriteFallsBackToTheReadValueAndReports)
{
    for (int written : {7, 5}) { // a failure is reported even when nothing would change
        readFive("1#0#0#1#10");
        set(1, "D", 100, 1, {Bytes::value_type(written), 0});
        reports();
        std::vector<int> seen; // what the runtime reads inside the report
        Recorder::get().hook = [&](const Report &) { seen.push_back(word(1, "D", 100)); };
        giveUpNextWrite();
        Recorder::get().hook = nullptr;
        EXPECT_EQ((Reports{{1, 1, "D", 100}}), reports()) << written;
        EXPECT_EQ(std::vector<int>{5}, seen) << written;
        EXPECT_EQ(0, pending("D", 100));
        EXPECT_TRUE(driver.writeJobs.isEmpty());
    }
}

TEST_F(WriteCompletion, GivenUpBitWriteReportsEveryUnitWatchedOrNot)
{
    configure("1#0#0#1#10");
    set(1, "X", 4, 2, {1, 1});
    reports();
    giveUpNextWrite();
    EXPECT_EQ((Reports{{1, 1, "X", 4}, {1, 1, "X", 5}}), reports());
    EXPECT_EQ((Bytes{0, 0}), get(1, "X", 4, 2, 2));
}

TEST_F(WriteCompletion, AcknowledgementAfterAChangingReadStillInstallsTheWrittenValue)
{
    readFive("1#0#0#3#10");
    set(1, "D", 100, 1, {7, 0});
    VARIABLE v; // a read reply that overtook the write
    v.station = 1;
    v.regName = "D";
    v.address = 100;
    {
        ServiceLock lock;
        analyzeFrameOfVal(QByteArray("\x01\x03\x02\x00\x09", 5), 1, 3, v);
    }
    EXPECT_EQ(9, word(1, "D", 100));
    reports();
    ASSERT_EQ(1, step(plc));
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(7, word(1, "D", 100));
}

} // namespace
