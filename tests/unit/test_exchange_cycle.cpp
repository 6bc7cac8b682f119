// The exchange cycle as a runtime drives it: which job goes next, retries,
// rotation of the plan, the end of condition-read batches, the error text.
#include "test_support.h"

using namespace kq71test;

namespace {

class Cycle : public DriverTest {
protected:
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
};

TEST_F(Cycle, JobsFollowTheBurstLimits)
{
    const struct {
        bool plan;
        int writes, conditions;
        const char *sequence;
    } cases[] = {
        {true, 12, 0, "WWWWWWWWWWRWWRR"}, {true, 0, 5, "CCCRCCRR"}, {true, 3, 1, "WWWRCR"}, {true, 2, 1, "WWCR"},
        {false, 11, 0, "WWWWWWWWWW.W."}, // without a plan, ten writes pause once, then resume
    };
    for (const auto &c : cases) {
        configure("1#0#0#3#10");
        watch(c.plan ? std::vector<KEY_ADDRESS>{key(1, "D", 500, 1)} : std::vector<KEY_ADDRESS>{});
        for (int i = 0; i < c.writes; ++i)
            set(1, "D", i, 1, {1, 0});
        for (int i = 0; i < c.conditions; ++i)
            condition(200 + 10 * i);
        EXPECT_EQ(c.sequence, run(int(strlen(c.sequence)))) << c.writes << " writes, " << c.conditions << " conditions";
    }
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

TEST_F(Cycle, GivenUpConditionReadDropsItsBatchAndEndsItOnce)
{
    configure("1#0#0#1#10");
    condition(200);
    condition(300);
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED));
    EXPECT_EQ((Reports{{-1, -1, "-1", -1}}), reports()); // not the last one added, yet the batch ends
    EXPECT_EQ(".", run(1));
    EXPECT_TRUE(reports().empty());
    condition(400);
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED));
    EXPECT_EQ((Reports{{-1, -1, "-1", -1}}), reports());
}

TEST_F(Cycle, RetriesResendTheSameFrameUntilTheLimit)
{
    watch({key(1, "D", 100, 3), key(1, "D", 1000, 1)});
    const Bytes first = sentBytes(nextFrame());
    EXPECT_EQ(8, answerWith(READ_REFUSED));
    EXPECT_EQ(1, answerWith(plc.answer(nextFrame()))); // a good reply resets the count
    const Bytes second = sentBytes(nextFrame());
    EXPECT_NE(first, second);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(8, answerWith(READ_REFUSED));
        EXPECT_EQ(second, sentBytes(nextFrame()));
    }
    EXPECT_EQ(2, answerWith(READ_REFUSED));
    EXPECT_TRUE(driver.frameQueue.isEmpty());
    EXPECT_EQ(first, sentBytes(nextFrame())); // the given-up read rotated the plan

    configure("1#0#0#0#10");
    watch({key(1, "D", 100, 1)});
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED)); // below 2 the first bad reply gives up
}

TEST_F(Cycle, PlanRotatesAndAPlanOfOneStays)
{
    std::vector<int> order;
    watch({key(1, "D", 0, 1), key(1, "D", 1000, 1), key(1, "D", 2000, 1)});
    for (FRAME_PRO f; order.size() < 6 && step(&f) == 1;)
        order.push_back(f.var.address);
    watch({key(1, "D", 7, 1)});
    for (FRAME_PRO f; order.size() < 8 && step(&f) == 1;)
        order.push_back(f.var.address);
    EXPECT_EQ((std::vector<int>{0, 1000, 2000, 0, 1000, 2000, 7, 7}), order);
}

TEST(ErrorText, NamesTheHeadJobAndThePlcErrorNumber)
{
    const struct {
        int station;
        const char *reg;
        int address, length;
        const char *reply, *text;
    } rows[] = {
        {1, "D", 100, 3, "01 03 06 00 01 00 02 00 03 FD 74", "1#D100(3)"},
        {1, "D", 100, 3, "01 83 02 C0 F1", "1#D100(3),error code:3"},
        {2, "X", 16, 10, "02 81 02 31 91", "2#X16(10),error code:1"},
        {1, "V", 5, 1, "01 86 02 C3 A1", "1#V5(1),error code:6"},
        {1, "Z", 6, 1, "", "1#Z3(1)"},
        {1, "Z", 5, 1, "01 83 02 C0 F1", "1#V2(1),error code:3"}, // Z at an odd address is a V register
        {1, "Z", -3, 1, "", "1#Z-1(1)"},                          // remainder -1: treated as even
        {1, "Z", -4, 1, "", "1#Z-2(1)"},
        {1, "D", 100, 3, "01 80 02 C0 F1", "1#D100(3)"},
        {1, "D", 100, 3, "01 FF 02 C0 F1", "1#D100(3),error code:127"},
        {1, "D", 100, 3, "01 83 02 C0 F1 00", "1#D100(3)"},
        {1, "D", 100, 3, "01 83 02 C0", "1#D100(3)"},
        {0, "%3", 7, 2, "", "0#%37(2)"}, // a '%' in a name is not a placeholder
    };
    for (const auto &r : rows) {
        driver.frameQueue.clear();
        EXPECT_TRUE(getErrorInfo(QByteArray::fromHex(r.reply)).isEmpty()); // nothing queued: no text
        FRAME_PRO f;
        f.var = job(r.reg, r.address, r.length, r.station);
        driver.frameQueue.append(f);
        EXPECT_EQ(getErrorInfo(QByteArray::fromHex(r.reply)), QString::fromLatin1(r.text));
    }
    driver.frameQueue.clear();
}

} // namespace
