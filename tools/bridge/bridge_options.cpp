#include "bridge_options.h"

namespace kq71bridge {

const char BRIDGE_USAGE[] =
    "\n"
    "Bridge (kq71 bridge --mqtt HOST:PORT --root ROOT --tags FILE [link and driver options]):\n"
    "  --mqtt HOST[:PORT]        the MQTT broker (port 1883, 8883 with --mqtt-ca)\n"
    "  --root ROOT               topic root, e.g. plant/line1\n"
    "  --tags FILE               the tags: a JSON list of {name, address, type, ...}\n"
    "  --mqtt-user NAME          user name; the password comes from --mqtt-password-file\n"
    "                            or $KQ71_MQTT_PASSWORD, never from the command line\n"
    "  --mqtt-password-file FILE first line of FILE is the password\n"
    "  --mqtt-ca FILE            TLS with this CA; --mqtt-cert FILE --mqtt-key FILE: client certificate\n"
    "  --mqtt-client-id ID       client id (default: made up by the library)\n"
    "  --mqtt-v311               speak MQTT 3.1.1 (default: 5)\n"
    "  --mqtt-max-packet BYTES   largest message to send when the broker announces no limit\n"
    "  --value-qos 0|1           QoS of the value messages (0)\n"
    "  --republish S             publish unchanged values again after S seconds (300)\n"
    "  --offline-after N         given-up jobs in a row that make a station offline (3)\n"
    "  --write-queue N           sets waiting for the line; more are answered \"busy\" (64)\n"
    "  --seconds S               end the bridge after S seconds (default: at SIGINT or SIGTERM)\n";

BridgeCommandLine::BridgeCommandLine()
    : mqtt_("mqtt", "", "HOST:PORT"), root_("root", "", "ROOT"), tags_("tags", "", "FILE"),
      user_("mqtt-user", "", "NAME"), passwordFile_("mqtt-password-file", "", "FILE"), ca_("mqtt-ca", "", "FILE"),
      cert_("mqtt-cert", "", "FILE"), key_("mqtt-key", "", "FILE"), clientId_("mqtt-client-id", "", "ID"),
      mqtt311_("mqtt-v311"), valueQos_("value-qos", "", "Q"), republish_("republish", "", "S"),
      offlineAfter_("offline-after", "", "N"), writeQueue_("write-queue", "", "N"),
      maxPacket_("mqtt-max-packet", "", "BYTES")
{
}

void BridgeCommandLine::add(QCommandLineParser &p) const
{
    p.addOptions({mqtt_, root_, tags_, user_, passwordFile_, ca_, cert_, key_, clientId_, mqtt311_, valueQos_,
                  republish_, offlineAfter_, writeQueue_, maxPacket_});
}

bool BridgeCommandLine::read(const QCommandLineParser &p, BridgeSettings *s, QString *why) const
{
    struct IntOption {
        const QCommandLineOption &option;
        int *field;
        int lo, hi;
    };
    const IntOption ints[] = {{valueQos_, &s->valueQos, 0, 1},
                              {republish_, &s->republishS, 1, 86400},
                              {offlineAfter_, &s->offlineAfter, 1, 1000},
                              {writeQueue_, &s->writeQueue, 1, 100000},
                              {maxPacket_, &s->maxPacket, 1024, 268435455}};
    for (const IntOption &i : ints) {
        if (!p.isSet(i.option))
            continue;
        bool ok = false;
        const int v = p.value(i.option).toInt(&ok);
        if (!ok || v < i.lo || v > i.hi) {
            *why = QString("--%1 needs a whole number from %2 to %3, not \"%4\"")
                       .arg(i.option.names().first())
                       .arg(i.lo)
                       .arg(i.hi)
                       .arg(p.value(i.option));
            return false;
        }
        *i.field = v;
    }
    s->root = p.value(root_);
    s->tagsFile = p.value(tags_);
    s->user = p.value(user_);
    s->passwordFile = p.value(passwordFile_);
    s->caFile = p.value(ca_);
    s->certFile = p.value(cert_);
    s->keyFile = p.value(key_);
    s->clientId = p.value(clientId_);
    s->mqtt311 = p.isSet(mqtt311_);
    s->host = p.value(mqtt_);
    s->port = s->caFile.isEmpty() ? 1883 : 8883;
    const int colon = s->host.lastIndexOf(':');
    if (colon >= 0 && !s->host.endsWith(']')) {
        bool ok = false;
        s->port = s->host.mid(colon + 1).toInt(&ok);
        if (!ok || s->port < 1 || s->port > 65535) {
            *why = QString("--mqtt %1: the port must be a number from 1 to 65535").arg(s->host);
            return false;
        }
        s->host = s->host.left(colon);
    }
    if (s->certFile.isEmpty() != s->keyFile.isEmpty()) {
        *why = "--mqtt-cert and --mqtt-key go together";
        return false;
    }
    if (!s->certFile.isEmpty() && s->caFile.isEmpty()) {
        *why = "a client certificate needs TLS: name the CA with --mqtt-ca";
        return false;
    }
    return true;
}

} // namespace kq71bridge
