#include "plc_simulator.h"

#include <gtest/gtest.h>

#include <functional>
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

QByteArray readRequest(int fn, int address, int count)
{
    QByteArray b;
    b.append(char(1)).append(char(fn));
    b.append(char(address >> 8)).append(char(address)).append(char(count >> 8)).append(char(count));
    return crcd(b);
}

// 0x10 as this family sends it: the byte count is the low 8 bits of 2c.
QByteArray writeRegisters(int address, int count, int station = 1)
{
    QByteArray b;
    b.append(char(station)).append(char(0x10));
    b.append(char(address >> 8)).append(char(address)).append(char(count >> 8)).append(char(count));
    b.append(char(2 * count & 0xFF));
    for (int i = 0; i < count; ++i)
        b.append(char((i + 1) >> 8)).append(char(i + 1));
    return crcd(b);
}

QByteArray exceptionOf(int fn, int code)
{
    QByteArray b;
    b.append(char(1)).append(char(fn | 0x80)).append(char(code));
    return crcd(b);
}

const int D = 0x4338, M = 0x0200, Y = 0x0100;

struct ReplyCase {
    const char *name;
    std::function<void(PlcSimulator &)> setup;
    QByteArray request, reply;
    std::function<bool(const PlcSimulator &)> after;
};

TEST(SimulatorReplies, AnswersKnownRequestsByteForByte)
{
    const ReplyCase cases[] = {
        {"read D100..102", [](PlcSimulator &s) { s.setReg(D + 100, 1); s.setReg(D + 101, 2); s.setReg(D + 102, 3); },
         hex("01 03 43 9C 00 03 D0 61"), hex("01 03 06 00 01 00 02 00 03 FD 74"), nullptr},
        {"read D100 = 0x1234", [](PlcSimulator &s) { s.setReg(D + 100, 0x1234); },
         hex("01 03 43 9C 00 01 51 A0"), hex("01 03 02 12 34 B5 33"), nullptr},
        {"read M100 set", [](PlcSimulator &s) { s.setBit(M + 100, true); },
         hex("01 01 02 64 00 01 BD AD"), crcd("01 01 01 01"), nullptr},
        {"read 10 bits LSB first", [](PlcSimulator &s) { for (int i : {0, 2, 3, 8, 9}) s.setBit(M + i, true); },
         readRequest(0x01, M, 10), crcd("01 01 02 0D 03"), nullptr},
        {"write D100 echoes", nullptr, hex("01 06 43 9C 12 34 51 17"), hex("01 06 43 9C 12 34 51 17"),
         [](const PlcSimulator &s) { return s.reg(D + 100) == 0x1234; }},
        {"write D100..101", nullptr, hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4"), hex("01 10 43 9C 00 02 94 62"),
         [](const PlcSimulator &s) { return s.reg(D + 100) == 1 && s.reg(D + 101) == 2; }},
        {"set Y10 echoes", nullptr, hex("01 05 01 08 FF 00 0C 04"), hex("01 05 01 08 FF 00 0C 04"),
         [](const PlcSimulator &s) { return s.bit(Y + 8); }},
        {"clear Y10 echoes", [](PlcSimulator &s) { s.setBit(Y + 8, true); }, crcd("01 05 01 08 00 00"),
         crcd("01 05 01 08 00 00"), [](const PlcSimulator &s) { return !s.bit(Y + 8); }},
        {"write M0..9", nullptr, hex("01 0F 02 00 00 0A 02 0D 03 82 69"), crcd("01 0F 02 00 00 0A"),
         [](const PlcSimulator &s) {
             const bool want[10] = {1, 0, 1, 1, 0, 0, 0, 0, 1, 1};
             for (int i = 0; i < 10; ++i)
                 if (s.bit(M + i) != want[i])
                     return false;
             return !s.bit(M + 10);
         }},
    };
    for (const ReplyCase &c : cases) {
        SCOPED_TRACE(c.name);
        PlcSimulator sim;
        if (c.setup)
            c.setup(sim);
        const SimReply r = sim.answer(c.request);
        EXPECT_EQ(show(r.bytes), show(c.reply));
        EXPECT_FALSE(r.faulted);
        if (c.after)
            EXPECT_TRUE(c.after(sim));
    }
}

TEST(SimulatorReplies, RefusesWithTheRightExceptionCode)
{
    struct Case { const char *name; bool strict; QByteArray request; int fn, code; };
    const Case cases[] = {
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
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        SimOptions o;
        o.strict = c.strict;
        PlcSimulator sim(o);
        EXPECT_EQ(show(sim.answer(c.request).bytes), show(exceptionOf(c.fn, c.code)));
        EXPECT_EQ(sim.stats().exceptions, 1u);
    }
}

TEST(SimulatorReplies, LongRequestsWorkOnlyOutsideStrictMode)
{
    PlcSimulator family, strict([] { SimOptions o; o.strict = true; return o; }());
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
    const SimReply w = family.answer(writeRegisters(D + 1000, 200));
    EXPECT_EQ(show(w.bytes), show(crcd("01 10 47 20 00 C8")));
    EXPECT_EQ(family.reg(D + 1000), 1);
    EXPECT_EQ(family.reg(D + 1199), 200);
    EXPECT_EQ(family.reg(D + 1200), 0);
    EXPECT_EQ(family.answer(writeRegisters(D, 507)).bytes.size(), 8);
}

TEST(SimulatorSilence, StaysSilentForFramesNotMeantForIt)
{
    struct Case { const char *name; QByteArray request; };
    QByteArray badCrc = hex("01 03 43 9C 00 03 D0 61");
    badCrc[7] = char(0x62);
    const Case cases[] = {
        {"bad CRC", badCrc},
        {"another station", crcd("02 03 43 9C 00 03")},
        {"read one byte too long", crcd("01 03 43 9C 00 03 00")},
        {"bit write shorter than its byte count", crcd("01 0F 02 00 00 10 02 FF")},
        {"too short to hold a CRC", hex("01 03 02")},
        {"empty", QByteArray()},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        PlcSimulator sim;
        EXPECT_TRUE(sim.answer(c.request).bytes.isEmpty());
        EXPECT_EQ(sim.stats().ignored, 1u);
        EXPECT_EQ(sim.stats().replies, 0u);
    }
}

TEST(SimulatorSilence, BroadcastWritesAreCarriedOutUnanswered)
{
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
    const QByteArray request = hex("01 06 43 9C 12 34 51 17");
    const QByteArray good = request;
    struct Case { Fault fault; double FaultRates::*rate; bool executed; };
    const Case cases[] = {
        {FaultDrop, &FaultRates::drop, true},
        {FaultCut, &FaultRates::cut, true},
        {FaultBadCrc, &FaultRates::badCrc, true},
        {FaultWrongStation, &FaultRates::wrongStation, true},
        {FaultWrongFunction, &FaultRates::wrongFunction, true},
        {FaultException, &FaultRates::exception, false},
        {FaultNoise, &FaultRates::noise, true},
        {FaultEcho, &FaultRates::echo, true},
        {FaultDelay, &FaultRates::delay, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(faultName(c.fault));
        for (std::uint32_t seed = 1; seed <= 20; ++seed) {
            SimOptions o;
            o.seed = seed;
            o.faults.*c.rate = 1.0;
            o.faults.delayMs = 250;
            PlcSimulator sim(o);
            const SimReply r = sim.answer(request);
            ASSERT_EQ(r.fault, c.fault);
            EXPECT_TRUE(r.faulted);
            EXPECT_EQ(sim.reg(D + 100) == 0x1234, c.executed);
            EXPECT_EQ(sim.stats().faults, 1u);
            EXPECT_EQ(sim.stats().byFault[c.fault], 1u);
            const QByteArray &b = r.bytes;
            switch (c.fault) {
            case FaultDrop: EXPECT_TRUE(b.isEmpty()); break;
            case FaultCut: EXPECT_TRUE(!b.isEmpty() && b.size() < good.size() && good.startsWith(b)); break;
            case FaultBadCrc:
                EXPECT_EQ(b.left(6), good.left(6));
                EXPECT_FALSE(crcOk(b));
                break;
            case FaultWrongStation:
            case FaultWrongFunction: {
                const int at = c.fault == FaultWrongStation ? 0 : 1;
                EXPECT_TRUE(crcOk(b));
                EXPECT_NE(b.at(at), good.at(at));
                EXPECT_EQ(b.mid(at + 1, 4), good.mid(at + 1, 4));
                break;
            }
            case FaultException: EXPECT_EQ(show(b), show(exceptionOf(0x06, 4))); break;
            case FaultNoise:
                EXPECT_GE(b.size(), good.size() + 1);
                EXPECT_LE(b.size(), good.size() + 8);
                EXPECT_TRUE(b.contains(good));
                break;
            case FaultEcho: EXPECT_EQ(show(b), show(request + good)); break;
            case FaultDelay:
                EXPECT_EQ(show(b), show(good));
                EXPECT_EQ(r.delayMs, 250);
                break;
            default: break;
            }
        }
    }
}

std::vector<std::string> runFaulty(std::uint32_t seed, PlcSimulator *out = nullptr)
{
    SimOptions o;
    o.seed = seed;
    o.faults.drop = o.faults.cut = o.faults.badCrc = o.faults.noise = o.faults.exception = 0.1;
    PlcSimulator sim(o);
    std::vector<std::string> replies;
    for (int i = 0; i < 200; ++i)
        replies.push_back(show(sim.answer(readRequest(0x03, D + i % 50, 1 + i % 7)).bytes));
    if (out)
        *out = sim;
    return replies;
}

TEST(SimulatorFaults, SameSeedGivesTheSameRunAndRatesHold)
{
    PlcSimulator sim;
    EXPECT_EQ(runFaulty(7, &sim), runFaulty(7));
    EXPECT_NE(runFaulty(7), runFaulty(8));
    // Five faults at 0.1 each: about half of the 200 requests.
    EXPECT_GT(sim.stats().faults, 60u);
    EXPECT_LT(sim.stats().faults, 140u);
    EXPECT_EQ(sim.stats().requests, 200u);
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
    EXPECT_EQ(sim.reg(D + 10), 578);  // 500 + 500 sin(2pi/40), rounded
    for (int i = 0; i < 25; ++i)
        sim.advance(10);  // small steps add up across step edges
    EXPECT_EQ(sim.reg(D), 5);
    EXPECT_TRUE(sim.bit(M));
    sim.advance(2000);  // 2500 ms: a quarter period, wave at its top
    EXPECT_EQ(sim.reg(D), 25);
    EXPECT_TRUE(sim.bit(M));  // four more flips
    EXPECT_EQ(sim.reg(D + 10), 1000);
    sim.advance(5000);
    EXPECT_EQ(sim.reg(D + 10), 0);
    sim.advance(0);
    sim.advance(-5);
    EXPECT_EQ(sim.reg(D), 75);
}

TEST(SimulatorFramer, CutsRequestsOutOfAStream)
{
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

TEST(SimulatorFramer, TellsRequestLengthsFromTheFunction)
{
    EXPECT_EQ(RtuFramer::expectedLength(hex("01")), 0);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 05")), 8);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 0F 02 00 00")), 0);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 0F 02 00 00 0A 02")), 11);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 10 43 9C 00 7F FE")), 9 + 254);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 10 43 9C 00 C8 90")), 9 + 400);
    EXPECT_EQ(RtuFramer::expectedLength(hex("01 2B")), -1);
}

} // namespace
