// A mosquitto broker of the test's own on 127.0.0.1 and a free port, and a
// client on the bridge's MQTT library that records what it receives.
#ifndef KQ71_TESTS_BRIDGE_BROKER_H
#define KQ71_TESTS_BRIDGE_BROKER_H

#include "mqtt_client.h"
#include "support.h"

#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <memory>

namespace kq71test {

struct TestBroker {
    bool password = false;  // user "plc" with password "secret", no anonymous access
    bool tls = false;       // a CA made for the test (ca.crt); server certificate for 127.0.0.1
    bool persistence = false;
    int maxPacketBytes = 0;

    ~TestBroker() { stop(); }
    // Starts mosquitto, on the same port when it starts again, and waits
    // (bounded) until it takes connections.
    bool start(QString *error)
    {
        const QString d = dir.path();
        QFile ext(d + "/san.ext"), conf(d + "/mosquitto.conf");
        if (port == 0) {
            QTcpServer free;
            free.listen(QHostAddress::LocalHost, 0);
            port = free.serverPort();
            QList<QStringList> tools;
            if (tls && ext.open(QIODevice::WriteOnly) && ext.write("subjectAltName=IP:127.0.0.1\n") > 0 && ext.flush())
                tools << QString("openssl req -x509 -newkey rsa:2048 -nodes -keyout %1/ca.key -out %1/ca.crt "
                                 "-days 2 -subj /CN=ca").arg(d).split(' ')
                      << QString("openssl req -newkey rsa:2048 -nodes -keyout %1/server.key -out %1/server.csr "
                                 "-subj /CN=127.0.0.1").arg(d).split(' ')
                      << QString("openssl x509 -req -in %1/server.csr -CA %1/ca.crt -CAkey %1/ca.key -CAcreateserial "
                                 "-out %1/server.crt -days 2 -extfile %1/san.ext").arg(d).split(' ');
            if (password)
                tools << QString("mosquitto_passwd -b -c %1/passwd plc secret").arg(d).split(' ');
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
        QStringList lines{QString("listener %1 127.0.0.1").arg(port), "user root", "set_tcp_nodelay true",
                          password ? "allow_anonymous false\npassword_file %1/passwd" : "allow_anonymous true"};
        if (tls)
            lines << "cafile %1/ca.crt\ncertfile %1/server.crt\nkeyfile %1/server.key";
        if (persistence)
            lines << "persistence true\npersistence_location %1/";
        if (maxPacketBytes > 0)
            lines << QString("max_packet_size %1").arg(maxPacketBytes);
        const QByteArray text = lines.join('\n').replace("%1", d).toUtf8() + '\n';
        if (!conf.open(QIODevice::WriteOnly) || conf.write(text) != text.size() || !conf.flush()) {
            *error = "cannot write the broker's configuration";
            return false;
        }
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(d + "/mosquitto.log", QIODevice::Append);
        process.start("mosquitto", {"-c", conf.fileName()});
        const auto listens = [&] {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, quint16(port));
            return probe.waitForConnected(500) || process.state() == QProcess::NotRunning;
        };
        if (process.waitForStarted(10000) && waitUntil(listens, [] {}, 10000) && process.state() == QProcess::Running)
            return true;
        QFile log(d + "/mosquitto.log");
        log.open(QIODevice::ReadOnly);
        *error = "mosquitto does not listen: " + process.errorString() + "\n" + QString::fromLocal8Bit(log.read(4000));
        return false;
    }
    void stop()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(2000);
    }

    QString file(const char *name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    int port = 0;
    QProcess process;
};

// A client on its own network thread; subscribes on every (re)connection. One
// with an id keeps its session on the broker across its restarts.
struct Recorder {
    Recorder(const TestBroker &broker, const QString &subscription, const QString &clientId = QString())
        : subscription(subscription)
    {
        kq71bridge::MqttSettings s;
        s.port = broker.port;
        s.clientId = clientId;
        s.cleanSession = clientId.isEmpty();
        s.reconnectMaxS = 1;
        client.reset(new kq71bridge::MqttClient(s));
        QString error;
        client->start(&error);
    }
    // Takes what arrived.
    void poll(int waitMs = 0)
    {
        for (const kq71bridge::MqttEvent &e : client->takeEvents(waitMs)) {
            if (e.kind == kq71bridge::MqttEvent::Connected && !subscription.isEmpty())
                client->subscribe(subscription, 1);
            connected = e.kind == kq71bridge::MqttEvent::Connected ||
                        (connected && e.kind == kq71bridge::MqttEvent::Message);
            if (e.kind == kq71bridge::MqttEvent::Message) {
                messages << e.message;
                last[e.message.topic] = e.message.payload;
            }
        }
    }
    QVector<kq71bridge::MqttMessage> on(const QString &topic) const
    {
        QVector<kq71bridge::MqttMessage> out;
        for (const kq71bridge::MqttMessage &m : messages)
            if (m.topic == topic)
                out << m;
        return out;
    }

    QString subscription;
    std::unique_ptr<kq71bridge::MqttClient> client;
    QVector<kq71bridge::MqttMessage> messages;
    QHash<QString, QByteArray> last;  // latest payload by topic
    bool connected = false;
};

} // namespace kq71test

#endif
