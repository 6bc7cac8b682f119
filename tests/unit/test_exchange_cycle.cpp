// The exchange cycle as a runtime drives it: which job goes next, retries,
// rotation of the plan and the end of condition-read batches.
#include "test_support.h"

using namespace kq71test;

namespace {

class Cycle : public DriverTest {
protected:
    FakePlc plc;

    // n exchanges, one letter per job: W write, C condition read, R cyclic read, '.' nothing.
    std::string run(int n)
    {
        std::string seq;
        for (int i = 0; i < n; ++i) {
            FRAME_PRO f;
            if (intf_getSendFrame(&f) != 1) {
                seq += '.';
                continue;
            }
            seq += "??WCR??"[qBound(0, driver.cycleState, 6)];
            EXPECT_EQ(1, answerWith(plc.answer(f)));
        }
        return seq;
    }
    void condition(int address)
    {
        KEY_ADDRESS k = key(1, "D", address, 1);
        EXPECT_EQ(1, intf_addConditionRead(&k, 9));
    }
    const QByteArray bad = QByteArray("\x01\x83\x02\xC0\xF1", 5); // an error reply
};

struct Priority {
    int writes, conditions;
    std::string sequence;
};
void PrintTo(const Priority &p, std::ostream *os) { *os << p.writes << " writes, " << p.conditions << " conditions"; }

class CyclePriorities : public Cycle, public ::testing::WithParamInterface<Priority> {};

TEST_P(CyclePriorities, JobsFollowTheBurstLimits)
{
    const Priority &p = GetParam();
    watch({key(1, "D", 500, 1)});
    for (int i = 0; i < p.writes; ++i)
        set(1, "D", i, 1, {1, 0});
    for (int i = 0; i < p.conditions; ++i)
        condition(200 + 10 * i);
    EXPECT_EQ(p.sequence, run(int(p.sequence.size())));
}

INSTANTIATE_TEST_SUITE_P(Bursts, CyclePriorities,
                         ::testing::Values(Priority{12, 0, "WWWWWWWWWWRWWRR"}, Priority{0, 5, "CCCRCCRR"},
                                           Priority{3, 1, "WWWRCR"}, Priority{2, 1, "WWCR"}));

TEST_F(Cycle, TenWritesWithoutAPlanPauseOnceThenResume)
{
    for (int i = 0; i < 11; ++i)
        set(1, "D", i, 1, {1, 0});
    EXPECT_EQ("WWWWWWWWWW.W.", run(13));
}

TEST_F(Cycle, EndOfConditionBatchIsReportedOnceAfterItsLastRead)
{
    watch({key(1, "D", 500, 1)});
    for (int i = 0; i < 5; ++i)
        condition(200 + 10 * i);
    for (int i = 0; i < 6; ++i) {
        run(1);
        EXPECT_EQ(i == 5 ? (Reports{{-1, -1, "-1", 0}}) : Reports{}, reports()) << "exchange " << i;
    }
}

TEST_F(Cycle, RetriesResendTheSameFrameUntilTheLimit)
{
    watch({key(1, "D", 100, 3), key(1, "D", 1000, 1)});
    const Bytes first = sentBytes(nextFrame());
    EXPECT_EQ(8, answerWith(bad));
    EXPECT_EQ(1, answerWith(plc.answer(nextFrame()))); // a good reply resets the count
    const Bytes second = sentBytes(nextFrame());
    EXPECT_NE(first, second);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(8, answerWith(bad));
        EXPECT_EQ(second, sentBytes(nextFrame()));
    }
    EXPECT_EQ(2, answerWith(bad));
    EXPECT_TRUE(driver.frameQueue.isEmpty());
    EXPECT_EQ(0, driver.retryCount);
    EXPECT_EQ(first, sentBytes(nextFrame())); // the given-up read rotated the plan

    configure("1#0#0#0#10");
    watch({key(1, "D", 100, 1)});
    nextFrame();
    EXPECT_EQ(2, answerWith(bad)); // below 2 the first bad reply gives up
}

TEST_F(Cycle, PlanRotatesAndAPlanOfOneStays)
{
    std::vector<int> order;
    watch({key(1, "D", 0, 1), key(1, "D", 1000, 1), key(1, "D", 2000, 1)});
    for (FRAME_PRO f; order.size() < 6 && step(plc, &f) == 1;)
        order.push_back(f.var.address);
    watch({key(1, "D", 7, 1)});
    for (FRAME_PRO f; order.size() < 8 && step(plc, &f) == 1;)
        order.push_back(f.var.address);
    EXPECT_EQ((std::vector<int>{0, 1000, 2000, 0, 1000, 2000, 7, 7}), order);
}

TEST_F(Cycle, GivenUpConditionReadDropsItsBatch)
{
    configure("1#0#0#1#10");
    condition(200);
    condition(300);
    nextFrame();
    EXPECT_EQ(2, answerWith(bad));
    EXPECT_TRUE(reports().empty()); // not the last one added
    EXPECT_EQ(".", run(1));

    condition(400);
    nextFrame();
    EXPECT_EQ(2, answerWith(bad));
    EXPECT_EQ((Reports{{-1, -1, "-1", -1}}), reports());
}

} // namespace
