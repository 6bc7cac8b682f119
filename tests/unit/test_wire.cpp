// The family's wire layer: request builders, reply rating, merge rule, error text.
#include "test_support.h"

#include <climits>
#include <cstring>

using namespace kq71test;

namespace {

FRAME_PRO frame(VARIABLE v, bool write = false, const Bytes &data = {})
{
    std::copy(data.begin(), data.end(), v.data);
    FRAME_PRO f;
    f.sendLen = -1; // a refusal leaves the record alone
    write ? buildWriteFrame(v, f) : buildReadFrame(v, f);
    return f;
}
std::string text(const Bytes &b) { return hexText(b.data(), int(b.size())); }

} // namespace

// One row per register: base, octal X/Y, M's second area from 8000, 200/256
// counters numbered in pairs, V/Z interleave; the reply length awaited.
TEST(ReadFrame, EveryRegisterAddressesItsAreaAndAwaitsItsReplyLength)
{
    // bytes: the whole request, or without its CRC; the station is its first byte
    const struct { const char *reg; int address, length, recvLen; const char *bytes; } rows[] = {
        {"D", 100, 1, 7, "01 03 43 9C 00 01 51 A0"},   {"X", 16, 10, 7, "02 01 00 10 00 0A BD FB"},
        {"M", 8000, 16, 7, "01 01 0F 00 00 10 3E D2"}, {"V", 5, 3, 15, "01 03 64 83 00 05 6B 11"},
        {"Z", 5, 1, 7, "01 03 64 82 00 01 3B 12"},     {"200CC", 201, 2, 13, "01 03 42 CA 00 04 70 4F"},
        {"256CC", 300, 1, 9, "01 03 68 28 00 02 58 63"}, {"Y", 8, 1, 6, "01 01 01 08 00 01"},
        {"S", 100, 8, 6, "01 01 08 64 00 08"},         {"M", 7999, 9, 7, "01 01 21 3F 00 09"},
        {"T", 5, 3, 6, "01 01 0C 05 00 03"},           {"C", 199, 1, 6, "01 01 0E C7 00 01"},
        {"200C", 200, 2, 6, "01 01 0E C8 00 02"},      {"256C", 256, 4, 6, "01 01 36 00 00 04"},
        {"TC", 10, 2, 9, "01 03 40 0A 00 02"},         {"TP", 10, 2, 9, "01 03 64 A2 00 02"},
        {"CC", 199, 1, 7, "01 03 42 C7 00 01"},        {"CP", 0, 4, 13, "01 03 66 98 00 04"},
        {"200CP", 255, 1, 9, "01 03 67 CE 00 02"},     {"256CP", 256, 3, 17, "01 03 69 D0 00 06"},
    };
    for (const auto &r : rows) {
        const Bytes want = hexBytes(r.bytes);
        VARIABLE v = named<VARIABLE>(want[0], r.reg, r.address, r.length);
        v.id = 77;
        const FRAME_PRO f = frame(v);
        EXPECT_EQ(text(want.size() == 6 ? withCrc(want) : want), hexText(f.frame, f.sendLen)) << r.reg << r.address;
        // The job keeps the caller's units, not the converted ones.
        EXPECT_EQ(std::make_tuple(8, r.recvLen, 3, r.length, 77, r.address, r.length),
                  std::make_tuple(f.sendLen, f.recvLen, f.dataPos, f.itemCount, f.var.id, f.var.address, f.var.length))
            << r.reg << r.address;
    }
    for (const char *name : {"", "d", "D_bit", "V "})
        EXPECT_EQ(-1, frame(job(name, 0, 1)).sendLen) << name;
}

TEST(WriteFrame, FunctionAndLayoutFollowKindAndCount)
{
    const struct { const char *reg; int address, length; const char *data, *head; } rows[] = { // head: without CRC
        {"Y", 8, 1, "01", "01 05 01 08 FF 00"},     {"D", 100, 1, "34 12", "01 06 43 9C 12 34"},
        {"V", 5, 1, "FF 00", "01 06 64 83 00 FF"}, {"D", 100, 2, "01 00 02 00", "01 10 43 9C 00 02 04 00 01 00 02"},
        {"M", 0, 10, "01 00 01 01 00 00 00 00 01 01", "01 0F 02 00 00 0A 02 0D 03"},
        {"200CC", 201, 1, "70 11 01 00", "01 10 42 CA 00 02 04 11 70 00 01"},
        // only the value 1 sets a single bit; M from 8000 on has its own area
        {"X", 0, 1, "02", "01 05 00 00 00 00"},     {"M", 8000, 1, "01", "01 05 0F 00 FF 00"},
        // 8 bits fill one byte, a ninth opens a second one; bytes other than 0/1 are summed into the packed byte
        {"S", 0, 8, "01 01 01 01 01 01 01 01", "01 0F 08 00 00 08 01 FF"},
        {"S", 0, 9, "00 00 00 00 00 00 00 00 01 01", "01 0F 08 00 00 09 02 00 01"},
        {"C", 0, 2, "02 00", "01 0F 0E 00 00 02 01 02"},
        // several V registers are not doubled; 32-bit values always go as 0x10, low word first
        {"V", 5, 2, "01 00 02 00", "01 10 64 7E 00 02 04 00 01 00 02"},
        {"256CP", 256, 2, "04 03 02 01 08 07 06 05", "01 10 69 D0 00 04 08 03 04 01 02 07 08 05 06"},
        {"200CP", 200, 1, "00 00 00 80", "01 10 67 60 00 02 04 00 00 80 00"},
        {"D", 0, 0, "", "01 10 43 38 00 00 00"},    {"X", 0, 0, "", "01 0F 00 00 00 00 00"},
    };
    for (const auto &r : rows) {
        const FRAME_PRO f = frame(job(r.reg, r.address, r.length), true, hexBytes(r.data));
        EXPECT_EQ(text(withCrc(hexBytes(r.head))), hexText(f.frame, f.sendLen)) << r.reg << r.address << " x" << r.length;
        EXPECT_EQ(std::make_tuple(8, 0, 0, r.length), std::make_tuple(f.recvLen, f.dataPos, f.itemCount, f.var.length));
    }
    // The largest requests fit and one more unit is refused.
    const struct { const char *reg; int length, sendLen; } limits[] = {
        {"D", 507, 1023}, {"D", 508, -1}, {"256CC", 253, 1021}, {"256CC", 254, -1}, {"M", 1024, 137},
        {"M", 1025, -1},  {"D", -1, -1},  {"M", -9, -1},        {"D_bit", 1, -1},   {"", 1, -1},
    };
    for (const auto &l : limits) {
        const FRAME_PRO f = frame(job(l.reg, 0, l.length), true, Bytes(KQ71_DATA_BYTES, 0xA5));
        EXPECT_EQ(l.sendLen, f.sendLen) << l.reg << " x" << l.length;
        EXPECT_TRUE(f.sendLen < 0 || computate_check(f.frame, f.sendLen) == 0) << l.reg << " x" << l.length;
    }
    EXPECT_EQ(0, frame(job("D", 0, 128), true).frame[6]); // the byte count wraps above 127 registers
}

TEST(ReplyCheck, RatesByLengthCrcAndWhatTheRequestAsked)
{
    const FRAME_PRO d100x3 = frame(job("D", 100, 3)), d100x1 = frame(job("D", 100, 1));
    const FRAME_PRO d100w1 = frame(job("D", 100, 1), true), d100w2 = frame(job("D", 100, 2), true);
    const FRAME_PRO m256x20 = frame(job("M", 256, 20));
    Bytes block = hexBytes("01 03 00"); // 128 double words: 512 bytes, a byte count of 0
    block.resize(3 + 512, 0x5A);
    const struct { const char *what; Bytes reply; const FRAME_PRO &head; int rating; } rows[] = {
        {"good read reply", hexBytes("01 03 06 00 01 00 02 00 03 FD 74"), d100x3, 1},
        {"single write echo", hexBytes("01 06 43 9C 12 34 51 17"), d100w1, 2},
        {"multiple write ack", hexBytes("01 10 43 9C 00 02 94 62"), d100w2, 2},
        {"a block of 128 double words", withCrc(block), frame(job("200CC", 200, 128)), 1},
        {"ack against a 7-byte read", hexBytes("01 06 43 9C 12 34 51 17"), d100x1, 0},
        {"one byte short", hexBytes("01 03 06 00 01 00 02 00 03 FD"), d100x3, 0},
        {"one byte long", hexBytes("01 03 06 00 01 00 02 00 03 FD 74 00"), d100x3, 0},
        {"CRC bytes swapped", hexBytes("01 03 06 00 01 00 02 00 03 74 FD"), d100x3, 0},
        {"exception reply", hexBytes("01 83 02 C0 F1"), d100x3, 0},
        // well-formed, good CRC, and still no answer to the request
        {"other station", withCrc(hexBytes("02 03 02 12 34")), d100x1, 0},
        {"another function", withCrc(hexBytes("01 04 02 12 34")), d100x1, 0},
        {"byte count off", withCrc(hexBytes("01 03 04 12 34")), d100x1, 0},
        {"ack of another write function", withCrc(hexBytes("01 10 43 9C 00 01")), d100w1, 0},
        {"the request echoed", sentBytes(m256x20), m256x20, 0},
    };
    for (const auto &r : rows)
        EXPECT_EQ(r.rating, rateReply(r.reply.data(), int(r.reply.size()), r.head)) << r.what;
    FRAME_PRO handshake; // nothing to read: a null pointer proves the bytes are never touched
    buildHandshakeFrame(handshake);
    EXPECT_EQ(0, rateReply(nullptr, 0, handshake));
    handshake.recvLen = -4;
    EXPECT_EQ(0, rateReply(nullptr, -4, handshake));
}

TEST(MergeRule, JoinsOnlyNeighboursThatStayOnOneSideOf8000)
{
    const struct { const char *what; KEY_ADDRESS block, next; int mode, gap, result; } rows[] = {
        {"other station", key(1, "D", 0, 5), key(2, "D", 5, 1), 0, 10, 1},
        {"other register", key(1, "D", 0, 5), key(1, "TC", 5, 1), 0, 10, 1},
        {"touching", key(1, "D", 100, 5), key(1, "D", 105, 3), 0, 0, 0},
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
        EXPECT_EQ(r.result, judgeAddrMergeWithGap(r.block, r.next, r.mode, r.gap)) << r.what;
}

TEST(ErrorText, NamesTheHeadJobAndThePlcErrorNumber)
{
    const struct { int station; const char *reg; int address, length; const char *reply, *text; } rows[] = {
        {1, "D", 100, 3, "01 03 06 00 01 00 02 00 03 FD 74", "1#D100(3)"},
        {1, "D", 100, 3, "01 83 02 C0 F1", "1#D100(3),error code:3"},
        {2, "X", 16, 10, "02 81 02 31 91", "2#X16(10),error code:1"},
        {1, "V", 5, 1, "01 86 02 C3 A1", "1#V5(1),error code:6"},
        {1, "Z", 6, 1, "", "1#Z3(1)"},
        {1, "Z", 5, 1, "01 83 02 C0 F1", "1#V2(1),error code:3"}, // Z at an odd address is a V register
        {1, "Z", -3, 1, "", "1#Z-1(1)"},                          // remainder -1: treated as even
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
        f.var = named<VARIABLE>(r.station, r.reg, r.address, r.length);
        driver.frameQueue.append(f);
        EXPECT_EQ(QString::fromLatin1(r.text), getErrorInfo(QByteArray::fromHex(r.reply)));
    }
    driver.frameQueue.clear();
}
