// The built driver against the simulated PLC in process, through the stand-in
// runtime: what the panel would show must be what the PLC holds.
#include "address_text.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"
#include "support.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

using namespace kq71test;
using namespace kq71rt;

namespace {

// A unit as the runtime hands it over: a byte a bit, words low byte first,
// 32-bit values low word first.
QByteArray bytesOf(UnitKind kind, quint32 value)
{
    QByteArray b;
    for (int i = 0; i < (kind == UnitKind::Bit ? 1 : kind == UnitKind::DoubleWord ? 4 : 2); ++i)
        b.append(char(value >> 8 * i));
    return b;
}

quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address)
{
    const UnitPlace p = placeOf(reg, address);
    const quint32 high = p.kind == UnitKind::DoubleWord ? quint32(sim.reg(p.wire + 1)) << 16 : 0;
    return p.kind == UnitKind::Bit ? sim.bit(p.wire) : sim.reg(p.wire) | high;
}

// Every register family under every kind of line fault: no write is lost
// without a word, each one is acknowledged (and then in the PLC), reported
// failed, or replaced by a later write to the same address before it went
// out. Once the faults stop, every watched value comes back to what the PLC
// holds.
TEST(SimulatedPlc, FaultyLineLosesNoWriteSilentlyAndConvergesOnceFaultsStop)
{
    kq71sim::SimOptions so;
    so.seed = 17;
    kq71sim::FaultRates &f = so.faults;
    f.drop = f.cut = f.badCrc = f.exception = f.noise = f.echo = f.delay = 0.04;
    f.wrongStation = f.wrongFunction = 0.02;
    f.delayMs = 300;  // past the timeout: the reply comes too late
    RuntimeOptions ro;
    ro.timeoutMs = 100;
    ro.gap = 8;
    kq71sim::PlcSimulator sim(so);
    SimLink link(sim);
    Runtime rt(driver(), link, ro);
    QString error;
    ASSERT_TRUE(link.open(&error)) << qPrintable(error);
    rt.start();

    const struct {
        const char *reg;
        int first, units;
    } areas[] = {{"D", 0, 40}, {"M", 0, 40}, {"200CC", 200, 4}, {"V", 0, 4},
                 {"Z", 0, 4},  {"X", 0, 16}, {"256CP", 300, 2}};
    std::mt19937 rng(23);
    for (int i = 0; i < kq71sim::PlcSimulator::REGISTER_SPACE; ++i) {
        sim.setReg(i, quint16(rng()));
        sim.setBit(i, rng() & 1);
    }
    QList<KEY_ADDRESS> keys;
    for (const auto &a : areas) {
        keys << KEY_ADDRESS();
        keys.last().station = 1;
        keys.last().regName = a.reg;
        keys.last().address = a.first;
        keys.last().dataType = driverDataType(unitKindOf(a.reg));
        keys.last().length = driverLength(unitKindOf(a.reg), a.units);
    }
    const int jobs = rt.watch(keys);

    struct Write { QString reg; int address; quint32 value; int result; };
    const int FIRST_ID = 100;
    std::vector<Write> writes;
    int cyclicEnded = 0;
    auto pump = [&](int steps) {
        for (int i = 0; i < steps; ++i) {
            const Exchange ex = rt.step();
            if (ex.result == 1 || ex.result == 2) {
                if (ex.write && ex.jobId >= FIRST_ID)
                    writes.at(size_t(ex.jobId - FIRST_ID)).result = ex.result;
                cyclicEnded += ex.jobId == 4 && !ex.write;
            }
        }
    };
    for (int n = 0; n < 300; ++n) {
        const auto &a = areas[rng() % 7];
        const UnitKind k = unitKindOf(a.reg);
        const quint32 value = k == UnitKind::Bit ? rng() & 1 : k == UnitKind::Word ? rng() & 0xFFFF : rng();
        writes.push_back(Write{a.reg, a.first + int(rng() % quint32(a.units)), value, 0});
        rt.write(1, a.reg, writes.back().address, driverLength(k, 1), bytesOf(k, writes.back().value), FIRST_ID + n);
        pump(4);
    }
    EXPECT_TRUE(sim.stats().faults > 100 && rt.stats().retries > 0);

    sim.setFaults(kq71sim::FaultRates());
    cyclicEnded = 0;
    for (int i = 0; i < 100 && cyclicEnded < 3 * jobs; ++i)
        pump(10);
    ASSERT_GE(cyclicEnded, 3 * jobs);

    std::set<std::pair<QString, int>> writtenLater;
    int acked = 0, failed = 0;
    for (int i = int(writes.size()) - 1; i >= 0; --i) {
        const Write &w = writes[size_t(i)];
        const std::string unit = unitName(w.reg, w.address).toStdString();
        const bool lastOfUnit = writtenLater.insert({w.reg, w.address}).second;
        EXPECT_TRUE(w.result != 0 || !lastOfUnit) << "write " << i << " to " << unit << " vanished without a result";
        (w.result == 1 ? acked : failed) += w.result != 0;
        if (lastOfUnit && w.result == 1)
            EXPECT_EQ(simValue(sim, w.reg, w.address), w.value) << "acknowledged write " << i << " to " << unit;
    }
    EXPECT_TRUE(acked > 100 && failed + rt.stats().givenUp > 0) << acked << " acknowledged, " << failed << " failed";
    for (const auto &a : areas)
        for (int i = a.first; i < a.first + a.units; ++i)
            EXPECT_EQ(rt.read(1, a.reg, i, driverLength(unitKindOf(a.reg), 1)).toHex(),
                      bytesOf(unitKindOf(a.reg), simValue(sim, a.reg, i)).toHex()) << unitName(a.reg, i).toStdString();
}

} // namespace
