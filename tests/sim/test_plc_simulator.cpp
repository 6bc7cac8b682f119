#include "plc_simulator.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

using namespace kq71sim;

namespace {

QByteArray hex(const char *text) { return QByteArray::fromHex(QByteArray(text)); }
std::string show(const QByteArray &b) { return b.toHex(' ').toUpper().toStdString(); }

// A CRC of the test's own, so the simulator's is not checked against itself.
QByteArray crcd(const QByteArray &body)
{
    unsigned crc = 0xFFFF;
    for (unsigned char c : body) {
        crc ^= c;
        for (int k = 0; k < 8; ++k)
            crc = crc & 1 ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return body + QByteArray(1, char(crc & 0xFF)) + QByteArray(1, char(crc >> 8));
}
QByteArray crcd(const char *bodyHex) { return crcd(hex(bodyHex)); }

// station, fn, address, count: the head every request of interest starts with.
QByteArray head(int station, int fn, int address, int count)
{
    const char b[] = {char(station), char(fn), char(address >> 8), char(address), char(count >> 8), char(count)};
    return QByteArray(b, 6);
}
QByteArray readRequest(int fn, int address, int count) { return crcd(head(1, fn, address, count)); }

// 0x10 as this family sends it: the byte count is the low 8 bits of 2c; values 1, 2, 3...
QByteArray writeRegisters(int address, int count, int station = 1)
{
    QByteArray b = head(station, 0x10, address, count) + char(2 * count & 0xFF);
    for (int i = 1; i <= count; ++i)
        b.append(char(i >> 8)).append(char(i));
    return crcd(b);
}

QByteArray exceptionOf(int fn, int code) { return crcd(QByteArray(1, 1) + char(fn | 0x80) + char(code)); }

SimOptions strictOptions()
{
    SimOptions o;
    o.strict = true;
    return o;
}

const int D = 0x4338, M = 0x0200, Y = 0x0100;

TEST(SimulatorReplies, AnswersKnownRequestsByteForByte)
{
    const struct {
        const char *name;
        std::map<int, int> regs, bits; // before
        QByteArray request, reply;
        std::map<int, int> regsAfter, bitsAfter;
    } cases[] = {
        {"read D100..102", {{D + 100, 1}, {D + 101, 2}, {D + 102, 3}}, {}, hex("01 03 43 9C 00 03 D0 61"),
         hex("01 03 06 00 01 00 02 00 03 FD 74"), {}, {}},
        {"read D100 = 0x1234", {{D + 100, 0x1234}}, {}, hex("01 03 43 9C 00 01 51 A0"), hex("01 03 02 12 34 B5 33"),
         {}, {}},
        {"read M100 set", {}, {{M + 100, 1}}, hex("01 01 02 64 00 01 BD AD"), crcd("01 01 01 01"), {}, {}},
        {"read 10 bits LSB first", {}, {{M, 1}, {M + 2, 1}, {M + 3, 1}, {M + 8, 1}, {M + 9, 1}},
         readRequest(0x01, M, 10), crcd("01 01 02 0D 03"), {}, {}},
        {"write D100 echoes", {}, {}, hex("01 06 43 9C 12 34 51 17"), hex("01 06 43 9C 12 34 51 17"),
         {{D + 100, 0x1234}}, {}},
        {"write D100..101", {}, {}, hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4"), hex("01 10 43 9C 00 02 94 62"),
         {{D + 100, 1}, {D + 101, 2}}, {}},
        {"set Y10 echoes", {}, {}, hex("01 05 01 08 FF 00 0C 04"), hex("01 05 01 08 FF 00 0C 04"), {}, {{Y + 8, 1}}},
        {"clear Y10 echoes", {}, {{Y + 8, 1}}, crcd("01 05 01 08 00 00"), crcd("01 05 01 08 00 00"), {}, {{Y + 8, 0}}},
        {"write M0..9", {}, {}, hex("01 0F 02 00 00 0A 02 0D 03 82 69"), crcd("01 0F 02 00 00 0A"), {},
         {{M, 1}, {M + 1, 0}, {M + 2, 1}, {M + 3, 1}, {M + 4, 0}, {M + 5, 0}, {M + 6, 0}, {M + 7, 0}, {M + 8, 1},
          {M + 9, 1}, {M + 10, 0}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        PlcSimulator sim;
        for (const auto &r : c.regs)
            sim.setReg(r.first, std::uint16_t(r.second));
        for (const auto &b : c.bits)
            sim.setBit(b.first, b.second != 0);
        const SimReply r = sim.answer(c.request);
        EXPECT_EQ(show(r.bytes), show(c.reply));
        EXPECT_FALSE(r.faulted);
        for (const auto &w : c.regsAfter)
            EXPECT_EQ(sim.reg(w.first), w.second) << w.first;
        for (const auto &w : c.bitsAfter)
            EXPECT_EQ(sim.bit(w.first), w.second != 0) << w.first;
    }
}

TEST(SimulatorReplies, RefusesWithTheRightExceptionCode)
{
    const struct {
        const char *name;
        bool strict;
        QByteArray request;
        int fn, code;
    } cases[] = {
        {"unknown function", false, crcd("01 07"), 0x07, 1},
        {"registers past the end", false, readRequest(0x03, 0xFFFF, 2), 0x03, 2},
        {"bits past the end", false, readRequest(0x01, 0xFFF8, 9), 0x01, 2},
        {"register write past the end", false, writeRegisters(0xFFFF, 2), 0x10, 2},
        {"zero registers", false, readRequest(0x03, D, 0), 0x03, 3},
        {"zero bits", false, readRequest(0x01, M, 0), 0x01, 3},
        {"zero-register write", false, crcd("01 10 43 38 00 00 00"), 0x10, 3},
        {"bit value neither on nor off", false, crcd("01 05 02 00 12 34"), 0x05, 3},
        {"bit byte count off", false, crcd("01 0F 02 00 00 0A 01 0D"), 0x0F, 3},
        {"register byte count off", false, crcd("01 10 43 38 00 02 02 00 01 00 02"), 0x10, 3},
        {"257 registers", false, readRequest(0x03, D, 257), 0x03, 3},
        {"2049 bits", false, readRequest(0x01, 0, 2049), 0x01, 3},
        {"508-register write", false, writeRegisters(D, 508), 0x10, 3},
        {"126 registers, strict", true, readRequest(0x03, D, 126), 0x03, 3},
        {"2001 bits, strict", true, readRequest(0x01, 0, 2001), 0x01, 3},
        {"124-register write, strict", true, writeRegisters(D, 124), 0x10, 3},
        {"wrapped byte count, strict", true, writeRegisters(D, 200), 0x10, 3},
    };
    for (const auto &c : cases) {
        PlcSimulator sim(c.strict ? strictOptions() : SimOptions());
        EXPECT_EQ(show(sim.answer(c.request).bytes), show(exceptionOf(c.fn, c.code))) << c.name;
        EXPECT_EQ(sim.stats().exceptions, 1u) << c.name;
    }
}

TEST(SimulatorReplies, LongRequestsWorkOnlyOutsideStrictMode)
{
    PlcSimulator family, strict(strictOptions());
    for (int i = 0; i < 256; ++i)
        family.setReg(D + i, std::uint16_t(i * 3));
    // 256 registers: 512 data bytes, byte count 0 (mod 256).
    const QByteArray reply = family.answer(readRequest(0x03, D, 256)).bytes;
    ASSERT_EQ(reply.size(), 5 + 512);
    EXPECT_EQ(reply.at(2), 0);
    EXPECT_EQ(static_cast<unsigned char>(reply.at(3 + 2 * 255 + 1)), 255 * 3 & 0xFF);
    EXPECT_TRUE(crcOk(reply));
    EXPECT_EQ(show(strict.answer(readRequest(0x03, D, 256)).bytes), show(exceptionOf(0x03, 3)));
    EXPECT_EQ(family.answer(readRequest(0x01, 0, 2048)).bytes.size(), 5 + 256);
    // 200 registers written with the wrapped byte count 0x90.
    EXPECT_EQ(show(family.answer(writeRegisters(D + 1000, 200)).bytes), show(crcd("01 10 47 20 00 C8")));
    EXPECT_EQ(family.reg(D + 1000), 1);
    EXPECT_EQ(family.reg(D + 1199), 200);
    EXPECT_EQ(family.reg(D + 1200), 0);
    EXPECT_EQ(family.answer(writeRegisters(D, 507)).bytes.size(), 8);
}

TEST(SimulatorSilence, StaysSilentForFramesNotMeantForItAndCarriesOutBroadcasts)
{
    QByteArray badCrc = hex("01 03 43 9C 00 03 D0 61");
    badCrc[7] = char(0x62);
    const struct {
        const char *name;
        QByteArray request;
    } cases[] = {
        {"bad CRC", badCrc},
        {"another station", crcd("02 03 43 9C 00 03")},
        {"read one byte too long", crcd("01 03 43 9C 00 03 00")},
        {"bit write shorter than its byte count", crcd("01 0F 02 00 00 10 02 FF")},
        {"too short to hold a CRC", hex("01 03 02")},
        {"empty", QByteArray()},
    };
    for (const auto &c : cases) {
        PlcSimulator sim;
        EXPECT_TRUE(sim.answer(c.request).bytes.isEmpty()) << c.name;
        EXPECT_EQ(sim.stats().ignored, 1u) << c.name;
        EXPECT_EQ(sim.stats().replies, 0u) << c.name;
    }
    PlcSimulator sim;
    EXPECT_TRUE(sim.answer(crcd("00 06 43 9C 12 34")).bytes.isEmpty());
    EXPECT_TRUE(sim.answer(writeRegisters(D, 3, 0)).bytes.isEmpty());
    EXPECT_EQ(sim.reg(D + 100), 0x1234);
    EXPECT_EQ(sim.reg(D + 2), 3);
    EXPECT_EQ(sim.stats().broadcasts, 2u);
}

// One fault at a time, at rate 1, on a register write.
TEST(SimulatorFaults, EachFaultSpoilsTheReplyAndExecutesOrNotAsDocumented)
{
    const QByteArray good = hex("01 06 43 9C 12 34 51 17"); // the request, and its echo
    const struct {
        Fault fault;
        double FaultRates::*rate;
    } cases[] = {
        {FaultDrop, &FaultRates::drop},     {FaultCut, &FaultRates::cut},
        {FaultBadCrc, &FaultRates::badCrc}, {FaultWrongStation, &FaultRates::wrongStation},
        {FaultWrongFunction, &FaultRates::wrongFunction}, {FaultException, &FaultRates::exception},
        {FaultNoise, &FaultRates::noise},   {FaultEcho, &FaultRates::echo},
        {FaultDelay, &FaultRates::delay},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(faultName(c.fault));
        for (std::uint32_t seed = 1; seed <= 20; ++seed) {
            SimOptions o;
            o.seed = seed;
            o.faults.*c.rate = 1.0;
            o.faults.delayMs = 250;
            PlcSimulator sim(o);
            const SimReply r = sim.answer(good);
            ASSERT_EQ(r.fault, c.fault);
            EXPECT_TRUE(r.faulted);
            EXPECT_EQ(sim.reg(D + 100) == 0x1234, c.fault != FaultException); // a refused request is not carried out
            EXPECT_EQ(sim.stats().faults, 1u);
            EXPECT_EQ(sim.stats().byFault[c.fault], 1u);
            const QByteArray &b = r.bytes;
            const int at = c.fault == FaultWrongStation ? 0 : 1;
            switch (c.fault) {
            case FaultDrop: EXPECT_TRUE(b.isEmpty()); break;
            case FaultCut: EXPECT_TRUE(!b.isEmpty() && b.size() < good.size() && good.startsWith(b)); break;
            case FaultBadCrc: EXPECT_TRUE(b.left(6) == good.left(6) && !crcOk(b)); break;
            case FaultWrongStation:
            case FaultWrongFunction:
                EXPECT_TRUE(crcOk(b) && b.at(at) != good.at(at) && b.mid(at + 1, 4) == good.mid(at + 1, 4));
                break;
            case FaultException: EXPECT_EQ(show(b), show(exceptionOf(0x06, 4))); break;
            case FaultNoise:
                EXPECT_TRUE(b.size() >= good.size() + 1 && b.size() <= good.size() + 8 && b.contains(good));
                break;
            case FaultEcho: EXPECT_EQ(show(b), show(good + good)); break;
            case FaultDelay: EXPECT_TRUE(show(b) == show(good) && r.delayMs == 250); break;
            default: break;
            }
        }
    }
}

TEST(SimulatorFaults, SameSeedGivesTheSameRunAndRatesHold)
{
    auto run = [](std::uint32_t seed, SimStats *stats) {
        SimOptions o;
        o.seed = seed;
        o.faults.drop = o.faults.cut = o.faults.badCrc = o.faults.noise = o.faults.exception = 0.1;
        PlcSimulator sim(o);
        std::vector<std::string> replies;
        for (int i = 0; i < 200; ++i)
            replies.push_back(show(sim.answer(readRequest(0x03, D + i % 50, 1 + i % 7)).bytes));
        *stats = sim.stats();
        return replies;
    };
    SimStats stats, other;
    const std::vector<std::string> first = run(7, &stats);
    EXPECT_EQ(first, run(7, &other));
    EXPECT_NE(first, run(8, &other));
    // Five faults at 0.1 each: about half of the 200 requests.
    EXPECT_GT(stats.faults, 60u);
    EXPECT_LT(stats.faults, 140u);
    EXPECT_EQ(stats.requests, 200u);
}

TEST(SimulatorMovers, ValuesMoveWithTheSimulatedClockOnly)
{
    PlcSimulator sim;
    sim.addCounter(D);
    sim.addToggle(M);
    sim.addWave(D + 10);
    EXPECT_EQ(sim.reg(D + 10), 500);
    sim.advance(250);
    EXPECT_EQ(sim.reg(D), 2);
    EXPECT_FALSE(sim.bit(M));
    EXPECT_EQ(sim.reg(D + 10), 578); // 500 + 500 sin(2pi/40), rounded
    for (int i = 0; i < 25; ++i)
        sim.advance(10); // small steps add up across step edges
    EXPECT_EQ(sim.reg(D), 5);
    EXPECT_TRUE(sim.bit(M));
    sim.advance(2000); // 2500 ms: a quarter period, wave at its top
    EXPECT_EQ(sim.reg(D), 25);
    EXPECT_TRUE(sim.bit(M)); // four more flips
    EXPECT_EQ(sim.reg(D + 10), 1000);
    sim.advance(5000);
    EXPECT_EQ(sim.reg(D + 10), 0);
    sim.advance(0);
    sim.advance(-5);
    EXPECT_EQ(sim.reg(D), 75);
}

TEST(SimulatorFramer, CutsRequestsOutOfAStreamByTheLengthTheirFunctionGives)
{
    EXPECT_EQ(RtuFramer::expectedLength(hex("01")), 0);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 05")), 8);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 0F 02 00 00")), 0);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 0F 02 00 00 0A 02")), 11);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 10 43 9C 00 7F FE")), 9 + 254);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 10 43 9C 00 80 00")), 9 + 256); // the byte count has wrapped
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 10 43 9C 00 C8 90")), 9 + 400);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 2B")), -1);

    RtuFramer f;
    const QByteArray read = hex("01 03 43 9C 00 03 D0 61");
    const QByteArray write = hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4");
    const QByteArray longWrite = writeRegisters(D, 200);
    // Two frames in one chunk, then one split over three chunks.
    EXPECT_EQ(f.feed(read + write), (QList<QByteArray>{read, write}));
    EXPECT_TRUE(f.feed(longWrite.left(5)).isEmpty());
    EXPECT_TRUE(f.feed(longWrite.mid(5, 300)).isEmpty());
    EXPECT_EQ(f.feed(longWrite.mid(305)), QList<QByteArray>{longWrite});
    EXPECT_FALSE(f.pending());
    // Garbage before a frame is skipped.
    EXPECT_EQ(f.feed(hex("FF 17 03") + read), QList<QByteArray>{read});
    // An unknown function ends at silence; a half frame is dropped then.
    EXPECT_TRUE(f.feed(crcd("01 07")).isEmpty());
    EXPECT_EQ(f.flush(), crcd("01 07"));
    EXPECT_TRUE(f.feed(read.left(5)).isEmpty());
    EXPECT_TRUE(f.pending());
    f.flush();
    EXPECT_EQ(f.feed(read), QList<QByteArray>{read});
}

} // namespace
