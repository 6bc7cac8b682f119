// The bridge against a real broker: the simulated PLC in process behind the
// stand-in runtime, mosquitto started by each test, clients on libmosquitto;
// and kq71 bridge as a program, with mosquitto's own command-line clients.
#include "bridge.h"
#include "broker.h"
#include "plc_map.h"
#include "sim_link.h"
#include "support.h"

#include <gtest/gtest.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

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
QJsonObject json(const QByteArray &payload) { return QJsonDocument::fromJson(payload).object(); }

void startBroker(TestBroker &broker)
{
    QString error;
    ASSERT_TRUE(broker.start(&error)) << qPrintable(error);
}

// One line of PLCs (the simulator, paced like a real 115200 baud line) and
// its bridge to the broker.
struct Line {
    Line(const TestBroker &broker, const QByteArray &tagJson = TAGS, const RuntimeOptions &runtimeOptions = {})
        : link(sim, SimLinkOptions{115200, true}), runtime(driver(), link, runtimeOptions)
    {
        QStringList errors;
        EXPECT_TRUE(parseTags(tagJson, driver(), registerCatalogue(driver()), 1, &tags, &errors))
            << qPrintable(errors.join('\n'));
        QString error;
        link.open(&error);
        runtime.start();
        MqttSettings ms;
        ms.port = broker.port();
        ms.reconnectMaxS = 1;
        ms.willTopic = Bridge::statusTopic(ROOT);
        ms.willPayload = "offline";
        mqtt.reset(new MqttClient(ms));
        BridgeOptions bo;
        bo.root = ROOT;
        bridge.reset(new Bridge(runtime, *mqtt, tags, bo));
        bridge->log = [](const QString &) {};
        EXPECT_TRUE(bridge->start(&error) && mqtt->start(&error)) << qPrintable(error);
    }
    ~Line() { bridge->shutdown(); }

    void set(const QString &reg, int address, quint16 value) { sim.setReg(placeOf(reg, address).wire, value); }
    quint16 reg(const QString &reg, int address) const { return sim.reg(placeOf(reg, address).wire); }
    // Runs the bridge, and the recorder's client, until done() or the deadline.
    bool until(const std::function<bool()> &done, Recorder &r, int timeoutMs = 10000)
    {
        return waitUntil(done, [&] { bridge->step(); r.poll(); }, timeoutMs);
    }
    void runFor(int ms, Recorder &r) { until([] { return false; }, r, ms); }

    kq71sim::PlcSimulator sim;
    SimLink link;
    Runtime runtime;
    QVector<Tag> tags;
    std::unique_ptr<MqttClient> mqtt;
    std::unique_ptr<Bridge> bridge;
};

TEST(Bridge, RetainedValuesForLateSubscribersChangesBeyondTheDeadbandAndAStationFallingSilent)
{
    TestBroker broker;
    startBroker(broker);
    RuntimeOptions ro;
    ro.retries = 1;
    ro.timeoutMs = 30;
    Line line(broker, TAGS, ro);
    line.set("D", 100, quint16(-5));
    line.set("D", 101, 50);
    const int total = placeOf("200CC", 200).wire;
    line.sim.setReg(total, 70000 & 0xFFFF);
    line.sim.setReg(total + 1, 70000 >> 16);
    line.set("D", 103, 0x4050);  // 3.25f
    line.sim.setBit(placeOf("X", 16).wire, true);
    line.set("D", 110, 0x0004);
    Recorder early(broker, topic("tag/+"));
    ASSERT_TRUE(line.until([&] { return early.last.size() == 8; }, early));

    // Everything is on the broker now: a late subscriber gets it retained.
    Recorder late(broker, topic("#"));
    ASSERT_TRUE(line.until([&] { return late.last.size() >= 8 + 3; }, late));
    const struct {
        const char *topic, *payload;
    } expected[] = {{"status", "online"}, {"plc/1/status", "online"}, {"tag/speed", "-5"}, {"tag/level", "50"},
                    {"tag/total", "70000"}, {"tag/temp", "3.25"}, {"tag/run", "1"}, {"tag/alarm", "1"}, {"tag/fixed", "0"}};
    for (const auto &e : expected)
        EXPECT_EQ(late.last.value(topic(e.topic)), QByteArray(e.payload)) << e.topic;
    const QJsonArray meta = json(late.last.value(topic("meta"))).value("tags").toArray();
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
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/speed")) == "7"; }, late));
    line.runFor(100, late);
    EXPECT_TRUE(late.on(topic("tag/level")).isEmpty());  // 59 is within 10 of 50
    line.set("D", 101, 61);
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/level")) == "61"; }, late));

    // The station falls silent: offline, read errors on each tag (and "p"
    // for one whose own interval passes), the last good value kept, sets refused.
    kq71sim::FaultRates silent;
    silent.drop = 1;
    line.sim.setFaults(silent);
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("plc/1/status")) == "offline"; }, late));
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/speed/error")) == "r"; }, late));
    ASSERT_TRUE(line.until([&] { return late.last.value(topic("tag/fresh/error")) == "rp"; }, late));
    EXPECT_EQ(late.last.value(topic("tag/speed")), "7");
    ASSERT_EQ(late.client->publish(topic("tag/speed/set"), "5", 1, false), 0);
    ASSERT_TRUE(line.until([&] { return late.last.contains(topic("tag/speed/set/result")); }, late));
    EXPECT_EQ(json(late.last.value(topic("tag/speed/set/result"))).value("error"), "offline");

    line.sim.setFaults(kq71sim::FaultRates());
    line.set("D", 100, 18);
    ASSERT_TRUE(line.until(
        [&] {
            return late.last.value(topic("plc/1/status")) == "online" && late.last.value(topic("tag/speed")) == "18" &&
                   late.last.value(topic("tag/speed/error")).isEmpty() && late.last.value(topic("tag/fresh/error")).isEmpty();
        },
        late));
}

TEST(Bridge, EverySetGetsExactlyOneResult)
{
    TestBroker broker;
    startBroker(broker);
    // A retained set is there before the bridge subscribes: it must never be
    // carried out, on this start or any reconnection.
    Recorder client(broker, topic("tag/+/set/result"));
    ASSERT_TRUE(waitUntil([&] { return client.connected; }, [&] { client.poll(10); }));
    ASSERT_EQ(client.client->publish(topic("tag/fixed/set"), R"({"value": 99, "id": 11})", 1, true), 0);
    Line line(broker);
    line.set("D", 110, 0x0101);
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().valuesPublished >= 8; }, client));
    client.client->subscribe("replies/#", 1);
    line.runFor(100, client);

    const struct {
        const char *tag, *payload;
        const char *error;  // nullptr: ok
    } sets[] = {
        {"speed", R"({"value": 123, "id": 1})", nullptr}, {"total", R"({"value": "-70000", "id": 2})", nullptr},
        {"temp", R"({"value": 2.5, "id": 3})", nullptr},  {"alarm", R"({"value": true, "id": 4})", nullptr},
        {"run", "1", nullptr},                              {"fixed", "5", "read-only"},
        {"speed", R"({"value": 40000, "id": 6})", "invalid"}, {"speed", R"({"id": 7})", "invalid"},
        {"speed", R"({"value": 1, "id": 8)", "invalid"},    {"nosuch", "1", "invalid"},
        {"level", R"({"value": 1, "id": 10})", "read-only"}, {"fixed", R"({"value": 99, "id": 11})", "invalid"},
    };
    for (size_t i = 0; i + 1 < sizeof sets / sizeof sets[0]; ++i)  // the last one is the retained set
        ASSERT_EQ(client.client->publish(topic(QString("tag/%1/set").arg(sets[i].tag)), sets[i].payload, 1, false), 0);
    // MQTT 5 request/response: the answer also goes where the client asked.
    ASSERT_EQ(client.client->publish(topic("tag/speed/set"), R"({"value": 124, "id": 13})", 1, false, "corr-13",
                                     "replies/13"), 0);
    const int results = int(sizeof sets / sizeof sets[0]) + 1;
    ASSERT_TRUE(line.until([&] { return client.messages.size() >= results + 1; }, client));
    line.runFor(300, client);
    ASSERT_EQ(client.messages.size(), results + 1);  // and the copy to the response topic

    // Results by topic and id (sets without one are answered with a null id).
    QHash<QString, QVector<MqttMessage>> byId;
    for (const MqttMessage &m : client.messages)
        byId[m.topic + QJsonDocument(QJsonArray{json(m.payload).value("id")}).toJson()] << m;
    for (const auto &s : sets) {
        const QJsonValue id = json(s.payload).value("id");
        const QVector<MqttMessage> got = byId.value(topic(QString("tag/%1/set/result").arg(s.tag)) +
                                                    QJsonDocument(QJsonArray{id.isUndefined() ? QJsonValue() : id}).toJson());
        ASSERT_EQ(got.size(), 1) << s.tag << " " << s.payload;
        const QJsonObject o = json(got[0].payload);
        EXPECT_FALSE(got[0].retain);
        EXPECT_EQ(o.value("ok").toBool(), s.error == nullptr) << s.payload << " " << got[0].payload.constData();
        EXPECT_EQ(o.value("error").toString(), s.error ? s.error : "") << s.payload;
    }
    const QVector<MqttMessage> reply = client.on("replies/13");
    ASSERT_EQ(reply.size(), 1);
    EXPECT_EQ(reply[0].correlation, QByteArray("corr-13"));

    // The PLC's memory took the good ones; the refused and retained did not.
    EXPECT_EQ(line.reg("D", 100), 124);
    const int total = placeOf("200CC", 200).wire;
    EXPECT_EQ(qint32(line.sim.reg(total) | line.sim.reg(total + 1) << 16), -70000);
    EXPECT_EQ(line.reg("D", 102) | line.reg("D", 103) << 16, 0x40200000);  // 2.5f
    EXPECT_EQ(line.reg("D", 110), 0x0105);  // bit 2 set, the others kept
    EXPECT_TRUE(line.sim.bit(placeOf("X", 16).wire));
    EXPECT_EQ(line.reg("D", 120), 0);
}

TEST(Bridge, BrokerRestartedMidRunAnswersEverySetOnceAndRepublishes)
{
    BrokerConfig config;
    config.persistence = true;  // the watching client's session survives the restart
    TestBroker broker(config);
    startBroker(broker);
    Line line(broker);
    Recorder client(broker, topic("#"), "watcher");
    ASSERT_TRUE(line.until([&] { return client.last.value(topic("tag/speed")) == "0"; }, client));

    // Slow replies keep the writes on the line while the broker goes away.
    kq71sim::FaultRates slow;
    slow.delay = 1;
    slow.delayMs = 60;
    line.sim.setFaults(slow);
    const int sets = 6;
    for (int i = 1; i <= sets; ++i)
        ASSERT_EQ(client.client->publish(topic("tag/speed/set"), QString(R"({"value": %1, "id": %1})").arg(i * 10).toUtf8(),
                                         1, false), 0);
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().setsReceived == sets; }, client));
    broker.stop();
    line.set("D", 101, 500);  // changes while the broker is away: only the latest is kept
    line.runFor(300, client);
    line.set("D", 101, 600);
    line.runFor(1500, client);
    EXPECT_EQ(line.bridge->stats().setsAnswered, quint64(sets));
    EXPECT_EQ(line.reg("D", 100), sets * 10);

    const int statusBefore = client.on(topic("status")).size();
    startBroker(broker);
    ASSERT_TRUE(line.until(
        [&] {
            return client.on(topic("tag/speed/set/result")).size() >= sets && client.on(topic("status")).size() > statusBefore &&
                   client.last.value(topic("tag/level")) == "600";
        },
        client, 30000));
    line.runFor(300, client);
    EXPECT_EQ(line.bridge->stats().connects, 2u);
    QMap<int, int> answered;
    for (const MqttMessage &m : client.on(topic("tag/speed/set/result"))) {
        EXPECT_TRUE(json(m.payload).value("ok").toBool()) << m.payload.constData();
        ++answered[json(m.payload).value("id").toInt()];
    }
    EXPECT_EQ(answered, (QMap<int, int>{{10, 1}, {20, 1}, {30, 1}, {40, 1}, {50, 1}, {60, 1}}));
    EXPECT_EQ(client.last.value(topic("status")), "online");
    for (const MqttMessage &m : client.on(topic("tag/level")))
        EXPECT_NE(m.payload, "500");  // never published: superseded while away
}

TEST(Bridge, MetaLargerThanTheBrokerAllowsComesInParts)
{
    BrokerConfig config;
    config.maxPacketBytes = 4096;
    TestBroker broker(config);
    startBroker(broker);
    QJsonArray list;
    for (int i = 0; i < 300; ++i)
        list.append(QJsonObject{{"name", QString("word-%1").arg(i)}, {"address", QString("D%1").arg(i)}, {"type", "uint16"}});
    Line line(broker, QJsonDocument(list).toJson());
    Recorder client(broker, topic("meta/#")), head(broker, topic("meta"));
    int parts = -1;
    ASSERT_TRUE(line.until(
        [&] {
            head.poll();
            parts = json(head.last.value(topic("meta"))).value("parts").toInt(-1);
            return parts > 0 && client.last.size() >= parts + 1;
        },
        client));
    EXPECT_GT(parts, 1);
    QSet<QString> names;
    for (int i = 1; i <= parts; ++i) {
        const QByteArray part = client.last.value(topic(QString("meta/%1").arg(i)));
        EXPECT_LE(part.size(), 4096);
        for (const QJsonValue &t : json(part).value("tags").toArray())
            names.insert(t.toObject().value("name").toString());
    }
    EXPECT_EQ(names.size(), 300);
}

// The program over TLS with the test's CA and a password, speaking MQTT 3.1.1
// (the other tests speak 5): a retained value, a set and its result, and
// "offline" once it ends.
TEST(BridgeCommand, ValuesAndSetsThroughMosquittoClientsOverTlsWithAPassword)
{
    BrokerConfig config;
    config.password = config.tls = true;
    TestBroker broker(config);
    startBroker(broker);
    QTemporaryDir dir;
    QFile tags(dir.filePath("tags.json"));
    ASSERT_TRUE(tags.open(QIODevice::WriteOnly));
    tags.write(R"([{"name": "speed", "address": "D100", "type": "int16", "writable": true}])");
    tags.close();
    QProcess bridge;
    start(bridge, KQ71_CLI_FILE,
          {"bridge", "--mqtt", QString("127.0.0.1:%1").arg(broker.port()), "--root", "cli/t", "--tags", tags.fileName(),
           "--mqtt-ca", broker.file("ca.crt"), "--mqtt-user", "plc", "--seconds", "8", "--mqtt-v311"},
          {"KQ71_MQTT_PASSWORD=secret", QString("KQ71_DRIVER=") + KQ71_DRIVER_FILE});
    ASSERT_TRUE(bridge.waitForStarted(10000));

    const QStringList login{"-h", "127.0.0.1", "-p", QString::number(broker.port()), "--cafile", broker.file("ca.crt"),
                            "-u", "plc", "-P", "secret"};
    auto first = [&](const char *t, const QStringList &as = {}) {
        return run("mosquitto_sub", (as.isEmpty() ? login : as) + QStringList{"-t", t, "-C", "1", "-W", "6"}).out.trimmed();
    };
    EXPECT_EQ(first("cli/t/tag/speed"), "0");  // retained, once the bridge has published it
    QStringList intruder = login;
    intruder.last() = "guess";
    EXPECT_EQ(first("cli/t/tag/speed", intruder), "");

    QProcess result;
    start(result, "mosquitto_sub", login + QStringList{"-t", "cli/t/tag/speed/set/result", "-C", "1", "-W", "6"});
    QThread::msleep(300);  // let it subscribe
    EXPECT_EQ(run("mosquitto_pub", login + QStringList{"-t", "cli/t/tag/speed/set", "-q", "1", "-m",
                                                       R"({"value": -3, "id": "x"})"}).status, 0);
    EXPECT_EQ(finish(result).out.trimmed(), R"({"id":"x","ok":true,"value":-3})");
    EXPECT_EQ(first("cli/t/tag/speed"), "-3");

    const Outcome end = finish(bridge);
    EXPECT_EQ(end.status, 0) << end.err.toStdString();
    EXPECT_EQ(first("cli/t/status"), "offline");
}

} // namespace
