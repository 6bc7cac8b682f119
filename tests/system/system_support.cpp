#include "system_support.h"

#include <gtest/gtest.h>


#include <random>

namespace kq71test {

using namespace kq71rt;

DriverLibrary *driver(QString *why)
{
    static DriverLibrary lib;
    static QString error;
    static bool tried = false;
    if (!tried) {
        tried = true;
        lib.load(KQ71_DRIVER_FILE, &error);
    }
    if (why)
        *why = error;
    return lib.loaded() ? &lib : nullptr;
}

KEY_ADDRESS area(const QString &reg, int address, int units)
{
    const UnitKind kind = unitKindOf(reg);
    KEY_ADDRESS k;
    k.station = 1;
    k.regName = reg;
    k.address = address;
    k.dataType = kind == UnitKind::Bit ? -1 : kind == UnitKind::DoubleWord ? 1 : 0;
    k.length = kind == UnitKind::DoubleWord ? 2 * units : units;
    return k;
}

quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address)
{
    const UnitPlace p = placeOf(reg, address);
    switch (p.kind) {
    case UnitKind::Bit:
        return sim.bit(p.wire) ? 1 : 0;
    case UnitKind::Word:
        return sim.reg(p.wire);
    case UnitKind::DoubleWord:
        return quint32(sim.reg(p.wire)) | quint32(sim.reg(p.wire + 1)) << 16; // low word first
    default:
        return 0xFFFFFFFF;
    }
}

void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value)
{
    const UnitPlace p = placeOf(reg, address);
    if (p.kind == UnitKind::Bit)
        sim.setBit(p.wire, value != 0);
    if (p.kind == UnitKind::Word || p.kind == UnitKind::DoubleWord)
        sim.setReg(p.wire, quint16(value));
    if (p.kind == UnitKind::DoubleWord)
        sim.setReg(p.wire + 1, quint16(value >> 16));
}

std::vector<quint32> fillSim(kq71sim::PlcSimulator &sim, const QString &reg, int address, int units, quint32 seed)
{
    std::mt19937 rng(seed);
    std::vector<quint32> v;
    const UnitKind kind = unitKindOf(reg);
    for (int i = 0; i < units; ++i) {
        v.push_back(kind == UnitKind::Bit ? rng() & 1 : kind == UnitKind::Word ? rng() & 0xFFFF : rng());
        setSimValue(sim, reg, address + i, v.back());
    }
    return v;
}

QByteArray valueBytes(UnitKind kind, quint32 value)
{
    const int n = kind == UnitKind::Bit ? 1 : kind == UnitKind::DoubleWord ? 4 : 2;
    QByteArray b;
    for (int i = 0; i < n; ++i)
        b.append(char(value >> (8 * i) & 0xFF));
    return b;
}

quint32 cachedValue(Runtime &rt, int station, const QString &reg, int address)
{
    const QByteArray b = rt.read(station, reg, address, unitKindOf(reg) == UnitKind::DoubleWord ? 2 : 1);
    quint32 v = 0;
    for (int i = b.size() - 1; i >= 0; --i)
        v = v << 8 | static_cast<unsigned char>(b[i]);
    return v;
}

bool runCyclicReads(Runtime &rt, int jobs, int maxSteps)
{
    int ended = 0;
    for (int i = 0; i < maxSteps && ended < jobs; ++i) {
        const Exchange ex = rt.step();
        if (!ex.sent)
            rt.link().idle(1000);
        else if (ex.jobId == 4 && !ex.write && (ex.result == 1 || ex.result == 2))
            ++ended;
    }
    return ended >= jobs;
}

bool runUntilIdle(Runtime &rt, int maxSteps)
{
    for (int i = 0; i < maxSteps; ++i) {
        rt.step();
        if (rt.drained())
            return true;
    }
    return false;
}

SimBench::SimBench(const kq71sim::SimOptions &simOptions, const RuntimeOptions &options)
    : sim(simOptions), link(sim), rt(*driver(), link, options)
{
    QString unused;
    link.open(&unused);
    rt.start();
}

void SimBench::expectCacheMatchesSim(const QString &reg, int address, int units)
{
    for (int i = 0; i < units; ++i)
        EXPECT_EQ(cachedValue(rt, 1, reg, address + i), simValue(sim, reg, address + i))
            << unitName(reg, address + i).toStdString();
}

} // namespace kq71test
