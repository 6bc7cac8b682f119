// A mosquitto broker of the test's own on 127.0.0.1 and a free port, and a
// client on the bridge's MQTT library that records what it receives.
#ifndef KQ71_TESTS_BRIDGE_BROKER_H
#define KQ71_TESTS_BRIDGE_BROKER_H

#include "mqtt_client.h"

#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

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
    bool start(QString *error);
    void stop();
    QString file(const char *name) const { return dir.filePath(name); }

    QTemporaryDir dir;
    int port = 0;
    QProcess process;
};

// A client on its own network thread; subscribes on every (re)connection. One
// with an id keeps its session on the broker across its restarts.
struct Recorder {
    Recorder(const TestBroker &broker, const QString &subscription, const QString &clientId = QString());
    // Takes what arrived.
    void poll(int waitMs = 0);
    QVector<kq71bridge::MqttMessage> on(const QString &topic) const;

    QString subscription;
    std::unique_ptr<kq71bridge::MqttClient> client;
    QVector<kq71bridge::MqttMessage> messages;
    QHash<QString, QByteArray> last;  // latest payload by topic
    bool connected = false;
};

} // namespace kq71test

#endif
