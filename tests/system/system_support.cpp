#include "system_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace kq71test {

using namespace kq71rt;

DriverLibrary *driver(QString *why)
{
    static DriverLibrary lib;
    static QString error;
    static bool tried = false;
    if (!tried) {
        tried = true;
        lib.load(KQ71_DRIVER_FILE, &error);
    }
    if (why)
        *why = error;
    return lib.loaded() ? &lib : nullptr;
}

KEY_ADDRESS key(int station, const QString &reg, int address, int dataType, int length)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = reg;
    k.address = address;
    k.dataType = dataType;
    k.length = length;
    return k;
}

KEY_ADDRESS wordKey(const QString &reg, int address, int words)
{
    return key(1, reg, address, unitKindOf(reg) == UnitKind::DoubleWord ? 1 : 0, words);
}

KEY_ADDRESS bitKey(const QString &reg, int address, int bits) { return key(1, reg, address, -1, bits); }

quint32 simValue(const kq71sim::PlcSimulator &sim, const QString &reg, int address)
{
    const UnitPlace p = placeOf(reg, address);
    switch (p.kind) {
    case UnitKind::Bit:
        return sim.bit(p.wire) ? 1 : 0;
    case UnitKind::Word:
        return sim.reg(p.wire);
    case UnitKind::DoubleWord:
        return quint32(sim.reg(p.wire)) | quint32(sim.reg(p.wire + 1)) << 16;  // low word first
    default:
        return 0xFFFFFFFF;
    }
}

void setSimValue(kq71sim::PlcSimulator &sim, const QString &reg, int address, quint32 value)
{
    const UnitPlace p = placeOf(reg, address);
    switch (p.kind) {
    case UnitKind::Bit:
        sim.setBit(p.wire, value != 0);
        break;
    case UnitKind::Word:
        sim.setReg(p.wire, quint16(value));
        break;
    case UnitKind::DoubleWord:
        sim.setReg(p.wire, quint16(value));
        sim.setReg(p.wire + 1, quint16(value >> 16));
        break;
    default:
        break;
    }
}

QByteArray valueBytes(UnitKind kind, quint32 value)
{
    const int n = kind == UnitKind::Bit ? 1 : kind == UnitKind::DoubleWord ? 4 : 2;
    QByteArray b;
    for (int i = 0; i < n; ++i)
        b.append(char(value >> (8 * i) & 0xFF));
    return b;
}

quint32 cachedValue(Runtime &rt, int station, const QString &reg, int address)
{
    const UnitKind kind = unitKindOf(reg);
    const QByteArray b = rt.read(station, reg, address, kind == UnitKind::DoubleWord ? 2 : 1);
    quint32 v = 0;
    for (int i = b.size() - 1; i >= 0; --i)
        v = v << 8 | static_cast<unsigned char>(b[i]);
    return v;
}

bool runCyclicReads(Runtime &rt, int jobs, int maxSteps)
{
    int ended = 0;
    for (int i = 0; i < maxSteps && ended < jobs; ++i) {
        const Exchange ex = rt.step();
        if (!ex.sent)
            rt.link().idle(1000);
        else if (ex.jobId == 4 && !ex.write && (ex.result == 1 || ex.result == 2))
            ++ended;
    }
    return ended >= jobs;
}

bool runUntilIdle(Runtime &rt, int maxSteps)
{
    for (int i = 0; i < maxSteps; ++i) {
        rt.step();
        if (rt.drained())
            return true;
    }
    return false;
}

SimBench::SimBench(const kq71sim::SimOptions &simOptions, const RuntimeOptions &options)
    : sim(simOptions), link(sim), rt(*driver(), link, options)
{
    QString unused;
    link.open(&unused);
    rt.start();
}

PtyPair::PtyPair()
{
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    char name[128] = {0};
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 || ptsname_r(master_, name, sizeof name) != 0)
        return;
    termios t;
    if (tcgetattr(master_, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(master_, TCSANOW, &t);
    }
    slavePath_ = name;
}

PtyPair::~PtyPair()
{
    if (master_ >= 0)
        close(master_);
}

SimServer::SimServer(kq71sim::PlcSimulator &sim, std::mutex &mutex) : sim_(sim), mutex_(mutex) {}

SimServer::~SimServer() { stop(); }

void SimServer::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (listener_ >= 0) {
        close(listener_);
        listener_ = -1;
    }
}

void SimServer::serve(int fd, const std::function<bool()> &keepGoing)
{
    kq71sim::RtuFramer framer;
    char buf[1024];
    while (!stop_ && keepGoing()) {
        pollfd p = {fd, POLLIN, 0};
        const int r = poll(&p, 1, 20);
        if (r == 0) {
            framer.flush();  // the line fell silent: whatever is half there is garbage
            continue;
        }
        if (r < 0 || !(p.revents & POLLIN))
            return;
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return;
        for (const QByteArray &frame : framer.feed(QByteArray(buf, int(n)))) {
            kq71sim::SimReply reply;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                reply = sim_.answer(frame);
            }
            if (reply.delayMs > 0)
                usleep(useconds_t(reply.delayMs) * 1000);
            if (!reply.bytes.isEmpty() && write(fd, reply.bytes.constData(), size_t(reply.bytes.size())) < 0)
                return;
        }
    }
}

void SimServer::serveFd(int fd)
{
    thread_ = std::thread([this, fd] { serve(fd, [] { return true; }); });
}

int SimServer::listenTcp()
{
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        listen(listener_, 1) != 0 || getsockname(listener_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return -1;
    const int l = listener_;
    thread_ = std::thread([this, l] { acceptLoop(l); });
    return ntohs(a.sin_port);
}

void SimServer::dropConnection()
{
    dropRequested_ = true;
    for (int i = 0; i < 100 && dropRequested_; ++i)
        usleep(10000);
}

void SimServer::acceptLoop(int listener)
{
    while (!stop_) {
        pollfd p = {listener, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0)
            continue;
        const int conn = accept(listener, nullptr, nullptr);
        if (conn < 0)
            continue;
        ++connections_;
        serve(conn, [this] { return !dropRequested_.exchange(false); });
        close(conn);
    }
}

} // namespace kq71test
