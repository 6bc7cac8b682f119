#include "plc_simulator.h"
#include "checksum.h"

#include <cmath>

namespace kq71sim {

namespace {

enum Exception { ILLEGAL_FUNCTION = 1, ILLEGAL_ADDRESS = 2, ILLEGAL_VALUE = 3, DEVICE_FAILURE = 4 };

const int COUNTER_STEP_MS = 100;
const int TOGGLE_STEP_MS = 500;
const int WAVE_PERIOD_MS = 10000;
const double TWO_PI = 6.283185307179586;

int byteAt(const QByteArray &b, int i) { return static_cast<unsigned char>(b.at(i)); }
int wordAt(const QByteArray &b, int i) { return byteAt(b, i) << 8 | byteAt(b, i + 1); }

void appendWord(QByteArray &b, int value)
{
    b.append(char(value >> 8 & 0xFF));
    b.append(char(value & 0xFF));
}

// station | fn + 0x80 | code | CRC
QByteArray exceptionReply(int station, int function, int code)
{
    QByteArray b;
    b.append(char(station));
    b.append(char((function | 0x80) & 0xFF));
    b.append(char(code));
    return withCrc(b);
}

// Whether the frame is shaped as its function needs; a misshapen frame is
// not taken for a request at all (a slave ignores what it cannot delimit).
bool wellShaped(const QByteArray &f)
{
    const int n = f.size();
    switch (byteAt(f, 1)) {
    case 0x01: case 0x03: case 0x05: case 0x06:
        return n == 8;
    case 0x0F:
        return n >= 9 && n == 9 + byteAt(f, 6);
    case 0x10:
        return n >= 9 && (n == 9 + 2 * wordAt(f, 4) || n == 9 + byteAt(f, 6));
    default:
        return true;
    }
}

int waveValue(std::int64_t clockMs)
{
    const double phase = double(clockMs % WAVE_PERIOD_MS) / WAVE_PERIOD_MS;
    return int(std::lround(500.0 + 500.0 * std::sin(TWO_PI * phase)));
}

} // namespace

const char *faultName(Fault fault)
{
    static const char *const names[FaultKinds] = {"none", "drop", "cut", "bad-crc", "wrong-station",
                                                  "wrong-function", "exception", "noise", "echo", "delay"};
    return fault >= 0 && fault < FaultKinds ? names[fault] : "?";
}

std::uint16_t crc16(const char *data, int size)
{
    return kq71::crcUpdate(0xFFFF, reinterpret_cast<const unsigned char *>(data), size);
}

QByteArray withCrc(const QByteArray &body)
{
    const std::uint16_t crc = crc16(body.constData(), body.size());
    QByteArray b = body;
    b.append(char(crc & 0xFF));
    b.append(char(crc >> 8));
    return b;
}

bool crcOk(const QByteArray &frame)
{
    return frame.size() >= 4 && crc16(frame.constData(), frame.size()) == 0;
}

PlcSimulator::PlcSimulator(const SimOptions &options)
    : options_(options), bits_(BIT_SPACE, 0), regs_(REGISTER_SPACE, 0), rng_(options.seed)
{
}

bool PlcSimulator::bit(int address) const
{
    return address >= 0 && address < BIT_SPACE && bits_[address];
}

void PlcSimulator::setBit(int address, bool value)
{
    if (address >= 0 && address < BIT_SPACE)
        bits_[address] = value ? 1 : 0;
}

std::uint16_t PlcSimulator::reg(int address) const
{
    return address >= 0 && address < REGISTER_SPACE ? regs_[address] : 0;
}

void PlcSimulator::setReg(int address, std::uint16_t value)
{
    if (address >= 0 && address < REGISTER_SPACE)
        regs_[address] = value;
}

void PlcSimulator::addCounter(int regAddress) { counters_.append(regAddress); }
void PlcSimulator::addToggle(int bitAddress) { toggles_.append(bitAddress); }

void PlcSimulator::addWave(int regAddress)
{
    waves_.append(regAddress);
    setReg(regAddress, std::uint16_t(waveValue(clockMs_)));
}

void PlcSimulator::advance(int elapsedMs)
{
    if (elapsedMs <= 0)
        return;
    const std::int64_t before = clockMs_;
    clockMs_ += elapsedMs;
    // Steps are counted on the running clock, so many short advances move
    // values exactly as far as one long one.
    const std::int64_t counts = clockMs_ / COUNTER_STEP_MS - before / COUNTER_STEP_MS;
    const std::int64_t flips = clockMs_ / TOGGLE_STEP_MS - before / TOGGLE_STEP_MS;
    for (int a : counters_)
        setReg(a, std::uint16_t(reg(a) + counts));
    if (flips % 2)
        for (int a : toggles_)
            setBit(a, !bit(a));
    for (int a : waves_)
        setReg(a, std::uint16_t(waveValue(clockMs_)));
}

void PlcSimulator::setFaults(const FaultRates &rates) { options_.faults = rates; }

SimReply PlcSimulator::answer(const QByteArray &request)
{
    SimReply out;
    ++stats_.requests;
    if (!crcOk(request) || !wellShaped(request)) {
        ++stats_.ignored;
        return out;
    }
    const int station = byteAt(request, 0);
    if (station == 0) {
        ++stats_.broadcasts;
        execute(request);
        return out;
    }
    if (station != (options_.station & 0xFF)) {
        ++stats_.ignored;
        return out;
    }

    const Fault fault = drawFault();
    const QByteArray reply = fault == FaultException
                                 ? exceptionReply(station, byteAt(request, 1), DEVICE_FAILURE)
                                 : execute(request);
    if (reply.size() == 5 && (byteAt(reply, 1) & 0x80))
        ++stats_.exceptions;
    if (fault != NoFault) {
        ++stats_.faults;
        ++stats_.byFault[fault];
        out.faulted = true;
        out.fault = fault;
    }
    out.bytes = spoil(fault, reply, request);
    if (fault == FaultDelay)
        out.delayMs = options_.faults.delayMs;
    if (!out.bytes.isEmpty())
        ++stats_.replies;
    return out;
}

Fault PlcSimulator::drawFault()
{
    const FaultRates &r = options_.faults;
    const double u = std::uniform_real_distribution<double>(0.0, 1.0)(rng_);
    const double rates[FaultKinds] = {0, r.drop, r.cut, r.badCrc, r.wrongStation, r.wrongFunction,
                                      r.exception, r.noise, r.echo, r.delay};
    double edge = 0;
    for (int f = FaultDrop; f < FaultKinds; ++f) {
        edge += rates[f] > 0 ? rates[f] : 0;
        if (u < edge)
            return Fault(f);
    }
    return NoFault;
}

QByteArray PlcSimulator::spoil(Fault fault, const QByteArray &reply, const QByteArray &request)
{
    auto randomInt = [this](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); };
    auto randomBytes = [&](int count) {
        QByteArray b;
        for (int i = 0; i < count; ++i)
            b.append(char(randomInt(0, 255)));
        return b;
    };
    QByteArray b = reply;
    switch (fault) {
    case FaultDrop:
        return QByteArray();
    case FaultCut:
        return b.left(randomInt(1, b.size() - 1));
    case FaultBadCrc: {
        const int at = b.size() - 2 + randomInt(0, 1);
        b[at] = char(byteAt(b, at) ^ randomInt(1, 255));
        return b;
    }
    case FaultWrongStation:
    case FaultWrongFunction: {
        const int at = fault == FaultWrongStation ? 0 : 1;
        const int old = byteAt(b, at);
        int other = randomInt(1, 254);
        if (other >= old)
            ++other;  // anything but the right byte
        b[at] = char(other);
        return withCrc(b.left(b.size() - 2));
    }
    case FaultNoise: {
        const int where = randomInt(0, 2);  // before, after, both
        if (where != 1)
            b.prepend(randomBytes(randomInt(1, 4)));
        if (where != 0)
            b.append(randomBytes(randomInt(1, 4)));
        return b;
    }
    case FaultEcho:
        return request + b;
    default:
        return b;
    }
}

// Carries out one well-shaped request for this station (or a broadcast) and
// returns the normal or exception reply.
QByteArray PlcSimulator::execute(const QByteArray &f)
{
    const int station = byteAt(f, 0);
    const int fn = byteAt(f, 1);
    const RequestLimits &lim = limits();
    QByteArray r;
    r.append(char(station));
    r.append(char(fn));

    switch (fn) {
    case 0x01:
    case 0x03: {
        // station | fn | byte count (mod 256) | data | CRC
        const int address = wordAt(f, 2), count = wordAt(f, 4);
        const bool bits = fn == 0x01;
        if (count < 1 || count > (bits ? lim.readBits : lim.readRegisters))
            return exceptionReply(station, fn, ILLEGAL_VALUE);
        if (address + count > (bits ? int(BIT_SPACE) : int(REGISTER_SPACE)))
            return exceptionReply(station, fn, ILLEGAL_ADDRESS);
        const int dataBytes = bits ? (count + 7) / 8 : 2 * count;
        r.append(char(dataBytes & 0xFF));
        if (bits) {
            for (int j = 0; j < dataBytes; ++j) {
                int packed = 0;
                for (int k = 0; k < 8 && 8 * j + k < count; ++k)
                    packed |= bits_[address + 8 * j + k] << k;
                r.append(char(packed));
            }
        } else {
            for (int i = 0; i < count; ++i)
                appendWord(r, regs_[address + i]);
        }
        return withCrc(r);
    }
    case 0x05: {
        // echo of the request
        const int value = wordAt(f, 4);
        if (value != 0xFF00 && value != 0x0000)
            return exceptionReply(station, fn, ILLEGAL_VALUE);
        setBit(wordAt(f, 2), value == 0xFF00);
        return f;
    }
    case 0x06:
        setReg(wordAt(f, 2), std::uint16_t(wordAt(f, 4)));
        return f;
    case 0x0F:
    case 0x10: {
        // station | fn | address | count | CRC
        const int address = wordAt(f, 2), count = wordAt(f, 4), byteCount = byteAt(f, 6);
        const bool bits = fn == 0x0F;
        if (count < 1 || count > (bits ? lim.writeBits : lim.writeRegisters))
            return exceptionReply(station, fn, ILLEGAL_VALUE);
        // A long register write carries the low 8 bits of its byte count; the
        // frame length tells where its data ends.
        const bool countFits = bits ? byteCount == (count + 7) / 8
                                    : (options_.strict ? byteCount == 2 * count
                                                       : byteCount == (2 * count & 0xFF));
        const int needed = bits ? byteCount : 2 * count;
        if (!countFits || f.size() != 9 + needed)
            return exceptionReply(station, fn, ILLEGAL_VALUE);
        if (address + count > (bits ? int(BIT_SPACE) : int(REGISTER_SPACE)))
            return exceptionReply(station, fn, ILLEGAL_ADDRESS);
        for (int i = 0; i < count; ++i) {
            if (bits)
                bits_[address + i] = (byteAt(f, 7 + i / 8) >> (i % 8)) & 1;
            else
                regs_[address + i] = std::uint16_t(wordAt(f, 7 + 2 * i));
        }
        r.append(f.mid(2, 4));
        return withCrc(r);
    }
    default:
        return exceptionReply(station, fn, ILLEGAL_FUNCTION);
    }
}

int RtuFramer::expectedLength(const QByteArray &buf)
{
    if (buf.size() < 2)
        return 0;
    switch (byteAt(buf, 1)) {
    case 0x01: case 0x03: case 0x05: case 0x06:
        return 8;
    case 0x0F:
        return buf.size() < 7 ? 0 : 9 + byteAt(buf, 6);
    case 0x10: {
        if (buf.size() < 7)
            return 0;
        // Past 127 registers the byte count has wrapped: go by the count.
        const int count = wordAt(buf, 4);
        return count > 127 ? 9 + 2 * count : 9 + byteAt(buf, 6);
    }
    default:
        return -1;
    }
}

QList<QByteArray> RtuFramer::feed(const QByteArray &bytes)
{
    QList<QByteArray> frames;
    buf_.append(bytes);
    for (;;) {
        const int len = expectedLength(buf_);
        if (len > MAX_FRAME) {
            buf_.remove(0, 1);
            continue;
        }
        if (len > 0) {
            if (buf_.size() < len)
                break;
            const QByteArray frame = buf_.left(len);
            if (crcOk(frame)) {
                frames.append(frame);
                buf_.remove(0, len);
            } else {
                buf_.remove(0, 1);
            }
            continue;
        }
        if (len == 0)
            break;
        // An unknown function runs to the silence, unless a good request
        // follows: then what stands before it was garbage.
        const int skip = goodFrameAfterHead();
        if (skip == 0)
            break;
        buf_.remove(0, skip);
    }
    if (buf_.size() > 2 * MAX_FRAME)
        buf_.clear();  // babbling without a pause
    return frames;
}

int RtuFramer::goodFrameAfterHead() const
{
    for (int k = 1; k + 4 <= buf_.size(); ++k) {
        const QByteArray tail = buf_.mid(k);
        const int len = expectedLength(tail);
        if (len > 0 && len <= tail.size() && crcOk(tail.left(len)))
            return k;
    }
    return 0;
}

QByteArray RtuFramer::flush()
{
    QByteArray b = buf_;
    buf_.clear();
    return b;
}

} // namespace kq71sim
