#include "tags.h"

#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QRegularExpression>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace kq71bridge {

using namespace kq71rt;

namespace {

struct TypeInfo {
    TagType type;
    const char *name;
    double lo, hi;
};
const TypeInfo TYPES[] = {
    {TagType::Bool, "bool", 0, 1},
    {TagType::Int16, "int16", -32768, 32767},
    {TagType::Uint16, "uint16", 0, 65535},
    {TagType::Int32, "int32", -2147483648.0, 2147483647.0},
    {TagType::Uint32, "uint32", 0, 4294967295.0},
    {TagType::Float32, "float32", -std::numeric_limits<float>::max(), std::numeric_limits<float>::max()},
};

const TypeInfo &info(TagType type)
{
    for (const TypeInfo &t : TYPES)
        if (t.type == type)
            return t;
    return TYPES[0];
}

bool is32(TagType t) { return t == TagType::Int32 || t == TagType::Uint32 || t == TagType::Float32; }

float asFloat(quint32 raw)
{
    float f;
    std::memcpy(&f, &raw, sizeof f);
    return f;
}

// Checks one entry; fills the tag or returns the reason.
QString checkEntry(const QJsonValue &entry, const DriverLibrary &driver, const QList<RegisterInfo> &catalogue,
                   int defaultStation, Tag *tag)
{
    if (!entry.isObject())
        return "not a JSON object";
    const QJsonObject o = entry.toObject();
    static const QStringList known{"name", "address", "type", "station", "writable", "interval", "deadband"};
    for (auto it = o.begin(); it != o.end(); ++it)
        if (!known.contains(it.key()))
            return QString("unknown key \"%1\" (known: %2)").arg(it.key(), known.join(", "));

    static const QRegularExpression namePattern("^[a-z0-9_-]+$");
    tag->name = o.value("name").toString();
    if (!o.value("name").isString() || !namePattern.match(tag->name).hasMatch() || tag->name.size() > MAX_TAG_NAME)
        return QString("\"name\" must be 1 to %1 characters of a-z 0-9 _ -").arg(int(MAX_TAG_NAME));

    const QString typeText = o.value("type").toString();
    bool typeKnown = false;
    for (const TypeInfo &t : TYPES)
        if (typeText == QLatin1String(t.name)) {
            tag->type = t.type;
            typeKnown = true;
        }
    if (!typeKnown)
        return "\"type\" must be one of bool, int16, uint16, int32, uint32, float32";

    tag->station = defaultStation;
    if (o.contains("station")) {
        const QJsonValue v = o.value("station");
        if (!v.isDouble() || v.toDouble() != std::floor(v.toDouble()) || v.toDouble() < 1 || v.toDouble() > 247)
            return "\"station\" must be a whole number from 1 to 247";
        tag->station = v.toInt();
    }
    if (o.contains("writable") && !o.value("writable").isBool())
        return "\"writable\" must be true or false";
    tag->writable = o.value("writable").toBool(false);
    if (o.contains("interval")) {
        const QJsonValue v = o.value("interval");
        if (!v.isDouble() || v.toDouble() != std::floor(v.toDouble()) || v.toDouble() < 1 ||
            v.toDouble() > 86400000)
            return "\"interval\" must be milliseconds, a whole number from 1 to 86400000";
        tag->intervalMs = v.toInt();
    }
    if (o.contains("deadband")) {
        const QJsonValue v = o.value("deadband");
        if (!v.isDouble() || !(v.toDouble() >= 0))
            return "\"deadband\" must be a number of at least 0";
        if (tag->type == TagType::Bool)
            return "a bool has no \"deadband\"";
        tag->deadband = v.toDouble();
    }

    // The address: as the command line takes it, plus ".N" for a bit of a word.
    tag->addressText = o.value("address").toString().trimmed();
    if (!o.value("address").isString() || tag->addressText.isEmpty())
        return "\"address\" is missing (e.g. \"D100\", \"X20\", \"200CC200\", \"D100.5\")";
    if (tag->addressText.contains(':'))
        return "\"address\" names one value: no \":count\"";
    QString text = tag->addressText;
    const int dot = text.indexOf('.');
    if (dot >= 0) {
        bool ok = false;
        tag->bit = text.mid(dot + 1).toInt(&ok, 10);
        if (!ok || tag->bit < 0 || tag->bit > 15)
            return QString("\"%1\": the bit after '.' must be 0 to 15").arg(tag->addressText);
        text = text.left(dot);
    }
    TypedAddress target;
    QString error;
    if (!parseAddress(text, catalogue, &target, &error))
        return error;
    tag->regName = target.regName;
    tag->kind = target.kind;
    if (tag->bit >= 0 && tag->kind != UnitKind::Word)
        return QString("\"%1\": only a 16-bit register has bits to pick with '.'").arg(tag->addressText);
    if ((tag->type == TagType::Bool) != (tag->kind == UnitKind::Bit || tag->bit >= 0))
        return tag->type == TagType::Bool
                   ? QString("bool needs a bit: a bit register or a bit of a word (\"D100.5\")")
                   : QString("%1 does not fit %2 (a bit)").arg(typeText, tag->addressText);
    if (tag->kind == UnitKind::DoubleWord && !is32(tag->type))
        return QString("%1 is a 32-bit register: the type must be int32, uint32 or float32").arg(tag->regName);
    // A 32-bit value in a 16-bit register takes two words, low word first.
    target.count = tag->kind == UnitKind::Word && is32(tag->type) ? 2 : 1;
    tag->units = target.count;
    for (int access : {int(ACCESS_READ), int(ACCESS_WRITE)}) {
        if (access == ACCESS_WRITE && !tag->writable)
            break;
        const int code = checkAddress(driver, &target, access);
        if (code != 0)
            return (access == ACCESS_WRITE ? "cannot be writable: " : "") + checkFailureText(code, target, catalogue);
    }
    tag->address = target.address;
    return QString();
}

} // namespace

QString typeName(TagType type) { return QString::fromLatin1(info(type).name); }


bool parseTags(const QByteArray &json, const DriverLibrary &driver, const QList<RegisterInfo> &catalogue,
               int defaultStation, QVector<Tag> *tags, QStringList *errors)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *errors << QString("not JSON: %1 at byte %2").arg(parseError.errorString()).arg(parseError.offset);
        return false;
    }
    if (!doc.isArray()) {
        *errors << "the tag file must hold a JSON list of tags";
        return false;
    }
    const QJsonArray list = doc.array();
    if (list.isEmpty() || list.size() > MAX_TAGS) {
        *errors << QString("the tag file must hold 1 to %1 tags, not %2").arg(int(MAX_TAGS)).arg(list.size());
        return false;
    }
    QHash<QString, int> seen;
    const int before = errors->size();
    for (int i = 0; i < list.size(); ++i) {
        Tag tag;
        QString why = checkEntry(list[i], driver, catalogue, defaultStation, &tag);
        if (why.isEmpty() && seen.contains(tag.name))
            why = QString("the name is taken by tag %1").arg(seen.value(tag.name) + 1);
        if (!why.isEmpty()) {
            const QString name = list[i].toObject().value("name").toString();
            *errors << QString("tag %1%2: %3").arg(i + 1).arg(name.isEmpty() ? QString() : " (" + name + ")", why);
            continue;
        }
        seen.insert(tag.name, i);
        tags->append(tag);
    }
    return errors->size() == before;
}

bool loadTags(const QString &path, const DriverLibrary &driver, const QList<RegisterInfo> &catalogue,
              int defaultStation, QVector<Tag> *tags, QStringList *errors)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *errors << QString("%1: %2").arg(path, file.errorString());
        return false;
    }
    const QByteArray json = file.read(MAX_TAG_FILE_BYTES + 1);
    if (json.size() > MAX_TAG_FILE_BYTES) {
        *errors << QString("%1: larger than %2 bytes").arg(path).arg(int(MAX_TAG_FILE_BYTES));
        return false;
    }
    QStringList found;
    const bool ok = parseTags(json, driver, catalogue, defaultStation, tags, &found);
    for (const QString &e : found)
        *errors << path + ": " + e;
    return ok;
}

quint32 decodeRaw(const Tag &tag, const QByteArray &b)
{
    const auto byte = [&](int i) { return i < b.size() ? quint32(quint8(b[i])) : 0u; };
    if (tag.kind == UnitKind::Bit)
        return byte(0) ? 1 : 0;
    const quint32 low = byte(0) | byte(1) << 8;
    if (tag.bit >= 0)
        return low >> tag.bit & 1;
    if (!is32(tag.type))
        return low;
    return low | (byte(2) | byte(3) << 8) << 16;
}

QByteArray encodeRaw(const Tag &tag, quint32 raw, quint32 currentWord)
{
    QByteArray b;
    if (tag.kind == UnitKind::Bit) {
        b.append(char(raw ? 1 : 0));
        return b;
    }
    if (tag.bit >= 0)
        raw = raw ? (currentWord | 1u << tag.bit) : (currentWord & ~(1u << tag.bit));
    const int bytes = is32(tag.type) ? 4 : 2;
    for (int i = 0; i < bytes; ++i)
        b.append(char(raw >> (8 * i) & 0xFF));
    return b;
}

double numericValue(const Tag &tag, quint32 raw)
{
    switch (tag.type) {
    case TagType::Int16:
        return double(qint16(raw & 0xFFFF));
    case TagType::Int32:
        return double(qint32(raw));
    case TagType::Float32:
        return double(asFloat(raw));
    default:
        return double(raw);
    }
}

QString valueText(const Tag &tag, quint32 raw)
{
    if (tag.type != TagType::Float32)
        return QString::number(qint64(numericValue(tag, raw)));
    const float f = asFloat(raw);
    if (std::isnan(f))
        return "nan";
    if (std::isinf(f))
        return f > 0 ? "inf" : "-inf";
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, f);
    return QString::fromLatin1(buf, int(r.ptr - buf));
}

QJsonValue valueJson(const Tag &tag, quint32 raw)
{
    if (tag.type == TagType::Bool)
        return QJsonValue(raw != 0);
    const double v = numericValue(tag, raw);
    if (!std::isfinite(v))
        return QJsonValue(valueText(tag, raw));
    // JSON numbers of floats in their shortest form, not the double's digits.
    return tag.type == TagType::Float32 ? QJsonValue(valueText(tag, raw).toDouble()) : QJsonValue(v);
}

bool parseValue(const Tag &tag, const QJsonValue &value, quint32 *raw, QString *why)
{
    const TypeInfo &t = info(tag.type);
    double v = 0;
    if (value.isBool() && tag.type == TagType::Bool) {
        *raw = value.toBool() ? 1 : 0;
        return true;
    }
    if (value.isDouble()) {
        v = value.toDouble();
    } else if (value.isString()) {
        const QString text = value.toString().trimmed().toLower();
        if (tag.type == TagType::Bool && (text == "true" || text == "false")) {
            *raw = text == "true";
            return true;
        }
        bool ok = false;
        v = text.toDouble(&ok);
        if (!ok || text.isEmpty() || text == "nan" || text.contains("inf")) {
            *why = QString("\"%1\" is not a %2 value").arg(value.toString().left(40), t.name);
            return false;
        }
    } else {
        *why = QString("not a %1 value").arg(t.name);
        return false;
    }
    if (!std::isfinite(v) || v < t.lo || v > t.hi) {
        *why = QString("%1 is outside %2 (%3 to %4)").arg(v).arg(t.name).arg(t.lo).arg(t.hi);
        return false;
    }
    if (tag.type == TagType::Float32) {
        const float f = float(v);
        std::memcpy(raw, &f, sizeof f);
        return true;
    }
    if (v != std::floor(v)) {
        *why = QString("%1 is not a whole number (%2)").arg(v).arg(t.name);
        return false;
    }
    *raw = tag.type == TagType::Int16 ? quint32(quint16(qint16(v)))
           : tag.type == TagType::Int32 ? quint32(qint32(v))
                                         : quint32(v);
    return true;
}

} // namespace kq71bridge
