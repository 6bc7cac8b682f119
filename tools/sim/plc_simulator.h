// A simulated PLC of the KQ71 family: the flat bit and register memory behind
// the register table's addresses, answering Modbus RTU requests, with values
// that can move and faults injected on demand from a seed.
#ifndef KQ71_SIM_PLC_SIMULATOR_H
#define KQ71_SIM_PLC_SIMULATOR_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <cstdint>
#include <random>

namespace kq71sim {

// Probabilities (0..1) of each fault per answered request, drawn from the seed.
struct FaultRates {
    double drop = 0;          // no reply at all
    double cut = 0;           // reply cut short
    double badCrc = 0;        // one CRC byte flipped
    double wrongStation = 0;  // reply from another station byte
    double wrongFunction = 0; // function byte altered
    double exception = 0;     // exception reply (code 4) instead of the answer
    double noise = 0;         // random bytes before and/or after the reply
    double echo = 0;          // the request echoed before the reply
    double delay = 0;         // reply held back for delayMs
    int delayMs = 300;
};

struct SimOptions {
    int station = 1;          // station answered; requests for others get no reply
    bool strict = false;      // keep the standard limits (125 registers, 2000 bits): exception 3 beyond
    std::uint32_t seed = 1;
    FaultRates faults;
};

// What the PLC puts on the line for one request.
struct SimReply {
    QByteArray bytes;  // empty: no reply
    int delayMs = 0;   // wait before the bytes go out
    bool faulted = false;
};

struct SimStats {
    std::uint64_t requests = 0, replies = 0, exceptions = 0, faults = 0;
};

class PlcSimulator {
public:
    enum { BIT_SPACE = 65536, REGISTER_SPACE = 65536 };

    explicit PlcSimulator(const SimOptions &options = SimOptions());

    // Answers one complete request frame (CRC included).
    SimReply answer(const QByteArray &request);

    // Memory, by PLC (wire) address.
    bool bit(int address) const;
    void setBit(int address, bool value);
    std::uint16_t reg(int address) const;
    void setReg(int address, std::uint16_t value);

    // Moves values for a demo: counters, toggling bits and a wave on the given
    // wire addresses, advanced by elapsed milliseconds.
    void addCounter(int regAddress);
    void addToggle(int bitAddress);
    void addWave(int regAddress);
    void advance(int elapsedMs);

    void setFaults(const FaultRates &rates);
    const SimOptions &options() const { return options_; }
    const SimStats &stats() const { return stats_; }

private:
    SimOptions options_;
    SimStats stats_;
    QVector<std::uint8_t> bits_;
    QVector<std::uint16_t> regs_;
    QVector<int> counters_, toggles_, waves_;
    std::int64_t clockMs_ = 0;
    std::mt19937 rng_;
};

} // namespace kq71sim

#endif
