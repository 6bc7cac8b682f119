// Where the driver keeps a panel whole: every job settles once, M relays stay
// on their own side of 8000, and a runtime that re-initialises the driver
// from inside a report finds it consistent.
#include "test_support.h"

using namespace kq71test;

namespace {

class Settling : public DriverTest {};

TEST_F(Settling, JobsNoFrameCanBeBuiltForAreGivenUpAndTheNextGoesOut)
{
    watch({key(1, "QQ", 0, 2), key(1, "D", 500, 1)});
    // A write: its pending value falls back at once; the next job is the read.
    set(1, "QQ", 0, 1, {7, 0});
    FRAME_PRO f = nextFrame();
    EXPECT_EQ(0, pending("QQ", 0));
    EXPECT_EQ(Reports({{1, 1, "QQ", 0}, {1, 1, "QQ", 0}}), reports()); // mirrored, then fallen back
    EXPECT_EQ("D", f.var.regName.toStdString()) << "the unbuildable cyclic read only rotates";
    // A condition read ends its batch as failed.
    answerWith(plc.answer(f));
    KEY_ADDRESS k = key(1, "QQ", 0, 1);
    intf_addConditionRead(&k, 9);
    answerWith(plc.answer(nextFrame()));
    EXPECT_EQ(Reports({{-1, -1, "-1", -1}}), reports());
    EXPECT_TRUE(driver.conditionReads.isEmpty());
    // More of them than a run of writes: all go in one call, not ten a call.
    for (int a = 0; a < 25; ++a)
        set(1, "QQ", a, 1, {1, 0});
    set(1, "D", 7, 1, {1, 0});
    f = nextFrame();
    EXPECT_EQ(0x06, f.frame[1]) << "the write, not a read of the plan";
    EXPECT_EQ(7, f.var.address);
}

TEST_F(Settling, AWritePushedOutOfTheFullQueueFallsBackAtOnce)
{
    watch({key(1, "D", 0, 600)});
    for (int a = 0; a < MAX_QUEUED_JOBS; ++a)
        set(1, "D", a, 1, {1, 0});
    reports();
    set(1, "D", 599, 1, {2, 0}); // takes the last slot
    EXPECT_EQ(0, pending("D", MAX_QUEUED_JOBS - 1));
    EXPECT_EQ(0, word("D", MAX_QUEUED_JOBS - 1));
    EXPECT_EQ(Reports({{1, 1, "D", MAX_QUEUED_JOBS - 1}, {1, 1, "D", 599}}), reports());
    EXPECT_EQ(1, pending("D", 599));
}

TEST_F(Settling, MRelaysAcross8000AreReadAndWrittenInTheirOwnAreas)
{
    configure("1#0#0#3#4");
    watch({key(1, "M", 7996, 8, BIT)});
    ASSERT_EQ(2, driver.cyclicReads.size());
    EXPECT_EQ(4, driver.cyclicReads.at(0).length);
    EXPECT_EQ(8000, driver.cyclicReads.at(1).address);
    set(1, "M", 7998, 4, {1, 1, 1, 1});
    for (int i = 0; i < 6; ++i)
        step();
    for (int m = 7998; m < 8002; ++m)
        EXPECT_EQ(1, plc.bits[m < 8000 ? 0x200 + m : m - 4160]) << "M" << m;
    EXPECT_EQ(Bytes({0, 0, 1, 1, 1, 1, 0, 0}), get(1, "M", 7996, 8, 8));
}

TEST_F(Settling, InitialisingFromInsideAReportLeavesAConsistentDriver)
{
    watch({key(1, "D", 0, 4)});
    for (int a = 0; a < 4; ++a)
        plc.regs[0x4338 + a] = quint16(0x1234 + a);
    bool once = false;
    Recorder::get().hook = [&](const Report &) {
        if (once)
            return;
        once = true;
        configure("1#0#0#3#10"); // the cache goes; M takes the first name id
        watch({key(1, "M", 0, 4, BIT)});
    };
    step();
    Recorder::get().hook = nullptr;
    EXPECT_EQ(Bytes({0, 0, 0, 0}), get(1, "M", 0, 4, 4)) << "a word landed in a bit record";
    for (int i = 0; i < 3; ++i)
        step();
    EXPECT_EQ(Bytes({0, 0, 0, 0}), get(1, "M", 0, 4, 4));
}

} // namespace
