// The bridge against a real broker: the simulated PLC in process behind the
// stand-in runtime, mosquitto started by each test, clients on libmosquitto.
#include "bridge.h"
#include "broker.h"
#include "plc_map.h"
#include "sim_link.h"

#include <gtest/gtest.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QSet>

#include <memory>

using namespace kq71bridge;
using namespace kq71rt;
using namespace kq71test;

namespace {

const char ROOT[] = "plant/line1";

const char TAGS[] = R"([
  {"name": "speed", "address": "D100", "type": "int16", "writable": true},
  {"name": "level", "address": "D101", "type": "uint16", "deadband": 10},
  {"name": "total", "address": "200CC200", "type": "int32", "writable": true},
  {"name": "temp", "address": "D102", "type": "float32", "writable": true},
  {"name": "run", "address": "X20", "type": "bool", "writable": true},
  {"name": "alarm", "address": "D110.2", "type": "bool", "writable": true},
  {"name": "fixed", "address": "D120", "type": "int16"},
  {"name": "fresh", "address": "D121", "type": "int16", "interval": 100}
])";

QString topic(const QString &rest) { return QString(ROOT) + '/' + rest; }

DriverLibrary &driver()
{
    static DriverLibrary lib;
    if (!lib.loaded()) {
        QString error;
        EXPECT_TRUE(lib.load(KQ71_DRIVER_FILE, &error)) << qPrintable(error);
    }
    return lib;
}

// One line of PLCs (the simulator, paced like a real 115200 baud line) and
// its bridge to the broker.
struct Line {
    Line(const TestBroker &broker, const QByteArray &tagJson = TAGS, MqttSettings mqttSettings = MqttSettings(),
         const RuntimeOptions &runtimeOptions = RuntimeOptions(), BridgeOptions bridgeOptions = BridgeOptions())
        : link(sim, SimLinkOptions{115200, true}), runtime(driver(), link, runtimeOptions)
    {
        QStringList errors;
        EXPECT_TRUE(parseTags(tagJson, driver(), registerCatalogue(driver()), 1, &tags, &errors))
            << qPrintable(errors.join('\n'));
        QString error;
        link.open(&error);
        runtime.start();
        mqttSettings.host = "127.0.0.1";
        mqttSettings.port = broker.port();
        mqttSettings.reconnectMinS = mqttSettings.reconnectMaxS = 1;
        mqttSettings.willTopic = Bridge::statusTopic(ROOT);
        mqttSettings.willPayload = "offline";
        mqtt.reset(new MqttClient(mqttSettings));
        bridgeOptions.root = ROOT;
        bridge.reset(new Bridge(runtime, *mqtt, tags, bridgeOptions));
        bridge->log = [](const QString &) {};
        EXPECT_TRUE(bridge->start(&error)) << qPrintable(error);
        EXPECT_TRUE(mqtt->start(&error)) << qPrintable(error);
    }
    ~Line()
    {
        bridge->shutdown();
    }

    void set(const QString &reg, int address, quint16 value) { sim.setReg(placeOf(reg, address).wire, value); }
    quint16 reg(const QString &reg, int address) const { return sim.reg(placeOf(reg, address).wire); }

    // Runs the bridge, and the recorder's client, until done() or the deadline.
    bool until(const std::function<bool()> &done, Recorder *r = nullptr, int timeoutMs = 10000)
    {
        return waitUntil(done,
                         [&] {
                             bridge->step();
                             if (r)
                                 r->poll();
                         },
                         timeoutMs);
    }
    void runFor(int ms, Recorder *r = nullptr)
    {
        until([] { return false; }, r, ms);
    }

    kq71sim::PlcSimulator sim;
    SimLink link;
    Runtime runtime;
    QVector<Tag> tags;
    std::unique_ptr<MqttClient> mqtt;
    std::unique_ptr<Bridge> bridge;
};

void startBroker(TestBroker &broker)
{
    QString error;
    ASSERT_TRUE(broker.start(&error)) << qPrintable(error);
}

TEST(Bridge, LateSubscriberSeesRetainedValuesAndChangesFollowBeyondTheDeadband)
{
    TestBroker broker;
    startBroker(broker);
    Line line(broker);
    line.set("D", 100, quint16(-5));
    line.set("D", 101, 50);
    const int total = placeOf("200CC", 200).wire;
    line.sim.setReg(total, 70000 & 0xFFFF);
    line.sim.setReg(total + 1, 70000 >> 16);
    line.set("D", 102, 0x0000);  // 3.25f
    line.set("D", 103, 0x4050);
    line.sim.setBit(placeOf("X", 16).wire, true);
    line.set("D", 110, 0x0004);
    Recorder early(clientSettings(broker), topic("tag/+"));
    ASSERT_TRUE(line.until([&] { return early.last.size() == 8; }, &early));

    // Everything is on the broker now: a late subscriber gets it retained.
    Recorder late(clientSettings(broker), topic("#"));
    ASSERT_TRUE(line.until([&] { return late.last.size() >= 8 + 3; }, &late));
    const struct {
        const char *topic, *payload;
    } expected[] = {{"status", "online"},     {"plc/1/status", "online"}, {"tag/speed", "-5"},
                    {"tag/level", "50"},      {"tag/total", "70000"},     {"tag/temp", "3.25"},
                    {"tag/run", "1"},         {"tag/alarm", "1"},         {"tag/fixed", "0"}};
    for (const auto &e : expected)
        EXPECT_EQ(late.last.value(topic(e.topic)), QByteArray(e.payload)) << e.topic;
    const QJsonArray meta = QJsonDocument::fromJson(late.last.value(topic("meta"))).object().value("tags").toArray();
    ASSERT_EQ(meta.size(), 8);
    EXPECT_EQ(meta[2].toObject().value("address").toString(), "200CC200");
    EXPECT_EQ(meta[2].toObject().value("type").toString(), "int32");
    EXPECT_EQ(meta[6].toObject().value("writable").toBool(true), false);
    for (const MqttMessage &m : late.messages)
        EXPECT_TRUE(m.retain) << qPrintable(m.topic);
    late.messages.clear();

    // A change arrives; one within the deadband does not, one beyond it does.
    line.set("D", 101, 59);
    line.set("D", 100, 7);
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/speed")) == "7"; }, &late));
    line.runFor(100, &late);
    EXPECT_TRUE(late.on(topic("tag/level")).isEmpty());  // 59 is within 10 of 50
    line.set("D", 101, 61);
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/level")) == "61"; }, &late));
}

TEST(Bridge, EverySetGetsExactlyOneResult)
{
    TestBroker broker;
    startBroker(broker);
    // A retained set is there before the bridge subscribes: it must never be
    // carried out, on this start or any reconnection.
    Recorder client(clientSettings(broker), topic("tag/+/set/result"));
    ASSERT_TRUE(waitUntil([&] { return client.connected; }, [&] { client.poll(10); }, 10000));
    ASSERT_EQ(client.client().publish(topic("tag/fixed/set"), R"({"value": 99, "id": 11})", 1, true), 0);
    Line line(broker);
    line.set("D", 110, 0x0101);
    ASSERT_TRUE(line.until([&] { return client.connected && line.bridge->stats().valuesPublished >= 8; }, &client));
    client.client().subscribe("replies/#", 1);
    line.runFor(100, &client);

    const struct {
        const char *tag, *payload;
        bool retain;
        const char *error;  // nullptr: ok
    } sets[] = {
        {"speed", R"({"value": 123, "id": 1})", false, nullptr},
        {"total", R"({"value": "-70000", "id": 2})", false, nullptr},
        {"temp", R"({"value": 2.5, "id": 3})", false, nullptr},
        {"alarm", R"({"value": true, "id": 4})", false, nullptr},
        {"run", "1", false, nullptr},
        {"fixed", "5", false, "read-only"},
        {"speed", R"({"value": 40000, "id": 6})", false, "invalid"},
        {"speed", R"({"id": 7})", false, "invalid"},
        {"speed", R"({"value": 1, "id": 8)", false, "invalid"},
        {"nosuch", "1", false, "invalid"},
        {"level", R"({"value": 1, "id": 10})", false, "read-only"},
    };
    for (const auto &s : sets)
        ASSERT_EQ(client.client().publish(topic(QString("tag/%1/set").arg(s.tag)), s.payload, 1, s.retain), 0);
    // MQTT 5 request/response: the answer also goes where the client asked.
    ASSERT_EQ(client.client().publish(topic("tag/speed/set"), R"({"value": 124, "id": 13})", 1, false, "corr-13",
                                      "replies/13"),
              0);
    const int results = int(sizeof sets / sizeof sets[0]) + 2;  // and the retained one
    ASSERT_TRUE(line.until([&] { return client.messages.size() >= results + 1; }, &client));
    line.runFor(300, &client);
    ASSERT_EQ(client.messages.size(), results + 1);  // and the copy to the response topic
    const QVector<MqttMessage> retained = client.on(topic("tag/fixed/set/result"));
    ASSERT_EQ(retained.size(), 2);
    EXPECT_EQ(QJsonDocument::fromJson(retained[0].payload).object().value("error"), "invalid");

    QSet<QString> seen;
    for (const auto &s : sets) {
        const QString t = topic(QString("tag/%1/set/result").arg(s.tag));
        const QJsonObject want = QJsonDocument::fromJson(s.payload).object();
        int found = 0;
        for (const MqttMessage &m : client.on(t)) {
            const QJsonObject o = QJsonDocument::fromJson(m.payload).object();
            const QJsonValue id = want.value("id").isUndefined() ? QJsonValue() : want.value("id");
            if (o.value("id") != id || seen.contains(t + m.payload))
                continue;
            seen.insert(t + m.payload);
            ++found;
            EXPECT_FALSE(m.retain);
            EXPECT_EQ(o.value("ok").toBool(), s.error == nullptr) << s.payload << " " << m.payload.constData();
            if (s.error)
                EXPECT_EQ(o.value("error").toString(), s.error) << s.payload;
            break;
        }
        EXPECT_EQ(found, 1) << s.tag << " " << s.payload;
    }
    const QVector<MqttMessage> reply = client.on("replies/13");
    ASSERT_EQ(reply.size(), 1);
    EXPECT_EQ(reply[0].correlation, QByteArray("corr-13"));

    // The PLC's memory took the good ones; the refused and retained did not.
    EXPECT_EQ(line.reg("D", 100), 124);
    const int total = placeOf("200CC", 200).wire;
    EXPECT_EQ(qint32(line.sim.reg(total) | line.sim.reg(total + 1) << 16), -70000);
    EXPECT_EQ(line.reg("D", 102), 0x0000);
    EXPECT_EQ(line.reg("D", 103), 0x4020);  // 2.5f
    EXPECT_EQ(line.reg("D", 110), 0x0105);  // bit 2 set, the others kept
    EXPECT_TRUE(line.sim.bit(placeOf("X", 16).wire));
    EXPECT_EQ(line.reg("D", 120), 0);
}

TEST(Bridge, SilentStationGoesOfflineWithReadErrorsAndComesBack)
{
    TestBroker broker;
    startBroker(broker);
    RuntimeOptions ro;
    ro.retries = 1;
    ro.timeoutMs = 30;
    BridgeOptions bo;
    bo.offlineAfter = 3;
    Line line(broker, TAGS, MqttSettings(), ro, bo);
    line.set("D", 100, 17);
    Recorder client(clientSettings(broker), topic("#"));
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/speed")) == "17"; }, &client));

    kq71sim::FaultRates silent;
    silent.drop = 1;
    line.sim.setFaults(silent);
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("plc/1/status")) == "offline"; }, &client));
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/speed/error")) == "r"; }, &client));
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/fresh/error")) == "rp"; }, &client));
    EXPECT_EQ(client.last.value(topic("tag/speed")), "17");  // the last good value stays
    ASSERT_EQ(client.client().publish(topic("tag/speed/set"), "5", 1, false), 0);
    ASSERT_TRUE(line.until([&] { return client.last.contains(topic("tag/speed/set/result")); }, &client));
    EXPECT_EQ(QJsonDocument::fromJson(client.last.value(topic("tag/speed/set/result"))).object().value("error"),
              "offline");

    line.sim.setFaults(kq71sim::FaultRates());
    line.set("D", 100, 18);
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("plc/1/status")) == "online"; }, &client));
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/speed")) == "18"; }, &client));
    ASSERT_TRUE(line.until(
        [&] {
            return client.last.value(topic("tag/speed/error")).isEmpty() &&
                   client.last.value(topic("tag/fresh/error")).isEmpty();
        },
        &client));
}

TEST(Bridge, BrokerRestartedMidRunAnswersEverySetOnceAndRepublishes)
{
    BrokerConfig config;
    config.persistence = true;  // the watching client's session survives the restart
    TestBroker broker(config);
    startBroker(broker);
    Line line(broker);
    MqttSettings watcher = clientSettings(broker, "watcher");
    watcher.cleanSession = false;
    Recorder client(watcher, topic("#"));
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/speed")) == "0"; }, &client));

    // Slow replies keep the writes on the line while the broker goes away.
    kq71sim::FaultRates slow;
    slow.delay = 1;
    slow.delayMs = 60;
    line.sim.setFaults(slow);
    const int sets = 6;
    for (int i = 1; i <= sets; ++i)
        ASSERT_EQ(client.client().publish(topic("tag/speed/set"),
                                          QString(R"({"value": %1, "id": %1})").arg(i * 10).toUtf8(), 1, false),
                  0);
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().setsReceived == sets; }, &client));
    broker.stop();
    line.set("D", 101, 500);  // changes while the broker is away: only the latest is kept
    line.runFor(300, &client);
    line.set("D", 101, 600);
    line.runFor(1500, &client);
    EXPECT_EQ(line.bridge->stats().setsAnswered, quint64(sets));
    EXPECT_EQ(line.reg("D", 100), sets * 10);

    const int statusBefore = client.on(topic("status")).size();
    startBroker(broker);
    ASSERT_TRUE(line.until(
        [&] {
            return client.on(topic("tag/speed/set/result")).size() >= sets &&
                   client.on(topic("status")).size() > statusBefore &&
                   client.last.value(topic("tag/level")) == "600";
        },
        &client, 30000));
    line.runFor(300, &client);
    EXPECT_EQ(line.bridge->stats().connects, 2u);
    QMap<int, int> answered;
    for (const MqttMessage &m : client.on(topic("tag/speed/set/result"))) {
        const QJsonObject o = QJsonDocument::fromJson(m.payload).object();
        EXPECT_TRUE(o.value("ok").toBool()) << m.payload.constData();
        ++answered[o.value("id").toInt()];
    }
    ASSERT_EQ(answered.size(), sets);
    for (auto it = answered.begin(); it != answered.end(); ++it)
        EXPECT_EQ(it.value(), 1) << "id " << it.key();
    EXPECT_EQ(client.last.value(topic("status")), "online");
    for (const MqttMessage &m : client.on(topic("tag/level")))
        EXPECT_NE(m.payload, "500");  // never published: superseded while away
}

TEST(Bridge, TlsWithTheTestsCaAndPasswordAuthentication)
{
    BrokerConfig config;
    config.tls = true;
    config.password = true;
    TestBroker broker(config);
    startBroker(broker);
    MqttSettings secure;
    secure.caFile = broker.caFile();
    secure.username = "plc";
    secure.password = "secret";
    Line line(broker, TAGS, secure);
    line.set("D", 100, 31);

    MqttSettings reader = clientSettings(broker);
    reader.caFile = broker.caFile();
    reader.username = "plc";
    reader.password = "secret";
    Recorder client(reader, topic("tag/#"));
    MqttSettings wrong = reader;
    wrong.password = "guess";
    Recorder intruder(wrong, topic("#"));
    ASSERT_TRUE(line.until(
        [&] {
            intruder.poll();
            return client.last.value(topic("tag/speed")) == "31" && !intruder.refusals.isEmpty();
        },
        &client));
    EXPECT_EQ(intruder.connects, 0);
    EXPECT_TRUE(intruder.messages.isEmpty());
}

TEST(Bridge, MetaLargerThanTheBrokerAllowsComesInParts)
{
    BrokerConfig config;
    config.maxPacketBytes = 4096;
    TestBroker broker(config);
    startBroker(broker);
    QJsonArray list;
    for (int i = 0; i < 300; ++i)
        list.append(QJsonObject{{"name", QString("word-%1").arg(i)},
                                {"address", QString("D%1").arg(i)},
                                {"type", "uint16"}});
    Line line(broker, QJsonDocument(list).toJson());
    Recorder client(clientSettings(broker), topic("meta/#"));
    Recorder head(clientSettings(broker), topic("meta"));
    int parts = -1;
    ASSERT_TRUE(line.until(
        [&] {
            head.poll();
            parts = QJsonDocument::fromJson(head.last.value(topic("meta"))).object().value("parts").toInt(-1);
            return parts > 0 && client.last.size() >= parts + 1;
        },
        &client));
    EXPECT_GT(parts, 1);
    QSet<QString> names;
    for (int i = 1; i <= parts; ++i) {
        const QByteArray part = client.last.value(topic(QString("meta/%1").arg(i)));
        EXPECT_LE(part.size(), 4096);
        for (const QJsonValue &t : QJsonDocument::fromJson(part).object().value("tags").toArray())
            names.insert(t.toObject().value("name").toString());
    }
    EXPECT_EQ(names.size(), 300);
}

} // namespace
