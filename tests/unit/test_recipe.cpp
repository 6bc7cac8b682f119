// Recipe transfers between the runtime's recipe buffer and the PLC, started
// and ended through the runtime's shared-memory flags.
#include "test_support.h"

using namespace kq71test;

namespace {

_RCP_VAR_PRO item(int deviceId, int station, const char *reg, int address, int length, int bufOffset)
{
    _RCP_VAR_PRO r;
    r.deviceId = deviceId;
    r.station = station;
    r.regName = reg;
    r.address = address;
    r.length = length;
    r.bufOffset = bufOffset;
    return r;
}

Report rwi(int word) { return Report{0, -1, "RWI", word}; }

class Recipe : public DriverTest {
protected:
    FakePlc plc;

    int setItems(const std::vector<_RCP_VAR_PRO> &items)
    {
        QVector<_RCP_VAR_PRO> v;
        for (const _RCP_VAR_PRO &i : items)
            v.append(i);
        return intf_setRcpAddress(&v);
    }
    void putWord(int w, int value)
    {
        recipe_[2 * w] = value & 0xFF;
        recipe_[2 * w + 1] = value >> 8;
    }
    int bufWord(int w) { return recipe_[2 * w] | recipe_[2 * w + 1] << 8; }
    unsigned char &writeFlag() { return shared_[KQ71_RECIPE_WRITE_FLAG]; }
    unsigned char &readFlag() { return shared_[KQ71_RECIPE_READ_FLAG]; }
};

TEST_F(Recipe, ItemsOfThisDriverAreSortedAndMergedIntoBlocks)
{
    EXPECT_EQ(4, setItems({item(1, 2, "D", 0, 1, 7), item(1, 1, "D", 102, 3, 2), item(2, 1, "D", 5, 1, 9),
                           item(1, 1, "D", 100, 2, 0), item(1, 1, "D", 200, 1, 5)}));
    EXPECT_EQ(100, driver.rcpItems.at(0).address);
    ASSERT_EQ(3, driver.rcpBlocks.size());
    const _RCP_VAR_PRO &b = driver.rcpBlocks.at(0);
    EXPECT_EQ((std::vector<int>{1, 100, 5, 0}), (std::vector<int>{b.station, b.address, b.length, b.bufOffset}));
    EXPECT_EQ(2, driver.rcpBlocks.at(2).station);
    EXPECT_EQ((QList<int>{0, 2, 3}), driver.rcpBlockStarts);
}

TEST_F(Recipe, WrittenThenReadBackThroughTheFlags)
{
    setItems({item(1, 1, "200CC", 200, 2, 5), item(1, 1, "D", 102, 3, 2), item(1, 1, "D", 100, 2, 0)});
    const std::vector<int> words{0x1234, 0x0102, 0x0304, 0x0506, 0x0708, 0x5678, 0x9ABC};
    for (size_t w = 0; w < words.size(); ++w)
        putWord(int(w), words[w]);

    writeFlag() = 1;
    FRAME_PRO f;
    ASSERT_EQ(1, step(plc, &f));
    EXPECT_EQ(CYCLE_RECIPE_WRITE, driver.cycleState);
    EXPECT_EQ(withCrc({1, 0x10, 0x43, 0x9C, 0, 5, 10, 0x12, 0x34, 1, 2, 3, 4, 5, 6, 7, 8}), sentBytes(f));
    EXPECT_EQ(1, writeFlag());
    EXPECT_EQ(1, runUntilIdle(plc));
    EXPECT_EQ(0, writeFlag());
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(0x5678, plc.regs[0x42C8]); // the double word's first word on the wire
    EXPECT_EQ(0x9ABC, plc.regs[0x42C9]);

    std::fill(recipe_, recipe_ + 64, 0);
    reports();
    readFlag() = 1;
    EXPECT_EQ(2, runUntilIdle(plc));
    EXPECT_EQ(0, readFlag());
    for (size_t w = 0; w < words.size(); ++w)
        EXPECT_EQ(words[w], bufWord(int(w))) << "word " << w;
    EXPECT_EQ((Reports{rwi(0), rwi(1), rwi(2), rwi(3), rwi(4), rwi(5), rwi(6)}), reports());
}

TEST_F(Recipe, InterleavedBlockIsWrittenOneWordPerFrameAndAdvancesOnce)
{
    setItems({item(1, 1, "V", 5, 3, 4), item(1, 1, "D", 100, 1, 0)}); // blocks: D 100, then V 5..7
    putWord(4, 0xAA);
    putWord(5, 0xBB);
    putWord(6, 0xCC);
    writeFlag() = 1;
    ASSERT_EQ(1, step(plc));
    for (int i = 0; i < 3; ++i) {
        FRAME_PRO f;
        ASSERT_EQ(1, step(plc, &f));
        EXPECT_EQ(0x06, f.frame[1]);
        EXPECT_EQ(i < 2 ? 1 : 0, driver.rcpIndex) << i;
        EXPECT_EQ(i < 2 ? 1 : 0, writeFlag()) << i;
    }
    EXPECT_EQ((std::vector<int>{0xAA, 0xBB, 0xCC, 0}), (std::vector<int>{plc.regs[0x6483], plc.regs[0x6485],
                                                                          plc.regs[0x6487], plc.regs[0x6484]}));
}

TEST_F(Recipe, GivenUpBlockEndsTheTransfer)
{
    configure("1#0#0#1#10");
    setItems({item(1, 1, "D", 100, 1, 0), item(1, 1, "D", 200, 1, 1), item(1, 1, "D", 300, 1, 2)});
    writeFlag() = 1;
    ASSERT_EQ(1, step(plc));
    nextFrame();
    EXPECT_EQ(2, answerWith(QByteArray("\x01\x90\x02\xCD\xC1", 5)));
    EXPECT_EQ(0, writeFlag());
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(0, runUntilIdle(plc));
}

TEST_F(Recipe, FlagWithoutBlocksIsLoweredAndTheCycleGoesOn)
{
    setItems({item(1, 1, "D", 100, 1, 0), item(1, 1, "D", 200, 1, 1)});
    driver.rcpIndex = 1;
    EXPECT_EQ(0, setItems({item(2, 1, "D", 100, 1, 0)}));
    EXPECT_TRUE(driver.rcpBlocks.isEmpty() && driver.rcpBlockStarts.isEmpty() && driver.rcpBlockItems.isEmpty());
    EXPECT_EQ(0, driver.rcpIndex);
    watch({key(1, "D", 500, 1)});
    writeFlag() = 1;
    nextFrame();
    EXPECT_EQ(CYCLE_CYCLIC, driver.cycleState);
    EXPECT_EQ(0, writeFlag());
}

TEST_F(Recipe, BitItemsArePackedSixteenToAWord)
{
    setItems({item(1, 1, "M", 0, 20, 3)});
    putWord(3, 0xA5C3);
    putWord(4, 0x000B);
    writeFlag() = 1;
    runUntilIdle(plc);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(((i < 16 ? 0xA5C3 : 0x000B) >> (i % 16)) & 1, plc.bits[0x200 + i]) << "bit " << i;
    putWord(3, 0);
    putWord(4, 0);
    reports();
    readFlag() = 1;
    runUntilIdle(plc);
    EXPECT_EQ(0xA5C3, bufWord(3));
    EXPECT_EQ(0x000B, bufWord(4));
    EXPECT_EQ((Reports{rwi(3), rwi(4)}), reports());
}

TEST_F(Recipe, ItemsLongerThanABlockKeepTheirPlaces)
{
    // Blocks D 0 (128 words), D 128 (the first item's rest and the second
    // item, which is stored far away), D 400.
    setItems({item(1, 1, "D", 0, 200, 10), item(1, 1, "D", 200, 2, 300), item(1, 1, "D", 400, 1, 0)});
    for (int i = 0; i < 200; ++i)
        putWord(10 + i, i + 1);
    putWord(300, 0xAAAA);
    putWord(301, 0xBBBB);
    putWord(0, 0xCCCC);
    const Bytes original(recipe_, recipe_ + 1024);
    writeFlag() = 1;
    EXPECT_EQ(3, runUntilIdle(plc));
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(i + 1, plc.regs[0x4338 + i]) << "D" << i;
    EXPECT_EQ((std::vector<int>{0xAAAA, 0xBBBB, 0xCCCC}),
              (std::vector<int>{plc.regs[0x4338 + 200], plc.regs[0x4338 + 201], plc.regs[0x4338 + 400]}));
    std::fill(recipe_, recipe_ + 1024, 0);
    reports();
    readFlag() = 1;
    EXPECT_EQ(3, runUntilIdle(plc));
    EXPECT_EQ(original, Bytes(recipe_, recipe_ + 1024));
    EXPECT_EQ(203u, reports().size());
}

} // namespace
