#include "hex_bytes.h"
#include "kq71_protocol.h"

#include <gtest/gtest.h>

TEST(Checksum, NoBytesGiveTheInitialValue)
{
    const unsigned char none = 0;
    EXPECT_EQ(computate_check(&none, 0), 0xFFFF);
}

TEST(Checksum, MatchesTheModbusCheckValue)
{
    const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(computate_check(digits, sizeof digits), 0x4B37);
}

TEST(Checksum, SentLowByteFirstItChecksAFrameToZero)
{
    const std::vector<unsigned char> request = hexBytes("01 03 43 9C 00 01 51 A0");
    EXPECT_EQ(computate_check(request.data(), 6), 0xA051);
    EXPECT_EQ(computate_check(request.data(), 8), 0);
}
