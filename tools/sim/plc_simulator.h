// A simulated PLC of the KQ71 family: the flat bit and register memory behind
// the register table's addresses, answering Modbus RTU requests, with values
// that can move and faults injected on demand from a seed.
#ifndef KQ71_SIM_PLC_SIMULATOR_H
#define KQ71_SIM_PLC_SIMULATOR_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <cstdint>
#include <random>

namespace kq71sim {

// Probabilities (0..1) of each fault per answered request, drawn from the seed.
//
// At most one fault hits a request: one draw per answered request is laid
// against the rates stacked in the order below (rates adding up past 1 starve
// the later ones). Broadcasts, and requests that get no reply anyway (bad
// length or CRC, another station), draw nothing.
//
// Whether the request is carried out when its reply goes wrong: for drop, cut,
// badCrc, wrongStation, wrongFunction, noise, echo and delay the PLC acted and
// only its reply was spoiled on the line, so a write IS applied; an
// `exception` fault refuses the request instead, so a write is NOT applied.
struct FaultRates {
    double drop = 0;          // no reply at all
    double cut = 0;           // reply cut short
    double badCrc = 0;        // one CRC byte flipped
    double wrongStation = 0;  // station byte altered, CRC made good again
    double wrongFunction = 0; // function byte altered, CRC made good again
    double exception = 0;     // exception reply (code 4) instead of the answer
    double noise = 0;         // random bytes before and/or after the reply
    double echo = 0;          // the request echoed before the reply
    double delay = 0;         // reply held back for delayMs
    int delayMs = 300;
};

// Which fault hit one reply (SimReply::fault) and the index of its counter.
enum Fault {
    NoFault = 0,
    FaultDrop,
    FaultCut,
    FaultBadCrc,
    FaultWrongStation,
    FaultWrongFunction,
    FaultException,
    FaultNoise,
    FaultEcho,
    FaultDelay,
    FaultKinds
};

const char *faultName(Fault fault);

// Quantities accepted per request: the family's long requests, or the
// standard limits in strict mode. Beyond them the PLC answers exception 3.
// The family reads 128 double words (256 registers) at once and writes what
// fits a 1024-byte request; a bit write is bounded by its one-byte byte count.
struct RequestLimits {
    int readRegisters, readBits, writeRegisters, writeBits;
};
const RequestLimits FAMILY_LIMITS = {256, 2048, 507, 2040};
const RequestLimits STANDARD_LIMITS = {125, 2000, 123, 1968};

// CRC-16 of Modbus RTU (sent low byte first).
std::uint16_t crc16(const char *data, int size);
// The bytes followed by their CRC, low byte first.
QByteArray withCrc(const QByteArray &body);
// True when the last two bytes are the CRC of the others.
bool crcOk(const QByteArray &frame);

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
    Fault fault = NoFault;
};

struct SimStats {
    std::uint64_t requests = 0, replies = 0, exceptions = 0, faults = 0;
    std::uint64_t ignored = 0;     // bad length or CRC, or another station: silence
    std::uint64_t broadcasts = 0;  // station 0: carried out, never answered
    std::uint64_t byFault[FaultKinds] = {};
};

class PlcSimulator {
public:
    enum { BIT_SPACE = 65536, REGISTER_SPACE = 65536 };

    explicit PlcSimulator(const SimOptions &options = SimOptions());

    // Answers one complete request frame (CRC included). The request is
    // carried out unless it is refused; see FaultRates for faults.
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

    const RequestLimits &limits() const
    {
        return options_.strict ? STANDARD_LIMITS : FAMILY_LIMITS;
    }

private:
    QByteArray execute(const QByteArray &request);
    Fault drawFault();
    QByteArray spoil(Fault fault, const QByteArray &reply, const QByteArray &request);

    SimOptions options_;
    SimStats stats_;
    QVector<std::uint8_t> bits_;
    QVector<std::uint16_t> regs_;
    QVector<int> counters_, toggles_, waves_;
    std::int64_t clockMs_ = 0;
    std::mt19937 rng_;
};

// Cuts RTU request frames out of a byte stream. RTU frames carry no length,
// so the function code tells how long a request is; bytes that never make a
// frame are dropped when the line falls silent (the caller calls flush()).
class RtuFramer {
public:
    enum { MAX_FRAME = 4096 };

    // Length of the request at the head of buf: 0 while too few bytes have come
    // to tell, -1 for a function whose length is unknown (ends at silence).
    static int expectedLength(const QByteArray &buf);

    // Adds received bytes; returns the complete frames with a good CRC. A
    // complete frame with a bad CRC is taken as garbage: one byte is dropped
    // and the search goes on from the next. Bytes of an unknown function
    // wait for the silence unless a good request follows them.
    QList<QByteArray> feed(const QByteArray &bytes);

    // The line fell silent: returns what is pending (possibly garbage, for
    // the simulator to ignore) and starts afresh.
    QByteArray flush();
    bool pending() const { return !buf_.isEmpty(); }

private:
    int goodFrameAfterHead() const;

    QByteArray buf_;
};

} // namespace kq71sim

#endif
