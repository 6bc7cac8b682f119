// The family's wire layer: CRC, request builders, reply rating, merge rule.
#include "test_support.h"

#include <climits>
#include <cstring>

using namespace kq71test;

namespace {

std::string requestText(const FRAME_PRO &f) { return f.sendLen < 0 ? "refused" : hexText(f.frame, f.sendLen); }

VARIABLE withData(VARIABLE v, const char *data)
{
    const Bytes b = hexBytes(data);
    std::copy(b.begin(), b.end(), v.data);
    return v;
}

} // namespace

TEST(Checksum, IsCrc16ModbusSentLowByteFirst)
{
    const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(computate_check(digits, sizeof digits), 0x4B37); // the standard check value
    EXPECT_EQ(computate_check(digits, 0), 0xFFFF);
    const Bytes request = hexBytes("01 03 43 9C 00 01 51 A0");
    EXPECT_EQ(computate_check(request.data(), 6), 0xA051);
    EXPECT_EQ(computate_check(request.data(), 8), 0); // a frame with its CRC checks to zero
}

// One row or more per register: base, octal X/Y, M's second area from 8000,
// 200/256 counters numbered in pairs, V/Z interleave, reply lengths.
TEST(ReadFrame, EveryRegisterAddressesItsAreaAndAwaitsItsReplyLength)
{
    const struct {
        const char *reg;
        int address, length, station;
        const char *bytes; // whole request, or without its CRC
        int recvLen;
    } rows[] = {
        {"D", 100, 1, 1, "01 03 43 9C 00 01 51 A0", 7},    {"D", 100, 3, 1, "01 03 43 9C 00 03 D0 61", 11},
        {"X", 16, 10, 2, "02 01 00 10 00 0A BD FB", 7},    {"M", 8000, 16, 1, "01 01 0F 00 00 10 3E D2", 7},
        {"M", 100, 1, 1, "01 01 02 64 00 01 BD AD", 6},    {"V", 5, 3, 1, "01 03 64 83 00 05 6B 11", 15},
        {"Z", 5, 1, 1, "01 03 64 82 00 01 3B 12", 7},      {"200CC", 201, 2, 1, "01 03 42 CA 00 04 70 4F", 13},
        {"256CC", 300, 1, 1, "01 03 68 28 00 02 58 63", 9}, {"Y", 8, 1, 1, "01 01 01 08 00 01", 6},
        {"S", 100, 8, 1, "01 01 08 64 00 08", 6},          {"M", 7999, 9, 1, "01 01 21 3F 00 09", 7},
        {"M", 9999, 17, 1, "01 01 16 CF 00 11", 8},        {"T", 5, 3, 1, "01 01 0C 05 00 03", 6},
        {"C", 199, 1, 1, "01 01 0E C7 00 01", 6},          {"200C", 200, 2, 1, "01 01 0E C8 00 02", 6},
        {"256C", 256, 4, 1, "01 01 36 00 00 04", 6},       {"V", 0, 1, 1, "01 03 64 79 00 01", 7},
        {"Z", 3, 2, 1, "01 03 64 7E 00 03", 11},           {"TC", 10, 2, 1, "01 03 40 0A 00 02", 9},
        {"TP", 10, 2, 1, "01 03 64 A2 00 02", 9},          {"CC", 199, 1, 1, "01 03 42 C7 00 01", 7},
        {"CP", 0, 4, 1, "01 03 66 98 00 04", 13},          {"200CP", 255, 1, 1, "01 03 67 CE 00 02", 9},
        {"256CP", 256, 3, 1, "01 03 69 D0 00 06", 17},     {"D", 60000, 1, 1, "01 03 2D 98 00 01", 7},
        {"Y", 0, 0, 1, "01 01 01 00 00 00", 5},            {"Y", 0, 2000, 1, "01 01 01 00 07 D0", 255},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.reg) + std::to_string(r.address) + " x" + std::to_string(r.length));
        VARIABLE v = job(r.reg, r.address, r.length, r.station);
        v.id = 77;
        const FRAME_PRO f = frameFor(v, false);
        const std::string want = hexText(hexBytes(r.bytes).data(), int(hexBytes(r.bytes).size()));
        EXPECT_EQ(requestText(f).substr(0, want.size()), want);
        EXPECT_EQ(computate_check(f.frame, 8), 0);
        EXPECT_EQ(f.recvLen, r.recvLen);
        // The job keeps the caller's units, not the converted ones.
        EXPECT_EQ(std::make_tuple(f.sendLen, f.dataPos, f.itemCount, f.var.id, f.var.address, f.var.length),
                  std::make_tuple(8, 3, r.length, 77, r.address, r.length));
    }
    for (const char *name : {"", "d", "D_bit", "V "})
        EXPECT_EQ(requestText(frameFor(job(name, 0, 1), false)), "refused") << name;
}

TEST(WriteFrame, FunctionAndLayoutFollowKindAndCount)
{
    const struct {
        const char *reg;
        int address, length;
        const char *data, *head; // head: the request without its CRC
    } rows[] = {
        {"Y", 8, 1, "01", "01 05 01 08 FF 00"},       {"D", 100, 1, "34 12", "01 06 43 9C 12 34"},
        {"V", 5, 1, "FF 00", "01 06 64 83 00 FF"},   {"D", 100, 2, "01 00 02 00", "01 10 43 9C 00 02 04 00 01 00 02"},
        {"M", 0, 10, "01 00 01 01 00 00 00 00 01 01", "01 0F 02 00 00 0A 02 0D 03"},
        {"200CC", 201, 1, "70 11 01 00", "01 10 42 CA 00 02 04 11 70 00 01"},
        // only the value 1 sets a single bit; M from 8000 on has its own area
        {"X", 0, 1, "02", "01 05 00 00 00 00"},       {"M", 8000, 1, "01", "01 05 0F 00 FF 00"},
        // 8 bits fill one byte, a ninth opens a second one
        {"S", 0, 8, "01 01 01 01 01 01 01 01", "01 0F 08 00 00 08 01 FF"},
        {"S", 0, 9, "00 00 00 00 00 00 00 00 01 01", "01 0F 08 00 00 09 02 00 01"},
        {"C", 0, 2, "02 00", "01 0F 0E 00 00 02 01 02"}, // other bytes than 0/1 are summed into the packed byte
        // Z is interleaved below V; several V registers are not doubled
        {"Z", 5, 1, "01 00", "01 06 64 82 00 01"},   {"V", 5, 2, "01 00 02 00", "01 10 64 7E 00 02 04 00 01 00 02"},
        // 32-bit values: always 0x10, low word first
        {"256CP", 256, 2, "04 03 02 01 08 07 06 05", "01 10 69 D0 00 04 08 03 04 01 02 07 08 05 06"},
        {"200CP", 200, 1, "00 00 00 80", "01 10 67 60 00 02 04 00 00 80 00"},
        {"256CC", 300, 1, "01 00 00 00", "01 10 68 28 00 02 04 00 01 00 00"},
        {"TC", 1, 1, "05 00", "01 06 40 01 00 05"},   {"TP", 1, 1, "05 00", "01 06 64 99 00 05"},
        {"CC", 1, 1, "05 00", "01 06 42 01 00 05"},   {"CP", 1, 1, "05 00", "01 06 66 99 00 05"},
        {"T", 1, 1, "01", "01 05 0C 01 FF 00"},       {"200C", 201, 1, "01", "01 05 0E C9 FF 00"},
        {"256C", 300, 1, "01", "01 05 36 2C FF 00"},
        // nothing to write still gives a well-formed request
        {"D", 0, 0, "", "01 10 43 38 00 00 00"},      {"X", 0, 0, "", "01 0F 00 00 00 00 00"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.reg) + std::to_string(r.address) + " x" + std::to_string(r.length));
        const FRAME_PRO f = frameFor(withData(job(r.reg, r.address, r.length), r.data), true);
        const Bytes whole = withCrc(hexBytes(r.head));
        EXPECT_EQ(requestText(f), hexText(whole.data(), int(whole.size())));
        EXPECT_EQ(std::make_tuple(f.recvLen, f.dataPos, f.itemCount, f.var.length),
                  std::make_tuple(8, 0, 0, r.length));
    }
}

TEST(WriteFrame, LargestRequestsFitAndOneMoreIsRefused)
{
    const struct {
        const char *reg;
        int length, sendLen; // sendLen -1: refused
    } limits[] = {
        {"D", 507, 1023}, {"D", 508, -1}, {"256CC", 253, 1021}, {"256CC", 254, -1}, {"M", 1024, 137},
        {"M", 1025, -1},  {"D", -1, -1},  {"M", -9, -1},        {"D_bit", 1, -1},   {"", 1, -1},
    };
    for (const auto &l : limits) {
        VARIABLE v = job(l.reg, 0, l.length);
        std::memset(v.data, 0xA5, sizeof v.data);
        const FRAME_PRO f = frameFor(v, true);
        EXPECT_EQ(f.sendLen, l.sendLen) << l.reg << " x" << l.length;
        if (f.sendLen > 0)
            EXPECT_EQ(computate_check(f.frame, f.sendLen), 0) << l.reg << " x" << l.length;
    }
    EXPECT_EQ(frameFor(job("D", 0, 128), true).frame[6], 0); // the byte count wraps above 127 registers
}

TEST(ReplyCheck, RatesByLengthCrcAndWhatTheRequestAsked)
{
    const FRAME_PRO d100x3 = frameFor(job("D", 100, 3), false), d100x1 = frameFor(job("D", 100, 1), false);
    const FRAME_PRO d100w1 = frameFor(job("D", 100, 1), true), d100w2 = frameFor(job("D", 100, 2), true);
    const struct {
        const char *what, *reply;
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
        {"other station, good CRC", "02 03 02 12 34 F1 33", d100x1, 0},
    };
    for (const auto &r : rows) {
        const Bytes b = hexBytes(r.reply);
        EXPECT_EQ(rateReply(b.data(), int(b.size()), r.head), r.rating) << r.what;
    }
    // Well-formed frames with a good CRC that still do not answer the request.
    const FRAME_PRO m256x20 = frameFor(job("M", 256, 20), false);
    const struct {
        const char *what;
        Bytes body;
        const FRAME_PRO &head;
    } foreign[] = {
        {"another function", hexBytes("01 04 02 12 34"), d100x1},
        {"byte count off", hexBytes("01 03 04 12 34"), d100x1},
        {"ack of another write function", hexBytes("01 10 43 9C 00 01"), d100w1},
        {"the request echoed", Bytes(m256x20.frame, m256x20.frame + 6), m256x20},
    };
    for (const auto &r : foreign) {
        const Bytes b = withCrc(r.body);
        EXPECT_EQ(rateReply(b.data(), int(b.size()), r.head), 0) << r.what;
    }
    // 128 double words carry 512 bytes, a byte count of 0.
    Bytes big = hexBytes("01 03 00");
    big.resize(3 + 512, 0x5A);
    big = withCrc(big);
    EXPECT_EQ(rateReply(big.data(), int(big.size()), frameFor(job("200CC", 200, 128), false)), 1);
    // Nothing to read: a null pointer proves the bytes are never touched.
    FRAME_PRO handshake;
    buildHandshakeFrame(handshake);
    EXPECT_EQ(rateReply(nullptr, 0, handshake), 0);
    handshake.recvLen = -4;
    EXPECT_EQ(rateReply(nullptr, -4, handshake), 0);
    handshake.recvLen = 1;
    EXPECT_EQ(rateReply(reinterpret_cast<const unsigned char *>("\xFF"), 1, handshake), 0);
}

TEST(MergeRule, JoinsOnlyNeighboursThatStayOnOneSideOf8000)
{
    const struct {
        const char *what;
        KEY_ADDRESS block, next;
        int mode, gap, result;
    } rows[] = {
        {"other station", key(1, "D", 0, 5), key(2, "D", 5, 1), 0, 10, 1},
        {"other register", key(1, "D", 0, 5), key(1, "TC", 5, 1), 0, 10, 1},
        {"touching", key(1, "D", 100, 5), key(1, "D", 105, 3), 0, 0, 0},
        {"overlapping", key(1, "D", 100, 5), key(1, "D", 101, 1), 0, 0, 0},
        {"one apart, mode 0", key(1, "D", 100, 5), key(1, "D", 106, 1), 0, 10, 1},
        {"gap equal to mergeGap", key(1, "D", 100, 5), key(1, "D", 110, 2), 1, 5, 0},
        {"gap above mergeGap", key(1, "D", 100, 5), key(1, "D", 110, 2), 1, 4, 1},
        {"ends exactly at 8000", key(1, "D", 7990, 5), key(1, "D", 7995, 5), 0, 0, 0},
        {"ends beyond 8000", key(1, "D", 7990, 5), key(1, "D", 7995, 10), 0, 0, 1},
        {"block from 8000 on", key(1, "M", 8000, 10), key(1, "M", 8010, 10), 0, 0, 0},
        {"huge numbers do not wrap", key(1, "D", INT_MAX, INT_MAX), key(1, "D", INT_MIN, 1), 1, INT_MAX, 0},
        {"huge gap stays a gap", key(1, "D", INT_MIN, 1), key(1, "D", INT_MAX, 1), 1, INT_MAX, 1},
    };
    for (const auto &r : rows)
        EXPECT_EQ(judgeAddrMergeWithGap(r.block, r.next, r.mode, r.gap), r.result) << r.what;
    const int saved = driver.mergeGap;
    for (int gap : {10, 4}) { // the driver's rule takes the configured gap
        driver.mergeGap = gap;
        EXPECT_EQ(judgeAddrMerge(key(1, "D", 100, 5), key(1, "D", 110, 2), 1), gap < 5 ? 1 : 0);
    }
    driver.mergeGap = saved;
}
