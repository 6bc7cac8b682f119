#include "mqtt_client.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kq71bridge {

namespace {

std::once_flag libraryReady;

// Messages waiting for the caller: beyond this a flood of them is dropped
// (and counted) rather than held without bound.
const int MAX_QUEUED_EVENTS = 20000;

} // namespace

MqttClient::MqttClient(const MqttSettings &settings) : settings_(settings)
{
    std::call_once(libraryReady, [] { mosquitto_lib_init(); });
}

MqttClient::~MqttClient()
{
    stop();
    if (mosq_)
        mosquitto_destroy(mosq_);
}

QString MqttClient::errorText(int rc)
{
    if (rc == MOSQ_ERR_ERRNO)
        return QString::fromLocal8Bit(std::strerror(errno));
    return QString::fromUtf8(mosquitto_strerror(rc));
}

QString MqttClient::describe(const MqttEvent &e) const
{
    if (!e.refused)
        return errorText(e.code);
    return QString::fromUtf8(settings_.mqtt5 ? mosquitto_reason_string(e.code) : mosquitto_connack_string(e.code));
}

bool MqttClient::start(QString *error)
{
    const QByteArray id = settings_.clientId.toUtf8();
    mosq_ = mosquitto_new(id.isEmpty() ? nullptr : id.constData(), settings_.cleanSession, this);
    if (!mosq_) {
        *error = "cannot create an MQTT client";
        return false;
    }
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, settings_.mqtt5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    // Small messages go out at once, not held back for the previous one's ACK.
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(mosq_, &MqttClient::onConnect);
    mosquitto_disconnect_v5_callback_set(mosq_, &MqttClient::onDisconnect);
    mosquitto_message_v5_callback_set(mosq_, &MqttClient::onMessage);
    mosquitto_reconnect_delay_set(mosq_, unsigned(settings_.reconnectMinS), unsigned(settings_.reconnectMaxS), true);

    auto fail = [&](const QString &what, int rc) {
        *error = QString("%1: %2").arg(what, errorText(rc));
        return false;
    };
    int rc;
    if (!settings_.username.isEmpty()) {
        const QByteArray user = settings_.username.toUtf8(), password = settings_.password.toUtf8();
        if ((rc = mosquitto_username_pw_set(mosq_, user.constData(),
                                            settings_.password.isNull() ? nullptr : password.constData())))
            return fail("MQTT user name", rc);
    }
    if (!settings_.caFile.isEmpty()) {
        const QByteArray ca = settings_.caFile.toLocal8Bit(), cert = settings_.certFile.toLocal8Bit(),
                         key = settings_.keyFile.toLocal8Bit();
        if ((rc = mosquitto_tls_set(mosq_, ca.constData(), nullptr, cert.isEmpty() ? nullptr : cert.constData(),
                                    key.isEmpty() ? nullptr : key.constData(), nullptr)))
            return fail("TLS files", rc);
    }
    if (!settings_.willTopic.isEmpty()) {
        const QByteArray topic = settings_.willTopic.toUtf8();
        if ((rc = mosquitto_will_set(mosq_, topic.constData(), settings_.willPayload.size(),
                                     settings_.willPayload.constData(), settings_.willQos, settings_.willRetain)))
            return fail("last will", rc);
    }
    const QByteArray host = settings_.host.toUtf8();
    rc = mosquitto_connect_async(mosq_, host.constData(), settings_.port, settings_.keepAliveS);
    // A broker that is not there yet is retried by the network thread; only
    // a host that cannot be resolved or bad parameters are fatal.
    if (rc == MOSQ_ERR_INVAL || rc == MOSQ_ERR_EAI)
        return fail(QString("broker %1:%2").arg(settings_.host).arg(settings_.port), rc);
    if (rc != MOSQ_ERR_SUCCESS) {
        MqttEvent e;
        e.kind = MqttEvent::Disconnected;
        e.code = rc;
        push(std::move(e));
    }
    if ((rc = mosquitto_loop_start(mosq_)))
        return fail("MQTT network thread", rc);
    running_ = true;
    return true;
}

void MqttClient::stop()
{
    if (!running_)
        return;
    running_ = false;
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    std::lock_guard<std::mutex> lock(mutex_);
    connected_ = false;
}

int MqttClient::publish(const QString &topic, const QByteArray &payload, int qos, bool retain,
                        const QByteArray &correlation, const QString &responseTopic)
{
    if (!mosq_ || !connected())
        return MOSQ_ERR_NO_CONN;
    const QByteArray t = topic.toUtf8();
    mosquitto_property *props = nullptr;
    if (!correlation.isEmpty() && settings_.mqtt5)
        mosquitto_property_add_binary(&props, MQTT_PROP_CORRELATION_DATA, correlation.constData(),
                                      uint16_t(qMin(correlation.size(), 65535)));
    if (!responseTopic.isEmpty() && settings_.mqtt5)
        mosquitto_property_add_string(&props, MQTT_PROP_RESPONSE_TOPIC, responseTopic.toUtf8().constData());
    const int rc = settings_.mqtt5
                       ? mosquitto_publish_v5(mosq_, nullptr, t.constData(), payload.size(), payload.constData(), qos,
                                              retain, props)
                       : mosquitto_publish(mosq_, nullptr, t.constData(), payload.size(), payload.constData(), qos,
                                           retain);
    mosquitto_property_free_all(&props);
    return rc;
}

int MqttClient::subscribe(const QString &pattern, int qos)
{
    if (!mosq_)
        return MOSQ_ERR_NO_CONN;
    const QByteArray p = pattern.toUtf8();
    return mosquitto_subscribe(mosq_, nullptr, p.constData(), qos);
}

QVector<MqttEvent> MqttClient::takeEvents(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (events_.isEmpty() && timeoutMs > 0)
        wake_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !events_.isEmpty(); });
    QVector<MqttEvent> out;
    out.swap(events_);
    return out;
}

bool MqttClient::connected() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return connected_;
}

quint64 MqttClient::dropped() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return dropped_;
}

void MqttClient::push(MqttEvent &&event)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (event.kind == MqttEvent::Connected)
            connected_ = true;
        else if (event.kind == MqttEvent::Disconnected)
            connected_ = false;
        if (event.kind == MqttEvent::Message && events_.size() >= MAX_QUEUED_EVENTS) {
            ++dropped_;
            return;
        }
        events_.append(std::move(event));
    }
    wake_.notify_all();
}

void MqttClient::onConnect(mosquitto *, void *self, int rc, int, const mosquitto_property *props)
{
    auto *c = static_cast<MqttClient *>(self);
    MqttEvent e;
    e.kind = rc == 0 ? MqttEvent::Connected : MqttEvent::Disconnected;
    e.code = rc;
    e.refused = rc != 0;
    c->refused_ = e.refused;
    uint32_t max = 0;
    e.maxPacketBytes = mosquitto_property_read_int32(props, MQTT_PROP_MAXIMUM_PACKET_SIZE, &max, false) && max > 0
                           ? qMin<quint32>(max, c->settings_.maxPacketBytes)
                           : c->settings_.maxPacketBytes;
    c->push(std::move(e));
}

void MqttClient::onDisconnect(mosquitto *, void *self, int rc, const mosquitto_property *)
{
    auto *c = static_cast<MqttClient *>(self);
    if (c->refused_) {
        c->refused_ = false;
        return;
    }
    MqttEvent e;
    e.kind = MqttEvent::Disconnected;
    e.code = rc;
    c->push(std::move(e));
}

void MqttClient::onMessage(mosquitto *, void *self, const mosquitto_message *msg, const mosquitto_property *props)
{
    MqttEvent e;
    e.kind = MqttEvent::Message;
    e.message.topic = QString::fromUtf8(msg->topic);
    e.message.payload = QByteArray(static_cast<const char *>(msg->payload), msg->payloadlen);
    e.message.qos = msg->qos;
    e.message.retain = msg->retain;
    char *response = nullptr;
    if (mosquitto_property_read_string(props, MQTT_PROP_RESPONSE_TOPIC, &response, false) && response) {
        e.message.responseTopic = QString::fromUtf8(response);
        std::free(response);
    }
    void *data = nullptr;
    uint16_t len = 0;
    if (mosquitto_property_read_binary(props, MQTT_PROP_CORRELATION_DATA, &data, &len, false) && data) {
        e.message.correlation = QByteArray(static_cast<const char *>(data), len);
        std::free(data);
    }
    static_cast<MqttClient *>(self)->push(std::move(e));
}

} // namespace kq71bridge
