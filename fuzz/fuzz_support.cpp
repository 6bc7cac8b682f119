#include "fuzz_support.h"

#include "driver_internals.h"

#include <QtCore/QMutexLocker>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kq71fuzz {

namespace {

const char *inputName = 0;

// Values at which lengths, counts and addresses change meaning somewhere.
const int BOUNDARY_VALUES[] = {
    0,          1,          -1,          2,          -2,         7,          8,          9,         15,
    16,         17,         31,         32,          127,        128,        129,        199,       200,
    255,        256,        257,        377,        506,         507,        508,        511,       512,
    513,        1023,       1024,       1025,       4095,        4096,       7999,       8000,      8001,
    8191,       8192,       9999,       10000,      32767,       32768,      65535,      65536,     65537,
    70000,      -65536,     1073741823, 1073741824, 2147483520, 2147483646, 2147483647, -2147483647 - 1,
    -2147483647};

// The callback's options and the nested call it runs once.
bool readBack = false;
std::function<void()> nested;
bool inCallback = false;

// Accounting of the outermost call in progress.
int depth = 0;
qint64 allowance = 0; // units the outermost call and its nested calls named
qint64 reports = 0;

// A frame that got a bad reply comes out again unchanged.
int generation = 0;
// The condition-read batch as the runtime sees it: an end report is owed
// while Open; Unseen when the callback was off, so that its end may pass
// unheard.
enum class Batch { Closed, Open, Unseen } batch = Batch::Closed;
bool callbackOn = false;
bool resendDue = false;
FRAME_PRO resendFrame;

// Seconds one call may take before it counts as a call that does not return.
double callLimitSeconds()
{
    static const double limit = [] {
        const char *text = getenv("KQ71_FUZZ_CALL_SECONDS");
        const double v = text ? atof(text) : 0.0;
        return v > 0 ? v : 5.0;
    }();
    return limit;
}

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
    b.append(char(crc & 0xFF));
    b.append(char(crc >> 8));
}

// How a job is named in error texts: a Z job at an odd address is the V
// register it shares the cell with.
QString jobText(const VARIABLE &v)
{
    QString place;
    if (v.regName == QLatin1String("Z") && v.address % 2 == 1)
        place = QLatin1String("V") + QString::number((v.address - 1) / 2);
    else if (v.regName == QLatin1String("Z"))
        place = QLatin1String("Z") + QString::number(v.address / 2);
    else
        place = v.regName + QString::number(v.address);
    return QString::number(v.station) + QLatin1Char('#') + place + QLatin1Char('(') + QString::number(v.length) +
           QLatin1Char(')');
}

std::string latin(const QString &s)
{
    const QByteArray b = s.toLocal8Bit();
    return std::string(b.constData(), size_t(b.size()));
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

// --- input ----------------------------------------------------------------

uint8_t Input::byte()
{
    if (n_ == 0)
        return 0;
    --n_;
    return *p_++;
}

uint16_t Input::u16()
{
    const uint16_t lo = byte();
    return uint16_t(lo | (byte() << 8));
}

int32_t Input::i32()
{
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v |= uint32_t(byte()) << (8 * i);
    return int32_t(v);
}

int Input::number()
{
    const uint8_t selector = byte();
    switch (selector % 4) {
    case 0:
        return byte();
    case 1:
        return BOUNDARY_VALUES[byte() % (sizeof(BOUNDARY_VALUES) / sizeof(BOUNDARY_VALUES[0]))];
    case 2:
        return i32();
    default:
        return -int(byte());
    }
}

QByteArray Input::bytes(int n)
{
    QByteArray out(n > 0 ? n : 0, '\0');
    for (int i = 0; i < out.size() && n_ > 0; ++i)
        out[i] = char(byte());
    return out;
}

QString Input::text()
{
    const int length = byte() % 48;
    const bool utf8 = length % 2 == 1;
    const QByteArray raw = bytes(length);
    return utf8 ? QString::fromUtf8(raw) : QString::fromLatin1(raw);
}

QString Input::knownRegName()
{
    return QString::fromLatin1(REGISTERS[byte() % 19].name);
}

QString Input::regName()
{
    static const char *const nearMisses[] = {"D_bit", "V_bit",  "Z_bit",  "TC_bit", "200CC_bit", "X_bit", "M_bit",
                                             "",      "_bit",   "D_",     "D_x_bit", "d",        "Q",     " D",
                                             "D ",    "%1",     "256CC_", "C_bit",   "CC_bit_bit"};
    const int n = sizeof(nearMisses) / sizeof(nearMisses[0]);
    const int selector = byte() % 48;
    if (selector < 19)
        return QString::fromLatin1(REGISTERS[selector].name);
    if (selector < 19 + n)
        return QString::fromLatin1(nearMisses[selector - 19]);
    QString name = text();
    // The driver's own signals use these names at station -1.
    if (name == QLatin1String("RWI") || name == QLatin1String("-1"))
        name += QLatin1Char('x');
    return name;
}

// --- register family --------------------------------------------------------

const RegisterInfo REGISTERS[19] = {
    {"X", 1, 0, 0377, 8},        {"Y", 1, 0, 0377, 8},        {"S", 1, 0, 9999, 10},     {"M", 1, 0, 9999, 10},
    {"T", 1, 0, 9999, 10},       {"C", 1, 0, 199, 10},        {"200C", 1, 200, 255, 10}, {"256C", 1, 256, 9999, 10},
    {"D", 16, 0, 9999, 10},      {"V", 16, 0, 9999, 10},      {"Z", 16, 0, 9999, 10},    {"TC", 16, 0, 9999, 10},
    {"TP", 16, 0, 9999, 10},     {"CC", 16, 0, 199, 10},      {"CP", 16, 0, 199, 10},    {"200CC", 32, 200, 255, 10},
    {"200CP", 32, 200, 255, 10}, {"256CC", 32, 256, 9999, 10}, {"256CP", 32, 256, 9999, 10},
};

const RegisterInfo *findRegister(const QString &name)
{
    for (int i = 0; i < 19; ++i) {
        if (name == QLatin1String(REGISTERS[i].name))
            return &REGISTERS[i];
    }
    return 0;
}

int bitInWordKind(const QString &name)
{
    if (name.size() <= 4 || !name.endsWith(QLatin1String("_bit")))
        return 0;
    const QString word = name.left(name.size() - 4);
    if (word.isEmpty() || word.contains(QLatin1Char('_')))
        return -1;
    const RegisterInfo *r = findRegister(word);
    return (r ? r->width : 16) == 16 ? 1 : -1;
}

int getDataBytes(const QString &name, int length)
{
    if (length < 1)
        return 0;
    const int bits = bitInWordKind(name);
    if (bits != 0)
        return bits > 0 ? length : 0;
    const RegisterInfo *r = findRegister(name);
    const int width = r ? r->width : 16;
    if (width == 1)
        return length;
    if (width == 32)
        return 4 * (length / 2);
    return 2 * length;
}

int setDataBytes(const QString &name, int length)
{
    if (length < 1)
        return 0;
    const int bits = bitInWordKind(name);
    if (bits != 0)
        return bits > 0 ? length : 0;
    const RegisterInfo *r = findRegister(name);
    return (r && r->width == 1) ? length : 2 * length;
}

qint64 unitsNamed(qint64 length)
{
    return length <= 0 ? 0 : qMin<qint64>(length, MAX_RANGE_UNITS);
}

// --- runtime ----------------------------------------------------------------

void resetDriver()
{
    {
        ServiceLock lock;
        driver.resetAll();
    }
    ++generation;
    batch = Batch::Closed;
    callbackOn = false;
    readBack = false;
    nested = std::function<void()>();
    resendDue = false;
}

Runtime::Runtime()
    : sharedMem(static_cast<unsigned char *>(calloc(KQ71_SHARED_MEM_MIN, 1))),
      recipeBuf(static_cast<unsigned char *>(calloc(RECIPE_BUFFER_BYTES, 1)))
{
    resetDriver();
}

Runtime::~Runtime()
{
    resetDriver();
    free(sharedMem);
    free(recipeBuf);
}

int Runtime::init(const char *property)
{
    int status = -1;
    const int result = intf_initProperty(sharedMem, 0, recipeBuf, &status, property, &mutex);
    if (result != 1 || status != 0)
        fail("intf_initProperty returned %d with status %d", result, status);
    ++generation;
    batch = Batch::Closed; // the queue is gone, and with it the batch
    resendDue = false;
    return result;
}

void Runtime::setRecipeFlags(unsigned char write, unsigned char read)
{
    QMutexLocker guard(&mutex);
    sharedMem[KQ71_RECIPE_WRITE_FLAG] = write;
    sharedMem[KQ71_RECIPE_READ_FLAG] = read;
}

QuietMessages::QuietMessages()
    : previous_(kq71test::installMessageSink([](QtMsgType, const QString &) {}))
{
}

QuietMessages::~QuietMessages()
{
    kq71test::installMessageSink(previous_);
}

// --- call checks ----------------------------------------------------------------

CallCheck::CallCheck(const char *what, qint64 units)
    : what_(what), outer_(depth == 0), cacheBefore_(driver.dataAreas.size()), start_(std::chrono::steady_clock::now())
{
    ++depth;
    if (outer_) {
        allowance = 0;
        reports = 0;
    }
    allowance += units;
}

CallCheck::~CallCheck()
{
    --depth;
    if (!outer_)
        return;
    const qint64 grown = qint64(driver.dataAreas.size()) - cacheBefore_;
    if (grown > allowance)
        fail("%s: the cache grew by %lld units, the calls named %lld", what_, grown, allowance);
    if (driver.writeJobs.size() > MAX_QUEUED_JOBS)
        fail("%s: %d write jobs queued", what_, driver.writeJobs.size());
    if (driver.conditionReads.size() > MAX_QUEUED_JOBS)
        fail("%s: %d condition reads queued", what_, driver.conditionReads.size());
    // Each unit is reported once as a value and at most twice per recipe item
    // that places it in the recipe buffer, plus the end of a batch.
    const qint64 items = qMax<qint64>(driver.rcpItems.size(), 64);
    const qint64 reportBound = (allowance + 2) * (2 * items + 1);
    if (reports > reportBound)
        fail("%s: %lld reports for %lld units", what_, reports, allowance);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    if (seconds > callLimitSeconds())
        fail("%s: the call took %.1f s", what_, seconds);
}

void countReport()
{
    ++reports;
}

// --- frames -----------------------------------------------------------------------

void checkFrame(const FRAME_PRO &f)
{
    if (f.sendLen < 0 || f.sendLen > KQ71_FRAME_BYTES)
        fail("frame: sendLen %d outside the frame record", f.sendLen);
    if (f.recvLen < 0)
        fail("frame: recvLen %d", f.recvLen);
    if (f.reserved != 0)
        fail("frame: reserved %d", f.reserved);
    if (f.sendLen == 0) {
        // The handshake job: nothing to send, nothing awaited.
        if (f.recvLen != 0)
            fail("frame: empty request awaits %d bytes", f.recvLen);
        return;
    }
    const unsigned char *q = f.frame;
    const int function = q[1];
    const int count = q[4] << 8 | q[5];
    int request = 0, reply = 0;
    bool read = false;
    switch (function) {
    case 0x01:
        request = 8;
        reply = 5 + (count + 7) / 8;
        read = true;
        break;
    case 0x03:
        request = 8;
        reply = 5 + 2 * count;
        read = true;
        break;
    case 0x05:
        request = 8;
        reply = 8;
        if (!((q[4] == 0xFF || q[4] == 0) && q[5] == 0))
            fail("frame: bit value %02X %02X", q[4], q[5]);
        break;
    case 0x06:
        request = 8;
        reply = 8;
        break;
    case 0x0F:
        request = 9 + (count + 7) / 8;
        reply = 8;
        if (q[6] != (((count + 7) / 8) & 0xFF))
            fail("frame: 0x0F of %d bits says %d bytes", count, q[6]);
        break;
    case 0x10:
        request = 9 + 2 * count;
        reply = 8;
        if (q[6] != ((2 * count) & 0xFF))
            fail("frame: 0x10 of %d registers says %d bytes", count, q[6]);
        break;
    default:
        fail("frame: function %02X, sendLen %d", function, f.sendLen);
    }
    if (f.sendLen != request)
        fail("frame: function %02X count %d: sendLen %d, its bytes make %d", function, count, f.sendLen, request);
    if (f.recvLen != reply)
        fail("frame: function %02X count %d: recvLen %d, its request implies %d", function, count, f.recvLen, reply);
    const unsigned crc = crc16(q, f.sendLen - 2);
    if (q[f.sendLen - 2] != (crc & 0xFF) || q[f.sendLen - 1] != (crc >> 8))
        fail("frame: function %02X: wrong CRC", function);
    if (q[0] != (f.var.station & 0xFF))
        fail("frame: station byte %d for station %d", q[0], f.var.station);
    if (read && (f.dataPos != 3 || f.itemCount != f.var.length || f.itemCount < 1))
        fail("frame: read with dataPos %d, itemCount %d, job length %d", f.dataPos, f.itemCount, f.var.length);
    if (!read && (f.dataPos != 0 || f.itemCount != 0))
        fail("frame: write with dataPos %d, itemCount %d", f.dataPos, f.itemCount);
}

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
    if (resendDue) {
        // A frame that got a bad reply goes out again as it was.
        resendDue = false;
        if (result != 1 || frame.sendLen != resendFrame.sendLen || frame.recvLen != resendFrame.recvLen ||
            memcmp(frame.frame, resendFrame.frame, size_t(frame.sendLen)) != 0 ||
            frame.itemCount != resendFrame.itemCount)
            fail("the frame that got a bad reply was not handed out again");
    }
    if (result == 1)
        checkFrame(frame);
    return result == 1;
}

// --- callback -------------------------------------------------------------------------

void setCallback(int mode)
{
    intf_setAddrValueChangeCallBack(mode ? &valueChanged : 0);
    callbackOn = mode != 0;
    if (!callbackOn && batch == Batch::Open)
        batch = Batch::Unseen;
    setCallbackReadsBack(mode == 2);
}

void conditionBatchOpened()
{
    batch = callbackOn ? Batch::Open : Batch::Unseen;
}

bool conditionBatchOwed()
{
    return batch == Batch::Open;
}

void checkBatchEnded()
{
    if (batch == Batch::Open)
        fail("a condition-read batch never ended");
}

void setCallbackReadsBack(bool on)
{
    readBack = on;
}

void setNestedCall(const std::function<void()> &call)
{
    nested = call;
}

void valueChanged(int deviceId, int station, const QString &regName, int address)
{
    countReport();
    if (deviceId == -1 && station == -1 && regName == QLatin1String("-1")) {
        if (address != 0 && address != -1)
            fail("callback: end of a condition-read batch with %d", address);
        if (batch == Batch::Closed)
            fail("callback: end of a condition-read batch that is not open (or ended twice)");
        batch = Batch::Closed;
        return;
    }
    if (deviceId == 0 && station == -1 && regName == QLatin1String("RWI")) {
        if (address < 0 || address >= RECIPE_BUFFER_WORDS)
            fail("callback: recipe word %d outside the recipe buffer", address);
        return;
    }
    if (deviceId != driver.deviceId)
        fail("callback: device %d reported, this driver is %d (%d, %s, %d)", deviceId, driver.deviceId, station,
             latin(regName).c_str(), address);
    if (inCallback)
        return;
    inCallback = true;
    if (readBack) {
        // A runtime reads the value the report is about, from inside the report.
        const RegisterInfo *r = findRegister(regName);
        const int length = r && r->width == 32 ? 2 : 1;
        const int bytes = getDataBytes(regName, length);
        unsigned char *values = static_cast<unsigned char *>(malloc(size_t(bytes)));
        QString name = regName;
        {
            CallCheck check("intf_getData in the callback", length);
            if (intf_getData(station, &name, address, length, values) != 1)
                fail("intf_getData in the callback did not return 1 for %s", latin(regName).c_str());
        }
        free(values);
    }
    if (nested) {
        const std::function<void()> call = nested;
        nested = std::function<void()>();
        call();
    }
    inCallback = false;
}

// --- replies ---------------------------------------------------------------------------------

QByteArray goodReply(Input &in, const FRAME_PRO &f)
{
    QByteArray reply;
    if (f.sendLen < 8)
        return reply;
    if (f.frame[1] == 0x01 || f.frame[1] == 0x03) {
        const int data = f.recvLen - 5;
        reply.append(char(f.frame[0]));
        reply.append(char(f.frame[1]));
        reply.append(char(data & 0xFF));
        reply.append(in.bytes(data));
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
    case 0:
        // Any bytes, from nothing to more than a frame holds.
        return in.bytes(in.u16() % 1100);
    case 1: {
        if (!request)
            return in.bytes(in.byte());
        QByteArray reply = goodReply(in, *f);
        switch ((kind >> 2) % 4) {
        case 1: { // one byte changed
            const int at = in.u16() % reply.size();
            reply[at] = char(reply.at(at) ^ (in.byte() | 1));
            break;
        }
        case 2: { // a few bytes short or too many
            const int delta = in.below(9) - 4;
            reply = delta < 0 ? reply.left(reply.size() + delta) : reply + in.bytes(delta == 0 ? 1 : delta);
            break;
        }
        default:
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
        const int length = f ? qBound(0, f->recvLen, 70000) : in.byte();
        QByteArray reply = in.bytes(length);
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
    const uint8_t shape = in.byte();
    const bool noReply = shape % 8 == 1;
    const bool noText = shape % 8 == 2;
    QByteArray reply = bytes;
    QString text;
    if (shape % 8 == 3)
        text = in.text(); // whatever the string held before
    const bool pending = !driver.frameQueue.isEmpty();
    const FRAME_PRO head = pending ? driver.frameQueue.first() : FRAME_PRO();
    const VARIABLE &job = head.var;
    const qint64 units = pending ? unitsNamed(job.length) : 0;
    // Good is exactly: as long as the request awaits, with its CRC, from the
    // station and for the function asked; a read reply with its byte count
    // (modulo 256) and not the request echoed. Nothing else is decoded.
    const QByteArray seen = noReply ? QByteArray() : bytes;
    const unsigned char *s = reinterpret_cast<const unsigned char *>(seen.constData());
    const bool readJob = head.frame[1] == 0x01 || head.frame[1] == 0x03;
    const bool good = pending && seen.size() == head.recvLen && seen.size() >= 5 &&
                      crc16(s, seen.size() - 2) == (s[seen.size() - 2] | unsigned(s[seen.size() - 1]) << 8) &&
                      s[0] == head.frame[0] && s[1] == head.frame[1] &&
                      (!readJob || (s[2] == ((seen.size() - 5) & 0xFF) &&
                                    !(head.sendLen == seen.size() && memcmp(s, head.frame, size_t(seen.size())) == 0)));

    int result;
    {
        CallCheck check("intf_dealRcvFrame", units);
        result = intf_dealRcvFrame(noReply ? 0 : &reply, noText ? 0 : &text);
    }
    if (!pending) {
        if (result != 0 || (!noText && !text.isEmpty()))
            fail("intf_dealRcvFrame without a frame: %d, text \"%s\"", result, latin(text).c_str());
        return result;
    }
    if (result != 1 && result != 2 && result != 8)
        fail("intf_dealRcvFrame returned %d", result);
    if (wellFormed && !noReply && !good)
        fail("the well-formed reply to function %02X is no good reply", f ? f->frame[1] : 0);
    if ((result == 1) != good)
        fail("a reply of %d bytes to function %02X awaiting %d bytes was rated %d", seen.size(), head.frame[1],
             head.recvLen, result);
    if (!noText) {
        QString expected = jobText(job);
        if (seen.size() == 5 && static_cast<unsigned char>(seen.at(1)) > 0x80)
            expected += QLatin1String(",error code:") + QString::number(static_cast<unsigned char>(seen.at(1)) - 0x80);
        // Negative Z addresses have no V/Z naming worth pinning.
        const bool pinned = !(job.regName == QLatin1String("Z") && job.address < 0);
        if (pinned && text != expected)
            fail("error text \"%s\", expected \"%s\"", latin(text).c_str(), latin(expected).c_str());
    }
    resendDue = result == 8 && f;
    if (resendDue)
        resendFrame = *f;
    return result;
}

} // namespace kq71fuzz
