// What the fuzz targets share: a reader that turns input bytes into call
// arguments, the runtime's buffers in exactly the sizes the runtime contract
// promises, and the entry points called with their invariants checked.
#ifndef KQ71_FUZZ_SUPPORT_H
#define KQ71_FUZZ_SUPPORT_H

#include "driver_internals.h"
#include "vorn_kq71_ap.h"
#include "../tests/qt_compat.h"

#include <QtCore/QMutexLocker>
#include <QtCore/QVector>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <utility>

// The targets' bodies, each described at the top of its file. libFuzzer calls
// them through fuzz_main.cpp; the unit tests replay the kept inputs.
int runRepliesInput(const uint8_t *data, size_t size);
int runCallsInput(const uint8_t *data, size_t size);
int runEditorInput(const uint8_t *data, size_t size);

// Ends the process, naming the invariant, its message (printf arguments,
// only built then) and the input, so that libFuzzer keeps the input as a
// crash and a replay stops at the first fault.
#define FUZZ_CHECK(invariant, ...)                                                                                     \
    ((invariant) ? void(0)                                                                                             \
                 : (fprintf(stderr, "kq71 fuzz: invariant broken: %s: ", #invariant), fprintf(stderr, __VA_ARGS__),   \
                    kq71fuzz::fail()))

namespace kq71fuzz {

inline const char *inputName = nullptr; // set by the replay

[[noreturn]] inline void fail()
{
    fprintf(stderr, "\nkq71 fuzz: input %s\n", inputName ? inputName : "as libFuzzer keeps it");
    abort();
}

// --- input ---------------------------------------------------------------

// Values at which lengths, counts and addresses change meaning somewhere.
inline const int BOUNDARY_VALUES[] = {
    0, 1, -1, 2, -2, 7, 8, 9, 15, 16, 17, 31, 32, 127, 128, 129, 199, 200, 255, 256, 257, 377, 506, 507, 508, 511,
    512, 513, 1023, 1024, 1025, 4095, 4096, 7999, 8000, 8001, 8191, 8192, 9999, 10000, 32767, 32768, 65535, 65536,
    65537, 70000, -65536, 1073741823, 1073741824, 2147483520, 2147483646, 2147483647, -2147483647 - 1, -2147483647};

// The register family as the runtime contract describes it; width: bits of
// one unit (1, 16 or 32).
struct RegisterInfo {
    const char *name;
    int width, lowest, highest, radix;
};
inline const RegisterInfo REGISTERS[19] = {
    {"X", 1, 0, 0377, 8},        {"Y", 1, 0, 0377, 8},         {"S", 1, 0, 9999, 10},     {"M", 1, 0, 9999, 10},
    {"T", 1, 0, 9999, 10},       {"C", 1, 0, 199, 10},         {"200C", 1, 200, 255, 10}, {"256C", 1, 256, 9999, 10},
    {"D", 16, 0, 9999, 10},      {"V", 16, 0, 9999, 10},       {"Z", 16, 0, 9999, 10},    {"TC", 16, 0, 9999, 10},
    {"TP", 16, 0, 9999, 10},     {"CC", 16, 0, 199, 10},       {"CP", 16, 0, 199, 10},    {"200CC", 32, 200, 255, 10},
    {"200CP", 32, 200, 255, 10}, {"256CC", 32, 256, 9999, 10}, {"256CP", 32, 256, 9999, 10},
};

// Reads arguments from the input front to back; past its end every read
// gives zeros, so any input is a complete program.
struct Input {
    const uint8_t *p_;
    size_t n_;
    bool atEnd() const { return n_ == 0; }
    uint8_t byte() { return n_ ? (--n_, *p_++) : 0; }
    uint32_t littleEndian(int n) // one read per statement: the same order under every compiler
    {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i)
            v |= uint32_t(byte()) << 8 * i;
        return v;
    }
    uint16_t u16() { return uint16_t(littleEndian(2)); }
    int below(int n) { return n > 0 ? byte() % n : 0; }
    int number() // a small number, a boundary value, four raw bytes or a small negative one
    {
        const int kind = byte() % 4;
        if (kind == 2)
            return int32_t(littleEndian(4));
        return kind == 0 ? byte() : kind == 1 ? BOUNDARY_VALUES[byte() % std::size(BOUNDARY_VALUES)] : -int(byte());
    }
    QByteArray bytes(int n) // zeros where the input has ended
    {
        QByteArray out(qMax(n, 0), '\0');
        for (int i = 0; i < out.size() && n_ > 0; ++i)
            out[i] = char(byte());
        return out;
    }
    QString text() // Latin-1 or UTF-8, up to 47 bytes
    {
        const int length = byte() % 48;
        return length % 2 ? QString::fromUtf8(bytes(length)) : QString::fromLatin1(bytes(length));
    }
    QString regName() // of the family, a near miss or any text
    {
        static const char *const nearMisses[] = {"D_bit", "V_bit", "Z_bit", "TC_bit", "200CC_bit", "X_bit", "M_bit",
                                                 "",      "_bit",  "D_",    "D_x_bit", "d",        "Q",     " D",
                                                 "D ",    "%1",    "256CC_", "C_bit",  "CC_bit_bit"};
        const int selector = byte() % 48;
        if (selector < 38)
            return QString::fromLatin1(selector < 19 ? REGISTERS[selector].name : nearMisses[selector - 19]);
        const QString name = text();
        // The driver's own reports use these names at station -1.
        return name == QLatin1String("RWI") || name == QLatin1String("-1") ? name + QLatin1Char('x') : name;
    }
};

inline const RegisterInfo *findRegister(const QString &name) // 0 outside the family
{
    for (const RegisterInfo &r : REGISTERS)
        if (name == QLatin1String(r.name))
            return &r;
    return nullptr;
}
inline int widthOf(const QString &name) { return findRegister(name) ? findRegister(name)->width : 16; }

// 1: bits of 16-bit words ("D_bit"); -1: a bit-in-word name the driver
// refuses (of a bit or 32-bit register, or with anything between register
// and suffix); 0: another name.
inline int bitInWordKind(const QString &name)
{
    if (name.size() <= 4 || !name.endsWith(QLatin1String("_bit")))
        return 0;
    const QString word = name.left(name.size() - 4);
    return !word.contains(QLatin1Char('_')) && widthOf(word) == 16 ? 1 : -1;
}

// A refused bit-in-word name, or a negative bit number.
inline bool refusedBits(const QString &name, int address)
{
    return bitInWordKind(name) < 0 || (bitInWordKind(name) > 0 && address < 0);
}

// Bytes of the values buffer for length units: a byte per bit, two per word,
// and for 32-bit registers (length counting words) four per whole value read,
// two per word written. None for a refused bit-in-word name.
inline int valueBytes(const QString &name, int length, bool reading)
{
    const int kind = bitInWordKind(name), width = widthOf(name);
    if (length < 1 || kind < 0)
        return 0;
    return kind > 0 || width == 1 ? length : width == 32 && reading ? 4 * (length / 2) : 2 * length;
}

inline qint64 unitsNamed(qint64 length) // the driver bounds every range to 65536 units
{
    return length <= 0 ? 0 : qMin<qint64>(length, MAX_RANGE_UNITS);
}

// --- the runtime's side ---------------------------------------------------

enum { RECIPE_BUFFER_WORDS = 32768 };

inline bool readBack = false, inCallback = false, callbackOn = false;
inline std::function<void()> nested; // run once, from the next report
inline int depth = 0;                // of calls into the driver
inline qint64 allowance = 0, reports = 0; // units named and reports made since the outermost call began
// The batch as the runtime sees it: an end report is owed while Open; Unseen
// when the callback was off, so that its end may pass unheard.
enum class Batch { Closed, Open, Unseen };
inline Batch batch = Batch::Closed;
inline bool resendDue = false; // a frame that got a bad reply comes out again unchanged
inline FRAME_PRO resendFrame;

// Work per input, in units named, each piece a write or condition read is cut
// into counting 30 (it costs a scan of its queue): one input stays well
// within a second under the sanitizers. A call past it is skipped.
inline qint64 spent = 0;
inline bool spend(qint64 units)
{
    if (spent + units > 150000)
        return false;
    spent += units;
    return true;
}

// Runs one call into the driver and checks around it: afterwards the cache
// has grown by at most the units the call named (nested calls from the
// callback add theirs), both job queues are within 513, no queued job carries
// a bit-in-word name (bits go as the words holding them), every planned read
// and recipe block is of 1 to 128 units, the callback was called a bounded
// number of times and the call returned in time.
template <class Call>
int checked(const char *what, qint64 units, Call call)
{
    static const char *limit = getenv("KQ71_FUZZ_CALL_SECONDS");
    const qint64 cacheBefore = driver.dataAreas.size();
    const auto start = std::chrono::steady_clock::now();
    if (depth++ == 0)
        allowance = reports = 0;
    allowance += units;
    const int result = call();
    if (--depth > 0)
        return result;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    FUZZ_CHECK(driver.dataAreas.size() - cacheBefore <= allowance, "%s: %lld units named", what, allowance);
    FUZZ_CHECK(qMax(driver.writeJobs.size(), driver.conditionReads.size()) <= MAX_QUEUED_JOBS, "%s", what);
    for (const QList<VARIABLE> *queue : {&driver.writeJobs, &driver.conditionReads, &driver.cyclicReads})
        for (const VARIABLE &v : *queue)
            FUZZ_CHECK(bitInWordKind(v.regName) == 0 && (queue != &driver.cyclicReads ||
                                                         (v.length >= 1 && v.length <= MAX_BLOCK_UNITS)),
                       "%s queued %d of %s", what, v.length, qPrintable(v.regName));
    for (const _RCP_VAR_PRO &b : driver.rcpBlocks)
        FUZZ_CHECK(b.length >= 1 && b.length <= MAX_BLOCK_UNITS, "%s planned %d units", what, b.length);
    // Each unit once as a value and at most twice per recipe item that places
    // it in the recipe buffer, plus the end of a batch.
    FUZZ_CHECK(reports <= (allowance + 2) * (2 * qMax<qint64>(driver.rcpItems.size(), 64) + 1), "%s", what);
    FUZZ_CHECK(seconds <= (limit ? atof(limit) : 5.0), "%s took %.1f s", what, seconds);
    return result;
}

// A buffer of exactly the contract's size, or none. Units the callback reads
// back do not count against the work budget.
inline void getData(int station, QString name, int address, int length, bool withBuffer, bool budgeted = true)
{
    const qint64 units = unitsNamed(length);
    if (budgeted && !spend(units))
        return;
    auto *values = withBuffer ? static_cast<unsigned char *>(malloc(size_t(valueBytes(name, length, true)))) : nullptr;
    const int result =
        checked("intf_getData", units, [&] { return intf_getData(station, &name, address, length, values); });
    FUZZ_CHECK(result == (withBuffer && !refusedBits(name, address)), "%d for %s", result, qPrintable(name));
    // Bits in words read as 0 or 1, for each bit the call names: at most
    // 65536, none past the last address.
    const qint64 bits = result == 1 && bitInWordKind(name) > 0 ? qMin(units, qint64(INT_MAX) - address + 1) : 0;
    for (qint64 i = 0; i < bits; ++i)
        FUZZ_CHECK(values[i] <= 1, "%d for bit %lld of %s", values[i], i, qPrintable(name));
    free(values);
}

// The callback: checks its arguments (a unit of this device, the end of an
// open batch, or a recipe word inside the recipe buffer), then reads the unit
// back or makes the nested call when asked.
inline void valueChanged(int deviceId, int station, const QString &regName, int address)
{
    ++reports;
    const bool batchEnd = deviceId == -1 && station == -1 && regName == QLatin1String("-1");
    const bool recipeWord = deviceId == 0 && station == -1 && regName == QLatin1String("RWI");
    FUZZ_CHECK(!batchEnd || ((address == 0 || address == -1) && batch != Batch::Closed), "batch end %d", address);
    FUZZ_CHECK(!recipeWord || (address >= 0 && address < RECIPE_BUFFER_WORDS), "recipe word %d", address);
    if (batchEnd)
        batch = Batch::Closed;
    if (batchEnd || recipeWord)
        return;
    FUZZ_CHECK(deviceId == driver.deviceId && !refusedBits(regName, address), "%s%d", qPrintable(regName), address);
    if (inCallback)
        return;
    inCallback = true;
    if (readBack) // as a runtime does: read the value reported, from inside the report
        getData(station, regName, address, widthOf(regName) == 32 ? 2 : 1, true, false);
    if (const std::function<void()> call = std::exchange(nested, nullptr))
        call();
    inCallback = false;
}

// 0 none, 1 checking its arguments, 2 also reading each reported unit back.
inline void setCallback(int mode)
{
    intf_setAddrValueChangeCallBack(mode ? &valueChanged : nullptr);
    callbackOn = mode != 0;
    readBack = mode == 2;
    if (!callbackOn && batch == Batch::Open)
        batch = Batch::Unseen;
}

// Shared memory of exactly KQ71_SHARED_MEM_MIN bytes and a 64 KiB recipe
// buffer on the heap, so that an access past either end is reported. The
// driver is put back to its state after load on construction and again on
// destruction, so that no pointer to the freed buffers stays behind; Qt's
// messages (a debug line per job) are dropped meanwhile.
struct Runtime {
    unsigned char *sharedMem = static_cast<unsigned char *>(calloc(KQ71_SHARED_MEM_MIN, 1));
    unsigned char *recipeBuf = static_cast<unsigned char *>(calloc(2 * RECIPE_BUFFER_WORDS, 1));
    QMutex mutex;
    kq71test::MessageSink previousSink = kq71test::installMessageSink([](QtMsgType, const QString &) {});

    Runtime() { reset(); }
    Runtime(const Runtime &) = delete;
    ~Runtime()
    {
        reset();
        kq71test::installMessageSink(previousSink);
        free(sharedMem);
        free(recipeBuf);
    }
    static void reset()
    {
        ServiceLock lock;
        driver.resetAll();
        batch = Batch::Closed;
        callbackOn = readBack = resendDue = false;
        nested = nullptr;
        spent = 0;
    }
    void init(const char *property)
    {
        int status = -1;
        const int result = checked("intf_initProperty", 0, [&] {
            return intf_initProperty(sharedMem, nullptr, recipeBuf, &status, property, &mutex);
        });
        FUZZ_CHECK(result == 1 && status == 0 && driver.cyclicReads.isEmpty() && driver.writeJobs.isEmpty() &&
                       driver.conditionReads.isEmpty() && driver.dataAreas.isEmpty() && driver.frameQueue.isEmpty(),
                   "%d, status %d", result, status);
        batch = Batch::Closed; // the queue is gone, and with it the batch
        resendDue = false;
    }
    void setRecipeFlags(unsigned char write, unsigned char read)
    {
        QMutexLocker guard(&mutex);
        sharedMem[KQ71_RECIPE_WRITE_FLAG] = write;
        sharedMem[KQ71_RECIPE_READ_FLAG] = read;
    }
};

// --- entry points with their results checked, each skipped past the budget --

// Units named by a list of keys or recipe items.

// The budget for a write or condition read: its units and the jobs it is cut
// into, at most (V and Z, word by word: one per unit).
inline bool spendQueued(qint64 units, bool wordByWord)
{
    const qint64 words = driver.maxWordsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxWordsPerPiece;
    const qint64 bits = driver.maxBitsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxBitsPerPiece;
    const qint64 piece = wordByWord ? 1 : qMin(words, bits);
    return spend(units + 30 * ((units + piece - 1) / piece));
}

inline void watch(QList<KEY_ADDRESS> keys)
{
    qint64 units = 0;
    for (const KEY_ADDRESS &k : keys)
        units += unitsNamed(k.length);
    if (!spend(units))
        return;
    const int jobs = checked("intf_addrMerge", units, [&] { return intf_addrMerge(&keys); });
    FUZZ_CHECK(jobs == driver.cyclicReads.size(), "%d for %d cyclic reads", jobs, driver.cyclicReads.size());
}

// Opens a batch that must end exactly once, also for a key that names no unit.
inline void condition(KEY_ADDRESS k, int id)
{
    const qint64 units = unitsNamed(k.length);
    const int before = driver.conditionReads.size();
    if (!spendQueued(units, false))
        return;
    const int result = checked("intf_addConditionRead", units, [&] { return intf_addConditionRead(&k, id); });
    FUZZ_CHECK(result == 1 && (!refusedBits(k.regName, k.address) || driver.conditionReads.size() == before), "%d",
               result);
    batch = callbackOn ? Batch::Open : Batch::Unseen;
}

inline void recipe(QVector<_RCP_VAR_PRO> items)
{
    qint64 units = 0, mine = 0;
    for (const _RCP_VAR_PRO &item : items) {
        units += unitsNamed(item.length);
        mine += item.deviceId == driver.deviceId;
    }
    if (!spend(units))
        return;
    const int kept = checked("intf_setRcpAddress", units, [&] { return intf_setRcpAddress(&items); });
    FUZZ_CHECK(kept == mine, "kept %d of %lld items of this device", kept, mine);
}

inline void setData(int station, QString name, int address, int length, const QByteArray &bytes, bool withBuffer,
                    int id)
{
    const qint64 units = unitsNamed(length);
    const QString word = bitInWordKind(name) > 0 ? name.left(name.size() - 4) : name;
    if (!spendQueued(units, word == QLatin1String("V") || word == QLatin1String("Z")))
        return;
    auto *values = withBuffer ? static_cast<unsigned char *>(malloc(size_t(bytes.size()))) : nullptr;
    if (values)
        memcpy(values, bytes.constData(), size_t(bytes.size()));
    const int result =
        checked("intf_setData", units, [&] { return intf_setData(station, &name, address, length, values, id); });
    FUZZ_CHECK(result == (refusedBits(name, address) ? 0 : withBuffer || length <= 0), "%s", qPrintable(name));
    free(values);
}

// --- frames and replies ---------------------------------------------------

// The tests' own CRC, independent of the driver's.
inline QByteArray withCrc(QByteArray b)
{
    unsigned crc = 0xFFFF;
    for (const char c : b) {
        crc ^= uchar(c);
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return b.append(char(crc & 0xFF)).append(char(crc >> 8));
}

// intf_getSendFrame; false when nothing is to be sent. A frame handed out has
// sendLen in [0, 1024] and what its own bytes imply, recvLen what its request
// implies, its CRC, its station and the fields that go with its function.
inline bool nextFrame(FRAME_PRO &f)
{
    const int result = checked("intf_getSendFrame", 0, [&] { return intf_getSendFrame(&f); });
    FUZZ_CHECK(result == 0 || result == 1, "%d", result);
    FUZZ_CHECK(!resendDue || (result == 1 && f.sendLen == resendFrame.sendLen && f.recvLen == resendFrame.recvLen &&
                              f.itemCount == resendFrame.itemCount && !memcmp(f.frame, resendFrame.frame, f.sendLen)),
               "the frame that got a bad reply was not handed out again");
    resendDue = false;
    if (result == 0)
        return false;
    // The handshake sends nothing and awaits nothing.
    FUZZ_CHECK(f.sendLen >= 0 && f.sendLen <= KQ71_FRAME_BYTES && f.recvLen >= 0 && (f.sendLen > 0 || f.recvLen == 0) &&
                   f.reserved == 0, "sendLen %d, recvLen %d", f.sendLen, f.recvLen);
    if (f.sendLen == 0)
        return true;
    const unsigned char *q = f.frame;
    const int function = q[1], count = q[4] << 8 | q[5];
    const bool read = function == 0x01 || function == 0x03, multiple = function == 0x0F || function == 0x10;
    const int dataBytes = function == 0x01 || function == 0x0F ? (count + 7) / 8 : 2 * count;
    const QByteArray bytes(reinterpret_cast<const char *>(q), f.sendLen);
    // The functions' data byte count (a bit value FF00 or 0000), lengths, CRC and station.
    FUZZ_CHECK((read || multiple || function == 0x05 || function == 0x06) &&
                   (!multiple || q[6] == (dataBytes & 0xFF)) &&
                   (function != 0x05 || ((q[4] == 0xFF || q[4] == 0) && q[5] == 0)) &&
                   f.sendLen == (multiple ? 9 + dataBytes : 8) && f.recvLen == (read ? 5 + dataBytes : 8) &&
                   withCrc(bytes.left(f.sendLen - 2)) == bytes && q[0] == (f.var.station & 0xFF),
               "function %02X of %d units: sendLen %d, recvLen %d", function, count, f.sendLen, f.recvLen);
    FUZZ_CHECK(read ? (f.dataPos == 3 && f.itemCount == f.var.length && f.itemCount >= 1)
                    : (f.dataPos == 0 && f.itemCount == 0), "dataPos %d, itemCount %d", f.dataPos, f.itemCount);
    return true;
}

// The correct reply to a frame (read: data bytes from the input).
inline QByteArray goodReply(Input &in, const FRAME_PRO &f)
{
    if (f.sendLen < 8)
        return QByteArray();
    if (f.frame[1] != 0x01 && f.frame[1] != 0x03)
        return withCrc(QByteArray(reinterpret_cast<const char *>(f.frame), 6));
    const int data = f.recvLen - 5;
    return withCrc(QByteArray(reinterpret_cast<const char *>(f.frame), 2).append(char(data & 0xFF)) + in.bytes(data));
}

// intf_dealRcvFrame with argument shapes from the input (no reply, no text, a
// text filled beforehand). Its result is 1 exactly when the reply answers the
// frame that is out, and its error text names that frame's job.
inline int deal(Input &in, QByteArray reply, const FRAME_PRO *f, bool wellFormed)
{
    const uint8_t shape = in.byte() % 8;
    const bool noReply = shape == 1, noText = shape == 2;
    QString text = shape == 3 ? in.text() : QString(); // whatever the string held before
    const bool pending = !driver.frameQueue.isEmpty();
    const FRAME_PRO head = pending ? driver.frameQueue.first() : FRAME_PRO();
    // Good is exactly: as long as the request awaits, with its CRC, from the
    // station and for the function asked; a read reply with its byte count
    // (modulo 256) and not the request echoed. Nothing else is decoded.
    const QByteArray seen = noReply ? QByteArray() : reply;
    const int n = seen.size();
    const unsigned char *s = reinterpret_cast<const unsigned char *>(seen.constData());
    const bool good = pending && n == head.recvLen && n >= 5 && withCrc(seen.left(n - 2)) == seen &&
                      s[0] == head.frame[0] && s[1] == head.frame[1] &&
                      ((head.frame[1] != 0x01 && head.frame[1] != 0x03) ||
                       (s[2] == ((n - 5) & 0xFF) &&
                        seen != QByteArray::fromRawData(reinterpret_cast<const char *>(head.frame), head.sendLen)));
    const int result = checked("intf_dealRcvFrame", unitsNamed(head.var.length),
                               [&] { return intf_dealRcvFrame(noReply ? nullptr : &reply, noText ? nullptr : &text); });
    FUZZ_CHECK(pending || (result == 0 && (noText || text.isEmpty())), "%d, \"%s\"", result, qPrintable(text));
    if (!pending)
        return result;
    FUZZ_CHECK((result == 1 || result == 2 || result == 8) && (result == 1) == good && (good || !wellFormed || noReply),
               "%d for %d bytes, %d awaited", result, n, head.recvLen);
    // The error text names the job that was out; its form is pinned by the unit tests.
    FUZZ_CHECK(noText || (text.startsWith(QString::number(head.var.station) + QLatin1Char('#')) &&
                          text.contains(QString::fromLatin1("(%1)").arg(head.var.length))),
               "\"%s\"", qPrintable(text));
    if ((resendDue = result == 8 && f))
        resendFrame = *f;
    return result;
}

// Answers the frame handed out last (none: f is 0) with a reply chosen by the
// input: raw bytes of up to 1099, a correct reply with or without one flaw,
// an exception reply, or bytes of exactly the length awaited; the driver must
// take a correct one.
inline int answer(Input &in, const FRAME_PRO *f)
{
    const uint8_t raw = in.byte(), kind = raw % 4, flaw = (raw >> 2) % 4;
    const bool request = f && f->sendLen >= 8;
    QByteArray reply = kind == 1 && request ? goodReply(in, *f) : QByteArray();
    if (kind == 0) { // any bytes, from nothing to more than a frame holds
        reply = in.bytes(in.u16() % 1100);
    } else if (kind == 1 && !request) {
        reply = in.bytes(in.byte());
    } else if (kind == 1 && flaw == 1) { // one byte changed
        const int at = in.u16() % reply.size();
        reply[at] = char(reply.at(at) ^ (in.byte() | 1));
    } else if (kind == 1 && flaw == 2) { // a few bytes short or too many
        const int delta = in.below(9) - 4;
        reply = delta < 0 ? reply.left(reply.size() + delta) : reply + in.bytes(delta == 0 ? 1 : delta);
    } else if (kind == 2) { // an exception reply
        reply.append(char(request ? f->frame[0] : in.byte()));
        reply.append(char((request ? f->frame[1] : in.byte()) | 0x80));
        reply = withCrc(reply.append(char(in.byte())));
    } else if (kind == 3) { // exactly as long as awaited, with a CRC that holds or not
        reply = in.bytes(f ? qBound(0, f->recvLen, 70000) : in.byte());
        if (flaw % 2 && reply.size() >= 2)
            reply = withCrc(reply.left(reply.size() - 2));
    }
    return deal(in, reply, f, kind == 1 && request && flaw % 3 == 0);
}

// Answered well, the exchange works off every write and condition read (and,
// given the runtime, every recipe transfer its flags ask for) within bound
// frames, and the open batch ends. Only a run of writes with no cyclic read
// to take turns with may pause, once. The bound: both queues full, a cyclic
// read between runs, every recipe block written and read (V and Z a frame per
// word), as a nested call from a report may still fill the queues meanwhile.
inline void drain(Input &in, const Runtime *runtime)
{
    const qint64 bound = 6 * qint64(MAX_QUEUED_JOBS) + 2 * (MAX_BLOCK_UNITS + 2) * qint64(driver.rcpBlocks.size()) + 64;
    const auto flag = [runtime](int offset) { return runtime ? runtime->sharedMem[offset] : 0; };
    const auto busy = [&] {
        return !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() || batch == Batch::Open ||
               flag(KQ71_RECIPE_WRITE_FLAG) || flag(KQ71_RECIPE_READ_FLAG);
    };
    for (qint64 i = 0, idle = 0; i < bound && busy(); ++i) {
        FRAME_PRO f;
        if (nextFrame(f)) {
            idle = 0;
            deal(in, goodReply(in, f), &f, true);
        } else if (++idle > 1 || !driver.cyclicReads.isEmpty()) {
            break;
        }
    }
    FUZZ_CHECK(!busy(), "%d writes, %d condition reads, batch %d left", driver.writeJobs.size(),
               driver.conditionReads.size(), int(batch));
}

} // namespace kq71fuzz

#endif
