#include "link.h"
#include "checksum.h"

#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>
#include <QtSerialPort/QSerialPort>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace kq71rt {

qint64 charTimeUs(int baud)
{
    return baud > 0 ? (BITS_PER_CHAR * 1000000LL + baud - 1) / baud : 0;
}

qint64 frameGapUs(int baud)
{
    if (baud <= 0)
        return 0;
    return baud > 19200 ? 1750 : (7 * charTimeUs(baud) + 1) / 2;
}

quint16 rtuCrc(const char *data, int size)
{
    return kq71::crcUpdate(0xFFFF, reinterpret_cast<const unsigned char *>(data), size);
}

int completeReplyLength(const QByteArray &received, int expected)
{
    if (received.size() >= 5 && (static_cast<unsigned char>(received[1]) & 0x80) &&
        rtuCrc(received.constData(), 5) == 0)
        return 5;
    if (expected > 0 && received.size() >= expected)
        return expected;
    return 0;
}

namespace {

const qint64 FIRST_BACKOFF_MS = 100;
const qint64 LAST_BACKOFF_MS = 2000;

// One sleep that a signal cuts short, so Ctrl-C is not held up by a backoff.
void sleepMs(qint64 ms)
{
    if (ms <= 0)
        return;
    timespec t{time_t(ms / 1000), long(ms % 1000) * 1000000L};
    ::nanosleep(&t, nullptr);
}

} // namespace

void Link::idle(qint64 us)
{
    if (us > 0)
        QThread::usleep(static_cast<unsigned long>(us));
}

QVector<LinkEvent> Link::takeEvents()
{
    QVector<LinkEvent> out;
    out.swap(events_);
    return out;
}

// --- StreamLink ---------------------------------------------------------------

void StreamLink::lost(const QString &why)
{
    linkError_ = why;
    if (down_)
        return;
    down_ = true;
    downWhy_ = why;
    attempts_ = 0;
    backoffMs_ = FIRST_BACKOFF_MS;
    downSince_.start();
    sinceAttempt_.start();
    events_.append(LinkEvent{false, why + "; reconnecting"});
}

bool StreamLink::ready()
{
    if (!down_ && !alive())
        return false;  // alive() called lost()
    if (!down_)
        return true;
    sleepMs(backoffMs_ - sinceAttempt_.elapsed());
    if (sinceAttempt_.elapsed() < backoffMs_) {
        linkError_ = downWhy_;  // cut short by a signal
        return false;
    }
    ++attempts_;
    QString why;
    if (!reconnect(&why)) {
        backoffMs_ = qMin(backoffMs_ * 2, LAST_BACKOFF_MS);
        sinceAttempt_.restart();
        linkError_ = downWhy_ + " (" + why + ")";
        return false;
    }
    down_ = false;
    events_.append(LinkEvent{true, QString("%1 is back after %2 s (%3 attempt%4)")
                                       .arg(describe())
                                       .arg(downSince_.elapsed() / 1000.0, 0, 'f', 1)
                                       .arg(attempts_)
                                       .arg(attempts_ == 1 ? "" : "s")});
    lastActivity_.restart();
    return true;
}

QByteArray StreamLink::exchange(const QByteArray &request, int expected, int timeoutMs)
{
    linkError_.clear();
    if (request.isEmpty() || !ready())
        return QByteArray();
    if (timedLine()) {
        const qint64 wait = frameGapUs(baud_) - lastActivity_.nsecsElapsed() / 1000;
        if (wait > 0)
            QThread::usleep(static_cast<unsigned long>(wait));
    }
    // Late or surplus bytes of an earlier reply must not open this one.
    discardInput();
    const qint64 sendMs = timedLine() ? charTimeUs(baud_) * request.size() / 1000 : 0;
    if (!writeAll(request, int(timeoutMs + sendMs + 1000))) {
        lastActivity_.restart();
        return QByteArray();
    }
    // The response timeout runs from the end of the request; a long reply
    // also needs its own time on the line.
    const qint64 budgetMs = timeoutMs + (timedLine() ? charTimeUs(baud_) * qMax(expected, 0) / 1000 : 0);
    QElapsedTimer waited;
    waited.start();
    QByteArray got;
    for (;;) {
        const int n = completeReplyLength(got, expected);
        if (n > 0) {
            got.truncate(n);
            break;
        }
        const qint64 left = budgetMs - waited.elapsed();
        if (left <= 0)
            break;
        const QByteArray chunk = readSome(int(left));
        if (chunk.isEmpty() && !linkError_.isEmpty())
            break;
        got += chunk;
    }
    lastActivity_.restart();
    return got;
}

// --- SerialLink ---------------------------------------------------------------

SerialLink::SerialLink(const SerialSettings &settings) : StreamLink(settings.baud), settings_(settings) {}

SerialLink::~SerialLink() = default;

QString SerialLink::describe() const
{
    return QString("%1 %2,%3,%4,%5")
        .arg(settings_.device)
        .arg(settings_.baud)
        .arg(settings_.dataBits)
        .arg(settings_.parity)
        .arg(settings_.stopBits);
}

bool SerialLink::open(QString *error)
{
    QSerialPort::Parity parity;
    const QString p = settings_.parity.toUpper();
    if (p == "NONE" || p == "N")
        parity = QSerialPort::NoParity;
    else if (p == "EVEN" || p == "E")
        parity = QSerialPort::EvenParity;
    else if (p == "ODD" || p == "O")
        parity = QSerialPort::OddParity;
    else {
        *error = QString("unknown parity %1 (NONE, EVEN or ODD)").arg(settings_.parity);
        return false;
    }
    if (settings_.dataBits < 5 || settings_.dataBits > 8) {
        *error = QString("data bits must be 5 to 8, not %1").arg(settings_.dataBits);
        return false;
    }
    if (settings_.stopBits != 1 && settings_.stopBits != 2) {
        *error = QString("stop bits must be 1 or 2, not %1").arg(settings_.stopBits);
        return false;
    }
    if (settings_.baud <= 0) {
        *error = QString("bad baud rate %1").arg(settings_.baud);
        return false;
    }
    port_.reset(new QSerialPort);
    port_->setPortName(settings_.device);
    if (!port_->open(QIODevice::ReadWrite)) {
        *error = QString("cannot open %1: %2").arg(settings_.device, port_->errorString());
        port_.reset();
        return false;
    }
    const bool set = port_->setBaudRate(settings_.baud) &&
                     port_->setDataBits(static_cast<QSerialPort::DataBits>(settings_.dataBits)) &&
                     port_->setParity(parity) &&
                     port_->setStopBits(settings_.stopBits == 2 ? QSerialPort::TwoStop : QSerialPort::OneStop) &&
                     port_->setFlowControl(QSerialPort::NoFlowControl);
    if (!set) {
        *error = QString("cannot set up %1: %2").arg(describe(), port_->errorString());
        port_.reset();
        return false;
    }
    startClock();
    return true;
}

bool SerialLink::checkGone()
{
    // A vanished USB adapter and a pty whose other end closed both show up
    // as a resource error (or a hang-up on the descriptor).
    bool gone = port_->error() == QSerialPort::ResourceError;
    if (!gone && port_->isOpen()) {
        pollfd p = {int(port_->handle()), POLLIN, 0};
        gone = ::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL));
    }
    if (!gone)
        return false;
    const QString why = port_->error() == QSerialPort::ResourceError ? port_->errorString() : "hung up";
    port_->close();
    lost(QString("link closed: %1 (%2)").arg(settings_.device, why));
    return true;
}

QByteArray SerialLink::readSome(int timeoutMs)
{
    if (port_->bytesAvailable() > 0 || port_->waitForReadyRead(timeoutMs))
        return port_->readAll();
    if (checkGone())
        return QByteArray();
    if (port_->error() != QSerialPort::NoError && port_->error() != QSerialPort::TimeoutError)
        linkError_ = port_->errorString();
    port_->clearError();
    return QByteArray();
}

bool SerialLink::writeAll(const QByteArray &bytes, int timeoutMs)
{
    if (checkGone())
        return false;
    if (port_->write(bytes) != bytes.size()) {
        if (!checkGone())
            linkError_ = port_->errorString();
        return false;
    }
    while (port_->bytesToWrite() > 0) {
        if (!port_->waitForBytesWritten(timeoutMs)) {
            if (!checkGone())
                linkError_ = QString("write to %1 timed out").arg(settings_.device);
            return false;
        }
    }
    return true;
}

void SerialLink::discardInput()
{
    port_->readAll();
    port_->clear(QSerialPort::Input);
}

// --- TcpLink ------------------------------------------------------------------

TcpLink::TcpLink(const QString &host, int port) : StreamLink(0), host_(host), port_(port) {}

TcpLink::~TcpLink() = default;

QString TcpLink::describe() const { return QString("tcp %1:%2").arg(host_).arg(port_); }

bool TcpLink::connectNow(int timeoutMs, QString *error)
{
    if (!socket_)
        socket_.reset(new QTcpSocket);
    socket_->abort();
    socket_->connectToHost(host_, quint16(port_));
    if (!socket_->waitForConnected(timeoutMs)) {
        *error = QString("cannot connect to %1:%2: %3").arg(host_).arg(port_).arg(socket_->errorString());
        return false;
    }
    socket_->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return true;
}

bool TcpLink::open(QString *error)
{
    if (port_ <= 0 || port_ > 65535) {
        *error = QString("bad TCP port %1").arg(port_);
        return false;
    }
    if (!connectNow(3000, error))
        return false;
    startClock();
    return true;
}

bool TcpLink::alive()
{
    if (socket_ && socket_->state() == QAbstractSocket::ConnectedState)
        return true;
    lost(QString("connection to %1:%2 lost (%3)").arg(host_).arg(port_).arg(socket_ ? socket_->errorString() : ""));
    return false;
}

QByteArray TcpLink::readSome(int timeoutMs)
{
    if (socket_->bytesAvailable() > 0 || socket_->waitForReadyRead(timeoutMs))
        return socket_->readAll();
    if (socket_->state() != QAbstractSocket::ConnectedState)
        alive();
    return QByteArray();
}

bool TcpLink::writeAll(const QByteArray &bytes, int timeoutMs)
{
    if (socket_->write(bytes) != bytes.size()) {
        if (alive())
            linkError_ = socket_->errorString();
        return false;
    }
    while (socket_->bytesToWrite() > 0) {
        if (!socket_->waitForBytesWritten(timeoutMs)) {
            if (alive())
                linkError_ = socket_->errorString();
            return false;
        }
    }
    return true;
}

void TcpLink::discardInput()
{
    socket_->waitForReadyRead(0);
    socket_->readAll();
}

// --- FdLink -------------------------------------------------------------------

FdLink::FdLink(int fd, int baud, const QString &name, bool ownsFd)
    : StreamLink(baud), fd_(fd), name_(name), ownsFd_(ownsFd)
{
}

FdLink::~FdLink()
{
    if (ownsFd_ && fd_ >= 0)
        ::close(fd_);
}

bool FdLink::open(QString *error)
{
    if (fd_ < 0) {
        *error = QString("%1: no file descriptor").arg(name_);
        return false;
    }
    startClock();
    return true;
}

bool FdLink::reconnect(QString *error)
{
    // Someone else's descriptor: it is back when its other end is open again.
    pollfd p = {fd_, POLLOUT, 0};
    if (::poll(&p, 1, 0) >= 0 && !(p.revents & (POLLHUP | POLLERR | POLLNVAL)))
        return true;
    *error = "still closed";
    return false;
}

QByteArray FdLink::readSome(int timeoutMs)
{
    pollfd p = {fd_, POLLIN, 0};
    const int r = ::poll(&p, 1, timeoutMs);
    if (r < 0 && errno != EINTR) {
        linkError_ = QString("%1: %2").arg(name_, QString::fromLocal8Bit(std::strerror(errno)));
        return QByteArray();
    }
    if (r > 0 && !(p.revents & POLLIN) && (p.revents & (POLLHUP | POLLERR | POLLNVAL))) {
        lost(QString("link closed: %1 (hung up)").arg(name_));
        return QByteArray();
    }
    if (r <= 0 || !(p.revents & POLLIN))
        return QByteArray();
    char buf[1024];
    const ssize_t got = ::read(fd_, buf, sizeof buf);
    if (got < 0) {
        if (errno != EAGAIN && errno != EINTR)
            linkError_ = QString("%1: %2").arg(name_, QString::fromLocal8Bit(std::strerror(errno)));
        return QByteArray();
    }
    return QByteArray(buf, int(got));
}

bool FdLink::writeAll(const QByteArray &bytes, int timeoutMs)
{
    int done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.constData() + done, size_t(bytes.size() - done));
        if (n > 0) {
            done += int(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            linkError_ = QString("%1: %2").arg(name_, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        pollfd p = {fd_, POLLOUT, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) {
            linkError_ = QString("%1: write timed out").arg(name_);
            return false;
        }
        if (p.revents & (POLLHUP | POLLERR | POLLNVAL)) {
            lost(QString("link closed: %1 (hung up)").arg(name_));
            return false;
        }
    }
    return true;
}

void FdLink::discardInput()
{
    char buf[1024];
    for (;;) {
        pollfd p = {fd_, POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0 || !(p.revents & POLLIN) || ::read(fd_, buf, sizeof buf) <= 0)
            return;
    }
}

} // namespace kq71rt
