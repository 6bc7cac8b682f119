#include "hex_bytes.h"
#include "kq71_protocol.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

VARIABLE writeJob(const char *reg, int address, int length, const char *data = "")
{
    VARIABLE v;
    v.id = 9;
    v.station = 1;
    v.regName = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    const std::vector<unsigned char> bytes = hexBytes(data);
    if (!bytes.empty())
        std::memcpy(v.data, bytes.data(), bytes.size());
    return v;
}

std::string requestOf(const VARIABLE &v)
{
    FRAME_PRO f;
    if (!buildWriteFrame(v, f))
        return "refused";
    EXPECT_EQ(f.recvLen, 8);
    EXPECT_EQ(f.dataPos, 0);
    EXPECT_EQ(f.itemCount, 0);
    EXPECT_EQ(f.var.length, v.length);
    EXPECT_EQ(computate_check(f.frame, f.sendLen), 0);
    return hexText(f.frame, f.sendLen);
}

} // namespace

namespace {
struct WriteRow {
    const char *reg;
    int address, length;
    const char *data;
    const char *head; // request without its CRC
};
} // namespace

TEST(WriteFrame, FunctionAndLayoutFollowKindAndCount)
{
    const WriteRow rows[] = {
        // worked examples
        {"Y", 8, 1, "01", "01 05 01 08 FF 00"},
        {"M", 0, 10, "01 00 01 01 00 00 00 00 01 01", "01 0F 02 00 00 0A 02 0D 03"},
        {"D", 100, 1, "34 12", "01 06 43 9C 12 34"},
        {"V", 5, 1, "FF 00", "01 06 64 83 00 FF"},
        {"D", 100, 2, "01 00 02 00", "01 10 43 9C 00 02 04 00 01 00 02"},
        {"200CC", 201, 1, "70 11 01 00", "01 10 42 CA 00 02 04 11 70 00 01"},
        // only the value 1 sets a single bit; M from 8000 on has its own area
        {"X", 0, 1, "02", "01 05 00 00 00 00"},
        {"M", 8000, 1, "01", "01 05 0F 00 FF 00"},
        // 8 bits fill one byte, a ninth opens a second one
        {"S", 0, 8, "01 01 01 01 01 01 01 01", "01 0F 08 00 00 08 01 FF"},
        {"S", 0, 9, "00 00 00 00 00 00 00 00 01 01", "01 0F 08 00 00 09 02 00 01"},
        // bytes other than 0/1 are summed into the packed byte
        {"C", 0, 2, "02 00", "01 0F 0E 00 00 02 01 02"},
        // Z is interleaved below V; several V registers are not doubled
        {"Z", 5, 1, "01 00", "01 06 64 82 00 01"},
        {"V", 5, 2, "01 00 02 00", "01 10 64 7E 00 02 04 00 01 00 02"},
        // 32-bit values: always 0x10, low word first
        {"256CP", 256, 2, "04 03 02 01 08 07 06 05", "01 10 69 D0 00 04 08 03 04 01 02 07 08 05 06"},
        {"200CP", 200, 1, "00 00 00 80", "01 10 67 60 00 02 04 00 00 80 00"},
        {"256CC", 300, 1, "01 00 00 00", "01 10 68 28 00 02 04 00 01 00 00"},
        {"TC", 1, 1, "05 00", "01 06 40 01 00 05"},
        {"TP", 1, 1, "05 00", "01 06 64 99 00 05"},
        {"CC", 1, 1, "05 00", "01 06 42 01 00 05"},
        {"CP", 1, 1, "05 00", "01 06 66 99 00 05"},
        {"T", 1, 1, "01", "01 05 0C 01 FF 00"},
        {"200C", 201, 1, "01", "01 05 0E C9 FF 00"},
        {"256C", 300, 1, "01", "01 05 36 2C FF 00"},
        // nothing to write still gives a well-formed request
        {"D", 0, 0, "", "01 10 43 38 00 00 00"},
        {"X", 0, 0, "", "01 0F 00 00 00 00 00"},
    };
    for (const WriteRow &r : rows) {
        SCOPED_TRACE(std::string(r.reg) + " " + std::to_string(r.address) + " x" + std::to_string(r.length));
        const std::string request = requestOf(writeJob(r.reg, r.address, r.length, r.data));
        EXPECT_EQ(request.substr(0, std::strlen(r.head)), r.head);
        EXPECT_EQ(request.size(), std::strlen(r.head) + 6); // two CRC bytes
    }
}

TEST(WriteFrame, LargestRequestsFitAndOneMoreIsRefused)
{
    struct Limit {
        const char *reg;
        int length;
        int sendLen; // 0: refused
    } limits[] = {
        {"D", 507, 1023}, {"D", 508, 0},   {"256CC", 253, 1021}, {"256CC", 254, 0},
        {"M", 1024, 137}, {"M", 1025, 0},  {"D", -1, 0},         {"M", -1, 0},
        {"M", -9, 0},     {"D_bit", 1, 0}, {"", 1, 0},
    };
    for (const Limit &l : limits) {
        SCOPED_TRACE(std::string(l.reg) + " x" + std::to_string(l.length));
        VARIABLE v = writeJob(l.reg, 0, l.length);
        std::memset(v.data, 0xA5, sizeof v.data);
        FRAME_PRO f;
        f.sendLen = -3;
        const bool ok = buildWriteFrame(v, f);
        EXPECT_EQ(ok, l.sendLen != 0);
        EXPECT_EQ(f.sendLen, ok ? l.sendLen : -3);
        if (ok) {
            EXPECT_EQ(computate_check(f.frame, f.sendLen), 0);
        }
    }
}

TEST(WriteFrame, RegisterCountByteWrapsAbove127Registers)
{
    FRAME_PRO f;
    ASSERT_TRUE(buildWriteFrame(writeJob("D", 0, 128), f));
    EXPECT_EQ(f.frame[4] << 8 | f.frame[5], 128);
    EXPECT_EQ(f.frame[6], 0);
}

TEST(WriteFrame, QueueTakesKnownRegistersOnly)
{
    driver.frameQueue.clear();
    VARIABLE unknown = writeJob("DD", 0, 1, "01 00");
    getWriteFrame(unknown);
    EXPECT_TRUE(driver.frameQueue.isEmpty());
    VARIABLE d = writeJob("D", 100, 1, "34 12");
    getWriteFrame(d);
    ASSERT_EQ(driver.frameQueue.size(), 1);
    EXPECT_EQ(driver.frameQueue.first().var.id, 9);
    EXPECT_EQ(driver.frameQueue.first().sendLen, 8);
    driver.frameQueue.clear();
}
