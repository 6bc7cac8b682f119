// kq71_soak: the built driver, loaded by file name, against the simulated PLC
// in process on its virtual clock, with seeded line faults, while writes,
// condition reads and recipe transfers go on and the watch list changes.
// Prints one summary line and exits non-zero naming every failed check.
#include "address_text.h"
#include "records.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QLoggingCategory>
#include <QtCore/QtEndian>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

using namespace kq71rt;
using kq71sim::FaultRates;

namespace {

// Job ids the soak hands the driver; cyclic reads carry the driver's own 4.
const int CONDITION_ID_BASE = 1000, WRITE_ID_BASE = 100000000;
const int STATION = 1, GAP = 16, TIMEOUT_MS = 100, RECIPE_BYTES = 50;  // gap: pieces of 16 words and 128 bits

enum class Role { Write, Plc, Recipe };
struct Area {
    const char *reg;
    int first, units;
    Role role;
};
// Writes, the PLC's own changes and recipes keep to PLC memory of their own,
// so that the final value of a written unit can only come from a write.
const Area AREAS[] = {
    {"D", 0, 200, Role::Write},      {"M", 0, 256, Role::Write},   {"Y", 0, 64, Role::Write},
    {"V", 0, 8, Role::Write},        {"Z", 0, 8, Role::Write},     {"200CC", 200, 16, Role::Write},
    {"256CP", 300, 4, Role::Write},  {"X", 0, 64, Role::Plc},      {"D", 1000, 300, Role::Plc},
    {"M", 1000, 100, Role::Plc},     {"256CC", 300, 8, Role::Plc}, {"D", 3000, 40, Role::Recipe},
    {"200CP", 220, 4, Role::Recipe}, {"V", 10, 3, Role::Recipe},   {"TP", 100, 5, Role::Recipe},
    {"D_bit", 6400, 256, Role::Write},  // D400..D415 as bits; their write jobs are of "D" words
};

// A unit's value in the PLC, after `set` is written to it when not negative.
quint32 plc(kq71sim::PlcSimulator &sim, const QString &reg, int address, qint64 set = -1)
{
    const QString word = wordRegisterOfBits(reg);
    const UnitPlace p = word.isEmpty() ? placeOf(reg, address) : placeOf(word, address / BITS_IN_WORD);
    const int bit = address % BITS_IN_WORD;
    if (!word.isEmpty()) {
        if (set >= 0)
            sim.setReg(p.wire, quint16((sim.reg(p.wire) & ~(1u << bit)) | (set & 1) << bit));
        return sim.reg(p.wire) >> bit & 1;
    }
    if (p.kind == UnitKind::Bit) {
        if (set >= 0)
            sim.setBit(p.wire, set & 1);
        return sim.bit(p.wire) ? 1 : 0;
    }
    if (set >= 0 && p.kind == UnitKind::DoubleWord)
        sim.setReg(p.wire + 1, quint16(set >> 16));
    if (set >= 0)
        sim.setReg(p.wire, quint16(set));
    return p.kind == UnitKind::DoubleWord ? sim.reg(p.wire) | quint32(sim.reg(p.wire + 1)) << 16 : sim.reg(p.wire);
}

KEY_ADDRESS key(const QString &reg, int address, int units)
{
    const UnitKind kind = unitKindOf(reg);
    return kq71test::key(STATION, reg, address, driverLength(kind, units), driverDataType(kind));
}
int keyUnits(const KEY_ADDRESS &k) { return k.dataType == 1 ? k.length / 2 : k.length; }

const std::vector<QList<KEY_ADDRESS>> WATCH_LISTS = {
    // Every written area, the bits in words as bits.
    {key("D", 0, 200), key("M", 0, 256), key("Y", 0, 64), key("V", 0, 8), key("Z", 0, 8), key("200CC", 200, 16),
     key("256CP", 300, 4), key("D_bit", 6400, 256)},
    // Long blocks: 300 words and 100 bits cut at 128 units.
    {key("D", 1000, 300), key("X", 0, 64), key("M", 1000, 100), key("256CC", 300, 8), key("D", 0, 50)},
    // Scattered keys that the merge gap bridges or keeps apart.
    {key("D", 5, 1), key("D", 7, 3), key("D", 30, 6), key("D", 190, 10), key("D", 1010, 3), key("D", 1250, 50),
     key("M", 10, 11), key("M", 250, 6), key("M", 1050, 20), key("X", 8, 8), key("Y", 3, 5), key("V", 3, 1),
     key("Z", 5, 2), key("200CC", 202, 1), key("200CC", 210, 3), key("256CP", 301, 2), key("256CC", 303, 1),
     key("D", 3000, 12), key("TP", 100, 5), key("V", 10, 3), key("200CP", 220, 2), key("D_bit", 6405, 3),
     key("D_bit", 6430, 20)},
    {key("D", 100, 4), key("M", 0, 8)},
};
// Condition-read batches draw one to three of these.
const QList<KEY_ADDRESS> CONDITION_KEYS = {key("D", 1000, 40), key("M", 0, 8), key("D", 0, 10), key("200CC", 200, 4),
                                           key("X", 0, 4), key("D", 1200, 20), key("M", 1000, 6), key("256CC", 300, 2)};

_RCP_VAR_PRO recipeItem(const char *reg, int address, int words, int bufOffset)
{
    _RCP_VAR_PRO item;
    item.deviceId = 1;
    item.station = STATION;
    item.regName = reg;
    item.address = address;
    item.length = words;
    item.bufOffset = bufOffset;
    return item;
}
// Touching items make one block; V goes out word by word. A 32-bit item
// holds one value: a recipe read stores one double word per item.
const QVector<_RCP_VAR_PRO> RECIPE = {recipeItem("D", 3000, 4, 0),     recipeItem("D", 3004, 6, 4),
                                      recipeItem("D", 3020, 3, 10),    recipeItem("200CP", 220, 2, 13),
                                      recipeItem("200CP", 221, 2, 15), recipeItem("V", 10, 3, 17),
                                      recipeItem("TP", 100, 5, 20)};

long residentKiB()
{
    long size = 0, pages = -1;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages < 0 ? -1 : pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// The rate of each kind of fault, in the order of kq71sim::Fault, whose names
// the options take.
double FaultRates::*const KINDS[] = {&FaultRates::drop,      &FaultRates::cut,           &FaultRates::badCrc,
                                     &FaultRates::wrongStation, &FaultRates::wrongFunction, &FaultRates::exception,
                                     &FaultRates::noise,     &FaultRates::echo,          &FaultRates::delay};

enum class JobKind { None, Cyclic, Write, Condition, Recipe, Unknown };
using Unit = QPair<QString, int>;

struct Soak {
    Soak(DriverLibrary &driver, QCommandLineParser &args)
        : args_(args), rt_(driver, link_, {1, false, int(number("retries", 3)), GAP, TIMEOUT_MS, RECIPE_BYTES})
    {
        // A unit is always written in the same range, as a screen object
        // writes its own address; some ranges are longer than a piece.
        static const int SIZES[] = {1, 2, 1, 4, 3, 1, 8, 2, 20, 1, 16, 5};
        for (const Area &a : AREAS)
            for (int at = a.first, s = 0, n; a.role == Role::Write && at < a.first + a.units; at += n, ++s)
                chunks_.push_back(key(a.reg, at, n = std::min(SIZES[s % 12], a.first + a.units - at)));
        // Every written unit has an entry, which tells a word job of bits from
        // one of written words.
        for (const KEY_ADDRESS &c : chunks_)
            for (int i = 0; i < keyUnits(c); ++i)
                ledger_[Unit(c.regName, c.address + i)];
    }

    bool run()
    {
        QElapsedTimer timer;
        timer.start();
        rt_.start();
        rt_.setRecipe(RECIPE);

        std::vector<const Area *> plcAreas;
        for (const Area &a : AREAS) {
            for (int i = 0; i < a.units; ++i)
                plc(sim_, a.reg, a.first + i, unitKindOf(a.reg) == UnitKind::Bit ? rng_() & 1 : rng_());
            if (a.role == Role::Plc)
                plcAreas.push_back(&a);
        }
        // A bit write to a word the driver has never read waits for a read of
        // it, and falls back without a job outcome if that read is given up.
        // So the first watch list, which holds the bit areas, is read once on a
        // clean line, and every bit write becomes a read-modify-write job.
        const quint64 firstRead = cyclicEnded_ + quint64(watch(WATCH_LISTS[0]));
        if (!runUntil([&] { return cyclicEnded_ >= firstRead; }, 1000))
            fail("the first watch list was not read on the clean line");
        sim_.setFaults(faults());

        const quint64 tenth = std::max(total_ / 10, 1ull);
        quint64 nextSwitch = switchEvery_;
        long rssWarmKiB = -1;
        while (exchanges_ < total_ && failures_.size() < 40) {
            if (exchanges_ >= nextSwitch) {
                watch(WATCH_LISTS[nextSwitch / switchEvery_ % WATCH_LISTS.size()]);
                nextSwitch += switchEvery_;
            }
            if (random(10) == 0)
                issueWrite();
            if (!batchOpen_ && random(64) == 0)
                startBatch();
            if (!recipeOn_ && sent_ - recipeEndedAt_ > 2000 && random(256) == 0)
                startRecipe(recipeDir_ == RecipeDirection::Read ? RecipeDirection::Write : RecipeDirection::Read);
            if (random(16) == 0) {  // the PLC changes a value of its own
                const Area &a = *plcAreas[size_t(random(int(plcAreas.size())))];
                plc(sim_, a.reg, a.first + random(a.units), unitKindOf(a.reg) == UnitKind::Bit ? rng_() & 1 : rng_());
            }
            if (!step(true) || exchanges_ % tenth != 0)
                continue;
            if (rssWarmKiB < 0)
                rssWarmKiB = residentKiB();
            if (args_.isSet("progress"))
                fprintf(stderr, "soak: %llu of %llu exchanges, %.1f s\n", exchanges_, total_, timer.elapsed() / 1e3);
        }
        settle();
        recipeRoundTrip();

        bool checkMemory = !args_.isSet("no-memory-check");
#if defined(__SANITIZE_ADDRESS__)
        checkMemory = false;  // the allocator holds freed memory in quarantine
#endif
        const long rssEndKiB = residentKiB();
        if (checkMemory && (rssWarmKiB < 0 || rssEndKiB < 0 || rssEndKiB - rssWarmKiB >= 1024))
            fail("resident memory went from %1 KiB after a tenth of the run to %2 KiB", rssWarmKiB, rssEndKiB);
        for (const QString &f : failures_)
            fprintf(stderr, "FAILED: %s\n", qPrintable(f));
        const QString rss = checkMemory ? QString("%1 KiB").arg(rssEndKiB - rssWarmKiB) : "not checked";
        printf("soak %s: exchanges=%llu faults=%llu given-up=%llu writes=%llu (failed=%llu) lost=%llu unanswered=%llu "
               "condition-batches=%llu (failed=%llu dropped=%llu) recipes=%llu (blocks given up=%llu) mismatches=%llu "
               "rss-growth=%s time=%.1f s\n", failures_.isEmpty() ? "PASSED" : "FAILED", exchanges_,
               (unsigned long long)sim_.stats().faults, (unsigned long long)rt_.stats().givenUp, writes_, writesFailed_,
               lost_, unanswered_, batches_, batchesFailed_, batchesDropped_, recipes_, recipeBlocksGivenUp_,
               mismatches_, qPrintable(rss), timer.elapsed() / 1e3);
        return failures_.isEmpty();
    }

    // An option's number, or `otherwise` when it is not given.
    double number(const QString &option, double otherwise)
    {
        bool ok = true;
        const double v = args_.isSet(option) ? args_.value(option).toDouble(&ok) : otherwise;
        if (!ok || v < 0)
            args_.showHelp(2);
        return v;
    }
    FaultRates faults()
    {
        FaultRates f;
        for (int k = 1; k < kq71sim::FaultKinds; ++k)
            f.*KINDS[k - 1] = number(kq71sim::faultName(kq71sim::Fault(k)), number("fault-rate", 0.18) / 9);
        f.delayMs = 3 * TIMEOUT_MS;
        return f;
    }
    template <class... Args>
    void fail(const char *text, const Args &...args)
    {
        QString s = text;
        ((s = s.arg(args)), ...);
        if (failures_.size() < 40)
            failures_ << s;
    }
    int random(int n) { return int(rng_() % std::uint32_t(n)); }
    bool runUntil(const std::function<bool()> &done, int maxSteps)
    {
        for (int i = 0; i < maxSteps && !done(); ++i)
            step(false);
        return done();
    }
    int watch(const QList<KEY_ADDRESS> &keys)
    {
        watching_ = keys;
        return rt_.watch(keys);
    }

    void issueWrite()
    {
        const KEY_ADDRESS &c = chunks_[size_t(random(int(chunks_.size())))];
        const int size = c.dataType == -1 ? 1 : c.dataType == 0 ? 2 : 4;  // bytes of a unit
        const quint64 seq = ++writes_;
        QByteArray bytes;
        for (int i = 0; i < keyUnits(c); ++i) {
            const quint32 v = quint32(rng_()) & (size == 1 ? 1 : size == 2 ? 0xFFFF : ~0u), le = qToLittleEndian(v);
            bytes.append(reinterpret_cast<const char *>(&le), size);
            Ledger &l = ledger_[Unit(c.regName, c.address + i)];
            l.issued = seq;
            l.value = v;
        }
        rt_.write(STATION, c.regName, c.address, c.length, bytes, WRITE_ID_BASE + int(seq));
    }

    void startBatch()
    {
        QList<KEY_ADDRESS> keys = CONDITION_KEYS;
        std::shuffle(keys.begin(), keys.end(), rng_);
        batchOpen_ = true;
        batchId_ = CONDITION_ID_BASE + int(batches_++ % 1000000);
        pieces_ = piecesRead_ = 0;
        endDue_ = 1;
        for (const KEY_ADDRESS &k : keys.mid(0, 1 + random(3))) {
            rt_.conditionRead(k, batchId_);
            pieces_ += (k.length - 1) / (k.dataType == -1 ? 8 * GAP : GAP) + 1;
        }
    }

    // A recipe write sends a fresh buffer.
    void startRecipe(RecipeDirection dir)
    {
        for (int i = 0; dir == RecipeDirection::Write && i < RECIPE_BYTES; ++i)
            rt_.recipeBuffer()[i] = uchar(rng_());
        recipeDir_ = dir;
        recipeOn_ = true;
        rt_.startRecipe(dir);
    }

    // One exchange and what the driver reported with it; false when it had
    // nothing to send.
    bool step(bool faultsOn)
    {
        const bool recipeBefore = recipeOn_ && rt_.recipeRunning(recipeDir_);
        const Exchange ex = rt_.step();
        JobKind kind = JobKind::None;
        if (ex.sent) {
            ++sent_;
            exchanges_ += faultsOn;
            // A frame that got "send again" goes out again before anything
            // else; otherwise a raised recipe flag takes the frame (a recipe
            // job keeps the id of the job before it, so the id does not tell).
            kind = prevResult_ == 8                             ? prevKind_
                   : recipeBefore                               ? JobKind::Recipe
                   : !ex.write && ex.jobId == 4                 ? JobKind::Cyclic
                   : ex.write && ex.jobId >= WRITE_ID_BASE      ? JobKind::Write
                   : !ex.write && ex.jobId >= CONDITION_ID_BASE ? JobKind::Condition
                                                                : JobKind::Unknown;
        } else {
            link_.idle(1000);
        }
        prevKind_ = kind;
        prevResult_ = ex.result;
        const bool ended = ex.result == 1 || ex.result == 2;

        const QVector<int> ends = rt_.takeBatchEnds();
        const QVector<ChangeReport> reports = rt_.takeReports();
        rt_.takeRecipeWords();
        if (kind == JobKind::Unknown || (kind == JobKind::Condition && (!batchOpen_ || ex.jobId != batchId_)))
            fail("frame of job %1 for %2 fits no job of the soak (batch %3 %4)", ex.jobId,
                 unitName(ex.regName, ex.address), batchId_, batchOpen_ ? "open" : "over");
        else if (kind == JobKind::Cyclic)
            cyclicEnded_ += ended;
        else if (kind == JobKind::Write && ended)
            onWrite(ex, reports);
        else if (kind == JobKind::Condition && ex.result == 1 && ++piecesRead_ == pieces_)
            endDue_ = 0;
        else if (kind == JobKind::Condition && ex.result == 2)
            endDue_ = piecesRead_ + 1 < pieces_ ? -2 : -1;

        // A batch ends with exactly one report: when its last piece has ended,
        // or when any piece was given up.
        if (batchOpen_ && endDue_ != 1) {
            if (ends != QVector<int>{std::max(endDue_, -1)})
                fail("batch %1 (%2) had %3 end reports, the first %4", batchId_, endDue_, ends.size(), ends.value(0));
            batchesFailed_ += endDue_ == -1;
            batchesDropped_ += endDue_ == -2;
            batchOpen_ = false;
        } else if (!ends.isEmpty()) {
            fail("end-of-batch report %1 while batch %2 is %3", ends[0], batchId_, batchOpen_ ? "reading" : "over");
        }

        // A given-up recipe block ends its transfer at once.
        const bool recipeGaveUp = recipeBefore && kind == JobKind::Recipe && ex.result == 2;
        recipeBlocksGivenUp_ += recipeGaveUp;
        if (recipeGaveUp && rt_.recipeRunning(recipeDir_))
            fail("a given-up recipe block left its flag raised");
        if (recipeOn_ && !rt_.recipeRunning(recipeDir_)) {
            recipeOn_ = false;
            recipeEndedAt_ = sent_;
            ++recipes_;
        }
        return ex.sent;
    }

    // A unit is always written in the same range, so its jobs go out in the
    // order of its writes, a queued job taking over the value and id of a
    // newer write to its range: an outcome for job id k answers the unit's
    // writes up to k, and k is a write to every unit of the job.
    void onWrite(const Exchange &ex, const QVector<ChangeReport> &reports)
    {
        const quint64 seq = quint64(ex.jobId - WRITE_ID_BASE);
        for (int i = 0; i < ex.length; ++i) {
            const Unit u(ex.regName, ex.address + i), firstBit(bitInWordRegister(u.first), u.second * BITS_IN_WORD);
            if (ledger_.contains(u)) {
                if (seq <= ledger_[u].answered)
                    fail("write job %1 ended again for %2", ex.jobId, unitName(u.first, u.second));
                ledger_[u].answered = seq;
            } else if (ledger_.contains(firstBit)) {
                // A word job of bits carries every bit still pending in its
                // word, so it answers all their writes up to its id (a later
                // job over other words may have answered them already).
                for (int b = 0; b < BITS_IN_WORD; ++b) {
                    Ledger &l = ledger_[Unit(firstBit.first, firstBit.second + b)];
                    l.answered = std::max(l.answered, seq);
                }
            } else {
                fail("write job %1 for %2 outside the written areas", ex.jobId, unitName(u.first, u.second));
            }
            // A given-up write falls back, and the runtime hears of each bit
            // and each watched unit it covered.
            const bool watched = std::any_of(watching_.begin(), watching_.end(), [&](const KEY_ADDRESS &k) {
                return k.regName == u.first && u.second >= k.address && u.second < k.address + keyUnits(k);
            });
            if (ex.result == 2 && (unitKindOf(u.first) == UnitKind::Bit || watched) &&
                std::none_of(reports.begin(), reports.end(),
                             [&](const ChangeReport &r) { return r.regName == u.first && r.address == u.second; }))
                fail("given-up write to %1 was not reported to the callback", unitName(u.first, u.second));
        }
        writesFailed_ += ex.result == 2;
    }

    // With the faults and new work stopped, the cache must come back to the
    // PLC and every write must be accounted for.
    void settle()
    {
        sim_.setFaults(FaultRates());
        // One key per area: a key starting inside the first 128 units of a
        // longer one would pull that block's start back and leave units unread
        // (merging widens a block by moving its start, not its length). The
        // PLC moves once more, so that a unit the plan misses cannot match by
        // chance.
        QList<KEY_ADDRESS> all;
        for (const Area &a : AREAS) {
            all << key(a.reg, a.first, a.units);
            for (int i = 0; i < a.units && a.role == Role::Plc; ++i)
                plc(sim_, a.reg, a.first + i,
                    plc(sim_, a.reg, a.first + i) + (unitKindOf(a.reg) == UnitKind::Bit ? 1 : 1 + rng_() % 1000));
        }
        // A frame being sent again when the plan changed may be of an old block.
        const quint64 refreshed = cyclicEnded_ + 2 * quint64(watch(all)) + (prevResult_ == 8 ? 1 : 0);
        if (!runUntil([&] { return cyclicEnded_ >= refreshed; }, 200000))
            fail("the plan was not read twice after the faults stopped");
        for (const KEY_ADDRESS &k : all)
            for (int i = 0; i < keyUnits(k); ++i) {
                const QByteArray b = rt_.read(STATION, k.regName, k.address + i, k.dataType == 1 ? 2 : 1);
                const quint32 cached = qFromLittleEndian<quint32>(b.leftJustified(4, '\0').constData());
                const quint32 held = plc(sim_, k.regName, k.address + i);
                if (cached != held && ++mismatches_ <= 8)
                    fail("%1 shows %2, the PLC holds %3", unitName(k.regName, k.address + i), cached, held);
            }

        // What is still queued goes out. Then a unit whose last write had no
        // outcome has lost it unless the PLC holds its value; an outcome is
        // due all the same, as a bit holds a lost write's value half the time.
        const auto due = [](const Ledger &l) { return l.answered < l.issued; };
        runUntil([&] { return std::none_of(ledger_.begin(), ledger_.end(), due) && !batchOpen_ && !recipeOn_; }, 20000);
        for (auto it = ledger_.cbegin(); it != ledger_.cend(); ++it) {
            const Unit &u = it.key();
            if (!due(*it))
                continue;
            const bool held = plc(sim_, u.first, u.second) == it->value;
            ++(held ? unanswered_ : lost_);
            fail("the last write to %1 %2", unitName(u.first, u.second), held ? "had no outcome" : "is lost");
        }
        if (batchOpen_)
            fail("batch %1 still open at the end", batchId_);
    }

    // On the clean line, a recipe written from the buffer must be in the PLC,
    // and reading it back must restore the buffer.
    void recipeRoundTrip()
    {
        unsigned char *buf = rt_.recipeBuffer();
        const quint64 gaveUpBefore = rt_.stats().givenUp;
        std::vector<uchar> written;
        for (RecipeDirection dir : {RecipeDirection::Write, RecipeDirection::Read}) {
            startRecipe(dir);
            if (dir == RecipeDirection::Write)
                written.assign(buf, buf + RECIPE_BYTES);
            else
                std::fill(buf, buf + RECIPE_BYTES, 0);
            if (!runUntil([&] { return !recipeOn_; }, 1000) || rt_.recipeRunning(dir))
                return fail("the final recipe transfer did not end");
        }
        for (const _RCP_VAR_PRO &r : RECIPE) {
            const bool dword = unitKindOf(r.regName) == UnitKind::DoubleWord;
            for (int i = 0; i < (dword ? r.length / 2 : r.length); ++i) {
                const uchar *at = written.data() + 2 * r.bufOffset + (dword ? 4 : 2) * i;
                const quint32 want = dword ? qFromLittleEndian<quint32>(at) : qFromLittleEndian<quint16>(at);
                const quint32 held = plc(sim_, r.regName, r.address + i);
                if (held != want)
                    fail("recipe write left %1 at %2, not %3", unitName(r.regName, r.address + i), held, want);
            }
        }
        if (!std::equal(written.begin(), written.end(), buf))
            fail("the recipe read back is not what was written");
        if (rt_.stats().givenUp != gaveUpBefore)
            fail("a job was given up on the clean line");
    }

    QCommandLineParser &args_;
    const bool quick_ = args_.isSet("quick");
    const unsigned long long total_ = (unsigned long long)number("exchanges", quick_ ? 100000 : 1000000);
    const quint64 switchEvery_ = std::max(quint64(number("switch-every", quick_ ? 2000 : 5000)), quint64(1));
    const quint32 seed_ = quint32(number("seed", 1));
    kq71sim::PlcSimulator sim_{kq71sim::SimOptions{STATION, false, seed_, FaultRates()}};
    SimLink link_{sim_};
    Runtime rt_;
    std::mt19937 rng_{seed_ ^ 0x5EEDu};
    QStringList failures_;
    std::vector<KEY_ADDRESS> chunks_;  // the ranges writes go to
    QList<KEY_ADDRESS> watching_;
    // Per written unit: its last write (number and value), and the highest
    // write number an outcome has answered.
    struct Ledger {
        quint64 issued = 0, answered = 0;
        quint32 value = 0;
    };
    QHash<Unit, Ledger> ledger_;
    // The open condition-read batch: its end report is due as 0 (read), -1
    // (given up) or -2 (given up with pieces left, which are dropped), or not
    // yet (1).
    bool batchOpen_ = false;
    int batchId_ = 0, pieces_ = 0, piecesRead_ = 0, endDue_ = 1;
    bool recipeOn_ = false;
    RecipeDirection recipeDir_ = RecipeDirection::Write;
    JobKind prevKind_ = JobKind::None;
    int prevResult_ = 0;
    quint64 sent_ = 0, cyclicEnded_ = 0, recipeEndedAt_ = 0;  // sent_ counts the settling too
    unsigned long long exchanges_ = 0, writes_ = 0, writesFailed_ = 0, lost_ = 0, unanswered_ = 0, batches_ = 0,
                       batchesFailed_ = 0, batchesDropped_ = 0, recipes_ = 0, recipeBlocksGivenUp_ = 0, mismatches_ = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // The driver's debug lines of planning and queueing would swamp the run.
    QLoggingCategory::setFilterRules("*.debug=false");
    QCommandLineParser args;
    args.addHelpOption();
    args.addOptions({{"quick", "The CI run: 100000 exchanges, the watch list switched every 2000."},
                     {"exchanges", "Frames sent with the faults on (default 1000000).", "N"},
                     {"seed", "Seed of the faults and of the work (default 1).", "N"},
                     {"fault-rate", "Share of replies spoiled, spread evenly over the kinds (default 0.18).", "R"},
                     {"retries", "The driver's retry limit (default 3).", "N"},
                     {"switch-every", "Exchanges between watch-list changes (default 5000).", "N"},
                     {"driver", "The driver library (default: the one this build made).", "PATH", KQ71_DRIVER_FILE},
                     {"no-memory-check", "Leave resident memory unchecked (as under Valgrind)."},
                     {"progress", "A line on stderr every tenth of the run."}});
    for (int k = 1; k < kq71sim::FaultKinds; ++k)
        args.addOption({kq71sim::faultName(kq71sim::Fault(k)), "The rate of this kind of fault.", "R"});
    args.process(app);
    DriverLibrary driver;
    QString error;
    if (!driver.load(args.value("driver"), &error)) {
        fprintf(stderr, "kq71_soak: %s\n", qPrintable(error));
        return 2;
    }
    return Soak(driver, args).run() ? 0 : 1;
}
