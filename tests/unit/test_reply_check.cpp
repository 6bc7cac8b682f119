#include "hex_bytes.h"
#include "kq71_protocol.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

FRAME_PRO readJob(const char *reg, int address, int length)
{
    VARIABLE v;
    v.station = 1;
    v.regName = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    FRAME_PRO f;
    EXPECT_TRUE(buildReadFrame(v, f));
    return f;
}

FRAME_PRO writeJob(const char *reg, int address, int length)
{
    VARIABLE v;
    v.station = 1;
    v.regName = QString::fromLatin1(reg);
    v.address = address;
    v.length = length;
    FRAME_PRO f;
    EXPECT_TRUE(buildWriteFrame(v, f));
    return f;
}

int rate(const char *reply, const FRAME_PRO &head)
{
    const std::vector<unsigned char> b = hexBytes(reply);
    return rateReply(b.data(), int(b.size()), head);
}

} // namespace

TEST(ReplyCheck, RatesByLengthAndCrcOnly)
{
    const FRAME_PRO d100x3 = readJob("D", 100, 3);
    const FRAME_PRO d100x1 = readJob("D", 100, 1);
    const FRAME_PRO d100w1 = writeJob("D", 100, 1);
    const FRAME_PRO d100w2 = writeJob("D", 100, 2);
    const struct {
        const char *what;
        const char *reply;
        const FRAME_PRO &head;
        int rating;
    } rows[] = {
        {"good read reply", "01 03 06 00 01 00 02 00 03 FD 74", d100x3, 1},
        {"good one-register reply", "01 03 02 12 34 B5 33", d100x1, 1},
        {"single write echo", "01 06 43 9C 12 34 51 17", d100w1, 2},
        {"multiple write ack", "01 10 43 9C 00 02 94 62", d100w2, 2},
        {"ack against a 7-byte read", "01 06 43 9C 12 34 51 17", d100x1, 0},
        {"one byte short", "01 03 06 00 01 00 02 00 03 FD", d100x3, 0},
        {"one byte long", "01 03 06 00 01 00 02 00 03 FD 74 00", d100x3, 0},
        {"CRC bytes swapped", "01 03 06 00 01 00 02 00 03 74 FD", d100x3, 0},
        {"CRC high byte wrong", "01 03 06 00 01 00 02 00 03 FD 75", d100x3, 0},
        {"data changed", "01 03 06 00 01 00 02 00 04 FD 74", d100x3, 0},
        {"exception reply", "01 83 02 C0 F1", d100x3, 0},
        // station and function are not compared
        {"other station, good CRC", "02 03 02 12 34 F1 33", d100x1, 1},
    };
    for (const auto &r : rows)
        EXPECT_EQ(rate(r.reply, r.head), r.rating) << r.what;
}

TEST(ReplyCheck, NothingIsReadForAnEmptyOrNegativeReply)
{
    FRAME_PRO handshake;
    buildHandshakeFrame(handshake);
    // A null pointer proves the bytes are never touched.
    EXPECT_EQ(rateReply(nullptr, 0, handshake), 0);
    EXPECT_EQ(rateReply(nullptr, -1, handshake), 0);
    FRAME_PRO odd = handshake;
    odd.recvLen = -4;
    EXPECT_EQ(rateReply(nullptr, -4, odd), 0);
    odd.recvLen = 1;
    const unsigned char one = 0xFF;
    EXPECT_EQ(rateReply(&one, 1, odd), 0);
}

TEST(ReplyCheck, RatesAgainstTheHeadOfTheQueue)
{
    driver.frameQueue.clear();
    const std::vector<unsigned char> reply = hexBytes("01 06 43 9C 12 34 51 17");
    EXPECT_EQ(check_rcv_data(reply.data(), QList<VARIABLE>(), int(reply.size())), 0);
    driver.frameQueue.append(writeJob("D", 100, 1));
    driver.frameQueue.append(readJob("D", 100, 1));
    EXPECT_EQ(check_rcv_data(reply.data(), QList<VARIABLE>(), int(reply.size())), 2);
    driver.frameQueue.removeFirst();
    EXPECT_EQ(check_rcv_data(reply.data(), QList<VARIABLE>(), int(reply.size())), 0);
    driver.frameQueue.clear();
}

TEST(ReplyCheck, PackersTakeTheFirstByteAsLeastSignificant)
{
    EXPECT_EQ(uchar2int16(0x34, 0x12), 0x1234);
    EXPECT_EQ(uchar2int16(0xFF, 0xFF), 65535);
    EXPECT_EQ(uchar2int32(0x70, 0x11, 0x01, 0x00), 70000);
    EXPECT_EQ(uchar2int32(0xFF, 0xFF, 0xFF, 0xFF), -1);
    EXPECT_EQ(uchar2int32(0x00, 0x00, 0x00, 0x80), INT_MIN);
    EXPECT_EQ(uchar2int32(0xFF, 0xFF, 0xFF, 0x7F), INT_MAX);
}
