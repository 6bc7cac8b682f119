#include "broker.h"
#include "support.h"

#include <QtCore/QFile>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

namespace kq71test {

using namespace kq71bridge;

bool TestBroker::start(QString *error)
{
    const QString d = dir_.path();
    if (port_ == 0) {
        QTcpServer free;
        free.listen(QHostAddress::LocalHost, 0);
        port_ = free.serverPort();
        QList<QStringList> tools;
        QFile ext(d + "/san.ext");
        if (config_.tls && ext.open(QIODevice::WriteOnly) && ext.write("subjectAltName=IP:127.0.0.1\n") > 0)
            tools << QStringList{"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", d + "/ca.key",
                                 "-out", d + "/ca.crt", "-days", "2", "-subj", "/CN=kq71 test CA"}
                  << QStringList{"openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", d + "/server.key",
                                 "-out", d + "/server.csr", "-subj", "/CN=127.0.0.1"}
                  << QStringList{"openssl", "x509", "-req", "-in", d + "/server.csr", "-CA", d + "/ca.crt", "-CAkey",
                                 d + "/ca.key", "-CAcreateserial", "-out", d + "/server.crt", "-days", "2",
                                 "-extfile", d + "/san.ext"};
        if (config_.password)
            tools << QStringList{"mosquitto_passwd", "-b", "-c", d + "/passwd", "plc", "secret"};
        ext.close();
        for (QStringList tool : tools) {
            const Outcome r = run(tool.takeFirst(), tool);
            if (r.status != 0) {
                *error = tool.join(' ') + ": " + r.err;
                return false;
            }
        }
    }
    // Run as whoever runs the test: as root, mosquitto would switch to its
    // own user, who cannot read the test's files.
    QString conf = QString("listener %1 127.0.0.1\nuser root\nset_tcp_nodelay true\n").arg(port_);
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
    const bool listens = process_->waitForStarted(10000) && waitUntil(
        [&] {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, quint16(port_));
            return probe.waitForConnected(500) || process_->state() == QProcess::NotRunning;
        },
        [] {}, 10000);
    if (!listens || process_->state() != QProcess::Running) {
        QFile log(d + "/mosquitto.log");
        log.open(QIODevice::ReadOnly);
        *error = "mosquitto does not listen: " + process_->errorString() + "\n" + QString::fromLocal8Bit(log.read(4000));
        return false;
    }
    return true;
}

void TestBroker::stop()
{
    if (process_ && process_->state() != QProcess::NotRunning) {
        process_->terminate();
        if (!process_->waitForFinished(5000))
            process_->kill();
        process_->waitForFinished(2000);
    }
}

Recorder::Recorder(const TestBroker &broker, const QString &subscription, const QString &clientId)
    : subscription(subscription)
{
    MqttSettings s;
    s.port = broker.port();
    s.clientId = clientId;
    s.cleanSession = clientId.isEmpty();
    s.reconnectMaxS = 1;
    client.reset(new MqttClient(s));
    QString error;
    client->start(&error);
}

void Recorder::poll(int waitMs)
{
    for (const MqttEvent &e : client->takeEvents(waitMs)) {
        if (e.kind == MqttEvent::Connected && !subscription.isEmpty())
            client->subscribe(subscription, 1);
        connected = e.kind == MqttEvent::Connected || (connected && e.kind == MqttEvent::Message);
        if (e.kind == MqttEvent::Message) {
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

} // namespace kq71test
