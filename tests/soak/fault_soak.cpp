#include "fault_soak.h"

#include "plc_map.h"
#include "runtime.h"
#include "sim_link.h"
#include "write_ledger.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QSet>

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

namespace kq71soak {

using namespace kq71rt;

namespace {

// Job ids the soak hands the driver; cyclic reads carry the driver's own 4.
const int CONDITION_ID_BASE = 1000;
const int WRITE_ID_BASE = 100000000;
const int STATION = 1;
const int GAP = 16;  // merge gap: 16-word and 128-bit pieces

// Exchanges a condition batch or a recipe transfer may take before the run
// calls it hung.
const std::uint64_t HUNG_AFTER = 50000;

enum class Role { Write, Plc, Recipe };

struct Area {
    const char *reg;
    int first, units;
    Role role;
};

// Writes, the PLC's own changes and recipes each have areas of their own, so
// that the final value of a written unit can only come from a write. Their
// wire ranges are checked for overlap at start.
const Area AREAS[] = {
    {"D", 0, 200, Role::Write},       {"M", 0, 256, Role::Write},        {"Y", 0, 64, Role::Write},
    {"V", 0, 8, Role::Write},         {"Z", 0, 8, Role::Write},          {"200CC", 200, 16, Role::Write},
    {"256CP", 300, 4, Role::Write},   {"X", 0, 64, Role::Plc},           {"D", 1000, 300, Role::Plc},
    {"M", 1000, 100, Role::Plc},      {"256CC", 300, 8, Role::Plc},      {"D", 3000, 40, Role::Recipe},
    {"200CP", 220, 4, Role::Recipe},  {"V", 10, 3, Role::Recipe},        {"TP", 100, 5, Role::Recipe},
    // Bits inside D400..D415, written and watched as bits; their word jobs are "D".
    {"D_bit", 6400, 256, Role::Write},
};

const char *const UNIT_NAMES[] = {"X", "Y", "M", "D", "V", "Z", "TP", "200CC", "200CP", "256CC", "256CP", "D_bit"};

WriteLedger::Unit unitKey(const QString &reg, int address)
{
    for (int i = 0; i < int(sizeof(UNIT_NAMES) / sizeof(UNIT_NAMES[0])); ++i)
        if (reg == QLatin1String(UNIT_NAMES[i]))
            return WriteLedger::Unit(i) << 32 | std::uint32_t(address);
    return ~WriteLedger::Unit(0);
}

QString unitReg(WriteLedger::Unit unit) { return QLatin1String(UNIT_NAMES[unit >> 32]); }
int unitAddress(WriteLedger::Unit unit) { return int(unit & 0xFFFFFFFF); }

// The area of a unit; a word of a bit-in-word area belongs to that area.
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

// A bit inside a word is placed by its word.
UnitPlace wordPlace(const QString &reg, int address)
{
    const QString word = wordRegisterOfBits(reg);
    return word.isEmpty() ? placeOf(reg, address) : placeOf(word, address / BITS_IN_WORD);
}

quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address)
{
    if (!wordRegisterOfBits(reg).isEmpty())
        return sim.reg(wordPlace(reg, address).wire) >> (address % BITS_IN_WORD) & 1;
    const UnitPlace p = placeOf(reg, address);
    switch (p.kind) {
    case UnitKind::Bit:
        return sim.bit(p.wire) ? 1 : 0;
    case UnitKind::Word:
        return sim.reg(p.wire);
    case UnitKind::DoubleWord:
        return quint32(sim.reg(p.wire)) | quint32(sim.reg(p.wire + 1)) << 16;
    default:
        return 0xFFFFFFFF;
    }
}

void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value)
{
    if (!wordRegisterOfBits(reg).isEmpty()) {
        const int wire = wordPlace(reg, address).wire;
        const quint16 mask = quint16(1u << (address % BITS_IN_WORD));
        sim.setReg(wire, quint16((sim.reg(wire) & ~mask) | (value & 1 ? mask : 0)));
        return;
    }
    const UnitPlace p = placeOf(reg, address);
    if (p.kind == UnitKind::Bit) {
        sim.setBit(p.wire, value & 1);
    } else if (p.kind == UnitKind::Word) {
        sim.setReg(p.wire, quint16(value));
    } else if (p.kind == UnitKind::DoubleWord) {
        sim.setReg(p.wire, quint16(value));
        sim.setReg(p.wire + 1, quint16(value >> 16));
    }
}

// Bytes of one unit in the driver's value order (words low byte first, a
// 32-bit value low word first).
int unitBytes(UnitKind k) { return k == UnitKind::Bit ? 1 : k == UnitKind::DoubleWord ? 4 : 2; }

quint32 cachedValue(Runtime &rt, const QString &reg, int address)
{
    const UnitKind kind = unitKindOf(reg);
    const QByteArray b = rt.read(STATION, reg, address, kind == UnitKind::DoubleWord ? 2 : 1);
    quint32 v = 0;
    for (int i = b.size() - 1; i >= 0; --i)
        v = v << 8 | static_cast<unsigned char>(b[i]);
    return v;
}

// A watch or condition key over `units` units (the key counts 16-bit words).
KEY_ADDRESS key(const QString &reg, int address, int units)
{
    KEY_ADDRESS k;
    k.station = STATION;
    k.regName = reg;
    k.address = address;
    const UnitKind kind = unitKindOf(reg);
    k.dataType = kind == UnitKind::Bit ? -1 : kind == UnitKind::DoubleWord ? 1 : 0;
    k.length = kind == UnitKind::DoubleWord ? 2 * units : units;
    return k;
}

int keyUnits(const KEY_ADDRESS &k) { return k.dataType == 1 ? k.length / 2 : k.length; }

struct WatchList {
    QString name;
    QList<KEY_ADDRESS> keys;
    QSet<WriteLedger::Unit> units;
};

WatchList watchList(const QString &name, const QList<KEY_ADDRESS> &keys)
{
    WatchList w{name, keys, {}};
    for (const KEY_ADDRESS &k : keys)
        for (int i = 0; i < keyUnits(k); ++i)
            w.units.insert(unitKey(k.regName, k.address + i));
    return w;
}

std::vector<WatchList> watchLists()
{
    const QList<KEY_ADDRESS> writes = {key("D", 0, 200),  key("M", 0, 256),      key("Y", 0, 64),
                                       key("V", 0, 8),    key("Z", 0, 8),        key("200CC", 200, 16),
                                       key("256CP", 300, 4), key("D_bit", 6400, 256)};
    // Long blocks: 300 words and 100 bits cut at 128 units.
    const QList<KEY_ADDRESS> plc = {key("D", 1000, 300), key("X", 0, 64), key("M", 1000, 100),
                                    key("256CC", 300, 8), key("D", 0, 50)};
    // Scattered keys that the merge gap bridges or keeps apart.
    const QList<KEY_ADDRESS> scattered = {
        key("D", 5, 1),       key("D", 7, 3),      key("D", 30, 6),        key("D", 190, 10),  key("D", 1010, 3),
        key("D", 1250, 50),   key("M", 10, 11),    key("M", 250, 6),       key("M", 1050, 20), key("X", 8, 8),
        key("Y", 3, 5),       key("V", 3, 1),      key("Z", 5, 2),         key("200CC", 202, 1),
        key("200CC", 210, 3), key("256CP", 301, 2), key("256CC", 303, 1),  key("D", 3000, 12),
        key("TP", 100, 5),    key("V", 10, 3),     key("200CP", 220, 2),   key("D_bit", 6405, 3),
        key("D_bit", 6430, 20)};
    const QList<KEY_ADDRESS> small = {key("D", 100, 4), key("M", 0, 8)};
    return {watchList("writes", writes), watchList("plc", plc), watchList("scattered", scattered),
            watchList("small", small)};
}

// Fixed ranges for writes: a unit is always written in the same range, as a
// screen object writes its own address. Sizes vary from one unit to more
// than a piece (16 words), which the driver cuts.
struct Chunk {
    const Area *area;
    int address, units;
};

std::vector<Chunk> writeChunks()
{
    static const int SIZES[] = {1, 2, 1, 4, 3, 1, 8, 2, 20, 1, 16, 5};
    std::vector<Chunk> chunks;
    for (const Area &a : AREAS) {
        if (a.role != Role::Write)
            continue;
        int at = a.first, s = 0;
        while (at < a.first + a.units) {
            const int n = std::min(SIZES[s++ % 12], a.first + a.units - at);
            chunks.push_back(Chunk{&a, at, n});
            at += n;
        }
    }
    return chunks;
}

// Condition reads are drawn from these keys; a batch holds one to three.
QList<KEY_ADDRESS> conditionPool()
{
    return {key("D", 1000, 40), key("M", 0, 8),    key("D", 0, 10),       key("200CC", 200, 4),
            key("X", 0, 4),     key("D", 1200, 20), key("M", 1000, 6),    key("256CC", 300, 2)};
}

// The job of the last piece that a condition key becomes: its end closes
// the batch.
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
        const int pieces = (length + limit - 1) / limit;
        address += (pieces - 1) * limit;
        length = length % limit ? length % limit : limit;
    }
    return JobRange{k.regName, address, int(length * (16.0 / width))};
}

struct RecipeItem {
    const char *reg;
    int address, words, bufOffset;
};

// Touching items make one block; V goes out word by word. A 32-bit item
// holds one value: a recipe read stores one double word per item.
const RecipeItem RECIPE[] = {{"D", 3000, 4, 0},     {"D", 3004, 6, 4},     {"D", 3020, 3, 10},
                             {"200CP", 220, 2, 13}, {"200CP", 221, 2, 15}, {"V", 10, 3, 17},
                             {"TP", 100, 5, 20}};
const int RECIPE_WORDS = 25;

QVector<_RCP_VAR_PRO> recipeItems()
{
    QVector<_RCP_VAR_PRO> items;
    for (const RecipeItem &r : RECIPE) {
        _RCP_VAR_PRO it;
        it.deviceId = 1;
        it.station = STATION;
        it.regName = r.reg;
        it.address = r.address;
        it.length = r.words;
        it.bufOffset = r.bufOffset;
        items.append(it);
    }
    return items;
}

long residentKiB()
{
    QFile f("/proc/self/status");
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    return -1;
}

// Whether the PLC's wire ranges of the areas are disjoint (bit space and
// register space apart).
QString overlappingAreas()
{
    struct Span {
        bool bits;
        int from, to;
        const Area *area;
    };
    std::vector<Span> spans;
    for (const Area &a : AREAS) {
        const UnitPlace first = wordPlace(a.reg, a.first), last = wordPlace(a.reg, a.first + a.units - 1);
        const int extra = last.kind == UnitKind::DoubleWord ? 1 : 0;
        spans.push_back(Span{first.kind == UnitKind::Bit, first.wire, last.wire + extra, &a});
    }
    for (size_t i = 0; i < spans.size(); ++i)
        for (size_t j = i + 1; j < spans.size(); ++j) {
            const Span &a = spans[i], &b = spans[j];
            // V and Z interleave register by register: odd and even wires.
            const bool interleaved = (QLatin1String(a.area->reg) == "V" && QLatin1String(b.area->reg) == "Z") ||
                                     (QLatin1String(a.area->reg) == "Z" && QLatin1String(b.area->reg) == "V");
            if (a.bits == b.bits && a.from <= b.to && b.from <= a.to && !interleaved)
                return QString("%1%2 and %3%4").arg(a.area->reg).arg(a.area->first).arg(b.area->reg).arg(b.area->first);
        }
    return QString();
}

enum class JobKind { None, Cyclic, Write, Condition, Recipe, Unknown };

class Soak {
public:
    Soak(DriverLibrary &driver, const SoakConfig &config)
        : config_(config), sim_(simOptions(config)), link_(sim_), rt_(driver, link_, runtimeOptions(config)),
          rng_(config.seed ^ 0x5EEDu), lists_(watchLists()), chunks_(writeChunks()), pool_(conditionPool())
    {
    }

    SoakResult run();

private:
    static kq71sim::SimOptions simOptions(const SoakConfig &c)
    {
        kq71sim::SimOptions o;
        o.station = STATION;
        o.seed = c.seed;
        o.faults = c.faults;
        return o;
    }
    static RuntimeOptions runtimeOptions(const SoakConfig &c)
    {
        RuntimeOptions o;
        o.retries = c.retries;
        o.timeoutMs = c.timeoutMs;
        o.gap = GAP;
        o.recipeBytes = 2 * RECIPE_WORDS;
        return o;
    }

    void fail(const QString &what)
    {
        if (result_.failures.size() < 40)
            result_.failures << what;
    }
    int random(int n) { return int(rng_() % std::uint32_t(n)); }

    void fillPlc();
    void readBitWordsOnce();
    void watch(const WatchList &list);
    void issueWrite();
    void startBatch();
    void startRecipe(RecipeDirection dir);
    void startRandomRecipe();
    void changePlc();
    void step(bool faultsOn);
    JobKind classify(const Exchange &ex, bool recipeBefore) const;
    void onWrite(const Exchange &ex);
    void onCondition(const Exchange &ex);
    void afterStep(const Exchange &ex, JobKind kind, bool recipeBefore);
    void checkWatchedValues();
    void checkRecipeRoundTrip();
    QString unitName(WriteLedger::Unit u) const { return kq71rt::unitName(unitReg(u), unitAddress(u)); }

    SoakConfig config_;
    kq71sim::PlcSimulator sim_;
    SimLink link_;
    Runtime rt_;
    std::mt19937 rng_;
    SoakResult result_;

    std::vector<WatchList> lists_;
    const WatchList *watching_ = nullptr;
    WatchList everything_;  // watched once the faults stop
    std::vector<Chunk> chunks_;
    QList<KEY_ADDRESS> pool_;
    WriteLedger ledger_;
    std::uint64_t writeSeq_ = 0;

    struct Batch {
        bool open = false;
        int id = 0;
        JobRange last;
        std::uint64_t startedAt = 0;
        int expectEnd = 1;  // 0 read, -1 given up; 1 none due
        bool dropped = false;
    } batch_;

    bool recipeOn_ = false;
    RecipeDirection recipeDir_ = RecipeDirection::Write;
    bool recipeGaveUp_ = false;
    std::uint64_t recipeStartedAt_ = 0, recipeEndedAt_ = 0;

    JobKind prevKind_ = JobKind::None;
    int prevResult_ = 0;
    std::uint64_t sent_ = 0;       // every frame sent, the settling phase included
    std::uint64_t cyclicEnded_ = 0;
    bool writeGaveUp_ = false;     // in this step
    Exchange failedWrite_;
};

// A bit write to a word the driver has never read waits for a read of it; if
// that read is given up, the write falls back without a job outcome the ledger
// could account for. The words of the bit areas are therefore read once on a
// clean line, and every bit write is a read-modify-write with a job of its own.
void Soak::readBitWordsOnce()
{
    QList<KEY_ADDRESS> keys;
    for (const Area &a : AREAS)
        if (!wordRegisterOfBits(a.reg).isEmpty())
            keys << key(a.reg, a.first, a.units);
    sim_.setFaults(kq71sim::FaultRates());
    const std::uint64_t blocks = std::uint64_t(rt_.watch(keys));
    const std::uint64_t until = cyclicEnded_ + blocks;
    for (int i = 0; i < 1000 && cyclicEnded_ < until; ++i)
        step(false);
    if (cyclicEnded_ < until)
        fail("the words of the bit areas were not read on the clean line");
    sim_.setFaults(config_.faults);
}

void Soak::fillPlc()
{
    for (const Area &a : AREAS) {
        const UnitKind k = unitKindOf(a.reg);
        for (int i = 0; i < a.units; ++i)
            setSimValue(sim_, a.reg, a.first + i, k == UnitKind::Bit ? rng_() & 1 : rng_());
    }
}

void Soak::watch(const WatchList &list)
{
    watching_ = &list;
    rt_.watch(list.keys);
    ++result_.watchSwitches;
}

void Soak::issueWrite()
{
    const Chunk &c = chunks_[size_t(random(int(chunks_.size())))];
    const UnitKind kind = unitKindOf(c.area->reg);
    const std::uint64_t seq = ++writeSeq_;
    QByteArray bytes;
    for (int i = 0; i < c.units; ++i) {
        // Tagged with the write's number, so that a stale value is told apart.
        const quint32 v = kind == UnitKind::Bit ? rng_() & 1
                          : kind == UnitKind::Word ? quint32(seq << 4 | i) & 0xFFFF
                                                   : (quint32(seq) << 8 | quint32(i)) ^ 0xA5000000u;
        for (int b = 0; b < unitBytes(kind); ++b)
            bytes.append(char(v >> (8 * b) & 0xFF));
        ledger_.issued(unitKey(c.area->reg, c.address + i), seq, v);
    }
    const int length = kind == UnitKind::DoubleWord ? 2 * c.units : c.units;
    rt_.write(STATION, c.area->reg, c.address, length, bytes, WRITE_ID_BASE + int(seq));
    ++result_.writes;
}

void Soak::startBatch()
{
    const int n = 1 + random(3);
    QList<KEY_ADDRESS> keys;
    while (keys.size() < n) {
        const KEY_ADDRESS &k = pool_[random(pool_.size())];
        bool again = false;
        for (const KEY_ADDRESS &o : keys)
            again = again || (o.regName == k.regName && o.address == k.address);
        if (!again)
            keys << k;
    }
    batch_ = Batch();
    batch_.open = true;
    batch_.id = CONDITION_ID_BASE + int(result_.batches % 1000000);
    batch_.startedAt = sent_;
    for (const KEY_ADDRESS &k : keys)
        rt_.conditionRead(k, batch_.id);
    batch_.last = lastPiece(keys.last());
    ++result_.batches;
}

void Soak::startRecipe(RecipeDirection dir)
{
    recipeDir_ = dir;
    recipeOn_ = true;
    recipeGaveUp_ = false;
    recipeStartedAt_ = sent_;
    rt_.startRecipe(dir);
}

void Soak::startRandomRecipe()
{
    const RecipeDirection dir =
        recipeDir_ == RecipeDirection::Write ? RecipeDirection::Read : RecipeDirection::Write;
    if (dir == RecipeDirection::Write) {
        unsigned char *buf = rt_.recipeBuffer();
        for (int i = 0; i < 2 * RECIPE_WORDS; ++i)
            buf[i] = uchar(rng_());
    }
    startRecipe(dir);
}

void Soak::changePlc()
{
    static const std::vector<const Area *> plcAreas = [] {
        std::vector<const Area *> v;
        for (const Area &a : AREAS)
            if (a.role == Role::Plc)
                v.push_back(&a);
        return v;
    }();
    const Area &a = *plcAreas[size_t(random(int(plcAreas.size())))];
    const UnitKind k = unitKindOf(a.reg);
    setSimValue(sim_, a.reg, a.first + random(a.units), k == UnitKind::Bit ? rng_() & 1 : rng_());
    ++result_.plcChanges;
}

// What the frame of this exchange belongs to. A frame that got "send again"
// goes out again first, whatever became due meanwhile; otherwise a raised
// recipe flag takes the frame (a recipe job keeps the id of the job before
// it, so the id does not tell).
JobKind Soak::classify(const Exchange &ex, bool recipeBefore) const
{
    if (!ex.sent)
        return JobKind::None;
    if (prevResult_ == 8)
        return prevKind_;
    if (recipeBefore)
        return JobKind::Recipe;
    if (!ex.write && ex.jobId == 4)
        return JobKind::Cyclic;
    if (ex.write && ex.jobId >= WRITE_ID_BASE)
        return JobKind::Write;
    if (!ex.write && ex.jobId >= CONDITION_ID_BASE && ex.jobId < WRITE_ID_BASE)
        return JobKind::Condition;
    return JobKind::Unknown;
}

void Soak::onWrite(const Exchange &ex)
{
    const Area *a = areaOf(ex.regName, ex.address);
    if (!a || a->role != Role::Write) {
        fail(QString("write job %1 for %2 outside the written areas").arg(ex.jobId).arg(unitName(unitKey(ex.regName, ex.address))));
        return;
    }
    if (ex.result != 1 && ex.result != 2)
        return;
    const std::uint64_t seq = std::uint64_t(ex.jobId - WRITE_ID_BASE);
    if (!wordRegisterOfBits(a->reg).isEmpty()) {
        // A word job of bits answers the bit writes of its words up to its
        // id: it carries every bit still pending in them.
        // A later job over other words may have answered them already.
        for (int w = ex.address; w < ex.address + ex.length; ++w)
            for (int b = 0; b < BITS_IN_WORD; ++b)
                ledger_.answered(unitKey(a->reg, w * BITS_IN_WORD + b), seq);
    }
    for (int i = 0; i < ex.length && wordRegisterOfBits(a->reg).isEmpty(); ++i) {
        const WriteLedger::Unit u = unitKey(ex.regName, ex.address + i);
        if (ledger_.answered(u, seq) == 0)
            fail(QString("write job %1 answered for %2, which had no open write").arg(ex.jobId).arg(unitName(u)));
    }
    if (ex.result == 1) {
        ++result_.writeAcked;
    } else {
        ++result_.writeFailed;
        writeGaveUp_ = true;
        failedWrite_ = ex;
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
    if (ex.result == 1 && last)
        batch_.expectEnd = 0;
    else if (ex.result == 2) {
        batch_.expectEnd = -1; // the rest of the batch goes, and the end says so
        batch_.dropped = !last;
    }
}

void Soak::afterStep(const Exchange &ex, JobKind kind, bool recipeBefore)
{
    const QVector<int> ends = rt_.takeBatchEnds();
    const QVector<ChangeReport> reports = rt_.takeReports();
    rt_.takeRecipeWords();

    switch (kind) {
    case JobKind::Cyclic:
        if (ex.result == 1 || ex.result == 2)
            ++cyclicEnded_;
        break;
    case JobKind::Write:
        onWrite(ex);
        break;
    case JobKind::Condition:
        onCondition(ex);
        break;
    case JobKind::Recipe: {
        const Area *a = areaOf(ex.regName, ex.address);
        if (!a || a->role != Role::Recipe)
            fail(QString("recipe frame for %1%2 outside the recipe").arg(ex.regName).arg(ex.address));
        if (ex.result == 2)
            recipeGaveUp_ = true;
        break;
    }
    case JobKind::Unknown:
        fail(QString("frame of unknown job id %1 (%2%3)").arg(ex.jobId).arg(ex.regName).arg(ex.address));
        break;
    case JobKind::None:
        break;
    }

    // A batch ends with exactly one report, when its last piece has ended or
    // when any piece was given up (the rest is dropped).
    if (batch_.open) {
        const int want = batch_.expectEnd;
        if (want != 1) {
            if (ends.size() != 1 || ends[0] != want)
                fail(QString("batch %1: its last piece ended (%2) but the end reports were [%3]")
                         .arg(batch_.id).arg(want).arg(ends.size() ? QString::number(ends[0]) : QString()));
            (batch_.dropped ? result_.batchesDropped : want == 0 ? result_.batchesRead : result_.batchesFailed)++;
            batch_.open = false;
        } else if (!ends.isEmpty()) {
            fail(QString("batch %1 reported its end %2 before its last piece").arg(batch_.id).arg(ends[0]));
        } else if (sent_ - batch_.startedAt > HUNG_AFTER) {
            fail(QString("batch %1 has not ended after %2 exchanges").arg(batch_.id).arg(HUNG_AFTER));
            batch_.open = false;
        }
    } else if (!ends.isEmpty()) {
        fail(QString("end-of-batch report %1 with no batch open").arg(ends[0]));
    }

    // A given-up write falls back, and the runtime hears of each bit and each
    // watched unit it covered.
    if (writeGaveUp_) {
        QSet<WriteLedger::Unit> heard;
        for (const ChangeReport &r : reports)
            heard.insert(unitKey(r.regName, r.address));
        const bool bits = unitKindOf(failedWrite_.regName) == UnitKind::Bit;
        for (int i = 0; i < failedWrite_.length; ++i) {
            const WriteLedger::Unit u = unitKey(failedWrite_.regName, failedWrite_.address + i);
            if ((bits || watching_->units.contains(u)) && !heard.contains(u))
                fail(QString("given-up write to %1 was not reported to the callback").arg(unitName(u)));
        }
        writeGaveUp_ = false;
    }

    if (recipeOn_) {
        const bool running = rt_.recipeRunning(recipeDir_);
        if (recipeBefore && kind == JobKind::Recipe && ex.result == 2 && running)
            fail("a given-up recipe block left its flag raised");
        if (!running) {
            recipeOn_ = false;
            recipeEndedAt_ = sent_;
            (recipeDir_ == RecipeDirection::Write ? result_.recipeWrites : result_.recipeReads)++;
            if (recipeGaveUp_)
                ++result_.recipeGivenUp;
        } else if (sent_ - recipeStartedAt_ > HUNG_AFTER) {
            fail(QString("recipe transfer still running after %1 exchanges").arg(HUNG_AFTER));
            recipeOn_ = false;
        }
    }
}

void Soak::step(bool faultsOn)
{
    const bool recipeBefore = recipeOn_ && rt_.recipeRunning(recipeDir_);
    const Exchange ex = rt_.step();
    if (!ex.sent) {
        link_.idle(1000);
        prevResult_ = 0;
        prevKind_ = JobKind::None;
        afterStep(ex, JobKind::None, recipeBefore);
        return;
    }
    ++sent_;
    if (faultsOn)
        ++result_.exchanges;
    else
        ++result_.settleExchanges;
    const JobKind kind = classify(ex, recipeBefore);
    afterStep(ex, kind, recipeBefore);
    prevKind_ = kind;
    prevResult_ = ex.result;
}

void Soak::checkWatchedValues()
{
    for (const KEY_ADDRESS &k : watching_->keys) {
        for (int i = 0; i < keyUnits(k); ++i) {
            const quint32 cached = cachedValue(rt_, k.regName, k.address + i);
            const quint32 held = simValue(sim_, k.regName, k.address + i);
            if (cached != held) {
                ++result_.mismatches;
                if (result_.mismatches <= 8)
                    fail(QString("%1 shows %2, the PLC holds %3")
                             .arg(kq71rt::unitName(k.regName, k.address + i)).arg(cached).arg(held));
            }
        }
    }
}

// With the line clean, a recipe written from the buffer must be in the PLC,
// and reading it back must restore the buffer.
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
        for (int i = 0; i < 1000 && recipeOn_; ++i)
            step(false);
        if (recipeOn_ || rt_.recipeRunning(dir)) {
            fail("the final recipe transfer did not end");
            return;
        }
        if (dir == RecipeDirection::Write) {
            for (const RecipeItem &r : RECIPE) {
                const bool dword = unitKindOf(r.reg) == UnitKind::DoubleWord;
                const int units = dword ? r.words / 2 : r.words;
                for (int i = 0; i < units; ++i) {
                    const int w = r.bufOffset + (dword ? 2 * i : i);
                    const quint32 want = dword ? word(w) | word(w + 1) << 16 : word(w);
                    if (simValue(sim_, r.reg, r.address + i) != want)
                        fail(QString("recipe write left %1 at %2, the buffer holds %3")
                                 .arg(kq71rt::unitName(r.reg, r.address + i))
                                 .arg(simValue(sim_, r.reg, r.address + i)).arg(want));
                }
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

SoakResult Soak::run()
{
    QElapsedTimer timer;
    timer.start();
    const QString overlap = overlappingAreas();
    if (!overlap.isEmpty()) {
        fail("soak areas overlap in the PLC: " + overlap);
        return result_;
    }
    QString unused;
    link_.open(&unused);
    rt_.start();
    fillPlc();
    if (rt_.setRecipe(recipeItems()) != int(sizeof(RECIPE) / sizeof(RECIPE[0])))
        fail("the driver did not take the recipe items");
    readBitWordsOnce();

    const std::uint64_t total = config_.exchanges;
    const std::uint64_t warm = std::max<std::uint64_t>(total / 10, 1);
    const std::uint64_t switchEvery = std::uint64_t(std::max(config_.switchEvery, 1));
    size_t listIndex = 0;
    watch(lists_[0]);
    std::uint64_t nextSwitch = switchEvery, nextReport = total / 10;

    while (result_.exchanges < total && result_.failures.size() < 40) {
        const std::uint64_t n = result_.exchanges;
        if (n >= nextSwitch) {
            listIndex = (listIndex + 1) % lists_.size();
            watch(lists_[listIndex]);
            nextSwitch += switchEvery;
        }
        if (random(10) == 0)
            issueWrite();
        if (!batch_.open && random(64) == 0)
            startBatch();
        if (!recipeOn_ && sent_ - recipeEndedAt_ > 2000 && random(256) == 0)
            startRandomRecipe();
        if (random(16) == 0)
            changePlc();
        step(true);
        if (result_.exchanges == warm && result_.rssWarmKiB < 0)
            result_.rssWarmKiB = residentKiB();
        if (config_.progress && result_.exchanges == nextReport && nextReport > 0) {
            fprintf(stderr, "soak: %llu of %llu exchanges, %llu faults, %.1f s\n",
                    (unsigned long long)result_.exchanges, (unsigned long long)total,
                    (unsigned long long)sim_.stats().faults, timer.elapsed() / 1000.0);
            nextReport += total / 10;
        }
    }
    result_.faults = sim_.stats().faults;
    for (int f = 0; f < kq71sim::FaultKinds; ++f)
        result_.faultsByKind[f] = sim_.stats().byFault[f];

    // The faults stop, and with them the PLC's own changes and new work.
    // Every watched unit must match the PLC once the whole plan has been read
    // twice.
    sim_.setFaults(kq71sim::FaultRates());
    // One key per area: a key starting inside the first 128 units of a
    // longer one would pull that block's start back and leave units unread
    // (the merge rule widens a block by moving its start, not its length).
    QList<KEY_ADDRESS> all;
    for (const Area &a : AREAS)
        all << key(a.reg, a.first, a.units);
    everything_ = watchList("all", all);
    // The PLC moves once more, so that a unit the plan misses cannot match
    // by chance.
    for (const Area &a : AREAS) {
        if (a.role != Role::Plc)
            continue;
        const bool bits = unitKindOf(a.reg) == UnitKind::Bit;
        for (int i = 0; i < a.units; ++i) {
            const quint32 v = simValue(sim_, a.reg, a.first + i);
            setSimValue(sim_, a.reg, a.first + i, bits ? !v : v + 1 + rng_() % 1000);
        }
    }
    const std::uint64_t blocks = std::uint64_t(rt_.watch(everything_.keys));
    watching_ = &everything_;
    ++result_.watchSwitches;
    // A frame being sent again when the plan changed may be an old block.
    const std::uint64_t refreshed = cyclicEnded_ + 2 * blocks + (prevResult_ == 8 ? 1 : 0);
    for (int i = 0; i < 200000 && cyclicEnded_ < refreshed; ++i)
        step(false);
    if (cyclicEnded_ < refreshed)
        fail("the plan was not read twice after the faults stopped");
    checkWatchedValues();

    // Let what is still queued go out, then account for every write.
    for (int i = 0; i < 20000 && (ledger_.open() > 0 || batch_.open || recipeOn_); ++i)
        step(false);
    const WriteLedger::Verdict v =
        ledger_.judge([this](WriteLedger::Unit u) { return simValue(sim_, unitReg(u), unitAddress(u)); });
    result_.lost = v.lost;
    result_.unanswered = v.unanswered;
    for (WriteLedger::Unit u : v.lostUnits)
        fail(QString("a write to %1 is lost: not in the PLC, not reported failed").arg(unitName(u)));
    // Stricter than the value: a bit holds a lost write's value half the time.
    if (v.unanswered > 0)
        fail(QString("%1 writes never had an outcome, their own or a later one's").arg(v.unanswered));
    if (batch_.open)
        fail(QString("batch %1 still open at the end").arg(batch_.id));
    checkRecipeRoundTrip();

    result_.retries = rt_.stats().retries;
    result_.givenUp = rt_.stats().givenUp;
    result_.rssEndKiB = residentKiB();
    if (config_.checkMemory) {
        if (result_.rssWarmKiB < 0 || result_.rssEndKiB < 0)
            fail("resident memory could not be read");
        else if (result_.rssEndKiB - result_.rssWarmKiB >= 1024)
            fail(QString("resident memory grew by %1 KiB after warm-up").arg(result_.rssEndKiB - result_.rssWarmKiB));
    }
    if (result_.exchanges < total)
        fail(QString("stopped after %1 exchanges").arg(result_.exchanges));
    result_.seconds = timer.elapsed() / 1000.0;
    return result_;
}

} // namespace

kq71sim::FaultRates evenFaults(double total, int timeoutMs)
{
    kq71sim::FaultRates f;
    const double each = total / 9;
    f.drop = f.cut = f.badCrc = f.wrongStation = f.wrongFunction = f.exception = f.noise = f.echo = f.delay = each;
    f.delayMs = 3 * timeoutMs;
    return f;
}

SoakResult runFaultSoak(DriverLibrary &driver, const SoakConfig &config)
{
    Soak soak(driver, config);
    return soak.run();
}

QString summaryLine(const SoakResult &r, bool memoryChecked)
{
    QStringList kinds;
    for (int f = kq71sim::FaultDrop; f < kq71sim::FaultKinds; ++f)
        kinds << QString("%1=%2").arg(kq71sim::faultName(kq71sim::Fault(f))).arg(r.faultsByKind[f]);
    const QString rss = memoryChecked ? QString("%1 KiB (%2 -> %3 KiB)")
                                            .arg(r.rssEndKiB - r.rssWarmKiB)
                                            .arg(r.rssWarmKiB)
                                            .arg(r.rssEndKiB)
                                      : QString("not checked");
    return QString("soak %1: exchanges=%2 (+%3 settling) faults=%4 (%5) retries=%6 given-up=%7 "
                   "writes=%8 (jobs acked=%9 failed=%10) lost=%11 unanswered=%12 "
                   "condition-batches=%13 (read=%14 failed=%15 dropped=%16) "
                   "recipe-transfers=%17 (write=%18 read=%19 given-up=%20) watch-switches=%21 plc-changes=%22 "
                   "mismatches=%23 rss-growth=%24 time=%25 s")
        .arg(r.passed() ? "PASSED" : "FAILED")
        .arg(r.exchanges).arg(r.settleExchanges).arg(r.faults).arg(kinds.join(' '))
        .arg(r.retries).arg(r.givenUp)
        .arg(r.writes).arg(r.writeAcked).arg(r.writeFailed).arg(r.lost).arg(r.unanswered)
        .arg(r.batches).arg(r.batchesRead).arg(r.batchesFailed).arg(r.batchesDropped)
        .arg(r.recipeWrites + r.recipeReads).arg(r.recipeWrites).arg(r.recipeReads).arg(r.recipeGivenUp)
        .arg(r.watchSwitches).arg(r.plcChanges).arg(r.mismatches).arg(rss).arg(r.seconds, 0, 'f', 1);
}

} // namespace kq71soak
