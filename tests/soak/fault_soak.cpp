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
#include <QtCore/QFile>
#include <QtCore/QHash>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <vector>

using namespace kq71rt;

namespace {

// Job ids the soak hands the driver; cyclic reads carry the driver's own 4.
const int CONDITION_ID_BASE = 1000;
const int WRITE_ID_BASE = 100000000;
const int STATION = 1;
const int GAP = 16;  // merge gap: 16-word and 128-bit pieces
const int TIMEOUT_MS = 100;
// Exchanges a condition batch or a recipe transfer may take before it counts as hung.
const quint64 HUNG_AFTER = 50000;

enum class Role { Write, Plc, Recipe };
struct Area {
    const char *reg;
    int first, units;
    Role role;
};
// Writes, the PLC's own changes and recipes each have PLC memory of their
// own, so that the final value of a written unit can only come from a write.
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
struct RecipeItem {
    const char *reg;
    int address, words, bufOffset;
};
const RecipeItem RECIPE[] = {{"D", 3000, 4, 0},     {"D", 3004, 6, 4},     {"D", 3020, 3, 10},
                             {"200CP", 220, 2, 13}, {"200CP", 221, 2, 15}, {"V", 10, 3, 17},
                             {"TP", 100, 5, 20}};
const int RECIPE_WORDS = 25;

using Unit = QPair<QString, int>;
QString nameOf(const Unit &u) { return unitName(u.first, u.second); }

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

// Disjointness of the areas in PLC memory, which the loss rule relies on.
QString overlappingAreas()
{
    QHash<qint64, const Area *> owner;
    for (const Area &a : AREAS)
        for (int i = 0; i < a.units; ++i) {
            const UnitPlace p = wordPlace(a.reg, a.first + i);
            for (int w = 0; w <= (p.kind == UnitKind::DoubleWord ? 1 : 0); ++w) {
                const Area *&o = owner[qint64(p.kind == UnitKind::Bit) << 32 | (p.wire + w)];
                if (o && o != &a)
                    return QString("%1%2 and %3%4").arg(o->reg).arg(o->first).arg(a.reg).arg(a.first);
                o = &a;
            }
        }
    return QString();
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

std::vector<QList<KEY_ADDRESS>> watchLists()
{
    return {
        // Every written area, the bits in words as bits.
        {key("D", 0, 200), key("M", 0, 256), key("Y", 0, 64), key("V", 0, 8), key("Z", 0, 8),
         key("200CC", 200, 16), key("256CP", 300, 4), key("D_bit", 6400, 256)},
        // Long blocks: 300 words and 100 bits cut at 128 units.
        {key("D", 1000, 300), key("X", 0, 64), key("M", 1000, 100), key("256CC", 300, 8), key("D", 0, 50)},
        // Scattered keys that the merge gap bridges or keeps apart.
        {key("D", 5, 1), key("D", 7, 3), key("D", 30, 6), key("D", 190, 10), key("D", 1010, 3),
         key("D", 1250, 50), key("M", 10, 11), key("M", 250, 6), key("M", 1050, 20), key("X", 8, 8),
         key("Y", 3, 5), key("V", 3, 1), key("Z", 5, 2), key("200CC", 202, 1), key("200CC", 210, 3),
         key("256CP", 301, 2), key("256CC", 303, 1), key("D", 3000, 12), key("TP", 100, 5), key("V", 10, 3),
         key("200CP", 220, 2), key("D_bit", 6405, 3), key("D_bit", 6430, 20)},
        {key("D", 100, 4), key("M", 0, 8)},
    };
}

// A unit is always written in the same range, as a screen object writes its
// own address; some ranges are longer than a piece, which the driver cuts.
struct Chunk {
    const Area *area;
    int address, units;
};
std::vector<Chunk> writeChunks()
{
    static const int SIZES[] = {1, 2, 1, 4, 3, 1, 8, 2, 20, 1, 16, 5};
    std::vector<Chunk> chunks;
    for (const Area &a : AREAS)
        for (int at = a.first, s = 0; a.role == Role::Write && at < a.first + a.units; at += chunks.back().units)
            chunks.push_back(Chunk{&a, at, std::min(SIZES[s++ % 12], a.first + a.units - at)});
    return chunks;
}

// The job of the last piece a condition key is cut into: its end closes the batch.
struct JobRange {
    QString reg;
    int address = 0, length = 0;
    bool operator==(const JobRange &o) const { return reg == o.reg && address == o.address && length == o.length; }
};
JobRange lastPiece(const KEY_ADDRESS &k)
{
    const UnitKind kind = unitKindOf(k.regName);
    const int width = kind == UnitKind::Bit ? 1 : kind == UnitKind::DoubleWord ? 32 : 16;
    const int limit = k.dataType == -1 ? 8 * GAP : GAP;
    int address = k.address, length = k.length;
    if (length > limit) {
        address += ((length + limit - 1) / limit - 1) * limit;
        length = length % limit ? length % limit : limit;
    }
    return JobRange{k.regName, address, int(length * (16.0 / width))};
}

long residentKiB()
{
    QFile f("/proc/self/status");
    if (f.open(QIODevice::ReadOnly))
        for (const QByteArray &line : f.readAll().split('\n'))
            if (line.startsWith("VmRSS:"))
                return line.mid(6).trimmed().split(' ').value(0).toLong();
    return -1;
}

struct Config {
    unsigned long long exchanges = 1000000;  // frames sent while the faults are on
    std::uint32_t seed = 1;
    kq71sim::FaultRates faults;
    int retries = 3;
    int switchEvery = 5000;
    bool checkMemory = true, progress = false;
};

enum class JobKind { None, Cyclic, Write, Condition, Recipe, Unknown };

class Soak {
public:
    Soak(DriverLibrary &driver, const Config &c) : config_(c), sim_(simOptions(c)), link_(sim_),
        rt_(driver, link_, runtimeOptions(c)), rng_(c.seed ^ 0x5EEDu), chunks_(writeChunks())
    {
    }
    bool run();

private:
    static kq71sim::SimOptions simOptions(const Config &c)
    {
        kq71sim::SimOptions o;
        o.station = STATION;
        o.seed = c.seed;
        o.faults = c.faults;
        return o;
    }
    static RuntimeOptions runtimeOptions(const Config &c)
    {
        RuntimeOptions o;
        o.retries = c.retries;
        o.timeoutMs = TIMEOUT_MS;
        o.gap = GAP;
        o.recipeBytes = 2 * RECIPE_WORDS;
        return o;
    }
    void fail(const QString &what)
    {
        if (failures_.size() < 40)
            failures_ << what;
    }
    int random(int n) { return int(rng_() % std::uint32_t(n)); }
    int watch(const QList<KEY_ADDRESS> &keys)
    {
        watching_ = keys;
        ++watchSwitches_;
        return rt_.watch(keys);
    }
    bool watched(const Unit &u) const
    {
        for (const KEY_ADDRESS &k : watching_)
            if (k.regName == u.first && u.second >= k.address && u.second < k.address + keyUnits(k))
                return true;
        return false;
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
    void runUntil(const std::function<bool()> &done, int maxSteps)
    {
        for (int i = 0; i < maxSteps && !done(); ++i)
            step(false);
    }
    void issueWrite();
    void startBatch();
    void startRecipe(RecipeDirection dir);
    void changePlc();
    void step(bool faultsOn);
    void onWrite(const Exchange &ex, const QVector<ChangeReport> &reports);
    void onCondition(const Exchange &ex);
    void settle();
    void checkRecipeRoundTrip();

    Config config_;
    kq71sim::PlcSimulator sim_;
    SimLink link_;
    Runtime rt_;
    std::mt19937 rng_;
    QStringList failures_;
    const std::vector<Chunk> chunks_;
    QList<KEY_ADDRESS> watching_;
    std::vector<const Area *> plcAreas_;

    // The writes no job outcome has answered yet, by unit in issue order. A
    // unit is always written in one range, so its jobs go out in the order
    // of the writes, a queued job taking over the value and id of a newer
    // write to its range: an outcome for job id k answers the unit's writes
    // up to k.
    struct Written {
        quint64 seq;
        quint32 value;
    };
    QHash<Unit, std::vector<Written>> open_;
    quint64 openCount_ = 0, writeSeq_ = 0;

    struct Batch {
        bool open = false;
        int id = 0;
        JobRange last;
        quint64 startedAt = 0;
        int expectEnd = 1;  // 0 read, -1 given up; 1 none due
        bool dropped = false;
    } batch_;

    bool recipeOn_ = false, recipeGaveUp_ = false;
    RecipeDirection recipeDir_ = RecipeDirection::Write;
    quint64 recipeStartedAt_ = 0, recipeEndedAt_ = 0;

    JobKind prevKind_ = JobKind::None;
    int prevResult_ = 0;
    quint64 sent_ = 0, cyclicEnded_ = 0;  // sent_ counts the settling too

    unsigned long long exchanges_ = 0, settleExchanges_ = 0, writes_ = 0, writeAcked_ = 0, writeFailed_ = 0,
                       lost_ = 0, unanswered_ = 0, batches_ = 0, batchesRead_ = 0, batchesFailed_ = 0,
                       batchesDropped_ = 0, recipeWrites_ = 0, recipeReads_ = 0, recipeGivenUp_ = 0,
                       watchSwitches_ = 0, plcChanges_ = 0, mismatches_ = 0;
    long rssWarmKiB_ = -1;
};

void Soak::issueWrite()
{
    const Chunk &c = chunks_[size_t(random(int(chunks_.size())))];
    const UnitKind kind = unitKindOf(c.area->reg);
    const quint64 seq = ++writeSeq_;
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
    ++writes_;
}

void Soak::startBatch()
{
    static const QList<KEY_ADDRESS> pool = {key("D", 1000, 40), key("M", 0, 8),      key("D", 0, 10),
                                            key("200CC", 200, 4), key("X", 0, 4),    key("D", 1200, 20),
                                            key("M", 1000, 6),    key("256CC", 300, 2)};
    const int n = 1 + random(3);
    QList<KEY_ADDRESS> keys;
    while (keys.size() < n) {
        const KEY_ADDRESS &k = pool[random(pool.size())];
        if (std::none_of(keys.begin(), keys.end(), [&](const KEY_ADDRESS &o) {
                return o.regName == k.regName && o.address == k.address;
            }))
            keys << k;
    }
    batch_ = Batch();
    batch_.open = true;
    batch_.id = CONDITION_ID_BASE + int(batches_++ % 1000000);
    batch_.startedAt = sent_;
    for (const KEY_ADDRESS &k : keys)
        rt_.conditionRead(k, batch_.id);
    batch_.last = lastPiece(keys.last());
}

void Soak::startRecipe(RecipeDirection dir)
{
    recipeDir_ = dir;
    recipeOn_ = true;
    recipeGaveUp_ = false;
    recipeStartedAt_ = sent_;
    rt_.startRecipe(dir);
}

void Soak::changePlc()
{
    const Area &a = *plcAreas_[size_t(random(int(plcAreas_.size())))];
    const UnitKind k = unitKindOf(a.reg);
    setSimValue(sim_, a.reg, a.first + random(a.units), k == UnitKind::Bit ? rng_() & 1 : rng_());
    ++plcChanges_;
}

void Soak::step(bool faultsOn)
{
    const bool recipeBefore = recipeOn_ && rt_.recipeRunning(recipeDir_);
    const Exchange ex = rt_.step();
    JobKind kind = JobKind::None;
    if (!ex.sent) {
        link_.idle(1000);
    } else {
        ++sent_;
        ++(faultsOn ? exchanges_ : settleExchanges_);
        // A frame that got "send again" goes out again before anything else;
        // otherwise a raised recipe flag takes the frame (a recipe job keeps
        // the id of the job before it, so the id does not tell).
        if (prevResult_ == 8)
            kind = prevKind_;
        else if (recipeBefore)
            kind = JobKind::Recipe;
        else if (!ex.write && ex.jobId == 4)
            kind = JobKind::Cyclic;
        else if (ex.write && ex.jobId >= WRITE_ID_BASE)
            kind = JobKind::Write;
        else if (!ex.write && ex.jobId >= CONDITION_ID_BASE && ex.jobId < WRITE_ID_BASE)
            kind = JobKind::Condition;
        else
            kind = JobKind::Unknown;
    }
    prevKind_ = kind;
    prevResult_ = ex.result;

    const QVector<int> ends = rt_.takeBatchEnds();
    const QVector<ChangeReport> reports = rt_.takeReports();
    rt_.takeRecipeWords();
    const Area *area = areaOf(ex.regName, ex.address);
    switch (kind) {
    case JobKind::Cyclic:
        cyclicEnded_ += ex.result == 1 || ex.result == 2;
        break;
    case JobKind::Write:
        onWrite(ex, reports);
        break;
    case JobKind::Condition:
        onCondition(ex);
        break;
    case JobKind::Recipe:
        if (!area || area->role != Role::Recipe)
            fail(QString("recipe frame for %1%2 outside the recipe").arg(ex.regName).arg(ex.address));
        recipeGaveUp_ = recipeGaveUp_ || ex.result == 2;
        break;
    case JobKind::Unknown:
        fail(QString("frame of unknown job id %1 (%2%3)").arg(ex.jobId).arg(ex.regName).arg(ex.address));
        break;
    case JobKind::None:
        break;
    }

    // A batch ends with exactly one report: when its last piece has ended,
    // or when any piece was given up (the rest of it is dropped).
    if (batch_.open && batch_.expectEnd != 1) {
        if (ends.size() != 1 || ends[0] != batch_.expectEnd)
            fail(QString("batch %1: its last piece ended (%2) but the end reports were [%3]")
                     .arg(batch_.id).arg(batch_.expectEnd).arg(ends.size() ? QString::number(ends[0]) : QString()));
        ++(batch_.dropped ? batchesDropped_ : batch_.expectEnd == 0 ? batchesRead_ : batchesFailed_);
        batch_.open = false;
    } else if (!ends.isEmpty()) {
        fail(QString("end-of-batch report %1 %2").arg(ends[0]).arg(batch_.open ? "before the last piece" : "with no batch open"));
    } else if (batch_.open && sent_ - batch_.startedAt > HUNG_AFTER) {
        fail(QString("batch %1 has not ended after %2 exchanges").arg(batch_.id).arg(HUNG_AFTER));
        batch_.open = false;
    }

    if (recipeOn_) {
        const bool running = rt_.recipeRunning(recipeDir_);
        if (recipeBefore && kind == JobKind::Recipe && ex.result == 2 && running)
            fail("a given-up recipe block left its flag raised");
        if (!running) {
            recipeOn_ = false;
            recipeEndedAt_ = sent_;
            ++(recipeDir_ == RecipeDirection::Write ? recipeWrites_ : recipeReads_);
            recipeGivenUp_ += recipeGaveUp_;
        } else if (sent_ - recipeStartedAt_ > HUNG_AFTER) {
            fail(QString("recipe transfer still running after %1 exchanges").arg(HUNG_AFTER));
            recipeOn_ = false;
        }
    }
}

void Soak::onWrite(const Exchange &ex, const QVector<ChangeReport> &reports)
{
    const Area *a = areaOf(ex.regName, ex.address);
    if (!a || a->role != Role::Write) {
        fail(QString("write job %1 for %2 outside the written areas").arg(ex.jobId).arg(unitName(ex.regName, ex.address)));
        return;
    }
    if (ex.result != 1 && ex.result != 2)
        return;
    const quint64 seq = quint64(ex.jobId - WRITE_ID_BASE);
    if (!wordRegisterOfBits(a->reg).isEmpty()) {
        // A word job of bits carries every bit still pending in its words, so
        // it answers all their bit writes up to its id (a later job over
        // other words may have answered them already).
        for (int w = ex.address; w < ex.address + ex.length; ++w)
            for (int b = 0; b < BITS_IN_WORD; ++b)
                answer(Unit(a->reg, w * BITS_IN_WORD + b), seq);
    } else {
        for (int i = 0; i < ex.length; ++i)
            if (answer(Unit(ex.regName, ex.address + i), seq) == 0)
                fail(QString("write job %1 answered for %2, which had no open write")
                         .arg(ex.jobId).arg(unitName(ex.regName, ex.address + i)));
    }
    if (ex.result == 1) {
        ++writeAcked_;
        return;
    }
    // A given-up write falls back, and the runtime hears of each bit and each
    // watched unit it covered.
    ++writeFailed_;
    const bool bits = unitKindOf(ex.regName) == UnitKind::Bit;
    for (int i = 0; i < ex.length; ++i) {
        const Unit u(ex.regName, ex.address + i);
        const bool heard = std::any_of(reports.begin(), reports.end(), [&](const ChangeReport &r) {
            return r.regName == u.first && r.address == u.second;
        });
        if ((bits || watched(u)) && !heard)
            fail(QString("given-up write to %1 was not reported to the callback").arg(nameOf(u)));
    }
}

void Soak::onCondition(const Exchange &ex)
{
    if (!batch_.open || ex.jobId != batch_.id) {
        fail(QString("condition read with id %1 while batch %2 is %3")
                 .arg(ex.jobId).arg(batch_.id).arg(batch_.open ? "open" : "closed"));
        return;
    }
    const bool last = JobRange{ex.regName, ex.address, ex.length} == batch_.last;
    if (ex.result == 1 && last) {
        batch_.expectEnd = 0;
    } else if (ex.result == 2) {
        batch_.expectEnd = -1;
        batch_.dropped = !last;
    }
}

// With the faults and new work stopped, the cache must come back to the PLC
// and every write must be accounted for.
void Soak::settle()
{
    sim_.setFaults(kq71sim::FaultRates());
    // One key per area: a key starting inside the first 128 units of a longer
    // one would pull that block's start back and leave units unread (merging
    // widens a block by moving its start, not its length).
    QList<KEY_ADDRESS> all;
    for (const Area &a : AREAS)
        all << key(a.reg, a.first, a.units);
    // The PLC moves once more, so that a unit the plan misses cannot match by chance.
    for (const Area &a : AREAS) {
        const bool bits = unitKindOf(a.reg) == UnitKind::Bit;
        for (int i = 0; i < a.units && a.role == Role::Plc; ++i) {
            const quint32 v = simValue(sim_, a.reg, a.first + i);
            setSimValue(sim_, a.reg, a.first + i, bits ? !v : v + 1 + rng_() % 1000);
        }
    }
    // A frame being sent again when the plan changed may be of an old block.
    const quint64 refreshed = cyclicEnded_ + 2 * quint64(watch(all)) + (prevResult_ == 8 ? 1 : 0);
    runUntil([&] { return cyclicEnded_ >= refreshed; }, 200000);
    if (cyclicEnded_ < refreshed)
        fail("the plan was not read twice after the faults stopped");
    for (const KEY_ADDRESS &k : watching_)
        for (int i = 0; i < keyUnits(k); ++i) {
            const QByteArray b = rt_.read(STATION, k.regName, k.address + i, k.dataType == 1 ? 2 : 1);
            quint32 cached = 0;
            for (int j = b.size() - 1; j >= 0; --j)
                cached = cached << 8 | static_cast<unsigned char>(b[j]);
            const quint32 held = simValue(sim_, k.regName, k.address + i);
            if (cached != held && ++mismatches_ <= 8)
                fail(QString("%1 shows %2, the PLC holds %3").arg(unitName(k.regName, k.address + i)).arg(cached).arg(held));
        }

    // What is still queued goes out; then a write with no outcome is lost
    // unless the PLC holds its value or a later write's.
    runUntil([&] { return openCount_ == 0 && !batch_.open && !recipeOn_; }, 20000);
    int named = 0;
    for (auto it = open_.cbegin(); it != open_.cend(); ++it) {
        const quint32 held = simValue(sim_, it.key().first, it.key().second);
        size_t covered = it->size();
        while (covered > 0 && (*it)[covered - 1].value != held)
            --covered;
        unanswered_ += covered;
        lost_ += it->size() - covered;
        if (it->size() > covered && named++ < 8)
            fail(QString("a write to %1 is lost: not in the PLC, not reported failed").arg(nameOf(it.key())));
    }
    // Stricter than the value: a bit holds a lost write's value half the time.
    if (unanswered_ > 0)
        fail(QString("%1 writes never had an outcome, their own or a later one's").arg(unanswered_));
    if (batch_.open)
        fail(QString("batch %1 still open at the end").arg(batch_.id));
}

// On the clean line, a recipe written from the buffer must be in the PLC, and
// reading it back must restore the buffer.
void Soak::checkRecipeRoundTrip()
{
    unsigned char *buf = rt_.recipeBuffer();
    std::vector<unsigned char> written(size_t(2 * RECIPE_WORDS));
    for (unsigned char &b : written)
        b = uchar(rng_());
    std::copy(written.begin(), written.end(), buf);
    auto word = [&](int w) { return quint32(written[size_t(2 * w)]) | quint32(written[size_t(2 * w + 1)]) << 8; };

    const quint64 gaveUpBefore = rt_.stats().givenUp;
    for (RecipeDirection dir : {RecipeDirection::Write, RecipeDirection::Read}) {
        if (dir == RecipeDirection::Read)
            std::fill(buf, buf + 2 * RECIPE_WORDS, 0);
        startRecipe(dir);
        runUntil([&] { return !recipeOn_; }, 1000);
        if (recipeOn_ || rt_.recipeRunning(dir))
            return fail("the final recipe transfer did not end");
        for (const RecipeItem &r : RECIPE) {
            const bool dword = unitKindOf(r.reg) == UnitKind::DoubleWord;
            for (int i = 0; dir == RecipeDirection::Write && i < (dword ? r.words / 2 : r.words); ++i) {
                const int w = r.bufOffset + (dword ? 2 * i : i);
                const quint32 want = dword ? word(w) | word(w + 1) << 16 : word(w);
                const quint32 held = simValue(sim_, r.reg, r.address + i);
                if (held != want)
                    fail(QString("recipe write left %1 at %2, the buffer holds %3")
                             .arg(unitName(r.reg, r.address + i)).arg(held).arg(want));
            }
        }
    }
    if (rt_.stats().givenUp != gaveUpBefore)
        fail("a job was given up on the clean line");
    for (int w = 0; w < RECIPE_WORDS; ++w) {
        const quint32 got = quint32(buf[2 * w]) | quint32(buf[2 * w + 1]) << 8;
        if (got != word(w))
            fail(QString("recipe word %1 read back as %2, written as %3").arg(w).arg(got).arg(word(w)));
    }
}

bool Soak::run()
{
    QElapsedTimer timer;
    timer.start();
    const QString overlap = overlappingAreas();
    if (!overlap.isEmpty())
        fail("soak areas overlap in the PLC: " + overlap);
    QString unused;
    link_.open(&unused);
    rt_.start();
    for (const Area &a : AREAS)
        for (int i = 0; i < a.units; ++i)
            setSimValue(sim_, a.reg, a.first + i, unitKindOf(a.reg) == UnitKind::Bit ? rng_() & 1 : rng_());
    if (rt_.setRecipe([] {
            QVector<_RCP_VAR_PRO> items;
            for (const RecipeItem &r : RECIPE) {
                _RCP_VAR_PRO it;
                it.deviceId = 1;
                it.station = STATION;
                it.regName = r.reg;
                it.address = r.address;
                it.length = r.words;
                it.bufOffset = r.bufOffset;
                items << it;
            }
            return items;
        }()) != int(sizeof(RECIPE) / sizeof(RECIPE[0])))
        fail("the driver did not take the recipe items");

    // A bit write to a word the driver has never read waits for a read of it,
    // and falls back without a job outcome if that read is given up. So the
    // words under the bit areas are read once on a clean line, and every bit
    // write becomes a read-modify-write job of its own.
    QList<KEY_ADDRESS> bitWords;
    for (const Area &a : AREAS) {
        if (!wordRegisterOfBits(a.reg).isEmpty())
            bitWords << key(a.reg, a.first, a.units);
        if (a.role == Role::Plc)
            plcAreas_.push_back(&a);
    }
    sim_.setFaults(kq71sim::FaultRates());
    const quint64 bitWordsRead = cyclicEnded_ + quint64(rt_.watch(bitWords));
    runUntil([&] { return cyclicEnded_ >= bitWordsRead; }, 1000);
    if (cyclicEnded_ < bitWordsRead)
        fail("the words of the bit areas were not read on the clean line");
    sim_.setFaults(config_.faults);

    const std::vector<QList<KEY_ADDRESS>> lists = watchLists();
    const quint64 total = config_.exchanges, warm = std::max<quint64>(total / 10, 1);
    const quint64 switchEvery = quint64(std::max(config_.switchEvery, 1));
    quint64 nextSwitch = switchEvery, nextReport = total / 10;
    size_t listIndex = 0;
    watch(lists[0]);
    while (exchanges_ < total && failures_.size() < 40) {
        if (exchanges_ >= nextSwitch) {
            watch(lists[++listIndex % lists.size()]);
            nextSwitch += switchEvery;
        }
        if (random(10) == 0)
            issueWrite();
        if (!batch_.open && random(64) == 0)
            startBatch();
        if (!recipeOn_ && sent_ - recipeEndedAt_ > 2000 && random(256) == 0) {
            const RecipeDirection dir =
                recipeDir_ == RecipeDirection::Write ? RecipeDirection::Read : RecipeDirection::Write;
            for (int i = 0; dir == RecipeDirection::Write && i < 2 * RECIPE_WORDS; ++i)
                rt_.recipeBuffer()[i] = uchar(rng_());
            startRecipe(dir);
        }
        if (random(16) == 0)
            changePlc();
        step(true);
        if (exchanges_ == warm && rssWarmKiB_ < 0)
            rssWarmKiB_ = residentKiB();
        if (config_.progress && exchanges_ == nextReport && nextReport > 0) {
            fprintf(stderr, "soak: %llu of %llu exchanges, %.1f s\n", exchanges_, (unsigned long long)total,
                    timer.elapsed() / 1000.0);
            nextReport += total / 10;
        }
    }
    const kq71sim::SimStats faults = sim_.stats();
    settle();
    checkRecipeRoundTrip();

    const long rssEndKiB = residentKiB();
    if (config_.checkMemory && (rssWarmKiB_ < 0 || rssEndKiB < 0))
        fail("resident memory could not be read");
    else if (config_.checkMemory && rssEndKiB - rssWarmKiB_ >= 1024)
        fail(QString("resident memory grew by %1 KiB after warm-up").arg(rssEndKiB - rssWarmKiB_));
    if (exchanges_ < total)
        fail(QString("stopped after %1 exchanges").arg(exchanges_));

    for (const QString &f : failures_)
        fprintf(stderr, "FAILED: %s\n", qPrintable(f));
    QString kinds, rss = "not checked";
    for (int f = kq71sim::FaultDrop; f < kq71sim::FaultKinds; ++f)
        kinds += QString(" %1=%2").arg(kq71sim::faultName(kq71sim::Fault(f))).arg(faults.byFault[f]);
    if (config_.checkMemory)
        rss = QString("%1 KiB (%2 -> %3 KiB)").arg(rssEndKiB - rssWarmKiB_).arg(rssWarmKiB_).arg(rssEndKiB);
    printf("soak %s: exchanges=%llu (+%llu settling) faults=%llu (%s) retries=%llu given-up=%llu "
           "writes=%llu (jobs acked=%llu failed=%llu) lost=%llu unanswered=%llu "
           "condition-batches=%llu (read=%llu failed=%llu dropped=%llu) "
           "recipe-transfers=%llu (write=%llu read=%llu given-up=%llu) watch-switches=%llu plc-changes=%llu "
           "mismatches=%llu rss-growth=%s time=%.1f s\n",
           failures_.isEmpty() ? "PASSED" : "FAILED", exchanges_, settleExchanges_,
           (unsigned long long)faults.faults, qPrintable(kinds.mid(1)), (unsigned long long)rt_.stats().retries,
           (unsigned long long)rt_.stats().givenUp, writes_, writeAcked_, writeFailed_, lost_, unanswered_,
           batches_, batchesRead_, batchesFailed_, batchesDropped_, recipeWrites_ + recipeReads_, recipeWrites_,
           recipeReads_, recipeGivenUp_, watchSwitches_, plcChanges_, mismatches_, qPrintable(rss),
           timer.elapsed() / 1000.0);
    return failures_.isEmpty();
}

// The driver's debug lines of planning and queueing would swamp the run.
void quiet(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", qPrintable(message));
}

kq71sim::FaultRates evenFaults(double total)
{
    kq71sim::FaultRates f;
    f.drop = f.cut = f.badCrc = f.wrongStation = f.wrongFunction = f.exception = f.noise = f.echo = f.delay =
        total / 9;
    f.delayMs = 3 * TIMEOUT_MS;
    return f;
}

const char USAGE[] =
    "usage: kq71_soak [--exchanges N] [--quick] [--seed N] [--fault-rate R] [--drop R] [--cut R]\n"
    "  [--bad-crc R] [--wrong-station R] [--wrong-function R] [--exception R] [--noise R] [--echo R]\n"
    "  [--delay R] [--retries N] [--switch-every N] [--driver PATH] [--no-memory-check] [--progress]\n"
    "--quick: 100000 exchanges, lists switched every 2000; --fault-rate (default 0.18) spreads evenly\n"
    "over the nine kinds, a kind's own option after it sets that one\n";

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quiet);
    Config config;
    config.faults = evenFaults(0.18);
#if defined(__SANITIZE_ADDRESS__)
    config.checkMemory = false;  // the allocator keeps freed memory in quarantine
#endif
    QString driverPath = KQ71_DRIVER_FILE;
    bool quick = false, exchangesGiven = false, switchGiven = false;
    const struct {
        const char *option;
        double kq71sim::FaultRates::*field;
    } rates[] = {{"--drop", &kq71sim::FaultRates::drop},
                 {"--cut", &kq71sim::FaultRates::cut},
                 {"--bad-crc", &kq71sim::FaultRates::badCrc},
                 {"--wrong-station", &kq71sim::FaultRates::wrongStation},
                 {"--wrong-function", &kq71sim::FaultRates::wrongFunction},
                 {"--exception", &kq71sim::FaultRates::exception},
                 {"--noise", &kq71sim::FaultRates::noise},
                 {"--echo", &kq71sim::FaultRates::echo},
                 {"--delay", &kq71sim::FaultRates::delay}};
    for (int i = 1; i < argc; ++i) {
        const QByteArray a = argv[i];
        // The option's number, which must lie within lo..hi.
        const auto number = [&](double lo, double hi) {
            char *end = nullptr;
            const double v = i + 1 < argc ? strtod(argv[i + 1], &end) : lo - 1;
            if (!end || *end || end == argv[i + 1] || v < lo || v > hi) {
                fprintf(stderr, "kq71_soak: %s needs a number from %g to %g\n", a.constData(), lo, hi);
                exit(2);
            }
            ++i;
            return v;
        };
        const auto rate = std::find_if(std::begin(rates), std::end(rates), [&](const auto &r) { return a == r.option; });
        if (a == "--help" || a == "-h") {
            fputs(USAGE, stdout);
            return 0;
        } else if (a == "--quick") {
            quick = true;
        } else if (a == "--progress") {
            config.progress = true;
        } else if (a == "--no-memory-check") {
            config.checkMemory = false;
        } else if (a == "--exchanges") {
            config.exchanges = (unsigned long long)number(1, 1e12);
            exchangesGiven = true;
        } else if (a == "--seed") {
            config.seed = std::uint32_t(number(0, 4294967295.0));
        } else if (a == "--fault-rate") {
            config.faults = evenFaults(number(0, 1));
        } else if (rate != std::end(rates)) {
            config.faults.*(rate->field) = number(0, 1);
        } else if (a == "--retries") {
            config.retries = int(number(1, 100));
        } else if (a == "--switch-every") {
            config.switchEvery = int(number(1, 1e9));
            switchGiven = true;
        } else if (a == "--driver" && i + 1 < argc) {
            driverPath = QString::fromLocal8Bit(argv[++i]);
        } else {
            fprintf(stderr, "kq71_soak: unknown argument %s\n%s", a.constData(), USAGE);
            return 2;
        }
    }
    if (quick && !exchangesGiven)
        config.exchanges = 100000;
    if (quick && !switchGiven)
        config.switchEvery = 2000;

    DriverLibrary driver;
    QString error;
    if (!driver.load(driverPath, &error)) {
        fprintf(stderr, "kq71_soak: %s\n", qPrintable(error));
        return 2;
    }
    fprintf(stderr, "kq71_soak: %s, %llu exchanges, seed %u\n", qPrintable(driver.path()), config.exchanges,
            config.seed);
    return Soak(driver, config).run() ? 0 : 1;
}
