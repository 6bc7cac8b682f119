// Shared pieces of the system tests: the driver loaded once, and a bench of
// the runtime on the simulated PLC.
#ifndef KQ71_SYSTEM_SUPPORT_H
#define KQ71_SYSTEM_SUPPORT_H

#include "driver_library.h"
#include "plc_map.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <QtCore/QString>

#include <string>

namespace kq71test {

// The built driver, loaded on first use; null (with the reason) when it fails.
kq71rt::DriverLibrary *driver(QString *why = nullptr);

// A watch key over `units` bits, words or 32-bit values (two words each, as the runtime counts).
KEY_ADDRESS area(const QString &reg, int address, int units);

// One unit's value in the simulator's memory, by register and address.
quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address);
void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value);
// Random values of the register's width into `units` units; returns them.
std::vector<quint32> fillSim(kq71sim::PlcSimulator &sim, const QString &reg, int address, int units, quint32 seed);
// One unit's value as the driver's cache gives it to the runtime.
quint32 cachedValue(kq71rt::Runtime &rt, int station, const QString &reg, int address);
QByteArray valueBytes(kq71rt::UnitKind kind, quint32 value);

// Steps until `jobs` cyclic reads (id 4) have ended, well or given up.
bool runCyclicReads(kq71rt::Runtime &rt, int jobs, int maxSteps = 20000);
// Steps until the driver has nothing to send.
bool runUntilIdle(kq71rt::Runtime &rt, int maxSteps = 20000);

struct SimBench {
    explicit SimBench(const kq71sim::SimOptions &sim = kq71sim::SimOptions(),
                      const kq71rt::RuntimeOptions &options = kq71rt::RuntimeOptions());
    void expectCacheMatchesSim(const QString &reg, int address, int units);

    kq71sim::PlcSimulator sim;
    kq71rt::SimLink link;
    kq71rt::Runtime rt;
};

} // namespace kq71test

#endif
