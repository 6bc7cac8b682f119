// Values and statistics as text lines or JSON objects (one per line).
#ifndef KQ71_CLI_OUTPUT_H
#define KQ71_CLI_OUTPUT_H

#include "address_text.h"
#include "runtime.h"

#include <QtCore/QDateTime>
#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace kq71cli {

struct UnitValue {
    QString name;  // as the editor writes it: X20, D100, 200CC200
    QString regName;
    int address = 0;
    kq71rt::UnitKind kind = kq71rt::UnitKind::Word;
    quint32 raw = 0;
};

// The units of a target from the bytes intf_getData gave for it.
QVector<UnitValue> decodeValues(const kq71rt::TypedAddress &target, const QByteArray &bytes);

// "1234  (0x04D2, signed 1234)" and friends.
QString valueText(const UnitValue &v);
QString hexText(const UnitValue &v);
QString signedText(const UnitValue &v);
QString floatText(const UnitValue &v);
QJsonObject valueJson(const UnitValue &v);

QString statsText(const kq71rt::RuntimeStats &s);
QJsonObject statsJson(const kq71rt::RuntimeStats &s);

// ISO 8601 in UTC with milliseconds, for JSON; local clock time for text.
QString isoTime(const QDateTime &t);
QString localTime(const QDateTime &t);

// "read: 120 of 625 requests" on a terminal's stderr, once the work has taken
// more than a second; nothing in a pipe or with --json. A total of 0: unknown.
class Progress {
public:
    Progress(bool json, const QString &what, int total);
    ~Progress() { finish(); }
    void update(int done);
    void finish();

private:
    bool enabled_;
    QString what_;
    int total_;
    QElapsedTimer started_;
    qint64 lastMs_ = -1000;
    bool shown_ = false;
};

void printLine(const QString &line);
void printJson(const QJsonObject &object);
void printError(bool json, const QString &message);

} // namespace kq71cli

#endif
