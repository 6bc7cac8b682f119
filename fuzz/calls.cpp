// Fuzz target "calls": the runtime's side of the contract, any program of it.
//
// The input is a program: one opcode byte per call, its arguments after it
// (numbers through Input::number, so boundary values and raw ints are as
// likely as small ones; names through Input::regName). The driver starts
// configured with "1#0#0#3#10" and the checking callback, as a runtime
// starts it; then, until the input or the program limit ends:
//   0 intf_initProperty: a property text of five numbers, of small useful
//     numbers, or any text
//   1 intf_addrMerge: up to 12 keys with any station, name, address, length,
//     data type and carried fields
//   2 intf_addConditionRead: one such key and an id
//   3 intf_setRcpAddress: up to 8 items, mostly of this device
//   4 intf_getSendFrame
//   5 intf_dealRcvFrame: a reply to the frame handed out last (makeReply)
//   6 intf_getData, 7 intf_setData: any station, name, address, and lengths
//     up to 70000 with a buffer of exactly the contract size (or none); bits
//     in words ("D_bit") read as bytes of 0 or 1, a refused bit-in-word name
//     returns 0, and no job ever carries a bit-in-word name
//   8 the callback: none, checking, or checking and reading each unit back
//   9 the recipe flags in shared memory
//  10 up to 16 exchanges answered with good replies
//  11 the descriptive queries
//  12 a call for the callback to make from inside the next report
//
// Limits of the target, not of the driver: at most 96 calls per input and a
// work budget of 150000 units named, each piece a write or condition read is
// cut into counting as 30 units (it costs a scan of its queue), so that one
// input stays well within a second under the sanitizers and the cache within
// a few hundred megabytes. Recipe items keep their values inside the 64 KiB
// recipe buffer: the driver takes the item layout from the runtime as given.
#include "fuzz_support.h"
#include "fuzz_targets.h"

#include "driver_internals.h"

#include <QtCore/QList>
#include <QtCore/QVector>

#include <cstdlib>
#include <cstring>

using namespace kq71fuzz;

namespace {

enum Opcode {
    OP_INIT,
    OP_WATCH,
    OP_CONDITION,
    OP_RECIPE,
    OP_SEND,
    OP_REPLY,
    OP_GET,
    OP_SET,
    OP_CALLBACK,
    OP_FLAGS,
    OP_EXCHANGE,
    OP_QUERIES,
    OP_NESTED,
    OP_COUNT
};

const int MAX_CALLS = 96;
const qint64 MAX_UNITS = 150000;
const qint64 UNITS_PER_PIECE = 30;

// Jobs a write or condition read of this many units may be cut into, at most.
qint64 piecesOf(qint64 units, bool wordByWord)
{
    if (units <= 0)
        return 0;
    if (wordByWord)
        return units;
    const qint64 words = driver.maxWordsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxWordsPerPiece;
    const qint64 bits = driver.maxBitsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxBitsPerPiece;
    const qint64 limit = qMin(words, bits);
    return (units + limit - 1) / limit;
}

bool interleaved(const QString &name)
{
    return name == QLatin1String("V") || name == QLatin1String("Z") || name == QLatin1String("V_bit") ||
           name == QLatin1String("Z_bit");
}

std::string latin(const QString &s)
{
    return std::string(s.toLocal8Bit().constData());
}

// The calls a bit-in-word name refuses: one the driver does not take, or a
// negative bit number.
bool refusedBits(const QString &name, int address)
{
    const int kind = bitInWordKind(name);
    return kind < 0 || (kind > 0 && address < 0);
}

// Jobs are always of word registers: bits in words are read and written as
// the words holding them.
void checkNoBitJobs(const char *what)
{
    const QList<VARIABLE> *queues[] = {&driver.writeJobs, &driver.conditionReads, &driver.cyclicReads};
    for (size_t q = 0; q < 3; ++q)
        for (int i = 0; i < queues[q]->size(); ++i)
            if (bitInWordKind(queues[q]->at(i).regName) != 0)
                fail("%s queued a job of %s", what, latin(queues[q]->at(i).regName).c_str());
}

class Program {
public:
    Program(const uint8_t *data, size_t size) : in_(data, size), spent_(0), haveFrame_(false), frameGeneration_(0) {}
    void run();

private:
    // Units named by the calls so far; a call beyond the limit is skipped.
    bool spend(qint64 units)
    {
        if (spent_ + units > MAX_UNITS)
            return false;
        spent_ += units;
        return true;
    }
    KEY_ADDRESS key();
    QByteArray property();
    void init(const QByteArray &text);
    void watch(QList<KEY_ADDRESS> keys);
    void condition(KEY_ADDRESS k, int id);
    void recipe(QVector<_RCP_VAR_PRO> items);
    QVector<_RCP_VAR_PRO> recipeItems();
    void getData(int station, QString name, int address, int length, bool withBuffer);
    void setData(int station, QString name, int address, int length, const QByteArray &values, bool withBuffer,
                 int id);
    void send();
    void reply();
    void exchange();
    void queries();
    void nestedCall();
    void drain();
    bool framePending() const { return haveFrame_ && frameGeneration_ == initGeneration(); }

    Input in_;
    Runtime runtime_;
    qint64 spent_;
    FRAME_PRO frame_; // handed out last
    bool haveFrame_;
    int frameGeneration_;
};

KEY_ADDRESS Program::key()
{
    KEY_ADDRESS k;
    k.regName = in_.regName();
    k.station = in_.number();
    k.address = in_.number();
    k.length = in_.number();
    k.dataType = in_.number();
    const uint8_t extra = in_.byte();
    if (extra & 1) {
        k.label = in_.text();
        k.note = in_.text();
        k.tag = in_.number();
        k.bufOffset = in_.number();
    }
    if (extra & 2) {
        const QByteArray d = in_.bytes(in_.byte());
        memcpy(k.data, d.constData(), size_t(d.size()));
    }
    return k;
}

QByteArray Program::property()
{
    const uint8_t mode = in_.byte();
    switch (mode % 3) {
    case 0: {
        QByteArray text;
        for (int i = 0; i < 5; ++i)
            text += (i ? "#" : "") + QByteArray::number(in_.number());
        return text;
    }
    case 1: {
        // One read per statement: the input must mean the same to every compiler.
        static const int gaps[] = {0, 1, 2, 10, 64, 128, 507, 4096, 2147483647};
        const int device = in_.below(4);
        const int cacheOnly = in_.below(2);
        const int retries = in_.below(5);
        const int gap = gaps[in_.below(9)];
        return QByteArray::number(device) + "#" + QByteArray::number(cacheOnly) + "#0#" + QByteArray::number(retries) +
               "#" + QByteArray::number(gap);
    }
    default:
        return in_.text().toLatin1(); // any shape; a NUL ends it early
    }
}

void Program::init(const QByteArray &text)
{
    CallCheck check("intf_initProperty", 0);
    runtime_.init(text.constData());
    if (!driver.cyclicReads.isEmpty() || !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() ||
        !driver.dataAreas.isEmpty() || !driver.frameQueue.isEmpty())
        fail("intf_initProperty left jobs or cache behind");
}

void Program::watch(QList<KEY_ADDRESS> keys)
{
    qint64 units = 0;
    for (int i = 0; i < keys.size(); ++i)
        units += unitsNamed(keys.at(i).length);
    if (!spend(units))
        return;
    int jobs;
    {
        CallCheck check("intf_addrMerge", units);
        jobs = intf_addrMerge(&keys);
    }
    if (jobs != driver.cyclicReads.size())
        fail("intf_addrMerge returned %d for %d cyclic reads", jobs, driver.cyclicReads.size());
    checkNoBitJobs("intf_addrMerge");
    for (int i = 0; i < driver.cyclicReads.size(); ++i) {
        const VARIABLE &v = driver.cyclicReads.at(i);
        if (v.length < 1 || v.length > MAX_BLOCK_UNITS)
            fail("intf_addrMerge planned a read of %d units", v.length);
    }
}

void Program::condition(KEY_ADDRESS k, int id)
{
    const qint64 units = unitsNamed(k.length);
    if (!spend(units + UNITS_PER_PIECE * piecesOf(units, false)))
        return;
    const int before = driver.conditionReads.size();
    int result;
    {
        CallCheck check("intf_addConditionRead", units);
        result = intf_addConditionRead(&k, id);
    }
    if (result != 1)
        fail("intf_addConditionRead returned %d", result);
    if (refusedBits(k.regName, k.address) && driver.conditionReads.size() != before)
        fail("intf_addConditionRead queued a read of the refused %s", latin(k.regName).c_str());
    checkNoBitJobs("intf_addConditionRead");
    conditionBatchOpened();
}

// Answered well, the exchange works off every write and condition read and
// ends the batch: no job stalls its queue.
void Program::drain()
{
    // Both queues full, a cyclic read between runs, every recipe block written
    // and read (V and Z a frame per word): a nested call from a report may
    // still fill the queues while this runs.
    const qint64 bound =
        3 * 2 * qint64(MAX_QUEUED_JOBS) + 2 * (MAX_BLOCK_UNITS + 2) * qint64(driver.rcpBlocks.size()) + 64;
    int idle = 0;
    for (qint64 i = 0; i < bound && idle < 2; ++i) {
        // A batch of keys that named no unit ends when the next job is chosen,
        // after the frame that is out.
        if (driver.writeJobs.isEmpty() && driver.conditionReads.isEmpty() && !conditionBatchOwed())
            break;
        send();
        if (!haveFrame_) {
            ++idle; // a burst of writes without a plan pauses once
            continue;
        }
        idle = 0;
        deal(in_, goodReply(in_, frame_), &frame_, true);
        haveFrame_ = false;
    }
    if (!driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty())
        fail("answered well, the exchange left %d writes and %d condition reads waiting", driver.writeJobs.size(),
             driver.conditionReads.size());
    checkBatchEnded();
}

QVector<_RCP_VAR_PRO> Program::recipeItems()
{
    QVector<_RCP_VAR_PRO> items;
    for (int n = in_.below(9); n > 0; --n) {
        _RCP_VAR_PRO item;
        item.deviceId = in_.byte() % 4 ? driver.deviceId : in_.number();
        item.station = in_.number();
        item.regName = in_.regName();
        item.address = in_.number();
        item.bufOffset = in_.u16() % RECIPE_BUFFER_WORDS;
        item.reserved = in_.number();
        // The values stay inside the recipe buffer: bits 16 to a word, every
        // other unit a word each (a 32-bit value counts two).
        const RegisterInfo *r = findRegister(item.regName);
        const qint64 room = RECIPE_BUFFER_WORDS - item.bufOffset;
        const qint64 most = (r && r->width == 1) ? 16 * room : room;
        const int length = in_.number();
        item.length = length > most ? int(length % (most + 1)) : length;
        items.append(item);
    }
    return items;
}

void Program::recipe(QVector<_RCP_VAR_PRO> items)
{
    qint64 units = 0;
    int mine = 0;
    for (int i = 0; i < items.size(); ++i) {
        units += unitsNamed(items.at(i).length);
        mine += items.at(i).deviceId == driver.deviceId;
    }
    if (!spend(units))
        return;
    int kept;
    {
        CallCheck check("intf_setRcpAddress", units);
        kept = intf_setRcpAddress(&items);
    }
    if (kept != mine)
        fail("intf_setRcpAddress kept %d of %d items of this device", kept, mine);
    for (int i = 0; i < driver.rcpBlocks.size(); ++i) {
        const _RCP_VAR_PRO &b = driver.rcpBlocks.at(i);
        if (b.length < 1 || b.length > MAX_BLOCK_UNITS)
            fail("intf_setRcpAddress planned a block of %d units", b.length);
    }
}

void Program::getData(int station, QString name, int address, int length, bool withBuffer)
{
    const qint64 units = unitsNamed(length);
    if (!spend(units))
        return;
    unsigned char *values = withBuffer ? static_cast<unsigned char *>(malloc(size_t(getDataBytes(name, length)))) : 0;
    int result;
    {
        CallCheck check("intf_getData", units);
        result = intf_getData(station, &name, address, length, values);
    }
    if (result != (withBuffer && !refusedBits(name, address) ? 1 : 0))
        fail("intf_getData returned %d for %s", result, latin(name).c_str());
    if (result == 1 && bitInWordKind(name) > 0) {
        // The bits a call may name: at most 65536, none past the last address.
        const qint64 named = qMin<qint64>(unitsNamed(length), qint64(2147483647) - address + 1);
        for (qint64 i = 0; i < named; ++i)
            if (values[i] > 1)
                fail("intf_getData gave %d for bit %lld of %s", values[i], (long long)i, latin(name).c_str());
    }
    free(values);
}

void Program::setData(int station, QString name, int address, int length, const QByteArray &bytes, bool withBuffer,
                      int id)
{
    const qint64 units = unitsNamed(length);
    if (!spend(units + UNITS_PER_PIECE * piecesOf(units, interleaved(name))))
        return;
    unsigned char *values = 0;
    if (withBuffer) {
        values = static_cast<unsigned char *>(malloc(size_t(bytes.size())));
        memcpy(values, bytes.constData(), size_t(bytes.size()));
    }
    int result;
    {
        CallCheck check("intf_setData", units);
        result = intf_setData(station, &name, address, length, values, id);
    }
    const int expected = refusedBits(name, address) ? 0 : withBuffer || length <= 0 ? 1 : 0;
    if (result != expected)
        fail("intf_setData returned %d for %s", result, latin(name).c_str());
    checkNoBitJobs("intf_setData");
    free(values);
}

void Program::send()
{
    haveFrame_ = nextFrame(frame_);
    frameGeneration_ = initGeneration();
}

void Program::reply()
{
    const bool pending = framePending();
    bool wellFormed = false;
    const QByteArray bytes = makeReply(in_, pending ? &frame_ : 0, wellFormed);
    // A frame that is answered is done unless it is to be sent again.
    if (deal(in_, bytes, pending ? &frame_ : 0, wellFormed) != 8)
        haveFrame_ = false;
}

void Program::exchange()
{
    for (int n = 1 + in_.below(16); n > 0; --n) {
        send();
        if (!haveFrame_)
            return;
        if (!spend(unitsNamed(frame_.var.length)))
            return;
        deal(in_, goodReply(in_, frame_), &frame_, true);
        haveFrame_ = false;
    }
}

void Program::queries()
{
    int type = -1;
    intf_getProtocolType(&type);
    if (type != 0)
        fail("intf_getProtocolType gave %d", type);
    QString text;
    intf_getDriverParameter(&text);
    intf_getDriverPropertyPage(&text);
    text = in_.text();
    intf_SetDriverPropertyPage(&text);
    if (intf_getVersion() != QLatin1String("2.0.0.0"))
        fail("intf_getVersion changed");
    QList<QString> names;
    const int listType = in_.number();
    const int result = intf_getRegListByType(listType, &names);
    if (result != (listType == 0 || listType == 1 ? 1 : 0) || names.size() != (listType == 0 ? 8 : 11))
        fail("intf_getRegListByType(%d) returned %d with %d names", listType, result, names.size());
}

// A runtime may call back into the driver from inside a report.
void Program::nestedCall()
{
    std::function<void()> call;
    switch (in_.below(6)) {
    case 0: {
        const QByteArray text = property();
        call = [this, text] { init(text); };
        break;
    }
    case 1: {
        const int station = in_.number(), address = in_.number(), length = qMin(in_.number(), 64);
        const QString name = in_.regName();
        const QByteArray values = in_.bytes(setDataBytes(name, length));
        call = [=] { setData(station, name, address, length, values, true, 9); };
        break;
    }
    case 2: {
        const KEY_ADDRESS k = key();
        call = [this, k] { condition(k, 11); };
        break;
    }
    case 3: {
        QList<KEY_ADDRESS> keys;
        for (int n = in_.below(4); n > 0; --n)
            keys.append(key());
        call = [this, keys] { watch(keys); };
        break;
    }
    case 4: {
        const QVector<_RCP_VAR_PRO> items = recipeItems();
        call = [this, items] { recipe(items); };
        break;
    }
    default: {
        const int station = in_.number(), address = in_.number(), length = qMin(in_.number(), 64);
        const QString name = in_.regName();
        call = [=] { getData(station, name, address, length, true); };
        break;
    }
    }
    setNestedCall(call);
}

void Program::run()
{
    setCallback(1);
    runtime_.init("1#0#0#3#10");
    for (int calls = 0; calls < MAX_CALLS && !in_.atEnd(); ++calls) {
        switch (in_.byte() % OP_COUNT) {
        case OP_INIT:
            init(property());
            break;
        case OP_WATCH: {
            QList<KEY_ADDRESS> keys;
            for (int n = in_.below(13); n > 0; --n)
                keys.append(key());
            watch(keys);
            break;
        }
        case OP_CONDITION: {
            const KEY_ADDRESS k = key();
            condition(k, in_.number());
            break;
        }
        case OP_RECIPE:
            recipe(recipeItems());
            break;
        case OP_SEND:
            send();
            break;
        case OP_REPLY:
            reply();
            break;
        case OP_GET: {
            const int station = in_.number(), address = in_.number();
            const int length = qMin(in_.number(), int(MAX_VALUE_LENGTH));
            const QString name = in_.regName();
            getData(station, name, address, length, in_.byte() % 8 != 0);
            break;
        }
        case OP_SET: {
            const int station = in_.number(), address = in_.number();
            const int length = qMin(in_.number(), int(MAX_VALUE_LENGTH));
            const QString name = in_.regName();
            const bool withBuffer = in_.byte() % 8 != 0;
            const QByteArray values = in_.bytes(setDataBytes(name, length));
            setData(station, name, address, length, values, withBuffer, in_.number());
            break;
        }
        case OP_CALLBACK: {
            setCallback(in_.below(3));
            break;
        }
        case OP_FLAGS: {
            static const unsigned char values[] = {0, 1, 1, 2, 255};
            const unsigned char write = values[in_.below(5)];
            runtime_.setRecipeFlags(write, values[in_.below(5)]);
            break;
        }
        case OP_EXCHANGE:
            exchange();
            break;
        case OP_QUERIES:
            queries();
            break;
        default:
            nestedCall();
            break;
        }
    }
    drain();
}

} // namespace

int runCallsInput(const uint8_t *data, size_t size)
{
    QuietMessages quiet;
    Program program(data, size);
    program.run();
    return 0;
}
