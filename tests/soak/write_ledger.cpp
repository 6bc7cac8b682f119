#include "write_ledger.h"

#include <algorithm>

namespace kq71soak {

void WriteLedger::issued(Unit unit, std::uint64_t seq, std::uint32_t value)
{
    std::vector<Entry> &open = units_[unit];
    // Answered writes leave the front; the vector's capacity stays, so a
    // long run does not keep allocating.
    if (open.capacity() == 0)
        open.reserve(8);
    open.push_back(Entry{seq, value});
    ++open_;
}

int WriteLedger::answered(Unit unit, std::uint64_t seq)
{
    auto it = units_.find(unit);
    if (it == units_.end())
        return 0;
    std::vector<Entry> &open = it->second;
    const auto end = std::find_if(open.begin(), open.end(), [seq](const Entry &e) { return e.seq > seq; });
    const int n = int(end - open.begin());
    open.erase(open.begin(), end);
    open_ -= std::uint64_t(n);
    return n;
}

WriteLedger::Verdict WriteLedger::judge(const std::function<std::uint32_t(Unit)> &plcValue) const
{
    Verdict v;
    for (const auto &u : units_) {
        const std::vector<Entry> &open = u.second;
        if (open.empty())
            continue;
        const std::uint32_t held = plcValue(u.first);
        // Entries are in issue order: everything after the last one whose
        // value the PLC holds has neither its own nor a later value there.
        std::size_t covered = 0;
        for (std::size_t i = open.size(); i > 0; --i) {
            if (open[i - 1].value == held) {
                covered = i;
                break;
            }
        }
        v.unanswered += covered;
        v.lost += open.size() - covered;
        if (open.size() > covered && v.lostUnits.size() < 8)
            v.lostUnits.push_back(u.first);
    }
    return v;
}

} // namespace kq71soak
