// Recipe transfers between the runtime's recipe buffer and the PLC, started
// and ended through the runtime's shared-memory flags.
#include "test_support.h"

using namespace kq71test;

namespace {

_RCP_VAR_PRO item(const char *reg, int address, int length, int bufOffset, int station = 1, int deviceId = 1)
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

class Recipe : public DriverTest {
protected:
    int setItems(QVector<_RCP_VAR_PRO> items) { return intf_setRcpAddress(&items); }
    void putWords(int w, const std::vector<int> &values)
    {
        for (int v : values) {
            recipe_[2 * w] = v & 0xFF;
            recipe_[2 * w++ + 1] = v >> 8;
        }
    }
    int bufWord(int w) { return recipe_[2 * w] | recipe_[2 * w + 1] << 8; }
    unsigned char &writeFlag() { return shared_[KQ71_RECIPE_WRITE_FLAG]; }
    unsigned char &readFlag() { return shared_[KQ71_RECIPE_READ_FLAG]; }
    // Reads the recipe back into a cleared buffer; the words reported as "RWI".
    std::vector<int> readBack(int clearBytes)
    {
        std::fill(recipe_, recipe_ + clearBytes, 0);
        reports();
        readFlag() = 1;
        runUntilIdle();
        EXPECT_EQ(0, readFlag());
        std::vector<int> words;
        for (const Report &r : reports()) {
            EXPECT_EQ((Report{0, -1, "RWI", std::get<3>(r)}), r);
            words.push_back(std::get<3>(r));
        }
        return words;
    }
};

TEST_F(Recipe, WrittenThenReadBackThroughTheFlags)
{
    setItems({item("200CC", 200, 2, 5), item("D", 102, 3, 2), item("D", 100, 2, 0)});
    const std::vector<int> words{0x1234, 0x0102, 0x0304, 0x0506, 0x0708, 0x5678, 0x9ABC};
    putWords(0, words);
    writeFlag() = 1;
    FRAME_PRO f;
    ASSERT_EQ(1, step(&f));
    EXPECT_EQ(CYCLE_RECIPE_WRITE, driver.cycleState);
    EXPECT_EQ(withCrc({1, 0x10, 0x43, 0x9C, 0, 5, 10, 0x12, 0x34, 1, 2, 3, 4, 5, 6, 7, 8}), sentBytes(f));
    EXPECT_EQ(1, writeFlag());
    EXPECT_EQ(1, runUntilIdle());
    EXPECT_EQ(0, writeFlag());
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(0x5678, plc.regs[0x42C8]); // the double word's first word on the wire
    EXPECT_EQ(0x9ABC, plc.regs[0x42C9]);

    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}), readBack(64));
    for (size_t w = 0; w < words.size(); ++w)
        EXPECT_EQ(words[w], bufWord(int(w))) << "word " << w;
}

TEST_F(Recipe, InterleavedBlockIsWrittenOneWordPerFrameAndAdvancesOnce)
{
    setItems({item("V", 5, 3, 4), item("D", 100, 1, 0)}); // blocks: D 100, then V 5..7
    putWords(4, {0xAA, 0xBB, 0xCC});
    writeFlag() = 1;
    ASSERT_EQ(1, step());
    for (int i = 0; i < 3; ++i) {
        FRAME_PRO f;
        ASSERT_EQ(1, step(&f));
        EXPECT_EQ(0x06, f.frame[1]);
        EXPECT_EQ(i < 2 ? 1 : 0, driver.rcpIndex) << i;
        EXPECT_EQ(i < 2 ? 1 : 0, writeFlag()) << i;
    }
    EXPECT_EQ((std::vector<int>{0xAA, 0xBB, 0xCC, 0}),
              (std::vector<int>{plc.regs[0x6483], plc.regs[0x6485], plc.regs[0x6487], plc.regs[0x6484]}));
}

TEST_F(Recipe, GivenUpBlockEndsTheTransfer)
{
    configure("1#0#0#1#10");
    setItems({item("D", 100, 1, 0), item("D", 200, 1, 1), item("D", 300, 1, 2)});
    writeFlag() = 1;
    ASSERT_EQ(1, step());
    nextFrame();
    EXPECT_EQ(2, answerWith(READ_REFUSED));
    EXPECT_EQ(0, writeFlag());
    EXPECT_EQ(0, driver.rcpIndex);
    EXPECT_EQ(0, runUntilIdle());
}

TEST_F(Recipe, FlagWithoutBlocksIsLoweredAndTheCycleGoesOn)
{
    setItems({item("D", 100, 1, 0), item("D", 200, 1, 1)});
    driver.rcpIndex = 1;
    EXPECT_EQ(0, setItems({item("D", 100, 1, 0, 1, 2)})); // another device's items only
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
    setItems({item("M", 0, 20, 3)});
    putWords(3, {0xA5C3, 0x000B});
    writeFlag() = 1;
    runUntilIdle();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(((i < 16 ? 0xA5C3 : 0x000B) >> (i % 16)) & 1, plc.bits[0x200 + i]) << "bit " << i;
    EXPECT_EQ((std::vector<int>{3, 4}), readBack(64));
    EXPECT_EQ(0xA5C3, bufWord(3));
    EXPECT_EQ(0x000B, bufWord(4));
}

TEST_F(Recipe, ItemsLongerThanABlockKeepTheirPlaces)
{
    // Blocks D 0 (128 words), D 128 (the first item's rest and the second
    // item, which is stored far away), D 400.
    setItems({item("D", 0, 200, 10), item("D", 200, 2, 300), item("D", 400, 1, 0)});
    for (int i = 0; i < 200; ++i)
        putWords(10 + i, {i + 1});
    putWords(300, {0xAAAA, 0xBBBB});
    putWords(0, {0xCCCC});
    const Bytes original(recipe_, recipe_ + 1024);
    writeFlag() = 1;
    EXPECT_EQ(3, runUntilIdle());
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(i + 1, plc.regs[0x4338 + i]) << "D" << i;
    EXPECT_EQ((std::vector<int>{0xAAAA, 0xBBBB, 0xCCCC}),
              (std::vector<int>{plc.regs[0x4338 + 200], plc.regs[0x4338 + 201], plc.regs[0x4338 + 400]}));
    EXPECT_EQ(203u, readBack(1024).size());
    EXPECT_EQ(original, Bytes(recipe_, recipe_ + 1024));
}

} // namespace
