// kq71_soak: the built driver, loaded by file name, against the simulated PLC
// in process on its virtual clock, with seeded line faults, while writes,
// condition reads and recipe transfers go on and the watch list changes.
// Prints one summary line and exits non-zero naming every failed check.
#include "address_text.h"
#include "plc_simulator.h"
#include "runtime.h"
#include "sim_link.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QLoggingCategory>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <vector>

using namespace kq71rt;
using kq71sim::FaultRates;

namespace {

// Job ids the soak hands the driver; cyclic reads carry the driver's own 4.
const int CONDITION_ID_BASE = 1000, WRITE_ID_BASE = 100000000;
const int STATION = 1, GAP = 16, TIMEOUT_MS = 100;  // gap: pieces of 16 words and 128 bits
// Exchanges a condition batch or a recipe transfer may take before it counts as hung.
const quint64 HUNG_AFTER = 50000;

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

// Touching items make one block; V goes out word by word. A 32-bit item
// holds one value: a recipe read stores one double word per item.
const struct {
    const char *reg;
    int address, words, bufOffset;
} RECIPE[] = {{"D", 3000, 4, 0},     {"D", 3004, 6, 4}, {"D", 3020, 3, 10}, {"200CP", 220, 2, 13},
              {"200CP", 221, 2, 15}, {"V", 10, 3, 17},  {"TP", 100, 5, 20}};
const int RECIPE_BYTES = 50;

using Unit = QPair<QString, int>;

// The area holding a unit; a word under a bit-in-word area belongs to that area.
const Area *areaOf(const QString &reg, int address)
{
    for (const Area &a : AREAS) {
        if (reg == QLatin1String(a.reg) && address >= a.first && address < a.first + a.units)
            return &a;
        if (reg == wordRegisterOfBits(a.reg) && address >= a.first / BITS_IN_WORD &&
            address <= (a.first + a.units - 1) / BITS_IN_WORD)
            return &a;
    }
    return nullptr;
}

UnitPlace wordPlace(const QString &reg, int address)
{
    const QString word = wordRegisterOfBits(reg);
    return word.isEmpty() ? placeOf(reg, address) : placeOf(word, address / BITS_IN_WORD);
}

quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address)
{
    const UnitPlace p = wordPlace(reg, address);
    if (!wordRegisterOfBits(reg).isEmpty())
        return sim.reg(p.wire) >> (address % BITS_IN_WORD) & 1;
    if (p.kind == UnitKind::Bit)
        return sim.bit(p.wire) ? 1 : 0;
    return p.kind == UnitKind::DoubleWord ? quint32(sim.reg(p.wire)) | quint32(sim.reg(p.wire + 1)) << 16
                                          : sim.reg(p.wire);
}

void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value)
{
    const UnitPlace p = wordPlace(reg, address);
    if (!wordRegisterOfBits(reg).isEmpty()) {
        const quint16 mask = quint16(1u << (address % BITS_IN_WORD));
        sim.setReg(p.wire, quint16((sim.reg(p.wire) & ~mask) | (value & 1 ? mask : 0)));
    } else if (p.kind == UnitKind::Bit) {
        sim.setBit(p.wire, value & 1);
    } else {
        sim.setReg(p.wire, quint16(value));
        if (p.kind == UnitKind::DoubleWord)
            sim.setReg(p.wire + 1, quint16(value >> 16));
    }
}

KEY_ADDRESS key(const QString &reg, int address, int units)
{
    KEY_ADDRESS k;
    k.station = STATION;
    k.regName = reg;
    k.address = address;
    k.dataType = driverDataType(unitKindOf(reg));
    k.length = driverLength(unitKindOf(reg), units);
    return k;
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
const QList<KEY_ADDRESS> CONDITION_KEYS = {key("D", 1000, 40), key("M", 0, 8),       key("D", 0, 10),
                                           key("200CC", 200, 4), key("X", 0, 4),     key("D", 1200, 20),
                                           key("M", 1000, 6),    key("256CC", 300, 2)};

long residentKiB()
{
    long size = 0, pages = -1;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages < 0 ? -1 : pages * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Config {
    unsigned long long exchanges;  // frames sent while the faults are on
    quint32 seed;
    FaultRates faults;
    int retries, switchEvery;
    bool checkMemory, progress;
};

enum class JobKind { None, Cyclic, Write, Condition, Recipe, Unknown };

struct Soak {
    Soak(DriverLibrary &driver, const Config &c)
        : c_(c), sim_(kq71sim::SimOptions{STATION, false, c.seed, c.faults}), link_(sim_),
          rt_(driver, link_, RuntimeOptions{1, false, c.retries, GAP, TIMEOUT_MS, RECIPE_BYTES}), rng_(c.seed ^ 0x5EEDu)
    {
        // A unit is always written in the same range, as a screen object
        // writes its own address; some ranges are longer than a piece.
        static const int SIZES[] = {1, 2, 1, 4, 3, 1, 8, 2, 20, 1, 16, 5};
        for (const Area &a : AREAS)
            for (int at = a.first, s = 0; a.role == Role::Write && at < a.first + a.units; at += chunks_.back().units)
                chunks_.push_back(Chunk{&a, at, std::min(SIZES[s++ % 12], a.first + a.units - at)});
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
    void runUntil(const std::function<bool()> &done, int maxSteps)
    {
        for (int i = 0; i < maxSteps && !done(); ++i)
            step(false);
    }
    int watch(const QList<KEY_ADDRESS> &keys)
    {
        watching_ = keys;
        return rt_.watch(keys);
    }
    bool watched(const Unit &u) const
    {
        return std::any_of(watching_.begin(), watching_.end(), [&](const KEY_ADDRESS &k) {
            return k.regName == u.first && u.second >= k.address && u.second < k.address + keyUnits(k);
        });
    }

    void issueWrite()
    {
        const Chunk &c = chunks_[size_t(random(int(chunks_.size())))];
        const UnitKind kind = unitKindOf(c.area->reg);
        const quint64 seq = ++writes_;
        QByteArray bytes;
        for (int i = 0; i < c.units; ++i) {
            // Tagged with the write's number, so that a stale value is told apart.
            const quint32 v = kind == UnitKind::Bit ? rng_() & 1
                              : kind == UnitKind::Word ? quint32(seq << 4 | i) & 0xFFFF
                                                       : (quint32(seq) << 8 | quint32(i)) ^ 0xA5000000u;
            for (int b = 0; b < (kind == UnitKind::Bit ? 1 : kind == UnitKind::Word ? 2 : 4); ++b)
                bytes.append(char(v >> (8 * b) & 0xFF));
            open_[Unit(c.area->reg, c.address + i)].push_back(Written{seq, v});
            ++openCount_;
        }
        rt_.write(STATION, c.area->reg, c.address, driverLength(kind, c.units), bytes, WRITE_ID_BASE + int(seq));
    }

    // Answers the open writes to the unit up to `seq`; returns how many.
    int answer(const Unit &u, quint64 seq)
    {
        std::vector<Written> &open = open_[u];
        const auto end = std::find_if(open.begin(), open.end(), [seq](const Written &w) { return w.seq > seq; });
        const int n = int(end - open.begin());
        open.erase(open.begin(), end);
        openCount_ -= quint64(n);
        return n;
    }

    void startBatch()
    {
        const int n = 1 + random(3);
        QList<int> chosen;
        while (chosen.size() < n) {
            const int i = random(CONDITION_KEYS.size());
            if (!chosen.contains(i))
                chosen << i;
        }
        batch_ = Batch{true, CONDITION_ID_BASE + int(batches_++ % 1000000), sent_};
        for (int i : chosen) {
            const KEY_ADDRESS &k = CONDITION_KEYS[i];
            rt_.conditionRead(k, batch_.id);
            const int limit = k.dataType == -1 ? 8 * GAP : GAP;
            batch_.pieces += (k.length + limit - 1) / limit;
        }
    }

    void startRecipe(RecipeDirection dir)
    {
        recipeDir_ = dir;
        recipeOn_ = true;
        recipeGaveUp_ = false;
        recipeStartedAt_ = sent_;
        rt_.startRecipe(dir);
    }

    // One exchange and everything the driver reported with it; false when it
    // had nothing to send.
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

        const QVector<int> ends = rt_.takeBatchEnds();
        const QVector<ChangeReport> reports = rt_.takeReports();
        rt_.takeRecipeWords();
        const Area *area = areaOf(ex.regName, ex.address);
        const Role role = kind == JobKind::Write ? Role::Write : Role::Recipe;
        if (kind == JobKind::Unknown ||
            ((kind == JobKind::Write || kind == JobKind::Recipe) && (!area || area->role != role)))
            fail("frame of job %1 for %2 outside its area", ex.jobId, unitName(ex.regName, ex.address));
        else if (kind == JobKind::Cyclic)
            cyclicEnded_ += ex.result == 1 || ex.result == 2;
        else if (kind == JobKind::Write && (ex.result == 1 || ex.result == 2))
            onWrite(ex, *area, reports);
        else if (kind == JobKind::Condition)
            onCondition(ex);
        else if (kind == JobKind::Recipe)
            recipeGaveUp_ = recipeGaveUp_ || ex.result == 2;

        // A batch ends with exactly one report: when its last piece has ended,
        // or when any piece was given up (the rest of it is dropped).
        if (batch_.open && batch_.expectEnd != 1) {
            if (ends != QVector<int>{batch_.expectEnd})
                fail("batch %1 ended (%2) with %3 end reports, the first %4", batch_.id, batch_.expectEnd, ends.size(),
                     ends.value(0));
            ++(batch_.dropped ? batchesDropped_ : batch_.expectEnd == 0 ? batchesRead_ : batchesFailed_);
            batch_.open = false;
        } else if (!ends.isEmpty()) {
            fail("end-of-batch report %1 while batch %2 is %3", ends[0], batch_.id, batch_.open ? "reading" : "over");
        } else if (batch_.open && sent_ - batch_.startedAt > HUNG_AFTER) {
            fail("batch %1 has not ended after %2 exchanges", batch_.id, HUNG_AFTER);
            batch_.open = false;
        }

        if (recipeOn_) {
            const bool running = rt_.recipeRunning(recipeDir_);
            if (recipeBefore && kind == JobKind::Recipe && ex.result == 2 && running)
                fail("a given-up recipe block left its flag raised");
            if (!running) {
                recipeOn_ = false;
                recipeEndedAt_ = sent_;
                ++recipes_;
                recipesGivenUp_ += recipeGaveUp_;
            } else if (sent_ - recipeStartedAt_ > HUNG_AFTER) {
                fail("recipe transfer still running after %1 exchanges", HUNG_AFTER);
                recipeOn_ = false;
            }
        }
        return ex.sent;
    }

    void onWrite(const Exchange &ex, const Area &area, const QVector<ChangeReport> &reports)
    {
        const quint64 seq = quint64(ex.jobId - WRITE_ID_BASE);
        if (!wordRegisterOfBits(area.reg).isEmpty()) {
            // A word job of bits carries every bit still pending in its words,
            // so it answers all their bit writes up to its id (a later job over
            // other words may have answered them already).
            for (int bit = ex.address * BITS_IN_WORD; bit < (ex.address + ex.length) * BITS_IN_WORD; ++bit)
                answer(Unit(area.reg, bit), seq);
        } else {
            for (int i = 0; i < ex.length; ++i)
                if (answer(Unit(ex.regName, ex.address + i), seq) == 0)
                    fail("write job %1 answered for %2, which had no open write", ex.jobId,
                         unitName(ex.regName, ex.address + i));
        }
        ++(ex.result == 1 ? writeAcked_ : writeFailed_);
        // A given-up write falls back, and the runtime hears of each bit and
        // each watched unit it covered.
        for (int i = 0; ex.result == 2 && i < ex.length; ++i) {
            const Unit u(ex.regName, ex.address + i);
            const bool heard = std::any_of(reports.begin(), reports.end(), [&](const ChangeReport &r) {
                return r.regName == u.first && r.address == u.second;
            });
            if (!heard && (unitKindOf(u.first) == UnitKind::Bit || watched(u)))
                fail("given-up write to %1 was not reported to the callback", unitName(u.first, u.second));
        }
    }

    void onCondition(const Exchange &ex)
    {
        if (!batch_.open || ex.jobId != batch_.id) {
            fail("condition read with id %1 while batch %2 is %3", ex.jobId, batch_.id, batch_.open ? "open" : "over");
        } else if (ex.result == 1 && ++batch_.piecesRead == batch_.pieces) {
            batch_.expectEnd = 0;
        } else if (ex.result == 2) {
            batch_.expectEnd = -1;
            batch_.dropped = batch_.piecesRead + 1 < batch_.pieces;
        }
    }

    // With the faults and new work stopped, the cache must come back to the
    // PLC and every write must be accounted for.
    void settle()
    {
        sim_.setFaults(FaultRates());
        // One key per area: a key starting inside the first 128 units of a
        // longer one would pull that block's start back and leave units unread
        // (merging widens a block by moving its start, not its length).
        QList<KEY_ADDRESS> all;
        for (const Area &a : AREAS)
            all << key(a.reg, a.first, a.units);
        // The PLC moves once more, so that a unit the plan misses cannot match by chance.
        for (const Area &a : AREAS)
            for (int i = 0; i < a.units && a.role == Role::Plc; ++i) {
                const quint32 v = simValue(sim_, a.reg, a.first + i);
                setSimValue(sim_, a.reg, a.first + i, unitKindOf(a.reg) == UnitKind::Bit ? !v : v + 1 + rng_() % 1000);
            }
        // A frame being sent again when the plan changed may be of an old block.
        const quint64 refreshed = cyclicEnded_ + 2 * quint64(watch(all)) + (prevResult_ == 8 ? 1 : 0);
        runUntil([&] { return cyclicEnded_ >= refreshed; }, 200000);
        if (cyclicEnded_ < refreshed)
            fail("the plan was not read twice after the faults stopped");
        for (const KEY_ADDRESS &k : all)
            for (int i = 0; i < keyUnits(k); ++i) {
                const QByteArray b = rt_.read(STATION, k.regName, k.address + i, k.dataType == 1 ? 2 : 1);
                quint32 cached = 0;
                for (int j = b.size() - 1; j >= 0; --j)
                    cached = cached << 8 | static_cast<unsigned char>(b[j]);
                const quint32 held = simValue(sim_, k.regName, k.address + i);
                if (cached != held && ++mismatches_ <= 8)
                    fail("%1 shows %2, the PLC holds %3", unitName(k.regName, k.address + i), cached, held);
            }

        // What is still queued goes out. A write no outcome answered is lost
        // unless the PLC holds its value or a later write's; every write must
        // have had an outcome all the same, as a bit holds a lost write's
        // value half the time.
        runUntil([&] { return openCount_ == 0 && !batch_.open && !recipeOn_; }, 20000);
        for (auto it = open_.cbegin(); it != open_.cend(); ++it) {
            const quint32 held = simValue(sim_, it.key().first, it.key().second);
            size_t covered = it->size();
            while (covered > 0 && (*it)[covered - 1].value != held)
                --covered;
            unanswered_ += covered;
            lost_ += it->size() - covered;
            if (it->size() > covered)
                fail("a write to %1 is lost: not in the PLC, not reported failed",
                     unitName(it.key().first, it.key().second));
        }
        if (unanswered_ > 0)
            fail("%1 writes never had an outcome, their own or a later one's", unanswered_);
        if (batch_.open)
            fail("batch %1 still open at the end", batch_.id);
    }

    // On the clean line, a recipe written from the buffer must be in the PLC,
    // and reading it back must restore the buffer.
    void recipeRoundTrip()
    {
        unsigned char *buf = rt_.recipeBuffer();
        std::vector<unsigned char> written(RECIPE_BYTES);
        for (unsigned char &b : written)
            b = uchar(rng_());
        std::copy(written.begin(), written.end(), buf);
        const auto word = [&](int w) { return quint32(written[size_t(2 * w)]) | quint32(written[size_t(2 * w + 1)]) << 8; };
        const quint64 gaveUpBefore = rt_.stats().givenUp;
        for (RecipeDirection dir : {RecipeDirection::Write, RecipeDirection::Read}) {
            if (dir == RecipeDirection::Read)
                std::fill(buf, buf + RECIPE_BYTES, 0);
            startRecipe(dir);
            runUntil([&] { return !recipeOn_; }, 1000);
            if (recipeOn_ || rt_.recipeRunning(dir))
                return fail("the final recipe transfer did not end");
        }
        for (const auto &r : RECIPE) {
            const bool dword = unitKindOf(r.reg) == UnitKind::DoubleWord;
            for (int i = 0; i < (dword ? r.words / 2 : r.words); ++i) {
                const int w = r.bufOffset + (dword ? 2 * i : i);
                const quint32 want = dword ? word(w) | word(w + 1) << 16 : word(w);
                if (simValue(sim_, r.reg, r.address + i) != want)
                    fail("recipe write left %1 at %2, the buffer held %3", unitName(r.reg, r.address + i),
                         simValue(sim_, r.reg, r.address + i), want);
            }
        }
        if (!std::equal(written.begin(), written.end(), buf))
            fail("the recipe read back is not what was written");
        if (rt_.stats().givenUp != gaveUpBefore)
            fail("a job was given up on the clean line");
    }

    bool run()
    {
        QElapsedTimer timer;
        timer.start();
        QString unused;
        link_.open(&unused);
        rt_.start();
        QVector<_RCP_VAR_PRO> items;
        for (const auto &r : RECIPE) {
            items << _RCP_VAR_PRO();
            items.last().deviceId = 1;
            items.last().station = STATION;
            items.last().regName = r.reg;
            items.last().address = r.address;
            items.last().length = r.words;
            items.last().bufOffset = r.bufOffset;
        }
        if (rt_.setRecipe(items) != items.size())
            fail("the driver did not take the recipe items");

        // A bit write to a word the driver has never read waits for a read of
        // it, and falls back without a job outcome if that read is given up.
        // So the words under the bit areas are read once on a clean line, and
        // every bit write becomes a read-modify-write job of its own.
        QList<KEY_ADDRESS> bitWords;
        std::vector<const Area *> plcAreas;
        for (const Area &a : AREAS) {
            for (int i = 0; i < a.units; ++i)
                setSimValue(sim_, a.reg, a.first + i, unitKindOf(a.reg) == UnitKind::Bit ? rng_() & 1 : rng_());
            if (!wordRegisterOfBits(a.reg).isEmpty())
                bitWords << key(a.reg, a.first, a.units);
            if (a.role == Role::Plc)
                plcAreas.push_back(&a);
        }
        sim_.setFaults(FaultRates());
        const quint64 bitWordsRead = cyclicEnded_ + quint64(rt_.watch(bitWords));
        runUntil([&] { return cyclicEnded_ >= bitWordsRead; }, 1000);
        if (cyclicEnded_ < bitWordsRead)
            fail("the words of the bit areas were not read on the clean line");
        sim_.setFaults(c_.faults);

        const quint64 tenth = std::max(c_.exchanges / 10, 1ull), switchEvery = quint64(c_.switchEvery);
        quint64 nextSwitch = switchEvery;
        long rssWarmKiB = -1;
        watch(WATCH_LISTS[0]);
        while (exchanges_ < c_.exchanges && failures_.size() < 40) {
            if (exchanges_ >= nextSwitch) {
                watch(WATCH_LISTS[nextSwitch / switchEvery % WATCH_LISTS.size()]);
                nextSwitch += switchEvery;
            }
            if (random(10) == 0)
                issueWrite();
            if (!batch_.open && random(64) == 0)
                startBatch();
            if (!recipeOn_ && sent_ - recipeEndedAt_ > 2000 && random(256) == 0) {
                const bool write = recipeDir_ == RecipeDirection::Read;
                for (int i = 0; write && i < RECIPE_BYTES; ++i)
                    rt_.recipeBuffer()[i] = uchar(rng_());
                startRecipe(write ? RecipeDirection::Write : RecipeDirection::Read);
            }
            if (random(16) == 0) {  // the PLC changes a value of its own
                const Area &a = *plcAreas[size_t(random(int(plcAreas.size())))];
                setSimValue(sim_, a.reg, a.first + random(a.units), unitKindOf(a.reg) == UnitKind::Bit ? rng_() & 1 : rng_());
            }
            if (!step(true) || exchanges_ % tenth != 0)
                continue;
            if (rssWarmKiB < 0)
                rssWarmKiB = residentKiB();
            if (c_.progress)
                fprintf(stderr, "soak: %llu of %llu exchanges, %.1f s\n", exchanges_, c_.exchanges, timer.elapsed() / 1e3);
        }
        const quint64 faults = sim_.stats().faults, settleFrom = sent_;
        settle();
        recipeRoundTrip();

        const long rssEndKiB = residentKiB();
        if (c_.checkMemory && (rssWarmKiB < 0 || rssEndKiB < 0 || rssEndKiB - rssWarmKiB >= 1024))
            fail("resident memory went from %1 KiB after a tenth of the run to %2 KiB", rssWarmKiB, rssEndKiB);
        for (const QString &f : failures_)
            fprintf(stderr, "FAILED: %s\n", qPrintable(f));
        const QString rss = c_.checkMemory ? QString("%1 KiB").arg(rssEndKiB - rssWarmKiB) : "not checked";
        printf("soak %s: exchanges=%llu (+%llu settling) faults=%llu retries=%llu given-up=%llu writes=%llu (jobs "
               "acked=%llu failed=%llu) lost=%llu unanswered=%llu condition-batches=%llu (read=%llu failed=%llu "
               "dropped=%llu) recipe-transfers=%llu (given-up=%llu) mismatches=%llu rss-growth=%s time=%.1f s\n",
               failures_.isEmpty() ? "PASSED" : "FAILED", exchanges_, sent_ - settleFrom, (unsigned long long)faults,
               (unsigned long long)rt_.stats().retries, (unsigned long long)rt_.stats().givenUp, writes_, writeAcked_,
               writeFailed_, lost_, unanswered_, batches_, batchesRead_, batchesFailed_, batchesDropped_, recipes_,
               recipesGivenUp_, mismatches_, qPrintable(rss), timer.elapsed() / 1e3);
        return failures_.isEmpty();
    }

    const Config c_;
    kq71sim::PlcSimulator sim_;
    SimLink link_;
    Runtime rt_;
    std::mt19937 rng_;
    QStringList failures_;
    struct Chunk {
        const Area *area;
        int address, units;
    };
    std::vector<Chunk> chunks_;
    QList<KEY_ADDRESS> watching_;

    // The writes no job outcome has answered yet, by unit in issue order. A
    // unit is always written in one range, so its jobs go out in the order of
    // the writes, a queued job taking over the value and id of a newer write
    // to its range: an outcome for job id k answers the unit's writes up to k.
    struct Written {
        quint64 seq;
        quint32 value;
    };
    QHash<Unit, std::vector<Written>> open_;
    quint64 openCount_ = 0;

    struct Batch {
        bool open;
        int id;
        quint64 startedAt;
        int pieces = 0, piecesRead = 0;
        int expectEnd = 1;  // 0 read, -1 given up; 1 none due
        bool dropped = false;
    } batch_ = Batch{false, 0, 0};

    bool recipeOn_ = false, recipeGaveUp_ = false;
    RecipeDirection recipeDir_ = RecipeDirection::Write;
    quint64 recipeStartedAt_ = 0, recipeEndedAt_ = 0;

    JobKind prevKind_ = JobKind::None;
    int prevResult_ = 0;
    quint64 sent_ = 0, cyclicEnded_ = 0;  // sent_ counts the settling too
    unsigned long long exchanges_ = 0, writes_ = 0, writeAcked_ = 0, writeFailed_ = 0, lost_ = 0, unanswered_ = 0,
                       batches_ = 0, batchesRead_ = 0, batchesFailed_ = 0, batchesDropped_ = 0, recipes_ = 0,
                       recipesGivenUp_ = 0, mismatches_ = 0;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // The driver's debug lines of planning and queueing would swamp the run.
    QLoggingCategory::setFilterRules("*.debug=false");
    const QByteArray usage =
        "usage: kq71_soak [--quick] [--exchanges N] [--seed N] [--fault-rate R] [--KIND R]... [--retries N]\n"
        "  [--switch-every N] [--driver PATH] [--no-memory-check] [--progress]\n"
        "--quick: 100000 exchanges (default 1000000), watch list switched every 2000 (default 5000);\n"
        "--fault-rate: replies spoiled (default 0.18), spread over the KINDs drop, cut, bad-crc,\n"
        "wrong-station, wrong-function, exception, noise, echo and delay, unless a kind is given its own\n";
    QSet<QByteArray> flags;
    QHash<QByteArray, double> numbers;
    QString driverPath = KQ71_DRIVER_FILE;
    for (int i = 1; i < argc; ++i) {
        const QByteArray a = argv[i];
        bool ok = i + 1 < argc && a.startsWith("--");
        if (a == "--quick" || a == "--no-memory-check" || a == "--progress") {
            flags << a;
        } else if (a == "--driver" && ok) {
            driverPath = QString::fromLocal8Bit(argv[++i]);
        } else if (!ok || a == "--help" || (numbers[a] = QByteArray(argv[++i]).toDouble(&ok)) < 0 || !ok) {
            fputs(usage.constData(), a == "--help" ? stdout : stderr);
            return a == "--help" ? 0 : 2;
        }
    }
    const auto number = [&](const QByteArray &option, double otherwise) {
        return numbers.contains(option) ? numbers.take(option) : otherwise;
    };
    const bool quick = flags.contains("--quick");
    Config c{(unsigned long long)number("--exchanges", quick ? 100000 : 1000000), quint32(number("--seed", 1)),
             FaultRates(), int(number("--retries", 3)), int(number("--switch-every", quick ? 2000 : 5000)),
             !flags.contains("--no-memory-check"), flags.contains("--progress")};
    // In the order of kq71sim::Fault, whose names the options take.
    double FaultRates::*const kinds[] = {&FaultRates::drop,         &FaultRates::cut,           &FaultRates::badCrc,
                                         &FaultRates::wrongStation, &FaultRates::wrongFunction, &FaultRates::exception,
                                         &FaultRates::noise,        &FaultRates::echo,          &FaultRates::delay};
    const double even = number("--fault-rate", 0.18) / 9;
    for (int k = 1; k < kq71sim::FaultKinds; ++k)
        c.faults.*kinds[k - 1] = number(QByteArray("--") + kq71sim::faultName(kq71sim::Fault(k)), even);
    c.faults.delayMs = 3 * TIMEOUT_MS;
#if defined(__SANITIZE_ADDRESS__)
    c.checkMemory = false;  // the allocator holds freed memory in quarantine
#endif
    if (!numbers.isEmpty()) {
        fprintf(stderr, "kq71_soak: unknown option %s\n%s", numbers.begin().key().constData(), usage.constData());
        return 2;
    }

    DriverLibrary driver;
    QString error;
    if (!driver.load(driverPath, &error)) {
        fprintf(stderr, "kq71_soak: %s\n", qPrintable(error));
        return 2;
    }
    fprintf(stderr, "kq71_soak: %s, %llu exchanges, seed %u\n", qPrintable(driver.path()), c.exchanges, c.seed);
    return Soak(driver, c).run() ? 0 : 1;
}
