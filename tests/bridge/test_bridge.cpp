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
#include <QtCore/QThread>

using namespace kq71bridge;
using namespace kq71rt;
using namespace kq71test;

namespace {

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

QString topic(const QString &rest) { return "plant/line1/" + rest; }
QJsonObject json(const QByteArray &payload) { return QJsonDocument::fromJson(payload).object(); }

// A broker of the test's own, one line of PLCs (the simulator, paced like a
// real 115200 baud line) bridged to it, and once asked for, a client on
// everything under the root and on replies/#.
struct Line {
    ~Line()
    {
        if (bridge)
            bridge->shutdown();
    }
    void start(const QByteArray &tagJson = TAGS)
    {
        QString error;
        ASSERT_TRUE(broker.start(&error)) << qPrintable(error);
        QStringList errors;
        EXPECT_TRUE(parseTags(tagJson, driver(), registerCatalogue(driver()), 1, &tags, &errors))
            << qPrintable(errors.join('\n'));
        link.open(&error);
        runtime.reset(new Runtime(driver(), link, options));
        runtime->start();
        mqtt.reset(new MqttClient(settings()));
        BridgeOptions bo;
        bo.root = "plant/line1";
        bridge.reset(new Bridge(*runtime, *mqtt, tags, bo));
        bridge->log = [](const QString &) {};
        EXPECT_TRUE(bridge->start(&error) && mqtt->start(&error)) << qPrintable(error);
    }
    void watch()
    {
        client.reset(new MqttClient(settings()));
        QString error;
        EXPECT_TRUE(client->start(&error)) << qPrintable(error);
    }
    MqttSettings settings() const
    {
        MqttSettings s;
        s.port = broker.port;
        s.reconnectMaxS = 1;
        return s;
    }
    // Takes what the client received.
    void poll()
    {
        for (const MqttEvent &e : client ? client->takeEvents(0) : QVector<MqttEvent>()) {
            if (e.kind == MqttEvent::Connected) {
                client->subscribe(topic("#"), 1);
                client->subscribe("replies/#", 1);
            } else if (e.kind == MqttEvent::Message) {
                messages << e.message;
                last[e.message.topic] = e.message.payload;
            }
        }
    }
    // Runs the bridge and polls the client until done() or the deadline.
    bool until(const std::function<bool()> &done, int timeoutMs = 10000)
    {
        return waitUntil(done, [&] {
            if (bridge)
                bridge->step();
            poll();
        }, timeoutMs);
    }
    void runFor(int ms) { until([] { return false; }, ms); }
    QVector<MqttMessage> on(const QString &topic) const
    {
        QVector<MqttMessage> out;
        for (const MqttMessage &m : messages)
            if (m.topic == topic)
                out << m;
        return out;
    }
    // 32-bit values low word first.
    void set(const QString &reg, int address, quint32 value, int words = 1)
    {
        for (int i = 0; i < words; ++i)
            sim.setReg(placeOf(reg, address).wire + i, quint16(value >> 16 * i));
    }
    quint32 reg(const QString &reg, int address, int words = 1) const
    {
        const int w = placeOf(reg, address).wire;
        return words == 1 ? sim.reg(w) : sim.reg(w) | quint32(sim.reg(w + 1)) << 16;
    }

    TestBroker broker;
    kq71sim::PlcSimulator sim;
    SimLink link{sim, SimLinkOptions{115200, true}};
    RuntimeOptions options;
    std::unique_ptr<Runtime> runtime;
    QVector<Tag> tags;
    std::unique_ptr<MqttClient> mqtt, client;  // the bridge's, and the watching one
    std::unique_ptr<Bridge> bridge;
    QVector<MqttMessage> messages;
    QHash<QString, QByteArray> last;  // latest payload by topic
};

TEST(Bridge, RetainedValuesForLateSubscribersChangesBeyondTheDeadbandAndAStationFallingSilent)
{
    Line line;
    line.options.retries = 1;
    line.options.timeoutMs = 30;
    line.set("D", 100, quint16(-5));
    line.set("D", 101, 50);
    line.set("200CC", 200, 70000, 2);
    line.set("D", 102, 0x40500000, 2);  // 3.25f
    line.sim.setBit(placeOf("X", 16).wire, true);
    line.set("D", 110, 0x0004);
    line.start();
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().valuesPublished >= 8; }));

    // A late subscriber gets everything retained.
    line.watch();
    ASSERT_TRUE(line.until([&] { return line.last.size() >= 8 + 3; }));
    const QStringList retained = run("mosquitto_sub", {"-h", "127.0.0.1", "-p", QString::number(line.broker.port), "-t",
                                                       topic("#"), "--retained-only", "-v", "-C", "11", "-W", "5"})
                                     .out.split('\n');
    for (const QString &e : QString("status=online plc/1/status=online tag/speed=-5 tag/level=50 tag/total=70000 "
                                    "tag/temp=3.25 tag/run=1 tag/alarm=1 tag/fixed=0").split(' '))
        EXPECT_TRUE(retained.contains(topic(e.section('=', 0, 0)) + ' ' + e.section('=', 1))) << qPrintable(e);
    const QJsonArray meta = json(line.last.value(topic("meta"))).value("tags").toArray();
    ASSERT_EQ(meta.size(), 8);
    EXPECT_EQ(meta[2].toObject()["address"].toString() + meta[2].toObject()["type"].toString(), "200CC200int32");
    EXPECT_FALSE(meta[6].toObject().value("writable").toBool(true));

    // A change arrives; one within the deadband does not, one beyond it does.
    line.set("D", 101, 59);
    line.set("D", 100, 7);
    ASSERT_TRUE(line.until([&] { return line.last.value(topic("tag/speed")) == "7"; }));
    line.runFor(100);
    EXPECT_EQ(line.on(topic("tag/level")).size(), 1);  // 59 is within 10 of 50
    line.set("D", 101, 61);
    ASSERT_TRUE(line.until([&] { return line.last.value(topic("tag/level")) == "61"; }));

    // The station falls silent: offline, a read error on each tag ("p": one
    // whose own interval passed), the last good value kept, sets refused.
    kq71sim::FaultRates silent;
    silent.drop = 1;
    line.sim.setFaults(silent);
    auto last = [&](const char *rest) { return line.last.value(topic(rest)); };
    ASSERT_TRUE(line.until([&] {
        return last("plc/1/status") == "offline" && last("tag/speed/error") == "r" && last("tag/fresh/error") == "rp";
    }));
    EXPECT_EQ(last("tag/speed"), "7");
    ASSERT_EQ(line.client->publish(topic("tag/speed/set"), "5", 1, false), 0);
    ASSERT_TRUE(line.until([&] { return !last("tag/speed/set/result").isEmpty(); }));
    EXPECT_EQ(json(last("tag/speed/set/result")).value("error"), "offline");

    line.sim.setFaults(kq71sim::FaultRates());
    line.set("D", 100, 18);
    ASSERT_TRUE(line.until([&] {
        return last("plc/1/status") == "online" && last("tag/speed") == "18" && last("tag/speed/error").isEmpty() &&
               last("tag/fresh/error").isEmpty();
    }));
}

std::string sorted(QStringList list)
{
    list.sort();
    return list.join(' ').toStdString();
}

// Results as "id:error" (no id for a set without one, no error when it was
// carried out).
std::string results(const QVector<MqttMessage> &messages)
{
    QStringList list;
    for (const MqttMessage &m : messages)
        if (m.topic.endsWith("/set/result"))
            list << json(m.payload).value("id").toVariant().toString() + ':' +
                        json(m.payload).value("error").toString() + (m.retain ? " retained" : "");
    return sorted(list);
}

// Each set is answered once: well formed or not, for a tag that takes
// writes or not, retained before the bridge came up (once per replay), sent
// while the broker went away and came back.
TEST(Bridge, EverySetGetsExactlyOneResultAlsoAcrossABrokerRestart)
{
    Line line;
    line.broker.persistence = true;  // retained messages survive the restart
    QString error;
    ASSERT_TRUE(line.broker.start(&error)) << qPrintable(error);
    // Retained before the bridge subscribes: never carried out, on this start or the reconnection.
    ASSERT_EQ(run("mosquitto_pub", {"-h", "127.0.0.1", "-p", QString::number(line.broker.port), "-t",
                                    topic("tag/fixed/set"), "-r", "-m", R"({"value": 99, "id": 11})"}).status, 0);
    line.watch();
    ASSERT_TRUE(line.until([&] { return !line.last.isEmpty(); }));  // subscribed: the retained set came
    line.set("D", 110, 0x0101);
    line.start();
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().valuesPublished >= 8; }));
    line.runFor(100);

    const char *sets[][2] = {
        {"speed", R"({"value": 123, "id": 1})"},      {"total", R"({"value": "-70000", "id": 2})"},
        {"temp", R"({"value": "0.1", "id": 3})"},      {"alarm", R"({"value": true, "id": 4})"},
        {"run", "1"},                                  {"fixed", R"({"value": 5, "id": 5})"},
        {"speed", R"({"value": 40000, "id": 6})"},    {"speed", R"({"id": 7})"},
        {"speed", R"({"value": 1, "id": 8)"},          {"nosuch", R"({"value": 1, "id": 9})"},
        {"level", R"({"value": 1, "id": 10})"},
    };
    for (const auto &s : sets)
        ASSERT_EQ(line.client->publish(topic(QString("tag/%1/set").arg(s[0])), s[1], 1, false), 0);
    // MQTT 5 request/response: the answer also goes where the client asked.
    ASSERT_EQ(line.client->publish(topic("tag/speed/set"), R"({"value": 124, "id": 13})", 1, false, "corr-13",
                                   "replies/13"), 0);
    QStringList expected = QString("1: 2: 3: 4: : 5:read-only 6:invalid 7:invalid :invalid 9:invalid 10:read-only "
                                   "11:invalid 13:").split(' ');
    auto answered = [&] { return results(line.messages) == sorted(expected) && line.last.contains("replies/13"); };
    ASSERT_TRUE(line.until(answered)) << results(line.messages);
    const QVector<MqttMessage> reply = line.on("replies/13");
    EXPECT_TRUE(reply.size() == 1 && reply[0].correlation == "corr-13") << reply.size();
    // The PLC's memory took the good ones; the refused and retained did not.
    EXPECT_EQ(std::make_tuple(line.reg("D", 100), qint32(line.reg("200CC", 200, 2)), line.reg("D", 102, 2),
                              line.reg("D", 110), line.sim.bit(placeOf("X", 16).wire)),
              std::make_tuple(124u, -70000, 0x3DCCCCCDu, 0x0105u, true));  // 0.1f; bit 2 of D110 set, the others kept
    EXPECT_EQ(line.last.value(topic("tag/temp")), "0.1");

    // Slow replies keep the writes on the line while the broker goes away.
    kq71sim::FaultRates slow;
    slow.delay = 1;
    slow.delayMs = 60;
    line.sim.setFaults(slow);
    const BridgeStats before = line.bridge->stats();
    for (int i = 101; i <= 106; ++i)
        ASSERT_EQ(line.client->publish(topic("tag/speed/set"), QString(R"({"value": %1, "id": %1})").arg(i).toUtf8(), 1,
                                       false), 0);
    ASSERT_TRUE(line.until([&] { return line.bridge->stats().setsReceived == before.setsReceived + 6; }));
    line.broker.stop();
    line.set("D", 101, 500);  // changes while the broker is away: only the latest is kept
    line.runFor(300);
    line.set("D", 101, 600);
    line.runFor(1500);
    EXPECT_EQ(line.bridge->stats().setsAnswered, before.setsAnswered + 6);
    EXPECT_EQ(line.reg("D", 100), 106u);
    ASSERT_TRUE(line.broker.start(&error)) << qPrintable(error);
    // The client has subscribed again (what is retained came back) before the
    // bridge, which may answer at once, is let on.
    const int seen = line.messages.size();
    ASSERT_TRUE(waitUntil([&] { return line.messages.size() > seen; }, [&] { line.poll(); }));
    // The broker replays the retained set on the new subscription: refused again.
    const std::string all = sorted(expected << QString("101: 102: 103: 104: 105: 106: 11:invalid").split(' '));
    ASSERT_TRUE(line.until([&] {
        return results(line.messages) == all && line.last.value(topic("tag/level")) == "600";
    }, 30000)) << results(line.messages) << "; level " << line.last.value(topic("tag/level")).constData();
    line.runFor(300);
    EXPECT_EQ(results(line.messages), all);
    EXPECT_EQ(line.bridge->stats().connects, 2u);
    EXPECT_EQ(line.reg("D", 120), 0u);
    for (const MqttMessage &m : line.on(topic("tag/level")))
        EXPECT_NE(m.payload, "500");  // never published: superseded while away
}

TEST(Bridge, MetaLargerThanTheBrokerAllowsComesInParts)
{
    Line line;
    line.broker.maxPacketBytes = 4096;
    QJsonArray list;
    for (int i = 0; i < 300; ++i)
        list << QJsonObject{{"name", QString("w%1").arg(i)}, {"address", QString("D%1").arg(i)}, {"type", "uint16"}};
    line.start(QJsonDocument(list).toJson());
    line.watch();
    int parts = -1;
    auto part = [&](int i) { return line.last.value(topic(i ? QString("meta/%1").arg(i) : QString("meta"))); };
    ASSERT_TRUE(line.until([&] {
        parts = json(part(0)).value("parts").toInt(-1);
        return parts > 1 && !part(parts).isEmpty();
    }));
    QSet<QString> names;
    for (int i = 1; i <= parts; ++i) {
        EXPECT_LE(part(i).size(), 4096);
        for (const QJsonValue &t : json(part(i)).value("tags").toArray())
            names.insert(t.toObject().value("name").toString());
    }
    EXPECT_EQ(names.size(), 300);
}

// The program over TLS with the test's CA and a password, speaking MQTT 3.1.1
// (the other tests speak 5) to mosquitto's own clients: a retained value, a
// set and its result, and "offline" once it ends.
TEST(BridgeCommand, ValuesAndSetsThroughMosquittoClientsOverTlsWithAPassword)
{
    TestBroker broker;
    broker.password = broker.tls = true;
    QString error;
    ASSERT_TRUE(broker.start(&error)) << qPrintable(error);
    const QString tags = writeFile(broker.file("tags.json"),
                                   R"([{"name": "speed", "address": "D100", "type": "int16", "writable": true}])");
    QProcess bridge;
    start(bridge, KQ71_CLI_FILE,
          {"bridge", "--mqtt", QString("127.0.0.1:%1").arg(broker.port), "--root", "cli/t", "--tags", tags,
           "--mqtt-ca", broker.file("ca.crt"), "--mqtt-user", "plc", "--seconds", "8", "--mqtt-v311"},
          {"KQ71_MQTT_PASSWORD=secret"});
    const QStringList login{"-h",       "127.0.0.1",           "-p", QString::number(broker.port),
                            "--cafile", broker.file("ca.crt"), "-u", "plc", "-P"};
    auto first = [&](const char *t, const char *password = "secret") {
        return run("mosquitto_sub", login + QStringList{password, "-t", t, "-C", "1", "-W", "6"}).out.trimmed();
    };
    EXPECT_EQ(first("cli/t/tag/speed"), "0");  // retained, once the bridge has published it
    EXPECT_EQ(first("cli/t/tag/speed", "guess"), "");

    QProcess result;
    start(result, "mosquitto_sub",
          login + QStringList{"secret", "-t", "cli/t/tag/speed/set/result", "-C", "1", "-W", "6"});
    QThread::msleep(300);  // let it subscribe
    EXPECT_EQ(run("mosquitto_pub", login + QStringList{"secret", "-t", "cli/t/tag/speed/set", "-q", "1", "-m",
                                                       R"({"value": -3, "id": "x"})"}).status, 0);
    EXPECT_EQ(finish(result).out.trimmed(), R"({"id":"x","ok":true,"value":-3})");
    const Outcome end = finish(bridge);
    EXPECT_EQ(end.status, 0) << end.err.toStdString();
    EXPECT_EQ(first("cli/t/status"), "offline");
}

} // namespace
