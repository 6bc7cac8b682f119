// A small wrapper over libmosquitto with Qt types: connects in the background,
// reconnects with backoff, and hands what the broker sent to the caller's
// thread as a queue of events (no callbacks into the caller's code).
#ifndef KQ71_BRIDGE_MQTT_CLIENT_H
#define KQ71_BRIDGE_MQTT_CLIENT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <condition_variable>
#include <mutex>

struct mosquitto;
struct mosquitto_message;
struct mqtt5__property;

namespace kq71bridge {

struct MqttSettings {
    QString host = "127.0.0.1";
    int port = 1883;
    QString clientId;  // empty: the library makes one up
    bool cleanSession = true;  // false: the broker keeps subscriptions and QoS 1 messages (needs a client id)
    bool mqtt5 = true;  // false: MQTT 3.1.1
    int keepAliveS = 30;
    int reconnectMinS = 1, reconnectMaxS = 30;  // backoff between attempts
    QString username, password;
    QString caFile, certFile, keyFile;  // TLS when caFile is set
    // The last will, sent by the broker when this client vanishes.
    QString willTopic;
    QByteArray willPayload;
    int willQos = 1;
    bool willRetain = true;
    // Largest packet the caller sends when the broker announces none (3.1.1).
    quint32 maxPacketBytes = 268435455;
};

struct MqttMessage {
    QString topic;
    QByteArray payload;
    int qos = 0;
    bool retain = false;
    // MQTT 5 request/response: where the answer goes and what it must carry.
    QString responseTopic;
    QByteArray correlation;
};

struct MqttEvent {
    enum Kind { Connected, Disconnected, Message } kind = Message;
    int code = 0;               // libmosquitto's error, or the broker's refusal
    bool refused = false;       // Disconnected: the broker answered CONNECT with a refusal
    quint32 maxPacketBytes = 0; // Connected: the broker's limit, or the setting
    MqttMessage message;
};

class MqttClient {
public:
    explicit MqttClient(const MqttSettings &settings);
    ~MqttClient();
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    // Starts the network thread and the first connection attempt; later
    // attempts follow by themselves. False only for settings that can never
    // work (bad TLS files, bad host).
    bool start(QString *error);
    // Disconnects cleanly (no last will) and stops the thread.
    void stop();

    // Safe from any thread. Returns 0 or libmosquitto's error (not connected,
    // packet too large, ...); a message not accepted is not queued.
    // With MQTT 5, correlation data and a response topic go along when given.
    int publish(const QString &topic, const QByteArray &payload, int qos, bool retain,
                const QByteArray &correlation = QByteArray(), const QString &responseTopic = QString());
    int subscribe(const QString &pattern, int qos);

    // Waits up to timeoutMs for an event; returns those queued so far.
    QVector<MqttEvent> takeEvents(int timeoutMs = 0);
    bool connected() const;
    // Messages dropped because the caller did not take them fast enough.
    quint64 dropped() const;
    const MqttSettings &settings() const { return settings_; }

    static QString errorText(int rc);
    // What a Disconnected event means, in words.
    QString describe(const MqttEvent &event) const;

private:
    static void onConnect(mosquitto *, void *self, int rc, int flags, const ::mqtt5__property *props);
    static void onDisconnect(mosquitto *, void *self, int rc, const ::mqtt5__property *props);
    static void onMessage(mosquitto *, void *self, const ::mosquitto_message *msg,
                          const ::mqtt5__property *props);
    void push(MqttEvent &&event);

    MqttSettings settings_;
    mosquitto *mosq_ = nullptr;
    bool running_ = false;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    QVector<MqttEvent> events_;
    bool connected_ = false;
    quint64 dropped_ = 0;
    bool refused_ = false;  // network thread only: the disconnect after a refusal says nothing new
};

} // namespace kq71bridge

#endif
