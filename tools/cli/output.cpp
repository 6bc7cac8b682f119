#include "output.h"

#include <QtCore/QJsonDocument>

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace kq71cli {

using kq71rt::UnitKind;

namespace {
unsigned char at(const QByteArray &b, int i) { return i < b.size() ? static_cast<unsigned char>(b[i]) : 0; }
} // namespace

QVector<UnitValue> decodeValues(const kq71rt::TypedAddress &target, const QByteArray &bytes)
{
    QVector<UnitValue> out;
    for (int i = 0; i < target.count; ++i) {
        UnitValue v;
        v.name = target.unitName(i);
        v.regName = target.regName;
        v.address = target.address + i;
        v.kind = target.kind;
        switch (target.kind) {
        case UnitKind::Bit:
            v.raw = at(bytes, i);
            break;
        case UnitKind::DoubleWord:
            v.raw = quint32(at(bytes, 4 * i)) | quint32(at(bytes, 4 * i + 1)) << 8 |
                    quint32(at(bytes, 4 * i + 2)) << 16 | quint32(at(bytes, 4 * i + 3)) << 24;
            break;
        default:
            v.raw = quint32(at(bytes, 2 * i)) | quint32(at(bytes, 2 * i + 1)) << 8;
            break;
        }
        out << v;
    }
    return out;
}

QString hexText(const UnitValue &v)
{
    switch (v.kind) {
    case UnitKind::Bit:
        return QString();
    case UnitKind::DoubleWord:
        return "0x" + QString::number(v.raw, 16).toUpper().rightJustified(8, '0');
    default:
        return "0x" + QString::number(v.raw, 16).toUpper().rightJustified(4, '0');
    }
}

QString signedText(const UnitValue &v)
{
    switch (v.kind) {
    case UnitKind::Bit:
        return QString();
    case UnitKind::DoubleWord:
        return QString::number(qint32(v.raw));
    default:
        return QString::number(qint16(quint16(v.raw)));
    }
}

QString floatText(const UnitValue &v)
{
    if (v.kind != UnitKind::DoubleWord)
        return QString();
    float f;
    std::memcpy(&f, &v.raw, sizeof f);
    return QString::number(double(f), 'g', 7);
}

QString valueText(const UnitValue &v)
{
    if (v.kind == UnitKind::Bit)
        return QString::number(v.raw);
    QString s = QString("%1  (%2, signed %3").arg(v.raw).arg(hexText(v), signedText(v));
    if (v.kind == UnitKind::DoubleWord)
        s += ", float " + floatText(v);
    return s + ")";
}

QJsonObject valueJson(const UnitValue &v)
{
    QJsonObject o{{"name", v.name}, {"reg", v.regName}, {"address", v.address}, {"value", double(v.raw)}};
    if (v.kind != UnitKind::Bit) {
        o["hex"] = hexText(v);
        o["signed"] = v.kind == UnitKind::DoubleWord ? double(qint32(v.raw)) : double(qint16(quint16(v.raw)));
    }
    if (v.kind == UnitKind::DoubleWord) {
        float f;
        std::memcpy(&f, &v.raw, sizeof f);
        o["float"] = double(f);
    }
    return o;
}

QString statsText(const kq71rt::RuntimeStats &s)
{
    QString t = QString("frames %1 (%2/s)  good %3  retries %4  given up %5")
                    .arg(s.framesSent)
                    .arg(s.framesPerSecond(), 0, 'f', 1)
                    .arg(s.goodReplies)
                    .arg(s.retries)
                    .arg(s.givenUp);
    if (s.wireTimeUs > 0)
        t += QString("  line time %1 s").arg(s.wireTimeUs / 1e6, 0, 'f', 2);
    t += "\nlast error: " + (s.lastError.isEmpty() ? QString("none") : s.lastError);
    return t;
}

QJsonObject statsJson(const kq71rt::RuntimeStats &s)
{
    QJsonObject o{{"type", "stats"},
                  {"frames", double(s.framesSent)},
                  {"good", double(s.goodReplies)},
                  {"retries", double(s.retries)},
                  {"givenUp", double(s.givenUp)},
                  {"framesPerSecond", s.framesPerSecond()},
                  {"lineTimeMs", double(s.wireTimeUs / 1000)},
                  {"lastError", s.lastError}};
    return o;
}

QString isoTime(const QDateTime &t) { return t.toUTC().toString(Qt::ISODateWithMs); }

QString localTime(const QDateTime &t) { return t.toLocalTime().toString("HH:mm:ss.zzz"); }

Progress::Progress(bool json, const QString &what, int total)
    : enabled_(!json && isatty(2)), what_(what), total_(total)
{
    started_.start();
}

void Progress::update(int done)
{
    if (!enabled_)
        return;
    const qint64 ms = started_.elapsed();
    if (ms < 1000 || ms - lastMs_ < 200)
        return;
    lastMs_ = ms;
    shown_ = true;
    if (total_ > 0)
        std::fprintf(stderr, "\r%s: %d of %d, %.0f s\x1b[K", qPrintable(what_), qMin(done, total_), total_,
                     ms / 1000.0);
    else
        std::fprintf(stderr, "\r%s: %d done, %.0f s\x1b[K", qPrintable(what_), done, ms / 1000.0);
    std::fflush(stderr);
}

void Progress::finish()
{
    if (shown_)
        std::fputs("\r\x1b[K", stderr);
    shown_ = false;
}

void printLine(const QString &line)
{
    std::fputs(line.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void printJson(const QJsonObject &object)
{
    printLine(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
}

void printError(bool json, const QString &message)
{
    if (json)
        printJson(QJsonObject{{"type", "error"}, {"message", message}});
    else
        std::fprintf(stderr, "kq71: %s\n", message.toLocal8Bit().constData());
}

} // namespace kq71cli
