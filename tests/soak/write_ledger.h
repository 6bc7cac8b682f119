// The soak's account of writes, unit by unit: what was written, and which
// job outcome (acknowledged or given up) answered it.
//
// Writes to one unit always go out in jobs of the same range, so the driver
// sends them in the order they were made, a queued job taking over the value
// and the id of a newer write to its range. An outcome for job id k thus
// answers every write to those units up to k. What stays open at the end was
// never answered: such a write is lost unless the PLC holds its value or the
// value of a later write to the same unit.
#ifndef KQ71_SOAK_WRITE_LEDGER_H
#define KQ71_SOAK_WRITE_LEDGER_H

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

namespace kq71soak {

class WriteLedger {
public:
    using Unit = std::uint64_t;

    void issued(Unit unit, std::uint64_t seq, std::uint32_t value);
    // An outcome for the job of write `seq` covering the unit: answers the
    // writes up to seq. Returns how many it answered (0: nothing was open,
    // which no job outcome should meet).
    int answered(Unit unit, std::uint64_t seq);

    std::uint64_t open() const { return open_; }

    struct Verdict {
        std::uint64_t lost = 0;        // value nowhere in the PLC, no outcome
        std::uint64_t unanswered = 0;  // no outcome, but the PLC holds its value or a later one
        std::vector<Unit> lostUnits;   // the first few, for the report
    };
    Verdict judge(const std::function<std::uint32_t(Unit)> &plcValue) const;

private:
    struct Entry {
        std::uint64_t seq;
        std::uint32_t value;
    };
    std::unordered_map<Unit, std::vector<Entry>> units_;
    std::uint64_t open_ = 0;
};

} // namespace kq71soak

#endif
