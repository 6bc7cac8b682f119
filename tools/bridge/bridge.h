// The gateway between one line of PLCs and an MQTT broker: the driver polls
// the tags' addresses as the runtime drives it; changed values, station
// states and tag errors go to the broker, and writes come back from it.
#ifndef KQ71_BRIDGE_BRIDGE_H
#define KQ71_BRIDGE_BRIDGE_H

#include "mqtt_client.h"
#include "runtime.h"
#include "tags.h"
#include "value_status.h"

#include <QtCore/QHash>
#include <QtCore/QJsonValue>
#include <QtCore/QQueue>

#include <functional>

namespace kq71bridge {

struct BridgeOptions {
    QString root = "kq71";
    int valueQos = 0;
    qint64 republishMs = 300000;  // an unchanged value is published again after this
    int offlineAfter = 3;         // given-up jobs in a row that make a station offline
    int maxQueuedWrites = 64;     // sets waiting for the line; more are answered "busy"
    int maxSetBytes = 1024;       // larger set payloads are refused unread
    qint64 writeTimeoutMs = 10000;  // a write not settled by then is answered "timeout"
};

struct BridgeStats {
    quint64 valuesPublished = 0;
    quint64 setsReceived = 0;
    quint64 setsAnswered = 0;
    quint64 resultsDropped = 0;  // answers that found the outbox full
    quint64 connects = 0;
    int plannedReads = 0;      // read jobs of one poll cycle
    quint64 cyclicReads = 0;   // read jobs done so far
};

class Bridge {
public:
    // The runtime (started, with its link) and the client (not yet started)
    // must outlive the bridge.
    Bridge(kq71rt::Runtime &runtime, MqttClient &mqtt, const QVector<Tag> &tags, const BridgeOptions &options);

    // Hands the tags to the driver's watch list.
    bool start(QString *error);
    // One turn: broker events, the next write, one exchange, publishing.
    void step();
    // Steps until stop() holds.
    void run(const std::function<bool()> &stop);
    // Says "offline" on ROOT/status and leaves the broker.
    void shutdown();

    const BridgeStats &stats() const { return stats_; }
    // Where messages for people go (default: stderr).
    std::function<void(const QString &)> log;

    static QString statusTopic(const QString &root) { return root + "/status"; }

private:
    struct TagState {
        quint32 raw = 0;
        bool known = false;
        quint32 publishedRaw = 0;
        bool published = false;
        qint64 publishedMs = 0;
        qint64 freshMs = 0;  // last good read
        bool readFailed = false, writeFailed = false, late = false;
        QString publishedError;
        bool errorPublished = false;
    };
    struct PendingSet {
        int tag = -1;
        quint32 raw = 0;
        QJsonValue id;
        QString resultTopic, responseTopic;
        QByteArray correlation;
    };
    struct Outgoing {
        QString topic;
        QByteArray payload;
        QByteArray correlation;
    };

    qint64 nowMs() const { return runtime_.link().clockUs() / 1000; }
    void onConnected(quint32 maxPacket);
    void onMessage(const MqttMessage &message);
    void answer(const PendingSet &set, bool ok, const QString &error, const QString &why);
    void flushOutbox();
    void startNextWrite();
    void handle(const kq71rt::Exchange &ex);
    void refresh(int index, bool force);
    void publishValue(int index);
    void publishError(int index, bool force);
    void publishStation(int station);
    void publishMeta();
    void housekeeping();
    bool publish(const QString &topic, const QByteArray &payload, int qos, bool retain,
                 const QByteArray &correlation = QByteArray());

    kq71rt::Runtime &runtime_;
    MqttClient &mqtt_;
    QVector<Tag> tags_;
    QVector<TagState> state_;
    BridgeOptions options_;
    kq71rt::ValueStatus health_; // only its stations: offline after a run of given-up jobs
    BridgeStats stats_;

    // Tags by name, and by every unit they span: (station, register, address).
    QHash<QString, int> byName_;
    QHash<QString, QVector<int>> byUnit_;

    bool connected_ = false;
    quint32 maxPacket_ = 268435455;
    QQueue<PendingSet> writes_;
    bool writing_ = false;
    PendingSet current_;
    int currentJobId_ = 0;
    qint64 writeDeadlineMs_ = 0;
    int nextJobId_ = 0;
    QQueue<Outgoing> outbox_;
    qint64 lastHousekeepingMs_ = 0;
};

} // namespace kq71bridge

#endif
