#include "bridge.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cmath>
#include <cstdio>

namespace kq71bridge {

using namespace kq71rt;

namespace {

const int CYCLIC_JOB_ID = 4;
// Job ids of the bridge's writes: away from the cyclic reads' 4 and the
// command line's own ids.
const int FIRST_WRITE_ID = 1000, LAST_WRITE_ID = 999999;
const qint64 HOUSEKEEPING_MS = 100;
// Answers held while the broker is away; the write queue bounds how many
// can be pending, this bounds a flood of refusals.
const int MAX_OUTBOX = 4096;
// Bytes of a PUBLISH beside its topic and payload: fixed header, topic
// length, packet id and a few properties.
const int PUBLISH_OVERHEAD = 32;

QString unitKey(int station, const QString &regName, int address)
{
    return QString::number(station) + '/' + regName + '/' + QString::number(address);
}

QByteArray compact(const QJsonObject &o) { return QJsonDocument(o).toJson(QJsonDocument::Compact); }

} // namespace

Bridge::Bridge(Runtime &runtime, MqttClient &mqtt, const QVector<Tag> &tags, const BridgeOptions &options)
    : runtime_(runtime), mqtt_(mqtt), tags_(tags), state_(tags.size()), options_(options),
      health_(options.offlineAfter)
{
    log = [](const QString &line) { std::fprintf(stderr, "kq71 bridge: %s\n", qPrintable(line)); };
    for (int i = 0; i < tags_.size(); ++i) {
        const Tag &t = tags_[i];
        byName_.insert(t.name, i);
        for (int u = 0; u < t.units; ++u)
            byUnit_[unitKey(t.station, t.regName, t.address + u)].append(i);
    }
}

bool Bridge::start(QString *error)
{
    QList<KEY_ADDRESS> keys;
    for (const Tag &t : tags_) {
        KEY_ADDRESS key;
        key.station = t.station;
        key.regName = t.regName;
        key.address = t.address;
        key.dataType = t.dataType();
        key.length = t.driverLength();
        keys << key;
    }
    stats_.plannedReads = runtime_.watch(keys);
    if (stats_.plannedReads <= 0) {
        *error = "the driver planned no reads for the tags";
        return false;
    }
    const qint64 now = nowMs();
    for (TagState &s : state_)
        s.freshMs = now;
    lastHousekeepingMs_ = now;
    return true;
}

void Bridge::run(const std::function<bool()> &stop)
{
    while (!stop())
        step();
}

void Bridge::step()
{
    for (const MqttEvent &e : mqtt_.takeEvents()) {
        switch (e.kind) {
        case MqttEvent::Connected:
            onConnected(e.maxPacketBytes);
            break;
        case MqttEvent::Disconnected:
            if (connected_ || stats_.connects == 0)
                log(QString("broker %1:%2: %3; trying again")
                        .arg(mqtt_.settings().host)
                        .arg(mqtt_.settings().port)
                        .arg(mqtt_.describe(e)));
            connected_ = false;
            break;
        case MqttEvent::Message:
            onMessage(e.message);
            break;
        }
    }
    if (!writing_)
        startNextWrite();
    else if (nowMs() > writeDeadlineMs_) {
        // The driver never settled it: answer anyway, exactly once.
        answer(current_, false, "timeout", "the write was not settled in time");
        writing_ = false;
    }

    const Exchange ex = runtime_.step();
    if (ex.sent)
        handle(ex);
    else
        runtime_.link().idle(2000);

    if (nowMs() - lastHousekeepingMs_ >= HOUSEKEEPING_MS)
        housekeeping();
    if (connected_ && !outbox_.isEmpty())
        flushOutbox();
}

void Bridge::shutdown()
{
    if (connected_)
        publish(statusTopic(options_.root), "offline", 1, true);
    mqtt_.stop();
    connected_ = false;
}

bool Bridge::publish(const QString &topic, const QByteArray &payload, int qos, bool retain,
                     const QByteArray &correlation)
{
    if (!connected_)
        return false;
    if (topic.toUtf8().size() + payload.size() + correlation.size() + PUBLISH_OVERHEAD > qint64(maxPacket_)) {
        log(QString("%1: %2 bytes exceed the broker's packet limit of %3; not published")
                .arg(topic)
                .arg(payload.size())
                .arg(maxPacket_));
        return true;  // it never will fit: do not hold it
    }
    return mqtt_.publish(topic, payload, qos, retain, correlation) == 0;
}

void Bridge::onConnected(quint32 maxPacket)
{
    connected_ = true;
    maxPacket_ = maxPacket;
    ++stats_.connects;
    log(QString("connected to %1:%2").arg(mqtt_.settings().host).arg(mqtt_.settings().port));
    mqtt_.subscribe(options_.root + "/tag/+/set", 1);
    publish(statusTopic(options_.root), "online", 1, true);
    publishMeta();
    for (int station : health_.stations())
        publishStation(station);
    // Everything again: the broker may have lost its retained messages, and
    // only the latest value of each tag was kept while it was away.
    for (int i = 0; i < tags_.size(); ++i) {
        if (state_[i].known)
            publishValue(i);
        publishError(i, true);
    }
    flushOutbox();
}

void Bridge::publishMeta()
{
    QJsonArray all;
    for (const Tag &t : tags_) {
        QJsonObject o{{"name", t.name},         {"address", t.addressText}, {"type", typeName(t.type)},
                      {"writable", t.writable}, {"station", t.station}};
        if (t.intervalMs > 0)
            o["interval"] = t.intervalMs;
        if (t.deadband > 0)
            o["deadband"] = t.deadband;
        all.append(o);
    }
    const QString topic = options_.root + "/meta";
    const QByteArray whole = compact(QJsonObject{{"tags", all}});
    const qint64 room = qint64(maxPacket_) - PUBLISH_OVERHEAD - topic.toUtf8().size() - 8;
    if (whole.size() <= room) {
        publish(topic, whole, 1, true);
        return;
    }
    // Too large for the broker: ROOT/meta says how many parts, ROOT/meta/N
    // hold the tags in order.
    QVector<QByteArray> parts;
    QJsonArray chunk;
    qint64 size = 0;
    for (const QJsonValue &v : all) {
        const qint64 add = QJsonDocument(v.toObject()).toJson(QJsonDocument::Compact).size() + 1;
        if (!chunk.isEmpty() && size + add > room - 32) {
            parts << compact(QJsonObject{{"part", parts.size() + 1}, {"tags", chunk}});
            chunk = QJsonArray();
            size = 0;
        }
        chunk.append(v);
        size += add;
    }
    parts << compact(QJsonObject{{"part", parts.size() + 1}, {"tags", chunk}});
    publish(topic, compact(QJsonObject{{"parts", parts.size()}, {"count", tags_.size()}}), 1, true);
    for (int i = 0; i < parts.size(); ++i)
        publish(topic + '/' + QString::number(i + 1), parts[i], 1, true);
}

void Bridge::publishStation(int station)
{
    const kq71rt::StationState s = health_.state(station);
    if (s != kq71rt::StationState::Unknown)
        publish(QString("%1/plc/%2/status").arg(options_.root).arg(station), kq71rt::stationStateName(s), 1, true);
}

void Bridge::publishValue(int index)
{
    TagState &s = state_[index];
    const Tag &t = tags_[index];
    // Only the latest value is kept: while the broker is away this is all
    // that happens, and reconnecting publishes what is current.
    s.publishedRaw = s.raw;
    s.published = true;
    s.publishedMs = nowMs();
    if (publish(options_.root + "/tag/" + t.name, valueText(t, s.raw).toUtf8(), options_.valueQos, true))
        ++stats_.valuesPublished;
}

void Bridge::publishError(int index, bool force)
{
    TagState &s = state_[index];
    QString error;
    if (s.readFailed)
        error += 'r';
    if (s.writeFailed)
        error += 'w';
    if (s.late)
        error += 'p';
    if (!force && s.errorPublished && error == s.publishedError)
        return;
    s.publishedError = error;
    s.errorPublished = publish(options_.root + "/tag/" + tags_[index].name + "/error", error.toUtf8(), 1, true);
}

void Bridge::refresh(int index, bool force)
{
    const Tag &t = tags_[index];
    TagState &s = state_[index];
    s.raw = decodeRaw(t, runtime_.read(t.station, t.regName, t.address, t.driverLength()));
    s.known = true;
    bool changed = !s.published || s.raw != s.publishedRaw;
    if (changed && s.published && t.deadband > 0) {
        const double now = numericValue(t, s.raw), before = numericValue(t, s.publishedRaw);
        changed = !(std::fabs(now - before) <= t.deadband);  // NaN counts as a change
    }
    if (changed || force)
        publishValue(index);
}

void Bridge::handle(const Exchange &ex)
{
    if (ex.result == 1 || ex.result == 2) {
        const kq71rt::StationState before = health_.state(ex.station);
        health_.jobEnded(ex.station, ex.result == 1);
        const kq71rt::StationState now = health_.state(ex.station);
        if (now == kq71rt::StationState::Offline && before != now)
            log(QString("station %1 offline: %2").arg(ex.station).arg(ex.describe()));
        if (before != now)
            publishStation(ex.station);
    }
    if (ex.result != 1 && ex.result != 2)
        return;

    if (ex.write) {
        if (!writing_ || ex.jobId != currentJobId_)
            return;
        writing_ = false;
        TagState &s = state_[current_.tag];
        if (ex.result == 1) {
            s.writeFailed = false;
            answer(current_, true, QString(), QString());
            refresh(current_.tag, true);
        } else {
            s.writeFailed = true;
            answer(current_, false, ex.reply.isEmpty() ? "timeout" : "refused", ex.describe());
            refresh(current_.tag, false);  // back to what was last read
        }
        publishError(current_.tag, false);
        return;
    }
    if (ex.jobId != CYCLIC_JOB_ID)
        return;
    ++stats_.cyclicReads;
    const qint64 now = nowMs();
    // The job's units: values of a 32-bit register, words or bits otherwise.
    for (int a = ex.address; a < ex.address + qMax(ex.length, 1); ++a) {
        const auto hit = byUnit_.constFind(unitKey(ex.station, ex.regName, a));
        if (hit == byUnit_.constEnd())
            continue;
        for (int i : *hit) {
            TagState &s = state_[i];
            if (ex.result == 1) {
                s.freshMs = now;
                s.readFailed = s.late = false;
                refresh(i, false);
            } else {
                s.readFailed = true;
            }
            publishError(i, false);
        }
    }
}

void Bridge::housekeeping()
{
    const qint64 now = nowMs();
    lastHousekeepingMs_ = now;
    for (int i = 0; i < tags_.size(); ++i) {
        TagState &s = state_[i];
        const int interval = tags_[i].intervalMs;
        if (interval > 0 && !s.late && now - s.freshMs > interval) {
            s.late = true;
            publishError(i, false);
        }
        if (s.known && connected_ && now - s.publishedMs >= options_.republishMs)
            publishValue(i);
    }
}

void Bridge::onMessage(const MqttMessage &m)
{
    const QString prefix = options_.root + "/tag/";
    if (!m.topic.startsWith(prefix) || !m.topic.endsWith("/set"))
        return;
    ++stats_.setsReceived;
    PendingSet set;
    set.resultTopic = m.topic + "/result";
    set.responseTopic = m.responseTopic;
    set.correlation = m.correlation;
    const QString name = m.topic.mid(prefix.size(), m.topic.size() - prefix.size() - 4);

    auto refuse = [&](const QString &error, const QString &why) { answer(set, false, error, why); };
    if (m.payload.size() > options_.maxSetBytes)
        return refuse("invalid", QString("larger than %1 bytes").arg(options_.maxSetBytes));
    QJsonValue value;
    const QByteArray body = m.payload.trimmed();
    if (body.startsWith('{')) {
        QJsonParseError parseError;
        const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
        if (!doc.isObject())
            return refuse("invalid", "not a JSON object: " + parseError.errorString());
        set.id = doc.object().value("id");
        if (!doc.object().contains("value"))
            return refuse("invalid", "the JSON object has no \"value\"");
        value = doc.object().value("value");
    } else {
        value = QString::fromUtf8(body);
    }
    if (m.retain)
        return refuse("invalid", "a retained set is never carried out");
    set.tag = byName_.value(name, -1);
    if (set.tag < 0)
        return refuse("invalid", QString("no tag \"%1\"").arg(name.left(MAX_TAG_NAME)));
    const Tag &t = tags_[set.tag];
    if (!t.writable)
        return refuse("read-only", QString("%1 is not writable").arg(t.name));
    QString why;
    if (!parseValue(t, value, &set.raw, &why))
        return refuse("invalid", why);
    if (health_.state(t.station) == kq71rt::StationState::Offline)
        return refuse("offline", QString("station %1 is offline").arg(t.station));
    if (writes_.size() >= options_.maxQueuedWrites)
        return refuse("busy", QString("%1 writes are waiting already").arg(writes_.size()));
    writes_.enqueue(set);
}

void Bridge::startNextWrite()
{
    while (!writes_.isEmpty()) {
        current_ = writes_.dequeue();
        const Tag &t = tags_[current_.tag];
        if (health_.state(t.station) == kq71rt::StationState::Offline) {
            answer(current_, false, "offline", QString("station %1 is offline").arg(t.station));
            continue;
        }
        // One write at a time: the driver replaces a queued write of the same
        // range, and every set needs its own answer.
        quint32 word = 0;
        if (t.bit >= 0) {
            const QByteArray b = runtime_.read(t.station, t.regName, t.address, 1);
            word = b.size() >= 2 ? quint8(b[0]) | quint8(b[1]) << 8 : 0;
        }
        currentJobId_ = FIRST_WRITE_ID + nextJobId_;
        nextJobId_ = (nextJobId_ + 1) % (LAST_WRITE_ID - FIRST_WRITE_ID);
        runtime_.write(t.station, t.regName, t.address, t.driverLength(), encodeRaw(t, current_.raw, word),
                       currentJobId_);
        writing_ = true;
        writeDeadlineMs_ = nowMs() + options_.writeTimeoutMs;
        return;
    }
}

void Bridge::answer(const PendingSet &set, bool ok, const QString &error, const QString &why)
{
    QJsonObject o{{"id", set.id.isUndefined() ? QJsonValue() : set.id}, {"ok", ok}};
    if (ok)
        o["value"] = valueJson(tags_[set.tag], set.raw);
    else {
        o["error"] = error;
        o["message"] = why.left(200);
    }
    const QByteArray payload = compact(o);
    ++stats_.setsAnswered;
    for (const QString &topic : {set.resultTopic, set.responseTopic}) {
        if (topic.isEmpty())
            continue;
        if (outbox_.size() >= MAX_OUTBOX) {
            ++stats_.resultsDropped;
            continue;
        }
        outbox_.enqueue(Outgoing{topic, payload, topic == set.responseTopic ? set.correlation : QByteArray()});
    }
    if (connected_)
        flushOutbox();
}

void Bridge::flushOutbox()
{
    while (!outbox_.isEmpty()) {
        const Outgoing &o = outbox_.head();
        if (!publish(o.topic, o.payload, 1, false, o.correlation))
            return;  // the broker went away: kept for the next connection
        outbox_.dequeue();
    }
}

} // namespace kq71bridge
