// The line between the runtime and the PLC: one request out, one reply back.
#ifndef KQ71_RUNTIME_LINK_H
#define KQ71_RUNTIME_LINK_H

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QString>

#include <QtCore/QVector>

#include <memory>

class QSerialPort;
class QTcpSocket;

namespace kq71rt {

// Bits on the line per character: start, 8 data, parity or a second stop, stop.
enum { BITS_PER_CHAR = 11 };

// Time of one character at the baud rate.
qint64 charTimeUs(int baud);
// The silence that ends an RTU frame: 3.5 characters, or the fixed 1750 us
// that RTU uses above 19200 baud.
qint64 frameGapUs(int baud);

// How many of the received bytes make the reply: the expected count once it
// is there, or 5 as soon as they form an exception reply (function code with
// bit 0x80 and a good CRC), so a refusal needs no timeout. 0: not yet.
int completeReplyLength(const QByteArray &received, int expected);

// CRC-16 of an RTU frame.
quint16 rtuCrc(const char *data, int size);

// The link went down or came back: reported once per outage and once at
// recovery, however many exchanges fail in between.
struct LinkEvent {
    bool up = false;
    QString text;
};

class Link {
public:
    virtual ~Link() = default;

    virtual bool open(QString *error) = 0;
    virtual QString describe() const = 0;

    // Sends the request after discarding stray input and keeping the frame
    // gap, then collects at most `expected` bytes (see completeReplyLength)
    // within the response timeout. Returns what arrived, possibly nothing.
    virtual QByteArray exchange(const QByteArray &request, int expected, int timeoutMs) = 0;

    // Microseconds since the link was opened: real time, or the simulator's
    // virtual clock.
    virtual qint64 clockUs() const = 0;
    // Line time spent on frames, gaps and waits (simulated links only).
    virtual qint64 wireTimeUs() const { return 0; }
    // Lets time pass with nothing to send.
    virtual void idle(qint64 us);
    // What went wrong on the link itself in the last exchange, if anything.
    QString linkError() const { return linkError_; }
    // Outages and recoveries since the last call, oldest first.
    QVector<LinkEvent> takeEvents();

protected:
    QString linkError_;
    QVector<LinkEvent> events_;
};

// A byte stream with RTU timing: serial ports, pseudo-terminals, TCP.
class StreamLink : public Link {
public:
    explicit StreamLink(int baud) : baud_(baud) {}
    QByteArray exchange(const QByteArray &request, int expected, int timeoutMs) override;
    qint64 clockUs() const override { return opened_.isValid() ? opened_.nsecsElapsed() / 1000 : 0; }

protected:
    // Whatever can be read within timeoutMs (at least one byte unless time runs
    // out or the stream fails).
    virtual QByteArray readSome(int timeoutMs) = 0;
    virtual bool writeAll(const QByteArray &bytes, int timeoutMs) = 0;
    virtual void discardInput() = 0;
    // Whether the frame gap must be kept (not over TCP).
    virtual bool timedLine() const { return true; }
    // Opens the port or connection again after lost(); false with the reason.
    virtual bool reconnect(QString *error) = 0;
    // Whether the port or connection is still there before an exchange.
    virtual bool alive() { return true; }

    // The port or connection is gone (the peer closed it, the device
    // vanished): exchanges get nothing until reconnect() succeeds.
    void lost(const QString &why);

    // The clock runs from the first opening: a reconnection does not reset it.
    void startClock()
    {
        if (!opened_.isValid())
            opened_.start();
        lastActivity_.start();
    }

    int baud_;
    QElapsedTimer opened_;
    QElapsedTimer lastActivity_;

private:
    // While down: sleeps until the next attempt is due, then makes it.
    // Attempts back off from 100 ms doubling to 2 s, so a dead peer costs a
    // few attempts a second at most.
    bool ready();

    bool down_ = false;
    QString downWhy_;
    int attempts_ = 0;
    qint64 backoffMs_ = 0;
    QElapsedTimer downSince_;
    QElapsedTimer sinceAttempt_;
};

struct SerialSettings {
    QString device;
    int baud = 19200;
    int dataBits = 8;
    QString parity = "NONE";  // NONE, EVEN, ODD (as the driver writes it)
    int stopBits = 2;
};

class SerialLink : public StreamLink {
public:
    explicit SerialLink(const SerialSettings &settings);
    ~SerialLink() override;
    bool open(QString *error) override;
    QString describe() const override;

protected:
    QByteArray readSome(int timeoutMs) override;
    bool writeAll(const QByteArray &bytes, int timeoutMs) override;
    void discardInput() override;
    bool reconnect(QString *error) override { return open(error); }

private:
    // A port error that means the device or the other end of a pty is gone.
    bool checkGone();

    SerialSettings settings_;
    std::unique_ptr<QSerialPort> port_;
};

// RTU frames carried as they are over a TCP connection (no MBAP header).
class TcpLink : public StreamLink {
public:
    TcpLink(const QString &host, int port);
    ~TcpLink() override;
    bool open(QString *error) override;
    QString describe() const override;

protected:
    QByteArray readSome(int timeoutMs) override;
    bool writeAll(const QByteArray &bytes, int timeoutMs) override;
    void discardInput() override;
    bool timedLine() const override { return false; }
    bool reconnect(QString *error) override { return connectNow(1000, error); }
    bool alive() override;

private:
    bool connectNow(int timeoutMs, QString *error);

    QString host_;
    int port_;
    std::unique_ptr<QTcpSocket> socket_;
};

// An already open file descriptor, for instance the master side of a
// pseudo-terminal whose slave a Modbus peer holds.
class FdLink : public StreamLink {
public:
    FdLink(int fd, int baud, const QString &name, bool ownsFd = false);
    ~FdLink() override;
    bool open(QString *error) override;
    QString describe() const override { return name_; }

protected:
    QByteArray readSome(int timeoutMs) override;
    bool writeAll(const QByteArray &bytes, int timeoutMs) override;
    void discardInput() override;
    bool reconnect(QString *error) override;

private:
    int fd_;
    QString name_;
    bool ownsFd_;
};

} // namespace kq71rt

#endif
