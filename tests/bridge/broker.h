// A mosquitto broker of the test's own on 127.0.0.1 and a free port, and a
// client that records what it receives.
#ifndef KQ71_TESTS_BRIDGE_BROKER_H
#define KQ71_TESTS_BRIDGE_BROKER_H

#include "mqtt_client.h"

#include <QtCore/QHash>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <functional>
#include <memory>

namespace kq71test {

struct BrokerConfig {
    bool password = false;  // user "plc" with password "secret", no anonymous access
    bool tls = false;       // a CA made for the test; server certificate for 127.0.0.1
    bool persistence = false;
    int maxPacketBytes = 0;
};

class TestBroker {
public:
    explicit TestBroker(const BrokerConfig &config = BrokerConfig());
    ~TestBroker();

    // Starts mosquitto and waits (bounded) until it takes connections.
    bool start(QString *error);
    void stop();
    int port() const { return port_; }
    QString caFile() const { return dir_.filePath("ca.crt"); }
    QString dir() const { return dir_.path(); }

private:
    bool makeCertificates(QString *error);

    BrokerConfig config_;
    QTemporaryDir dir_;
    int port_ = 0;
    std::unique_ptr<QProcess> process_;
};

// A client on its own network thread; every message is kept.
class Recorder {
public:
    explicit Recorder(kq71bridge::MqttSettings settings, const QString &subscription = QString());
    // Takes what arrived; subscribes on every (re)connection.
    void poll(int waitMs = 0);
    kq71bridge::MqttClient &client() { return *client_; }

    QVector<kq71bridge::MqttMessage> messages;
    QHash<QString, QByteArray> last;  // latest payload by topic
    bool connected = false;
    int connects = 0;
    QVector<int> refusals;  // CONNACK codes of refused connections

    QVector<kq71bridge::MqttMessage> on(const QString &topic) const;

private:
    QString subscription_;
    std::unique_ptr<kq71bridge::MqttClient> client_;
};

kq71bridge::MqttSettings clientSettings(const TestBroker &broker, const QString &clientId = QString());

// Calls step() until done() holds or timeoutMs of real time pass.
bool waitUntil(const std::function<bool()> &done, const std::function<void()> &step, int timeoutMs);

} // namespace kq71test

#endif
