// The exchange cycle as a runtime drives it: which job goes next, retries,
// rotation of the plan, the end of condition-read batches, recipe transfers
// through the shared-memory flags, and where the driver keeps a panel whole:
// every job settles once and M relays stay on their own side of 8000. A
// runtime re-initialising the driver from inside a report is left to the
// fuzz calls target's kept inputs.
#include "test_support.h"

using namespace kq71test;

namespace {

class Cycle : public DriverTest {
protected:
    // n exchanges, one letter per job: W write, C condition read, R cyclic read, '.' nothing.
    std::string run(int n)
    {
        std::string seq;
        for (FRAME_PRO f; n-- > 0;) {
            seq += intf_getSendFrame(&f) != 1 ? '.' : "??WCR??"[qBound(0, driver.cycleState, 6)];
            if (seq.back() != '.')
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
    const struct { bool plan; int writes, conditions; const char *sequence; } cases[] = {
        {true, 12, 0, "WWWWWWWWWWRWWRR"}, {true, 0, 5, "CCCRCCRR"}, {true, 3, 1, "WWWRCR"}, {true, 2, 1, "WWCR"},
        {false, 11, 0, "WWWWWWWWWW.W."}, // without a plan, ten writes pause once, then resume
    };
    for (const auto &c : cases) {
        configure("1#0#0#3#10");
        watch(c.plan ? std::vector<KEY_ADDRESS>{key(1, "D", 500, 1)} : std::vector<KEY_ADDRESS>{});
        for (int i = 0; i < c.writes; ++i)
            set("D", i, 1, {1, 0});
        for (int i = 0; i < c.conditions; ++i)
            condition(200 + 10 * i);
        EXPECT_EQ(c.sequence, run(int(strlen(c.sequence)))) << c.writes << " writes, " << c.conditions << " conditions";
    }
}

// How a batch ends after its last read is shown through the loaded library;
// here, a given-up read ends it at once.
TEST_F(Cycle, ABatchOfConditionReadsEndsOnceWhenOneIsGivenUp)
{
    configure("1#0#0#1#10");
    for (int round = 0; round < 2; ++round) { // a given-up read that is not the last one added ends its batch
        condition(200);
        condition(300);
        nextFrame();
        EXPECT_EQ(2, answerWith(READ_REFUSED));
        EXPECT_EQ((Reports{{-1, -1, "-1", -1}}), reports());
        EXPECT_EQ(".", run(1));
        EXPECT_TRUE(reports().empty());
    }
}

TEST_F(Cycle, RetriesResendTheSameFrameUntilTheLimitAndThePlanRotates)
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
    auto next = [&] { FRAME_PRO f; EXPECT_EQ(1, step(&f)); return f.var.address; };
    watch({key(1, "D", 0, 1), key(1, "D", 1000, 1), key(1, "D", 2000, 1)});
    EXPECT_EQ((std::vector<int>{0, 1000, 2000, 0}), (std::vector<int>{next(), next(), next(), next()}));
    watch({key(1, "D", 7, 1)}); // a plan of one stays
    EXPECT_EQ(std::make_pair(7, 7), std::make_pair(next(), next()));
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED)); // below 2 the first bad reply gives up
}

class Recipe : public DriverTest {
protected:
    void setItems(std::initializer_list<std::tuple<const char *, int, int, int>> items, int deviceId = 1)
    {
        QVector<_RCP_VAR_PRO> v;
        for (const auto &[reg, address, length, bufOffset] : items) {
            v.append(named<_RCP_VAR_PRO>(1, reg, address, length));
            v.last().deviceId = deviceId;
            v.last().bufOffset = bufOffset;
        }
        intf_setRcpAddress(&v);
    }
    void putWords(int w, const std::vector<int> &values)
    {
        for (int v : values) {
            recipe_[2 * w] = v & 0xFF;
            recipe_[2 * w++ + 1] = v >> 8;
        }
    }
    unsigned char &flag(int which) { return shared_[which]; }
    // Writes the recipe, reads it back into a cleared buffer and gives the words reported as "RWI".
    std::vector<int> roundTrip(int frames, int bytes = 64)
    {
        flag(KQ71_RECIPE_WRITE_FLAG) = 1;
        EXPECT_EQ(frames, runUntilIdle());
        EXPECT_EQ(0, flag(KQ71_RECIPE_WRITE_FLAG));
        const Bytes written(recipe_, recipe_ + bytes);
        std::fill(recipe_, recipe_ + bytes, 0);
        reports();
        flag(KQ71_RECIPE_READ_FLAG) = 1;
        runUntilIdle();
        EXPECT_EQ(0, flag(KQ71_RECIPE_READ_FLAG));
        EXPECT_EQ(written, Bytes(recipe_, recipe_ + bytes));
        std::vector<int> words;
        for (const Report &r : reports()) {
            EXPECT_EQ((Report{0, -1, "RWI", std::get<3>(r)}), r);
            words.push_back(std::get<3>(r));
        }
        return words;
    }
};

TEST_F(Recipe, WordsAndDoubleWordsAreWrittenInBlocksAndReadBack)
{
    setItems({{"200CC", 200, 2, 5}, {"D", 102, 3, 2}, {"D", 100, 2, 0}});
    putWords(0, {0x1234, 0x0102, 0x0304, 0x0506, 0x0708, 0x5678, 0x9ABC});
    flag(KQ71_RECIPE_WRITE_FLAG) = 1;
    FRAME_PRO f;
    ASSERT_EQ(1, step(&f));
    EXPECT_EQ(CYCLE_RECIPE_WRITE, driver.cycleState);
    EXPECT_EQ(withCrc(hexBytes("01 10 43 9C 00 05 0A 12 34 01 02 03 04 05 06 07 08")), sentBytes(f));
    EXPECT_EQ(1, flag(KQ71_RECIPE_WRITE_FLAG));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}), roundTrip(1));
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(std::make_pair(0x5678, 0x9ABC), std::make_pair(int(plc.regs[0x42C8]), int(plc.regs[0x42C9])));
}

TEST_F(Recipe, BitItemsArePackedSixteenToAWord)
{
    setItems({{"M", 0, 20, 3}});
    putWords(3, {0xA5C3, 0x000B});
    EXPECT_EQ((std::vector<int>{3, 4}), roundTrip(1));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(((i < 16 ? 0xA5C3 : 0x000B) >> (i % 16)) & 1, plc.bits[0x200 + i]) << "bit " << i;
}

TEST_F(Recipe, ItemsLongerThanABlockKeepTheirPlaces)
{
    // Blocks D 0 (128 words), D 128 (the first item's rest and the second
    // item, which is stored far away), D 400.
    setItems({{"D", 0, 200, 10}, {"D", 200, 2, 300}, {"D", 400, 1, 0}});
    for (int i = 0; i < 200; ++i)
        putWords(10 + i, {i + 1});
    putWords(300, {0xAAAA, 0xBBBB});
    putWords(0, {0xCCCC});
    EXPECT_EQ(203u, roundTrip(3, 1024).size());
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(i + 1, plc.regs[0x4338 + i]) << "D" << i;
    EXPECT_EQ((std::vector<int>{0xAAAA, 0xBBBB, 0xCCCC}),
              (std::vector<int>{plc.regs[0x4338 + 200], plc.regs[0x4338 + 201], plc.regs[0x4338 + 400]}));
}

TEST_F(Recipe, GivenUpBlockEndsTheTransferAndAFlagWithoutBlocksIsLowered)
{
    configure("1#0#0#1#10");
    setItems({{"D", 100, 1, 0}, {"D", 200, 1, 1}, {"D", 300, 1, 2}});
    flag(KQ71_RECIPE_WRITE_FLAG) = 1;
    ASSERT_EQ(1, step());
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED));
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(int(flag(KQ71_RECIPE_WRITE_FLAG)), driver.rcpIndex));
    EXPECT_EQ(0, runUntilIdle());

    driver.rcpIndex = 1;
    setItems({{"D", 100, 1, 0}}, 2); // another device's items only
    EXPECT_TRUE(driver.rcpBlocks.isEmpty() && driver.rcpBlockStarts.isEmpty() && driver.rcpBlockItems.isEmpty());
    EXPECT_EQ(0, driver.rcpIndex);
    watch({key(1, "D", 500, 1)});
    flag(KQ71_RECIPE_WRITE_FLAG) = 1;
    nextFrame();
    EXPECT_EQ(CYCLE_CYCLIC, driver.cycleState);
    EXPECT_EQ(0, flag(KQ71_RECIPE_WRITE_FLAG));
}

using Settling = DriverTest;

TEST_F(Settling, JobsNoFrameCanBeBuiltForAreGivenUpAndTheNextGoesOut)
{
    watch({key(1, "QQ", 0, 2), key(1, "D", 500, 1)});
    // A write: its pending value falls back at once; the next job is the read.
    set("QQ", 0, 1, {7, 0});
    FRAME_PRO f = nextFrame();
    EXPECT_EQ(0, unit("QQ", 0).writePending);
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
        set("QQ", a, 1, {1, 0});
    set("D", 7, 1, {1, 0});
    f = nextFrame();
    EXPECT_EQ(std::make_pair(0x06, 7), std::make_pair(int(f.frame[1]), f.var.address)) << "the write, not a read";
}

TEST_F(Settling, AWritePushedOutOfTheFullQueueFallsBackAtOnce)
{
    watch({key(1, "D", 0, 600)});
    for (int a = 0; a < MAX_QUEUED_JOBS; ++a)
        set("D", a, 1, {1, 0});
    reports();
    set("D", 599, 1, {2, 0}); // takes the last slot
    ASSERT_EQ(MAX_QUEUED_JOBS, driver.writeJobs.size());
    EXPECT_EQ(599, driver.writeJobs.last().address);
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(int(unit("D", 512).writePending), word("D", 512)));
    EXPECT_EQ(Reports({{1, 1, "D", 512}, {1, 1, "D", 599}}), reports());
    EXPECT_EQ(1, unit("D", 599).writePending);
}

TEST_F(Settling, MRelaysAcross8000AreReadAndWrittenInTheirOwnAreas)
{
    configure("1#0#0#3#4");
    watch({key(1, "M", 7996, 8, BIT)});
    set("M", 7998, 4, {1, 1, 1, 1});
    for (int i = 0; i < 6; ++i)
        step();
    for (int m = 7998; m < 8002; ++m)
        EXPECT_EQ(1, plc.bits[m < 8000 ? 0x200 + m : m - 4160]) << "M" << m;
    EXPECT_EQ(Bytes({0, 0, 1, 1, 1, 1, 0, 0}), get("M", 7996, 8, 8));
}

} // namespace
