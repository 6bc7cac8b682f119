// bridge: the tags' values on an MQTT broker, and writes from it.
#include "bridge.h"
#include "commands.h"
#include "output.h"

#include <QtCore/QFile>
#include <QtCore/QUuid>

namespace kq71cli {

using namespace kq71bridge;

namespace {

// The password never comes from the command line, where others can see it.
bool readPassword(const BridgeSettings &b, QString *password, QString *error)
{
    if (!b.passwordFile.isEmpty()) {
        QFile f(b.passwordFile);
        if (!f.open(QIODevice::ReadOnly)) {
            *error = QString("%1: %2").arg(b.passwordFile, f.errorString());
            return false;
        }
        *password = QString::fromUtf8(f.readLine(4096)).trimmed();
        return true;
    }
    const QByteArray env = qgetenv("KQ71_MQTT_PASSWORD");
    *password = env.isNull() ? QString() : QString::fromUtf8(env);
    return true;
}

} // namespace

int cmdBridge(Session &s)
{
    const BridgeSettings &b = s.options.bridge;
    if (b.host.isEmpty() || b.root.isEmpty() || b.tagsFile.isEmpty()) {
        printError(false, "bridge: name the broker, the topic root and the tags: "
                          "kq71 bridge --mqtt HOST:PORT --root plant/line1 --tags tags.json");
        return EXIT_USAGE;
    }
    if (b.root.contains('+') || b.root.contains('#') || b.root.startsWith('/') || b.root.endsWith('/') ||
        b.root.size() > 200) {
        printError(false, "bridge: --root is a topic without + or # and without a leading or trailing /");
        return EXIT_USAGE;
    }
    QVector<Tag> tags;
    QStringList errors;
    if (!loadTags(b.tagsFile, s.driver, s.catalogue, s.options.station, &tags, &errors)) {
        for (const QString &e : errors)
            printError(false, e);
        return EXIT_USAGE;
    }

    MqttSettings ms;
    ms.host = b.host;
    ms.port = b.port;
    ms.mqtt5 = !b.mqtt311;
    ms.clientId = b.clientId.isEmpty() ? "kq71-bridge-" + QUuid::createUuid().toString().mid(1, 8) : b.clientId;
    ms.username = b.user;
    ms.caFile = b.caFile;
    ms.certFile = b.certFile;
    ms.keyFile = b.keyFile;
    if (b.maxPacket > 0)
        ms.maxPacketBytes = quint32(b.maxPacket);
    ms.willTopic = Bridge::statusTopic(b.root);
    ms.willPayload = "offline";
    QString error;
    if (!b.user.isEmpty() && !readPassword(b, &ms.password, &error)) {
        printError(false, error);
        return EXIT_USAGE;
    }

    BridgeOptions bo;
    bo.root = b.root;
    bo.valueQos = b.valueQos;
    bo.republishMs = b.republishS * 1000LL;
    bo.offlineAfter = b.offlineAfter;
    bo.maxQueuedWrites = b.writeQueue;
    bo.writeTimeoutMs = s.worstCaseMs(1);

    if (s.sim && s.options.simMove)
        for (const Tag &t : tags)
            kq71rt::addMovers(*s.sim, t.regName, t.address, t.units);

    MqttClient mqtt(ms);
    Bridge bridge(*s.runtime, mqtt, tags, bo);
    if (!bridge.start(&error) || !mqtt.start(&error)) {
        printError(false, "bridge: " + error);
        return EXIT_FAILED;
    }
    bridge.log(QString("%1 tags, %2, broker %3:%4, root %5")
                   .arg(tags.size())
                   .arg(s.link->describe(), b.host)
                   .arg(b.port)
                   .arg(b.root));
    const qint64 endUs = s.options.seconds > 0 ? s.link->clockUs() + qint64(s.options.seconds * 1e6) : -1;
    bridge.run([&] { return interrupted() || (endUs >= 0 && s.link->clockUs() >= endUs); });
    bridge.shutdown();
    return EXIT_OK;
}

} // namespace kq71cli
