// The simulated PLC the other tests lean on: its refusals and silences, its
// faults and moving values, and the kq71-sim program framing a TCP stream
// (its pseudo-terminal carries the watch tests).
#include "plc_simulator.h"
#include "sim_process.h"
#include "support.h"

#include <gtest/gtest.h>

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

#include <string>
#include <vector>

using namespace kq71sim;
using namespace kq71test;

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
    return body + char(crc & 0xFF) + char(crc >> 8);
}
QByteArray crcd(const char *bodyHex) { return crcd(hex(bodyHex)); }

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


const int D = 0x4338, M = 0x0200;

// Every request is answered, refused with an exception code, or met with
// silence (a frame not meant for it, or a broadcast, carried out unanswered).
// What an answer holds, the driver's own cache proves against the simulator's
// memory under faults, for every kind of register (SimulatedPlc).
TEST(SimulatorReplies, RefusesWithTheRightExceptionCodeKeepsItsLimitsAndKeepsSilence)
{
    QByteArray badCrc = hex("01 03 43 9C 00 03 D0 61");
    badCrc[7] = char(0x62);
    const int SILENT = -1, ANSWERED = 0;
    const struct {
        const char *name;
        bool strict;
        QByteArray request;
        int fn, code;
    } cases[] = {
        {"unknown function", false, crcd("01 07"), 0x07, 1},
        {"registers past the end", false, readRequest(0x03, 0xFFFF, 2), 0x03, 2},
        {"zero registers", false, readRequest(0x03, D, 0), 0x03, 3},
        {"bit value neither on nor off", false, crcd("01 05 02 00 12 34"), 0x05, 3},
        {"register byte count off", false, crcd("01 10 43 38 00 02 02 00 01 00 02"), 0x10, 3},
        {"256 registers", false, readRequest(0x03, D, 256), 0x03, ANSWERED},
        {"257 registers", false, readRequest(0x03, D, 257), 0x03, 3},
        {"508-register write", false, writeRegisters(D, 508), 0x10, 3},
        {"126 registers, strict", true, readRequest(0x03, D, 126), 0x03, 3},
        {"124-register write, strict", true, writeRegisters(D, 124), 0x10, 3},
        {"wrapped byte count, strict", true, writeRegisters(D, 200), 0x10, 3},
        {"bad CRC", false, badCrc, 0, SILENT},
        {"another station", false, crcd("02 03 43 9C 00 03"), 0, SILENT},
        {"bit write shorter than its byte count", false, crcd("01 0F 02 00 00 10 02 FF"), 0, SILENT},
        {"empty", false, QByteArray(), 0, SILENT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SimOptions o;
        o.strict = c.strict;
        PlcSimulator sim(o);
        const QByteArray reply = sim.answer(c.request).bytes;
        EXPECT_EQ(sim.stats().exceptions, c.code > 0 ? 1u : 0u);
        EXPECT_EQ(sim.stats().ignored, c.code == SILENT ? 1u : 0u);
        if (c.code == SILENT)
            EXPECT_TRUE(reply.isEmpty());
        else if (c.code == ANSWERED)
            EXPECT_TRUE(crcOk(reply) && reply.at(1) == c.fn);
        else
            EXPECT_EQ(show(reply), show(crcd(QByteArray(1, 1) + char(c.fn | 0x80) + char(c.code))));
    }
    // 256 registers: 512 data bytes, byte count 0 (mod 256).
    PlcSimulator family;
    family.setReg(D + 255, 255 * 3);
    const QByteArray reply = family.answer(readRequest(0x03, D, 256)).bytes;
    ASSERT_EQ(reply.size(), 5 + 512);
    EXPECT_EQ(reply.at(2), 0);
    EXPECT_EQ(quint8(reply.at(3 + 2 * 255 + 1)), 255 * 3 & 0xFF);
    EXPECT_EQ(family.answer(readRequest(0x01, 0, 2048)).bytes.size(), 5 + 256);
    // 200 registers written with the wrapped byte count 0x90.
    EXPECT_EQ(show(family.answer(writeRegisters(D + 1000, 200)).bytes), show(crcd("01 10 47 20 00 C8")));
    EXPECT_EQ(std::make_tuple(family.reg(D + 1000), family.reg(D + 1199), family.reg(D + 1200)), std::make_tuple(1, 200, 0));
    EXPECT_TRUE(family.answer(crcd("00 06 43 9C 12 34")).bytes.isEmpty());
    EXPECT_TRUE(family.answer(writeRegisters(D, 3, 0)).bytes.isEmpty());
    EXPECT_EQ(family.reg(D + 100), 0x1234);
    EXPECT_EQ(family.reg(D + 2), 3);
    EXPECT_EQ(family.stats().broadcasts, 2u);
}

// One fault at a time, at rate 1, on a register write.
TEST(SimulatorFaults, EachFaultSpoilsTheReplyAndExecutesOrNotAsDocumented)
{
    const QByteArray good = hex("01 06 43 9C 12 34 51 17");  // the request, and its echo
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
            EXPECT_EQ(sim.reg(D + 100) == 0x1234, c.fault != FaultException);  // a refused request is not carried out
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
            case FaultException: EXPECT_EQ(show(b), show(crcd("01 86 04"))); break;
            case FaultNoise: EXPECT_TRUE(b.size() > good.size() && b.size() <= good.size() + 8 && b.contains(good)); break;
            case FaultEcho: EXPECT_EQ(show(b), show(good + good)); break;
            default: EXPECT_TRUE(show(b) == show(good) && r.delayMs == 250); break;
            }
        }
    }
}

TEST(SimulatorFaults, SameSeedGivesTheSameRun)
{
    auto run = [](std::uint32_t seed) {
        SimOptions o;
        o.seed = seed;
        o.faults.drop = o.faults.cut = o.faults.badCrc = o.faults.noise = o.faults.exception = 0.1;
        PlcSimulator sim(o);
        QByteArray replies;
        for (int i = 0; i < 100; ++i)
            replies += sim.answer(readRequest(0x03, D + i % 50, 1 + i % 7)).bytes + '|';
        return replies;
    };
    EXPECT_EQ(run(7), run(7));
    EXPECT_NE(run(7), run(8));
}

TEST(SimulatorMovers, ValuesMoveWithTheSimulatedClockOnly)
{
    PlcSimulator sim;
    sim.addCounter(D);
    sim.addToggle(M);
    sim.addWave(D + 10);
    for (int i = 0; i < 50; ++i)
        sim.advance(10);  // small steps add up across step edges
    EXPECT_EQ(std::make_tuple(sim.reg(D), sim.bit(M), sim.reg(D + 10)), std::make_tuple(5, true, 655));  // 500 + 500 sin(2pi/20)
    sim.advance(-5);
    sim.advance(2000);  // a quarter period: the wave at its top
    EXPECT_EQ(std::make_tuple(sim.reg(D), sim.bit(M), sim.reg(D + 10)), std::make_tuple(25, true, 1000));
}

// Writes a request, then reads until `count` bytes came or none for 3 s.
QByteArray ask(QTcpSocket &s, const QByteArray &request, int count)
{
    s.write(request);
    QByteArray got;
    while (got.size() < count && (s.bytesAvailable() > 0 || s.waitForReadyRead(3000)))
        got += s.read(count - got.size());
    return got;
}

// A stream is cut into requests by the length each function gives: two in
// one write, and after garbage, one whose byte count has wrapped.
TEST(SimulatorServer, ServesRawRtuFramesToTcpClientsSharingOneMemoryAndStopsOnSigterm)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--duration", "20"});
    ASSERT_TRUE(sim.first.startsWith("TCP 127.0.0.1:")) << sim.first.toStdString();
    QTcpSocket a, b;
    for (QTcpSocket *s : {&a, &b}) {
        s->connectToHost(QHostAddress::LocalHost, quint16(sim.first.mid(14).toInt()));
        ASSERT_TRUE(s->waitForConnected(3000));
    }
    EXPECT_EQ(show(ask(a, hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4 01 03 43 9C 00 03 D0 61"), 8 + 11)),
              "01 10 43 9C 00 02 94 62 01 03 06 00 01 00 02 00 00 BD 75");
    EXPECT_EQ(show(ask(b, hex("01 03 43 9C 00 01 51 A0"), 7)), "01 03 02 00 01 79 84");
    EXPECT_EQ(show(ask(b, hex("FF 17 03") + writeRegisters(D + 1000, 200), 8)), show(crcd("01 10 47 20 00 C8")));
    ASSERT_TRUE(sim.stop());
    EXPECT_EQ(std::make_pair(sim.exitStatus(), sim.exitCode()), std::make_pair(QProcess::NormalExit, 0));
    EXPECT_TRUE(sim.readAllStandardOutput().contains("replies=4 "));
}

// Wrong options exit 64 naming the option; a refusal of the system names the
// option and the system's reason; --help describes every option.
TEST(SimulatorServer, OptionsAreDescribedAndTheirErrorsNamed)
{
    expectRuns(KQ71_SIM_EXE, {
        {{"--tcp", "99999"}, 64, {"--tcp takes a port from 0 to 65535, not \"99999\""}},
        {{"--bind", "300.1.1.1"}, 64, {"--bind takes an IPv4 address such as 127.0.0.1, not \"300.1.1.1\""}},
        {{"--station", "0"}, 64, {"--station needs a number from 1 to 255, not \"0\""}},
        {{"--drop", "2"}, 64, {"--drop needs a number from 0 to 1"}},
        {{"--frobnicate"}, 64, {"unknown option --frobnicate"}},
        // 192.0.2.1 is a documentation address: never one of this machine's.
        {{"--tcp", "0", "--bind", "192.0.2.1"}, 1, {"--tcp 0 --bind 192.0.2.1: cannot listen: Cannot assign requested address"}},
        {{"--tcp", "0", "--quiet", "--move", "--duration", "0.3"}, 0, {"MOVE counters D0..D3", "stats: requests=0"}},
        {{"--help"}, 0, {"--pty", "--link PATH", "--tcp [PORT]", "--bind ADDR", "--station N", "--strict", "--move",
                         "--baud N", "--duration SEC", "--quiet", "--drop P", "--cut P", "--bad-crc P",
                         "--wrong-station P", "--wrong-function P", "--exception P", "--noise P", "--echo P",
                         "--delay P", "--delay-ms MS", "--seed N"}},
    });
}

} // namespace
