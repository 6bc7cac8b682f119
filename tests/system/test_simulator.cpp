// The simulated PLC the other tests lean on: its refusals and silences, its
// faults, and the kq71-sim program framing a TCP stream (its pseudo-terminal
// carries the watch tests, its moving values kq71 watch --sim-move). What an answer holds, the
// driver's cache proves against the simulator's memory under faults, for
// every kind of register (SimulatedPlc).
#include "plc_simulator.h"
#include "support.h"

#include <gtest/gtest.h>

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

#include <functional>
#include <string>

using namespace kq71sim;
using namespace kq71test;

namespace {

QByteArray hex(const char *text) { return QByteArray::fromHex(QByteArray(text)); }
std::string show(const QByteArray &b) { return b.toHex(' ').toUpper().toStdString(); }

// The checksum is the driver's own, checked against known frames and an
// independent Modbus implementation in the driver's tests.
QByteArray crcd(const QByteArray &body) { return withCrc(body); }
QByteArray crcd(const char *bodyHex) { return withCrc(hex(bodyHex)); }

// station, function, address, count; for 0x10, as this family sends it, the
// byte count (the low 8 bits of 2 count) and the values 1, 2, 3...
QByteArray request(int station, int fn, int address, int count)
{
    QByteArray b;
    for (int byte : {station, fn, address >> 8, address, count >> 8, count})
        b.append(char(byte));
    if (fn == 0x10) {
        b.append(char(2 * count));
        for (int i = 1; i <= count; ++i)
            b.append(char(i >> 8)).append(char(i));
    }
    return crcd(b);
}

const int D = 0x4338;

// Every request is answered, refused with an exception code, or met with
// silence (a frame not meant for it, or a broadcast, carried out unanswered).
TEST(SimulatorReplies, RefusesWithTheRightExceptionCodeKeepsItsLimitsAndKeepsSilence)
{
    QByteArray badCrc = request(1, 0x03, D + 100, 3);
    badCrc[7] = char(badCrc[7] ^ 1);
    const int SILENT = -1, ANSWERED = 0;
    const struct {
        const char *name;
        bool strict;
        QByteArray request;
        int code;
    } cases[] = {
        {"unknown function", false, crcd("01 07"), 1},
        {"registers past the end", false, request(1, 0x03, 0xFFFF, 2), 2},
        {"zero registers", false, request(1, 0x03, D, 0), 3},
        {"bit value neither on nor off", false, crcd("01 05 02 00 12 34"), 3},
        {"register byte count off", false, crcd("01 10 43 38 00 02 02 00 01 00 02"), 3},
        {"256 registers", false, request(1, 0x03, D, 256), ANSWERED},
        {"257 registers", false, request(1, 0x03, D, 257), 3},
        {"2049 bits", false, request(1, 0x01, 0, 2049), 3},
        {"508-register write", false, request(1, 0x10, D, 508), 3},
        {"126 registers, strict", true, request(1, 0x03, D, 126), 3},
        {"wrapped byte count, strict", true, request(1, 0x10, D, 200), 3},
        {"bad CRC", false, badCrc, SILENT},
        {"another station", false, request(2, 0x03, D, 3), SILENT},
        {"bit write shorter than its byte count", false, crcd("01 0F 02 00 00 10 02 FF"), SILENT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SimOptions o;
        o.strict = c.strict;
        PlcSimulator sim(o);
        const QByteArray reply = sim.answer(c.request).bytes;
        EXPECT_TRUE(sim.stats().exceptions == (c.code > 0) && sim.stats().ignored == (c.code == SILENT));
        const QByteArray refusal = crcd(c.request.left(1) + char(c.request.at(1) | 0x80) + char(c.code));
        if (c.code == ANSWERED)
            EXPECT_TRUE(crcOk(reply) && reply.at(1) == c.request.at(1));
        else
            EXPECT_EQ(show(reply), c.code == SILENT ? "" : show(refusal));
    }
    // 256 registers: 512 data bytes, byte count 0 (mod 256); 200 written with the wrapped count 0x90.
    PlcSimulator family;
    family.setReg(D + 255, 255 * 3);
    const QByteArray reply = family.answer(request(1, 0x03, D, 256)).bytes;
    ASSERT_EQ(reply.size(), 5 + 512);
    EXPECT_TRUE(reply.at(2) == 0 && quint8(reply.at(3 + 2 * 255 + 1)) == quint8(255 * 3));
    EXPECT_EQ(family.answer(request(1, 0x01, 0, 2048)).bytes.size(), 5 + 256);
    EXPECT_EQ(show(family.answer(request(1, 0x10, D + 1000, 200)).bytes), show(crcd("01 10 47 20 00 C8")));
    EXPECT_TRUE(family.reg(D + 1000) == 1 && family.reg(D + 1199) == 200 && family.reg(D + 1200) == 0);
    EXPECT_TRUE(family.answer(crcd("00 06 43 9C 12 34")).bytes.isEmpty());
    EXPECT_TRUE(family.answer(request(0, 0x10, D, 3)).bytes.isEmpty());
    EXPECT_TRUE(family.reg(D + 100) == 0x1234 && family.reg(D + 2) == 3 && family.stats().broadcasts == 2);
}

// One fault at a time, at rate 1, on a register write; seeds vary where
// and how a reply is spoiled.
TEST(SimulatorFaults, EachFaultSpoilsTheReplyAndExecutesOrNotAsDocumented)
{
    const QByteArray good = hex("01 06 43 9C 12 34 51 17");  // the request, and its echo
    using Bytes = const QByteArray &;
    const struct {
        Fault fault;
        double FaultRates::*rate;
        std::function<bool(Bytes)> looks;
    } cases[] = {
        {FaultDrop, &FaultRates::drop, [](Bytes b) { return b.isEmpty(); }},
        {FaultCut, &FaultRates::cut, [&](Bytes b) { return !b.isEmpty() && b.size() < 8 && good.startsWith(b); }},
        {FaultBadCrc, &FaultRates::badCrc, [&](Bytes b) { return b.left(6) == good.left(6) && !crcOk(b); }},
        {FaultWrongStation, &FaultRates::wrongStation,
         [&](Bytes b) { return crcOk(b) && b[0] != good[0] && b.mid(1, 4) == good.mid(1, 4); }},
        {FaultWrongFunction, &FaultRates::wrongFunction,
         [&](Bytes b) { return crcOk(b) && b[1] != good[1] && b.mid(2, 4) == good.mid(2, 4); }},
        {FaultException, &FaultRates::exception, [](Bytes b) { return b == crcd("01 86 04"); }},
        {FaultNoise, &FaultRates::noise, [&](Bytes b) { return b.size() > 8 && b.size() <= 16 && b.contains(good); }},
        {FaultEcho, &FaultRates::echo, [&](Bytes b) { return b == good + good; }},
        {FaultDelay, &FaultRates::delay, [&](Bytes b) { return b == good; }},  // and 250 ms late
    };
    for (const auto &c : cases) {
        for (std::uint32_t seed = 1; seed <= 20; ++seed) {
            SimOptions o;
            o.seed = seed;
            o.faults.*c.rate = 1.0;
            o.faults.delayMs = 250;
            PlcSimulator sim(o);
            const SimReply r = sim.answer(good);
            const int delayMs = c.fault == FaultDelay ? 250 : 0;
            EXPECT_TRUE(r.faulted && r.fault == c.fault && c.looks(r.bytes) && r.delayMs == delayMs)
                << faultName(c.fault) << ": " << show(r.bytes);
            EXPECT_TRUE(sim.stats().faults == 1 && sim.stats().byFault[c.fault] == 1);
            EXPECT_EQ(sim.reg(D + 100) == 0x1234, c.fault != FaultException);  // a refused request is not carried out
        }
    }
}

// A stream is cut into requests by the length each function gives: two in
// one write, and after garbage, one whose byte count has wrapped.
TEST(SimulatorServer, ServesRawRtuFramesToTcpClientsSharingOneMemoryAndStopsOnSigterm)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--duration", "20"});
    ASSERT_TRUE(sim.first.startsWith("TCP 127.0.0.1:")) << sim.first.toStdString();
    QTcpSocket a, b;  // clients of one memory
    // Writes a request, then reads until `count` bytes came or none for 3 s.
    auto ask = [](QTcpSocket &s, const QByteArray &request, int count) {
        s.write(request);
        QByteArray got;
        while (got.size() < count && (s.bytesAvailable() > 0 || s.waitForReadyRead(3000)))
            got += s.read(count - got.size());
        return show(got);
    };
    for (QTcpSocket *s : {&a, &b}) {
        s->connectToHost(QHostAddress::LocalHost, quint16(sim.first.mid(14).toInt()));
        ASSERT_TRUE(s->waitForConnected(3000));
    }
    EXPECT_EQ(ask(a, hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4 01 03 43 9C 00 03 D0 61"), 8 + 11),
              "01 10 43 9C 00 02 94 62 01 03 06 00 01 00 02 00 00 BD 75");
    EXPECT_EQ(ask(b, hex("01 03 43 9C 00 01 51 A0"), 7), "01 03 02 00 01 79 84");
    EXPECT_EQ(ask(b, hex("FF 17 03") + request(1, 0x10, D + 1000, 200), 8), show(crcd("01 10 47 20 00 C8")));
    ASSERT_TRUE(sim.stop());
    EXPECT_EQ(std::make_pair(sim.exitStatus(), sim.exitCode()), std::make_pair(QProcess::NormalExit, 0));
    EXPECT_TRUE(sim.readAllStandardOutput().contains("replies=4 "));
}

} // namespace
