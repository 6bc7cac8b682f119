// The tags a bridge publishes: read from a JSON file, checked against the
// driver's own address check, and the conversions between a tag's value,
// the driver's cache bytes and the text on the broker.
#ifndef KQ71_BRIDGE_TAGS_H
#define KQ71_BRIDGE_TAGS_H

#include "address_text.h"
#include "driver_library.h"

#include <QtCore/QByteArray>
#include <QtCore/QJsonValue>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace kq71bridge {

enum class TagType { Bool, Int16, Uint16, Int32, Uint32, Float32 };

QString typeName(TagType type);

// Limits on what a tag file may hold.
enum { MAX_TAG_FILE_BYTES = 32 << 20, MAX_TAGS = 100000, MAX_TAG_NAME = 64 };

struct Tag {
    QString name;
    QString addressText;  // as written in the file
    TagType type = TagType::Int16;
    int station = 1;
    bool writable = false;
    int intervalMs = 0;   // a good read at least this often, else error "p"; 0: no limit
    double deadband = 0;  // changes up to this much are not published

    // Where the value lives, once checked.
    QString regName;
    kq71rt::UnitKind kind = kq71rt::UnitKind::Unknown;
    int address = -1;  // the driver's number of the first unit
    int units = 1;     // units of the register the value spans (2: a 32-bit value in two words)
    int bit = -1;      // a bit of a word register (D100.5), or -1

    // As the driver's watch list and intf_getData / intf_setData take it.
    int dataType() const { return kq71rt::driverDataType(kind); }
    int driverLength() const { return kq71rt::driverLength(kind, units); }
};

// Reads the tag file; every bad entry is reported as "tag N (name): reason".
// False when the file cannot be read or any entry is bad.
bool loadTags(const QString &path, const kq71rt::DriverLibrary &driver,
              const QList<kq71rt::RegisterInfo> &catalogue, int defaultStation, QVector<Tag> *tags,
              QStringList *errors);
bool parseTags(const QByteArray &json, const kq71rt::DriverLibrary &driver,
               const QList<kq71rt::RegisterInfo> &catalogue, int defaultStation, QVector<Tag> *tags,
               QStringList *errors);

// Values are kept raw: a bit as 0/1, 16-bit types in the low half, 32-bit
// types as their bits (floats too).
quint32 decodeRaw(const Tag &tag, const QByteArray &cacheBytes);
// The bytes intf_setData takes for the value; `currentWord` is the word a
// bit of a word is set in.
QByteArray encodeRaw(const Tag &tag, quint32 raw, quint32 currentWord = 0);
double numericValue(const Tag &tag, quint32 raw);
// "1", "-42", "3.25": the shortest text that reads back as the same value.
QString valueText(const Tag &tag, quint32 raw);
QJsonValue valueJson(const Tag &tag, quint32 raw);
// A value sent by a client (JSON number, bool, or text); false with the reason
// when it is not of the tag's type or out of its range.
bool parseValue(const Tag &tag, const QJsonValue &value, quint32 *raw, QString *why);

} // namespace kq71bridge

#endif
