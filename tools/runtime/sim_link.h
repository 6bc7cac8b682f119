// The simulated PLC as a link, in process: no port, no sleeping unless asked.
// Line time is accounted on a virtual clock: each character costs its time at
// the baud rate, every frame is followed by the RTU gap, and a missing reply
// costs the whole response timeout.
#ifndef KQ71_RUNTIME_SIM_LINK_H
#define KQ71_RUNTIME_SIM_LINK_H

#include "link.h"
#include "plc_simulator.h"

namespace kq71rt {

struct SimLinkOptions {
    int baud = 19200;
    // Sleep as long as the line would take, so the simulator runs at the
    // speed of a real line (for watching by eye); tests leave it off.
    bool pace = false;
};

class SimLink : public Link {
public:
    SimLink(kq71sim::PlcSimulator &sim, const SimLinkOptions &options = SimLinkOptions());

    bool open(QString *error) override;
    QString describe() const override;
    QByteArray exchange(const QByteArray &request, int expected, int timeoutMs) override;
    qint64 clockUs() const override { return clockUs_; }
    qint64 wireTimeUs() const override { return wireUs_; }

    // Time passes on the virtual clock (and, when pacing, for real).
    void idle(qint64 us) override;

    kq71sim::PlcSimulator &simulator() { return sim_; }

private:
    void pass(qint64 us);

    kq71sim::PlcSimulator &sim_;
    SimLinkOptions options_;
    qint64 clockUs_ = 0;
    qint64 wireUs_ = 0;
    qint64 advancedMs_ = 0;
    QElapsedTimer real_;
};

// Moving values on a register range: bits toggle, the first word of each
// pair counts and the second follows a wave; double words count.
void addMovers(kq71sim::PlcSimulator &sim, const QString &regName, int address, int units);

// The simulator's memory in a text file, so separate runs of the command
// line see one PLC. Only non-zero cells are written.
bool saveSimState(const kq71sim::PlcSimulator &sim, const QString &path, QString *error);
bool loadSimState(kq71sim::PlcSimulator &sim, const QString &path, QString *error);

} // namespace kq71rt

#endif
