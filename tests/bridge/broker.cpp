#include "broker.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

namespace kq71test {

using namespace kq71bridge;

namespace {

bool runTool(const QString &program, const QStringList &args, const QString &dir, QString *error)
{
    QProcess p;
    p.setWorkingDirectory(dir);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(program, args);
    if (!p.waitForFinished(30000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0) {
        p.kill();
        p.waitForFinished(1000);
        *error = QString("%1 %2: %3").arg(program, args.join(' '), QString::fromLocal8Bit(p.readAll()));
        return false;
    }
    return true;
}

int freePort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    return server.serverPort();
}

} // namespace

TestBroker::TestBroker(const BrokerConfig &config) : config_(config) {}

TestBroker::~TestBroker() { stop(); }

bool TestBroker::makeCertificates(QString *error)
{
    const QString d = dir_.path();
    QFile ext(d + "/san.ext");
    if (!ext.open(QIODevice::WriteOnly) || ext.write("subjectAltName=IP:127.0.0.1\n") < 0)
        return false;
    ext.close();
    return runTool("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.crt",
                               "-days", "2", "-subj", "/CN=kq71 test CA"},
                   d, error) &&
           runTool("openssl", {"req", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key", "-out", "server.csr",
                               "-subj", "/CN=127.0.0.1"},
                   d, error) &&
           runTool("openssl", {"x509", "-req", "-in", "server.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
                               "-CAcreateserial", "-out", "server.crt", "-days", "2", "-extfile", "san.ext"},
                   d, error);
}

bool TestBroker::start(QString *error)
{
    if (!dir_.isValid()) {
        *error = "no temporary directory";
        return false;
    }
    const QString d = dir_.path();
    if (port_ == 0) {
        port_ = freePort();
        if (config_.tls && !makeCertificates(error))
            return false;
        if (config_.password && !runTool("mosquitto_passwd", {"-b", "-c", d + "/passwd", "plc", "secret"}, d, error))
            return false;
    }
    QString conf = QString("listener %1 127.0.0.1\n").arg(port_);
    // Run as whoever runs the test: as root, mosquitto would switch to its
    // own user, who cannot read the test's files.
    conf += "user root\nset_tcp_nodelay true\n";
    conf += config_.password ? QString("allow_anonymous false\npassword_file %1/passwd\n").arg(d)
                             : QString("allow_anonymous true\n");
    if (config_.tls)
        conf += QString("cafile %1/ca.crt\ncertfile %1/server.crt\nkeyfile %1/server.key\n").arg(d);
    if (config_.persistence)
        conf += QString("persistence true\npersistence_location %1/\n").arg(d);
    if (config_.maxPacketBytes > 0)
        conf += QString("max_packet_size %1\n").arg(config_.maxPacketBytes);
    QFile f(d + "/mosquitto.conf");
    if (!f.open(QIODevice::WriteOnly) || f.write(conf.toUtf8()) < 0) {
        *error = "cannot write the broker's configuration";
        return false;
    }
    f.close();

    process_.reset(new QProcess);
    process_->setProcessChannelMode(QProcess::MergedChannels);
    process_->setStandardOutputFile(d + "/mosquitto.log", QIODevice::Append);
    process_->start("mosquitto", {"-c", d + "/mosquitto.conf"});
    if (!process_->waitForStarted(10000)) {
        *error = "mosquitto does not start: " + process_->errorString();
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 10000 && process_->state() == QProcess::Running) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, quint16(port_));
        if (probe.waitForConnected(500))
            return true;
        QThread::msleep(50);
    }
    QFile log(d + "/mosquitto.log");
    log.open(QIODevice::ReadOnly);
    *error = "mosquitto does not listen: " + QString::fromLocal8Bit(log.read(4000));
    return false;
}

void TestBroker::stop()
{
    if (!process_ || process_->state() == QProcess::NotRunning)
        return;
    process_->terminate();
    if (!process_->waitForFinished(5000)) {
        process_->kill();
        process_->waitForFinished(2000);
    }
}

MqttSettings clientSettings(const TestBroker &broker, const QString &clientId)
{
    MqttSettings s;
    s.host = "127.0.0.1";
    s.port = broker.port();
    s.clientId = clientId;
    s.reconnectMinS = 1;
    s.reconnectMaxS = 1;
    return s;
}

Recorder::Recorder(MqttSettings settings, const QString &subscription)
    : subscription_(subscription), client_(new MqttClient(settings))
{
    QString error;
    client_->start(&error);
}

void Recorder::poll(int waitMs)
{
    for (const MqttEvent &e : client_->takeEvents(waitMs)) {
        if (e.kind == MqttEvent::Connected) {
            connected = true;
            ++connects;
            if (!subscription_.isEmpty())
                client_->subscribe(subscription_, 1);
        } else if (e.kind == MqttEvent::Disconnected) {
            connected = false;
            if (e.code != 0)
                refusals << e.code;
        } else {
            messages << e.message;
            last[e.message.topic] = e.message.payload;
        }
    }
}

QVector<MqttMessage> Recorder::on(const QString &topic) const
{
    QVector<MqttMessage> out;
    for (const MqttMessage &m : messages)
        if (m.topic == topic)
            out << m;
    return out;
}

bool waitUntil(const std::function<bool()> &done, const std::function<void()> &step, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        step();
    }
    return true;
}

} // namespace kq71test
