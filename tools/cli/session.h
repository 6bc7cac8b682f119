// What every command that talks to the PLC sets up: the driver, the link
// (with the simulator behind it when no hardware is named) and the runtime.
#ifndef KQ71_CLI_SESSION_H
#define KQ71_CLI_SESSION_H

#include "address_text.h"
#include "driver_library.h"
#include "options.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <functional>
#include <memory>

namespace kq71cli {

// Set by SIGINT / SIGTERM: loops end early and tidy up.
bool interrupted();
void installSignalHandlers();

// The watch list entry for a target: lengths in bits, or 16-bit words (two
// per 32-bit value).
KEY_ADDRESS watchKey(int station, const kq71rt::TypedAddress &target);

class Session {
public:
    explicit Session(const Options &options) : options(options) {}
    ~Session();

    // Loads the driver; prints the error and returns the exit code on failure.
    int loadDriver();
    // Opens the link and configures the driver (loadDriver first).
    int connect();
    // Ends the exchange and saves the simulated PLC's memory when asked to;
    // prints the error and returns the exit code when it cannot.
    int finish();

    // Resolves typed addresses; prints every refusal. False when any failed.
    bool resolve(const QStringList &texts, int access, QVector<kq71rt::TypedAddress> *targets);

    // Runs the exchange until done() holds, the job budget runs out on the
    // link's clock, or the user interrupts. onExchange sees every exchange.
    bool run(const std::function<bool()> &done, qint64 budgetMs,
             const std::function<void(const kq71rt::Exchange &)> &onExchange = nullptr);

    // Time the driver may need for `jobs` jobs that all fail.
    qint64 worstCaseMs(int jobs) const;

    const Options options;
    kq71rt::DriverLibrary driver;
    QList<kq71rt::RegisterInfo> catalogue;
    std::unique_ptr<kq71sim::PlcSimulator> sim;
    std::unique_ptr<kq71rt::Link> link;
    std::unique_ptr<kq71rt::Runtime> runtime;
};

} // namespace kq71cli

#endif
