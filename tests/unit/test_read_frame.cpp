#include "hex_bytes.h"
#include "kq71_protocol.h"
#include "protocol.h"

#include <gtest/gtest.h>

namespace {

VARIABLE job(const char *reg, int address, int length, int station = 1)
{
    VARIABLE v;
    v.id = 77;
    v.station = station;
    v.regName = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    return v;
}

FRAME_PRO built(const VARIABLE &v)
{
    FRAME_PRO f;
    EXPECT_TRUE(buildReadFrame(v, f));
    return f;
}

int wordAt(const FRAME_PRO &f, int pos) { return f.frame[pos] << 8 | f.frame[pos + 1]; }

} // namespace

namespace {
struct ReadExample {
    const char *reg;
    int address, length, station;
    const char *bytes;
    int recvLen;
};
} // namespace

TEST(ReadFrame, WorkedExamplesGiveTheseBytes)
{
    const ReadExample rows[] = {
        {"D", 100, 1, 1, "01 03 43 9C 00 01 51 A0", 7},
        {"D", 100, 3, 1, "01 03 43 9C 00 03 D0 61", 11},
        {"X", 16, 10, 2, "02 01 00 10 00 0A BD FB", 7},
        {"M", 8000, 16, 1, "01 01 0F 00 00 10 3E D2", 7},
        {"M", 100, 1, 1, "01 01 02 64 00 01 BD AD", 6},
        {"V", 5, 3, 1, "01 03 64 83 00 05 6B 11", 15},
        {"Z", 5, 1, 1, "01 03 64 82 00 01 3B 12", 7},
        {"200CC", 201, 2, 1, "01 03 42 CA 00 04 70 4F", 13},
        {"256CC", 300, 1, 1, "01 03 68 28 00 02 58 63", 9},
    };
    for (const ReadExample &r : rows) {
        SCOPED_TRACE(std::string(r.reg) + " " + std::to_string(r.address));
        const FRAME_PRO f = built(job(r.reg, r.address, r.length, r.station));
        EXPECT_EQ(hexText(f.frame, f.sendLen), hexText(hexBytes(r.bytes).data(), 8));
        EXPECT_EQ(f.recvLen, r.recvLen);
    }
}

namespace {
struct FamilyRow {
    const char *reg;
    int address, length;
    int function, plcAddress, count, recvLen;
};
} // namespace

// One row or more per register: base, scaling, M's second area, the 32-bit
// numbering and the V/Z interleave.
TEST(ReadFrame, EveryRegisterAddressesItsArea)
{
    const FamilyRow rows[] = {
        {"X", 16, 10, 0x01, 0x0010, 10, 7},        {"Y", 8, 1, 0x01, 0x0108, 1, 6},
        {"S", 100, 8, 0x01, 0x0864, 8, 6},         {"M", 7999, 9, 0x01, 0x213F, 9, 7},
        {"M", 8000, 16, 0x01, 0x0F00, 16, 7},      {"M", 9999, 17, 0x01, 0x16CF, 17, 8},
        {"T", 5, 3, 0x01, 0x0C05, 3, 6},           {"C", 199, 1, 0x01, 0x0EC7, 1, 6},
        {"200C", 200, 2, 0x01, 0x0EC8, 2, 6},      {"256C", 256, 4, 0x01, 0x3600, 4, 6},
        {"D", 100, 3, 0x03, 0x439C, 3, 11},        {"V", 0, 1, 0x03, 0x6479, 1, 7},
        {"V", 5, 3, 0x03, 0x6483, 5, 15},          {"Z", 5, 1, 0x03, 0x6482, 1, 7},
        {"Z", 3, 2, 0x03, 0x647E, 3, 11},          {"TC", 10, 2, 0x03, 0x400A, 2, 9},
        {"TP", 10, 2, 0x03, 0x64A2, 2, 9},         {"CC", 199, 1, 0x03, 0x42C7, 1, 7},
        {"CP", 0, 4, 0x03, 0x6698, 4, 13},         {"200CC", 201, 2, 0x03, 0x42CA, 4, 13},
        {"200CP", 255, 1, 0x03, 0x67CE, 2, 9},     {"256CC", 300, 1, 0x03, 0x6828, 2, 9},
        {"256CP", 256, 3, 0x03, 0x69D0, 6, 17},    {"D", 60000, 1, 0x03, 0x2D98, 1, 7},
    };
    for (const FamilyRow &r : rows) {
        SCOPED_TRACE(std::string(r.reg) + " " + std::to_string(r.address));
        const VARIABLE v = job(r.reg, r.address, r.length);
        const FRAME_PRO f = built(v);
        EXPECT_EQ(f.frame[1], r.function);
        EXPECT_EQ(wordAt(f, 2), r.plcAddress);
        EXPECT_EQ(wordAt(f, 4), r.count);
        EXPECT_EQ(computate_check(f.frame, 8), 0);
        EXPECT_EQ(f.recvLen, r.recvLen);
        // The job keeps the caller's units, not the converted ones.
        EXPECT_EQ(f.sendLen, 8);
        EXPECT_EQ(f.dataPos, 3);
        EXPECT_EQ(f.itemCount, r.length);
        EXPECT_EQ(f.reserved, 0);
        EXPECT_EQ(f.var.id, 77);
        EXPECT_EQ(f.var.address, r.address);
        EXPECT_EQ(f.var.length, r.length);
        EXPECT_EQ(f.var.regName, v.regName);
        EXPECT_EQ(f.frame[8], 0);
    }
}

TEST(ReadFrame, BitReplyLengthRoundsUpToWholeBytes)
{
    const int cases[][2] = {{0, 5}, {1, 6}, {8, 6}, {9, 7}, {16, 7}, {17, 8}, {2000, 255}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        const FRAME_PRO f = built(job("Y", 0, c[0]));
        EXPECT_EQ(wordAt(f, 4), c[0]);
        EXPECT_EQ(f.recvLen, c[1]);
    }
}

TEST(ReadFrame, UnknownRegisterIsRefusedAndLeavesTheRecordAlone)
{
    for (const char *name : {"", "d", "D_bit", "V "}) {
        FRAME_PRO f;
        f.sendLen = -7;
        EXPECT_FALSE(buildReadFrame(job(name, 0, 1), f)) << name;
        EXPECT_EQ(f.sendLen, -7);
    }
}

TEST(ReadFrame, QueueTakesOneJobForTheFirstVariableInOrder)
{
    driver.frameQueue.clear();
    EXPECT_EQ(getReadFrame(QList<VARIABLE>()), 0);
    EXPECT_EQ(getReadFrame(QList<VARIABLE>() << job("Q", 1, 1)), 0);
    EXPECT_TRUE(driver.frameQueue.isEmpty());

    EXPECT_EQ(getReadFrame(QList<VARIABLE>() << job("D", 100, 3) << job("X", 0, 1)), 1);
    EXPECT_EQ(getReadFrame(QList<VARIABLE>() << job("M", 8000, 16)), 1);
    ASSERT_EQ(driver.frameQueue.size(), 2);
    EXPECT_EQ(driver.frameQueue.at(0).var.regName, QString::fromLatin1("D"));
    EXPECT_EQ(driver.frameQueue.at(1).var.regName, QString::fromLatin1("M"));

    handShakeFrame();
    ASSERT_EQ(driver.frameQueue.size(), 3);
    const FRAME_PRO &hs = driver.frameQueue.at(2);
    EXPECT_EQ(hs.sendLen, 0);
    EXPECT_EQ(hs.recvLen, 0);
    EXPECT_EQ(hs.itemCount, 0);
    EXPECT_TRUE(hs.var.regName.isEmpty());
    driver.frameQueue.clear();
}
