#include "fuzz_support.h"

#include "driver_internals.h"
#include "../tests/qt_compat.h"

#include <QtCore/QMutexLocker>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kq71fuzz {

namespace {

const char *inputName = 0;

// Values at which lengths, counts and addresses change meaning somewhere.
const int BOUNDARY_VALUES[] = {
    0, 1, -1, 2, -2, 7, 8, 9, 15, 16, 17, 31, 32, 127, 128, 129, 199, 200, 255, 256, 257, 377, 506, 507, 508, 511,
    512, 513, 1023, 1024, 1025, 4095, 4096, 7999, 8000, 8001, 8191, 8192, 9999, 10000, 32767, 32768, 65535, 65536,
    65537, 70000, -65536, 1073741823, 1073741824, 2147483520, 2147483646, 2147483647, -2147483647 - 1, -2147483647};

// A call that takes longer than this (seconds) counts as one that does not return.
const double CALL_LIMIT = [] {
    const char *text = getenv("KQ71_FUZZ_CALL_SECONDS");
    return text && atof(text) > 0 ? atof(text) : 5.0;
}();

// Work per input: units named, each piece a write or condition read is cut
// into counting 30 (it costs a scan of its queue), so that one input stays
// well within a second under the sanitizers.
const qint64 WORK_BUDGET = 150000, UNITS_PER_PIECE = 30;
qint64 spent = 0;

kq71test::MessageSink previousSink = nullptr;

// The callback's options and the nested call it runs once.
bool readBack = false, inCallback = false, callbackOn = false;
std::function<void()> nested;

// Accounting of the outermost call in progress.
int depth = 0;
qint64 allowance = 0; // units the outermost call and its nested calls named
qint64 reports = 0;

int generation = 0;
// The batch as the runtime sees it: an end report is owed while Open; Unseen
// when the callback was off, so that its end may pass unheard.
enum class Batch { Closed, Open, Unseen } batch = Batch::Closed;
// A frame that got a bad reply comes out again unchanged.
bool resendDue = false;
FRAME_PRO resendFrame;

// The tests' own CRC, independent of the driver's.
unsigned crc16(const unsigned char *bytes, long long count)
{
    unsigned crc = 0xFFFF;
    for (long long i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

void appendCrc(QByteArray &b)
{
    const unsigned crc = crc16(reinterpret_cast<const unsigned char *>(b.constData()), b.size());
    b.append(char(crc & 0xFF)).append(char(crc >> 8));
}

// How error texts name a job: a Z job at an odd address is the V register it
// shares the cell with.
QString jobText(const VARIABLE &v)
{
    QString place = v.regName + QString::number(v.address);
    if (v.regName == QLatin1String("Z"))
        place = v.address % 2 == 1 ? QLatin1Char('V') + QString::number((v.address - 1) / 2)
                                   : QLatin1Char('Z') + QString::number(v.address / 2);
    return QString::number(v.station) + QLatin1Char('#') + place + QLatin1Char('(') + QString::number(v.length) +
           QLatin1Char(')');
}

// The calls a bit-in-word name refuses: one the driver does not take, or a
// negative bit number.
bool refusedBits(const QString &name, int address)
{
    const int kind = bitInWordKind(name);
    return kind < 0 || (kind > 0 && address < 0);
}

// Jobs a write or condition read of this many units is cut into, at most.
qint64 piecesOf(qint64 units, bool wordByWord)
{
    if (units <= 0 || wordByWord)
        return qMax<qint64>(units, 0);
    const qint64 words = driver.maxWordsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxWordsPerPiece;
    const qint64 bits = driver.maxBitsPerPiece < 1 ? MAX_BLOCK_UNITS : driver.maxBitsPerPiece;
    return (units + qMin(words, bits) - 1) / qMin(words, bits);
}

// No queued job carries a bit-in-word name (bits are read and written as the
// words holding them), and every planned read or recipe block is of 1 to 128
// units.
void checkJobs(const char *what)
{
    const QList<VARIABLE> *queues[] = {&driver.writeJobs, &driver.conditionReads, &driver.cyclicReads};
    for (const QList<VARIABLE> *queue : queues)
        for (const VARIABLE &v : *queue)
            if (bitInWordKind(v.regName) != 0)
                fail("%s queued a job of %s", what, qPrintable(v.regName));
    for (const VARIABLE &v : driver.cyclicReads)
        if (v.length < 1 || v.length > MAX_BLOCK_UNITS)
            fail("%s planned a read of %d units", what, v.length);
    for (const _RCP_VAR_PRO &b : driver.rcpBlocks)
        if (b.length < 1 || b.length > MAX_BLOCK_UNITS)
            fail("%s planned a recipe block of %d units", what, b.length);
}

void valueChanged(int deviceId, int station, const QString &regName, int address)
{
    ++reports;
    if (deviceId == -1 && station == -1 && regName == QLatin1String("-1")) {
        if ((address != 0 && address != -1) || batch == Batch::Closed)
            fail("callback: end (%d) of a condition-read batch that is not open, or ended twice", address);
        batch = Batch::Closed;
        return;
    }
    if (deviceId == 0 && station == -1 && regName == QLatin1String("RWI")) {
        if (address < 0 || address >= RECIPE_BUFFER_WORDS)
            fail("callback: recipe word %d outside the recipe buffer", address);
        return;
    }
    if (deviceId != driver.deviceId)
        fail("callback: device %d reported (%d, %s, %d), this driver is %d", deviceId, station,
             qPrintable(regName), address, driver.deviceId);
    if (inCallback)
        return;
    inCallback = true;
    if (readBack) {
        // A runtime reads the value the report is about, from inside the report.
        const RegisterInfo *r = findRegister(regName);
        const int length = r && r->width == 32 ? 2 : 1;
        unsigned char *values = static_cast<unsigned char *>(malloc(size_t(getDataBytes(regName, length))));
        QString name = regName;
        {
            CallCheck check("intf_getData in the callback", length);
            if (intf_getData(station, &name, address, length, values) != 1)
                fail("intf_getData in the callback did not return 1 for %s", qPrintable(regName));
        }
        free(values);
    }
    if (nested) {
        const std::function<void()> call = nested;
        nested = nullptr;
        call();
    }
    inCallback = false;
}

// A frame handed out: sendLen in [0, 1024] and what its own bytes imply,
// recvLen what its request implies, the CRC, the station and the fields that
// go with its function.
void checkFrame(const FRAME_PRO &f)
{
    if (f.sendLen < 0 || f.sendLen > KQ71_FRAME_BYTES || f.recvLen < 0 || f.reserved != 0)
        fail("frame: sendLen %d, recvLen %d, reserved %d", f.sendLen, f.recvLen, f.reserved);
    if (f.sendLen == 0) { // the handshake: nothing to send, nothing awaited
        if (f.recvLen != 0)
            fail("frame: empty request awaits %d bytes", f.recvLen);
        return;
    }
    const unsigned char *q = f.frame;
    const int function = q[1], count = q[4] << 8 | q[5];
    const bool read = function == 0x01 || function == 0x03, multiple = function == 0x0F || function == 0x10;
    if (!read && !multiple && function != 0x05 && function != 0x06)
        fail("frame: function %02X, sendLen %d", function, f.sendLen);
    const int dataBytes = function == 0x01 || function == 0x0F ? (count + 7) / 8 : 2 * count;
    const int request = multiple ? 9 + dataBytes : 8, reply = read ? 5 + dataBytes : 8;
    if (multiple && q[6] != (dataBytes & 0xFF))
        fail("frame: function %02X of %d units says %d bytes", function, count, q[6]);
    if (function == 0x05 && !((q[4] == 0xFF || q[4] == 0) && q[5] == 0))
        fail("frame: bit value %02X %02X", q[4], q[5]);
    if (f.sendLen != request || f.recvLen != reply)
        fail("frame: function %02X count %d: sendLen %d and recvLen %d, its bytes imply %d and %d", function, count,
             f.sendLen, f.recvLen, request, reply);
    const unsigned crc = crc16(q, f.sendLen - 2);
    if (q[f.sendLen - 2] != (crc & 0xFF) || q[f.sendLen - 1] != (crc >> 8) || q[0] != (f.var.station & 0xFF))
        fail("frame: function %02X: wrong CRC or station byte %d for station %d", function, q[0], f.var.station);
    if (read ? (f.dataPos != 3 || f.itemCount != f.var.length || f.itemCount < 1) : (f.dataPos != 0 || f.itemCount != 0))
        fail("frame: function %02X with dataPos %d, itemCount %d, job length %d", function, f.dataPos, f.itemCount,
             f.var.length);
}

} // namespace

void fail(const char *format, ...)
{
    fprintf(stderr, "kq71 fuzz: invariant broken: ");
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fprintf(stderr, "\n");
    if (inputName)
        fprintf(stderr, "kq71 fuzz: input %s\n", inputName);
    fflush(stderr);
    abort();
}

void setInputName(const char *name)
{
    inputName = name;
}

// --- input ---------------------------------------------------------------

int Input::number()
{
    switch (byte() % 4) {
    case 0:
        return byte();
    case 1:
        return BOUNDARY_VALUES[byte() % (sizeof(BOUNDARY_VALUES) / sizeof(BOUNDARY_VALUES[0]))];
    case 2: {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v |= uint32_t(byte()) << (8 * i);
        return int32_t(v);
    }
    default:
        return -int(byte());
    }
}

QByteArray Input::bytes(int n)
{
    QByteArray out(qMax(n, 0), '\0');
    for (int i = 0; i < out.size() && n_ > 0; ++i)
        out[i] = char(byte());
    return out;
}

QString Input::text()
{
    const int length = byte() % 48;
    const QByteArray raw = bytes(length);
    return length % 2 ? QString::fromUtf8(raw) : QString::fromLatin1(raw);
}

QString Input::regName()
{
    static const char *const nearMisses[] = {"D_bit", "V_bit", "Z_bit", "TC_bit", "200CC_bit", "X_bit", "M_bit",
                                             "",      "_bit",  "D_",    "D_x_bit", "d",        "Q",     " D",
                                             "D ",    "%1",    "256CC_", "C_bit",  "CC_bit_bit"};
    const int selector = byte() % 48, misses = sizeof(nearMisses) / sizeof(nearMisses[0]);
    if (selector < 19 + misses)
        return QString::fromLatin1(selector < 19 ? REGISTERS[selector].name : nearMisses[selector - 19]);
    const QString name = text();
    // The driver's own reports use these names at station -1.
    return name == QLatin1String("RWI") || name == QLatin1String("-1") ? name + QLatin1Char('x') : name;
}

// --- the register family --------------------------------------------------

const RegisterInfo REGISTERS[19] = {
    {"X", 1, 0, 0377, 8},        {"Y", 1, 0, 0377, 8},         {"S", 1, 0, 9999, 10},     {"M", 1, 0, 9999, 10},
    {"T", 1, 0, 9999, 10},       {"C", 1, 0, 199, 10},         {"200C", 1, 200, 255, 10}, {"256C", 1, 256, 9999, 10},
    {"D", 16, 0, 9999, 10},      {"V", 16, 0, 9999, 10},       {"Z", 16, 0, 9999, 10},    {"TC", 16, 0, 9999, 10},
    {"TP", 16, 0, 9999, 10},     {"CC", 16, 0, 199, 10},       {"CP", 16, 0, 199, 10},    {"200CC", 32, 200, 255, 10},
    {"200CP", 32, 200, 255, 10}, {"256CC", 32, 256, 9999, 10}, {"256CP", 32, 256, 9999, 10},
};

const RegisterInfo *findRegister(const QString &name)
{
    for (const RegisterInfo &r : REGISTERS)
        if (name == QLatin1String(r.name))
            return &r;
    return 0;
}

int bitInWordKind(const QString &name)
{
    if (name.size() <= 4 || !name.endsWith(QLatin1String("_bit")))
        return 0;
    const QString word = name.left(name.size() - 4);
    const RegisterInfo *r = findRegister(word);
    return !word.contains(QLatin1Char('_')) && (r ? r->width : 16) == 16 ? 1 : -1;
}

int getDataBytes(const QString &name, int length)
{
    const RegisterInfo *r = findRegister(name);
    const int width = r ? r->width : 16;
    if (length < 1 || bitInWordKind(name) < 0)
        return 0;
    return bitInWordKind(name) > 0 || width == 1 ? length : width == 32 ? 4 * (length / 2) : 2 * length;
}

int setDataBytes(const QString &name, int length)
{
    const RegisterInfo *r = findRegister(name);
    if (length < 1 || bitInWordKind(name) < 0)
        return 0;
    return bitInWordKind(name) > 0 || (r && r->width == 1) ? length : 2 * length;
}

qint64 unitsNamed(qint64 length)
{
    return length <= 0 ? 0 : qMin<qint64>(length, MAX_RANGE_UNITS);
}

// --- the runtime's side ---------------------------------------------------

static void resetDriver()
{
    {
        ServiceLock lock;
        driver.resetAll();
    }
    ++generation;
    batch = Batch::Closed;
    callbackOn = readBack = resendDue = false;
    nested = nullptr;
    spent = 0;
}

Runtime::Runtime()
    : sharedMem(static_cast<unsigned char *>(calloc(KQ71_SHARED_MEM_MIN, 1))),
      recipeBuf(static_cast<unsigned char *>(calloc(2 * RECIPE_BUFFER_WORDS, 1)))
{
    previousSink = kq71test::installMessageSink([](QtMsgType, const QString &) {});
    resetDriver();
}

Runtime::~Runtime()
{
    resetDriver();
    kq71test::installMessageSink(previousSink);
    free(sharedMem);
    free(recipeBuf);
}

void Runtime::init(const char *property)
{
    CallCheck check("intf_initProperty", 0);
    int status = -1;
    const int result = intf_initProperty(sharedMem, 0, recipeBuf, &status, property, &mutex);
    if (result != 1 || status != 0)
        fail("intf_initProperty returned %d with status %d", result, status);
    if (!driver.cyclicReads.isEmpty() || !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() ||
        !driver.dataAreas.isEmpty() || !driver.frameQueue.isEmpty())
        fail("intf_initProperty left jobs or cache behind");
    ++generation;
    batch = Batch::Closed; // the queue is gone, and with it the batch
    resendDue = false;
}

void Runtime::setRecipeFlags(unsigned char write, unsigned char read)
{
    QMutexLocker guard(&mutex);
    sharedMem[KQ71_RECIPE_WRITE_FLAG] = write;
    sharedMem[KQ71_RECIPE_READ_FLAG] = read;
}

CallCheck::CallCheck(const char *what, qint64 units)
    : what_(what), cacheBefore_(driver.dataAreas.size()), start_(std::chrono::steady_clock::now())
{
    if (depth++ == 0)
        allowance = reports = 0;
    allowance += units;
}

CallCheck::~CallCheck()
{
    if (--depth > 0)
        return;
    const qint64 grown = qint64(driver.dataAreas.size()) - cacheBefore_;
    if (grown > allowance)
        fail("%s: the cache grew by %lld units, the calls named %lld", what_, grown, allowance);
    if (driver.writeJobs.size() > MAX_QUEUED_JOBS || driver.conditionReads.size() > MAX_QUEUED_JOBS)
        fail("%s: %d writes and %d condition reads queued", what_, driver.writeJobs.size(),
             driver.conditionReads.size());
    // Each unit is reported once as a value and at most twice per recipe item
    // that places it in the recipe buffer, plus the end of a batch.
    const qint64 items = qMax<qint64>(driver.rcpItems.size(), 64);
    if (reports > (allowance + 2) * (2 * items + 1))
        fail("%s: %lld reports for %lld units", what_, reports, allowance);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    if (seconds > CALL_LIMIT)
        fail("%s: the call took %.1f s", what_, seconds);
}

void setCallback(int mode)
{
    intf_setAddrValueChangeCallBack(mode ? &valueChanged : 0);
    callbackOn = mode != 0;
    readBack = mode == 2;
    if (!callbackOn && batch == Batch::Open)
        batch = Batch::Unseen;
}

void setNestedCall(const std::function<void()> &call)
{
    nested = call;
}

// --- checked calls --------------------------------------------------------

bool spend(qint64 units)
{
    if (spent + units > WORK_BUDGET)
        return false;
    spent += units;
    return true;
}

void watch(QList<KEY_ADDRESS> keys)
{
    qint64 units = 0;
    for (const KEY_ADDRESS &k : keys)
        units += unitsNamed(k.length);
    if (!spend(units))
        return;
    CallCheck check("intf_addrMerge", units);
    const int jobs = intf_addrMerge(&keys);
    if (jobs != driver.cyclicReads.size())
        fail("intf_addrMerge returned %d for %d cyclic reads", jobs, driver.cyclicReads.size());
    checkJobs("intf_addrMerge");
}

void condition(KEY_ADDRESS k, int id)
{
    const qint64 units = unitsNamed(k.length);
    if (!spend(units + UNITS_PER_PIECE * piecesOf(units, false)))
        return;
    const int before = driver.conditionReads.size();
    CallCheck check("intf_addConditionRead", units);
    // Also a key that names no unit opens a batch; it ends at the next frame request.
    if (intf_addConditionRead(&k, id) != 1)
        fail("intf_addConditionRead did not return 1");
    if (refusedBits(k.regName, k.address) && driver.conditionReads.size() != before)
        fail("intf_addConditionRead queued a read of the refused %s", qPrintable(k.regName));
    checkJobs("intf_addConditionRead");
    batch = callbackOn ? Batch::Open : Batch::Unseen;
}

void recipe(QVector<_RCP_VAR_PRO> items)
{
    qint64 units = 0;
    int mine = 0;
    for (const _RCP_VAR_PRO &item : items) {
        units += unitsNamed(item.length);
        mine += item.deviceId == driver.deviceId;
    }
    if (!spend(units))
        return;
    CallCheck check("intf_setRcpAddress", units);
    const int kept = intf_setRcpAddress(&items);
    if (kept != mine)
        fail("intf_setRcpAddress kept %d of %d items of this device", kept, mine);
    checkJobs("intf_setRcpAddress");
}

void getData(int station, QString name, int address, int length, bool withBuffer)
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
        fail("intf_getData returned %d for %s", result, qPrintable(name));
    // Bits in words read as 0 or 1, for each bit the call names: at most
    // 65536, none past the last address.
    const qint64 bits = result == 1 && bitInWordKind(name) > 0 ? qMin(units, qint64(INT_MAX) - address + 1) : 0;
    for (qint64 i = 0; i < bits; ++i)
        if (values[i] > 1)
            fail("intf_getData gave %d for bit %lld of %s", values[i], i, qPrintable(name));
    free(values);
}

void setData(int station, QString name, int address, int length, const QByteArray &bytes, bool withBuffer, int id)
{
    const qint64 units = unitsNamed(length);
    const bool wordByWord = name == QLatin1String("V") || name == QLatin1String("Z") ||
                            name == QLatin1String("V_bit") || name == QLatin1String("Z_bit");
    if (!spend(units + UNITS_PER_PIECE * piecesOf(units, wordByWord)))
        return;
    unsigned char *values = withBuffer ? static_cast<unsigned char *>(malloc(size_t(bytes.size()))) : 0;
    if (values)
        memcpy(values, bytes.constData(), size_t(bytes.size()));
    int result;
    {
        CallCheck check("intf_setData", units);
        result = intf_setData(station, &name, address, length, values, id);
    }
    if (result != (refusedBits(name, address) ? 0 : withBuffer || length <= 0 ? 1 : 0))
        fail("intf_setData returned %d for %s", result, qPrintable(name));
    checkJobs("intf_setData");
    free(values);
}

// --- frames and replies ---------------------------------------------------

int initGeneration()
{
    return generation;
}

bool nextFrame(FRAME_PRO &frame)
{
    int result;
    {
        CallCheck check("intf_getSendFrame", 0);
        result = intf_getSendFrame(&frame);
    }
    if (result != 0 && result != 1)
        fail("intf_getSendFrame returned %d", result);
    if (resendDue && (result != 1 || frame.sendLen != resendFrame.sendLen || frame.recvLen != resendFrame.recvLen ||
                      frame.itemCount != resendFrame.itemCount ||
                      memcmp(frame.frame, resendFrame.frame, size_t(frame.sendLen)) != 0))
        fail("the frame that got a bad reply was not handed out again");
    resendDue = false;
    if (result == 1)
        checkFrame(frame);
    return result == 1;
}

QByteArray goodReply(Input &in, const FRAME_PRO &f)
{
    QByteArray reply;
    if (f.sendLen < 8)
        return reply;
    if (f.frame[1] == 0x01 || f.frame[1] == 0x03) {
        const int data = f.recvLen - 5;
        reply.append(char(f.frame[0])).append(char(f.frame[1])).append(char(data & 0xFF)).append(in.bytes(data));
    } else {
        reply = QByteArray(reinterpret_cast<const char *>(f.frame), 6);
    }
    appendCrc(reply);
    return reply;
}

QByteArray makeReply(Input &in, const FRAME_PRO *f, bool &wellFormed)
{
    wellFormed = false;
    const uint8_t kind = in.byte();
    const bool request = f && f->sendLen >= 8;
    switch (kind % 4) {
    case 0: // any bytes, from nothing to more than a frame holds
        return in.bytes(in.u16() % 1100);
    case 1: {
        if (!request)
            return in.bytes(in.byte());
        QByteArray reply = goodReply(in, *f);
        if ((kind >> 2) % 4 == 1) { // one byte changed
            const int at = in.u16() % reply.size();
            reply[at] = char(reply.at(at) ^ (in.byte() | 1));
        } else if ((kind >> 2) % 4 == 2) { // a few bytes short or too many
            const int delta = in.below(9) - 4;
            reply = delta < 0 ? reply.left(reply.size() + delta) : reply + in.bytes(delta == 0 ? 1 : delta);
        } else {
            wellFormed = true;
        }
        return reply;
    }
    case 2: { // an exception reply
        QByteArray reply;
        reply.append(char(request ? f->frame[0] : in.byte()));
        reply.append(char((request ? f->frame[1] : in.byte()) | 0x80));
        reply.append(char(in.byte()));
        appendCrc(reply);
        return reply;
    }
    default: { // exactly as long as awaited, with a CRC that holds or not
        QByteArray reply = in.bytes(f ? qBound(0, f->recvLen, 70000) : in.byte());
        if ((kind >> 2) % 2 && reply.size() >= 2) {
            reply.chop(2);
            appendCrc(reply);
        }
        return reply;
    }
    }
}

int deal(Input &in, const QByteArray &bytes, const FRAME_PRO *f, bool wellFormed)
{
    const uint8_t shape = in.byte() % 8;
    const bool noReply = shape == 1, noText = shape == 2;
    QByteArray reply = bytes;
    QString text;
    if (shape == 3)
        text = in.text(); // whatever the string held before
    const bool pending = !driver.frameQueue.isEmpty();
    const FRAME_PRO head = pending ? driver.frameQueue.first() : FRAME_PRO();
    const VARIABLE &job = head.var;
    // Good is exactly: as long as the request awaits, with its CRC, from the
    // station and for the function asked; a read reply with its byte count
    // (modulo 256) and not the request echoed. Nothing else is decoded.
    const QByteArray seen = noReply ? QByteArray() : bytes;
    const unsigned char *s = reinterpret_cast<const unsigned char *>(seen.constData());
    const int n = seen.size();
    const bool readJob = head.frame[1] == 0x01 || head.frame[1] == 0x03;
    const bool good = pending && n == head.recvLen && n >= 5 &&
                      crc16(s, n - 2) == (s[n - 2] | unsigned(s[n - 1]) << 8) && s[0] == head.frame[0] &&
                      s[1] == head.frame[1] &&
                      (!readJob || (s[2] == ((n - 5) & 0xFF) && !(head.sendLen == n && memcmp(s, head.frame, n) == 0)));
    int result;
    {
        CallCheck check("intf_dealRcvFrame", pending ? unitsNamed(job.length) : 0);
        result = intf_dealRcvFrame(noReply ? 0 : &reply, noText ? 0 : &text);
    }
    if (!pending) {
        if (result != 0 || (!noText && !text.isEmpty()))
            fail("intf_dealRcvFrame without a frame: %d, text \"%s\"", result, qPrintable(text));
        return result;
    }
    if ((result != 1 && result != 2 && result != 8) || (result == 1) != good || (wellFormed && !noReply && !good))
        fail("a reply of %d bytes to function %02X awaiting %d bytes (well-formed: %d) was rated %d", n,
             head.frame[1], head.recvLen, wellFormed, result);
    if (!noText) {
        QString expected = jobText(job);
        if (n == 5 && s[1] > 0x80)
            expected += QLatin1String(",error code:") + QString::number(s[1] - 0x80);
        // Negative Z addresses have no V/Z naming worth pinning.
        if (text != expected && !(job.regName == QLatin1String("Z") && job.address < 0))
            fail("error text \"%s\", expected \"%s\"", qPrintable(text), qPrintable(expected));
    }
    resendDue = result == 8 && f;
    if (resendDue)
        resendFrame = *f;
    return result;
}

void drain(Input &in, qint64 bound, const Runtime *runtime)
{
    const auto busy = [runtime] {
        return !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() || batch == Batch::Open ||
               (runtime && (runtime->sharedMem[KQ71_RECIPE_WRITE_FLAG] || runtime->sharedMem[KQ71_RECIPE_READ_FLAG]));
    };
    int idle = 0;
    for (qint64 i = 0; i < bound && busy(); ++i) {
        FRAME_PRO f;
        if (!nextFrame(f)) {
            // Only a run of writes with no cyclic read to take turns with pauses, once.
            if (++idle > 1 || !driver.cyclicReads.isEmpty())
                break;
            continue;
        }
        idle = 0;
        deal(in, goodReply(in, f), &f, true);
    }
    if (busy())
        fail("answered well, the exchange left %d writes, %d condition reads, batch %d and recipe flags %d/%d",
             driver.writeJobs.size(), driver.conditionReads.size(), int(batch),
             runtime ? runtime->sharedMem[KQ71_RECIPE_WRITE_FLAG] : 0,
             runtime ? runtime->sharedMem[KQ71_RECIPE_READ_FLAG] : 0);
}

} // namespace kq71fuzz
