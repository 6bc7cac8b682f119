// A long run of the built driver against the simulated PLC with seeded line
// faults, while writes, condition reads and recipe transfers go on and the
// watch list changes; checks that nothing is lost, that the cache comes back
// to the PLC once the faults stop, and that memory stays flat.
#ifndef KQ71_SOAK_FAULT_SOAK_H
#define KQ71_SOAK_FAULT_SOAK_H

#include "driver_library.h"
#include "plc_simulator.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <cstdint>

namespace kq71soak {

struct SoakConfig {
    std::uint64_t exchanges = 1000000;  // frames sent while the faults are on
    std::uint32_t seed = 1;
    kq71sim::FaultRates faults;
    int retries = 3;
    int timeoutMs = 100;
    int switchEvery = 5000;   // exchanges between watch-list changes
    bool checkMemory = true;  // off in sanitizer builds, whose allocators hold freed memory
    bool progress = false;    // a line on stderr every tenth of the run
};

// Fault rates that spread `total` evenly over the nine kinds, with replies
// delayed past the timeout.
kq71sim::FaultRates evenFaults(double total, int timeoutMs);

struct SoakResult {
    std::uint64_t exchanges = 0;        // while faults were on
    std::uint64_t settleExchanges = 0;  // after they stopped
    std::uint64_t faults = 0;
    std::uint64_t faultsByKind[kq71sim::FaultKinds] = {};
    std::uint64_t retries = 0, givenUp = 0;

    std::uint64_t writes = 0;        // intf_setData calls
    std::uint64_t writeAcked = 0;    // write jobs acknowledged
    std::uint64_t writeFailed = 0;   // write jobs given up
    std::uint64_t lost = 0;          // writes neither in the PLC nor reported failed
    std::uint64_t unanswered = 0;    // writes in the PLC that no job outcome covered

    std::uint64_t batches = 0;       // condition-read batches started
    std::uint64_t batchesRead = 0;   // ended with (-1, -1, "-1", 0)
    std::uint64_t batchesFailed = 0; // ended with (-1, -1, "-1", -1)
    std::uint64_t batchesDropped = 0; // an earlier piece given up: dropped without a report

    std::uint64_t recipeWrites = 0, recipeReads = 0, recipeGivenUp = 0;
    std::uint64_t watchSwitches = 0;
    std::uint64_t plcChanges = 0;
    std::uint64_t mismatches = 0;    // watched units unlike the PLC after two refreshes

    long rssWarmKiB = -1, rssEndKiB = -1;
    double seconds = 0;

    QStringList failures;  // every failed check, in words
    bool passed() const { return failures.isEmpty(); }
};

// Runs the soak on the loaded driver. One at a time per process: the driver
// has one callback.
SoakResult runFaultSoak(kq71rt::DriverLibrary &driver, const SoakConfig &config);

// One line with every figure of the result.
QString summaryLine(const SoakResult &result, bool memoryChecked);

} // namespace kq71soak

#endif
