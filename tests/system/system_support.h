// Shared pieces of the system tests: the driver loaded once, a bench of the
// runtime on the simulated PLC, a pseudo-terminal pair and a thread that
// serves the simulator on a file descriptor.
#ifndef KQ71_SYSTEM_SUPPORT_H
#define KQ71_SYSTEM_SUPPORT_H

#include "driver_library.h"
#include "plc_map.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <QtCore/QString>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace kq71test {

// The built driver, loaded on first use; null (with the reason) when it fails.
kq71rt::DriverLibrary *driver(QString *why = nullptr);

KEY_ADDRESS key(int station, const QString &reg, int address, int dataType, int length);
KEY_ADDRESS wordKey(const QString &reg, int address, int words);
KEY_ADDRESS bitKey(const QString &reg, int address, int bits);

// One unit's value in the simulator's memory, by register and address.
quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address);
void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value);
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

    kq71sim::PlcSimulator sim;
    kq71rt::SimLink link;
    kq71rt::Runtime rt;
};

// A raw pseudo-terminal pair: the master end here, the slave by path.
class PtyPair {
public:
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;
    bool ok() const { return master_ >= 0 && !slavePath_.empty(); }
    int master() const { return master_; }
    const std::string &slavePath() const { return slavePath_; }

private:
    int master_ = -1;
    std::string slavePath_;
};

// Serves the simulator on a file descriptor from a thread, frame by frame.
// The mutex guards the simulator against the test's own accesses.
class SimServer {
public:
    SimServer(kq71sim::PlcSimulator &sim, std::mutex &mutex);
    ~SimServer();
    void serveFd(int fd);  // a pty master, held by the caller
    // Listens on 127.0.0.1 (ephemeral port) and serves one connection at a time.
    int listenTcp();
    // Closes the TCP connection being served (a cable pulled); returns once it is closed.
    void dropConnection();
    int connections() const { return connections_; }
    void stop();

private:
    void serve(int fd, const std::function<bool()> &keepGoing);
    void acceptLoop(int listener);

    kq71sim::PlcSimulator &sim_;
    std::mutex &mutex_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> dropRequested_{false};
    std::atomic<int> connections_{0};
    int listener_ = -1;
    std::thread thread_;
};

} // namespace kq71test

#endif
