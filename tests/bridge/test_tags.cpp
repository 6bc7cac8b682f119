// The tag file and the value conversions: what a bad entry is told, and how
// each type goes between the driver's bytes, the broker's text and a set.
#include "support.h"
#include "tags.h"

#include <gtest/gtest.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

using namespace kq71bridge;
using namespace kq71rt;

namespace {

bool parse(const QByteArray &json, QVector<Tag> *tags, QStringList *errors)
{
    return parseTags(json, kq71test::driver(), registerCatalogue(kq71test::driver()), 1, tags, errors);
}

Tag one(const char *entry)
{
    QVector<Tag> tags;
    QStringList errors;
    EXPECT_TRUE(parse(QByteArray("[") + entry + "]", &tags, &errors)) << qPrintable(errors.join('\n'));
    return tags.value(0);
}

QJsonValue jsonValue(const char *text) { return QJsonDocument::fromJson(QByteArray("[") + text + "]").array().at(0); }

// The keys the bridge's tests leave at their defaults, and how many registers
// each type spans.
TEST(TagFile, GoodEntriesFindTheirUnits)
{
    const Tag word = one(R"({"name":"speed","address":"d100","type":"int16","deadband":2.5,"interval":500,"station":7})");
    EXPECT_EQ(std::make_tuple(word.regName, word.address, word.station, word.intervalMs, word.deadband, word.writable),
              std::make_tuple(QString("D"), 100, 7, 500, 2.5, false));
    const Tag pair = one(R"({"name":"p","address":"D200","type":"float32"})");
    const Tag dword = one(R"({"name":"c","address":"200CC200","type":"uint32"})");
    const Tag bit = one(R"({"name":"b","address":"D100.15","type":"bool"})");
    EXPECT_EQ(std::make_tuple(pair.units, pair.driverLength(), dword.units, dword.driverLength()), std::make_tuple(2, 2, 1, 2));
    EXPECT_EQ(std::make_tuple(bit.bit, bit.dataType()), std::make_tuple(15, 0));  // watched as its word
}

TEST(TagFile, BadEntriesAreRefusedWithTheEntryAndTheReason)
{
    const struct {
        const char *entry;
        const char *reason;
    } cases[] = {
        {R"("speed")", "not a JSON object"},
        {R"({"name":"Speed","address":"D100","type":"int16"})", "\"name\" must be"},
        {R"({"name":"a/b","address":"D100","type":"int16"})", "\"name\" must be"},
        {R"({"name":"a","address":"D100","type":"int8"})", "\"type\" must be one of"},
        {R"({"name":"a","address":"D100","type":"int16","scale":2})", "unknown key \"scale\""},
        {R"({"name":"a","type":"int16"})", "\"address\" is missing"},
        {R"({"name":"a","address":"D100:4","type":"int16"})", "no \":count\""},
        {R"({"name":"a","address":"Q100","type":"int16"})", "unknown register"},
        {R"({"name":"a","address":"D99999","type":"int16"})", "out of range"},
        {R"({"name":"a","address":"X28","type":"bool"})", "octal"},
        {R"({"name":"a","address":"X20","type":"int16"})", "does not fit"},
        {R"({"name":"a","address":"D100","type":"bool"})", "bool needs a bit"},
        {R"({"name":"a","address":"D100.16","type":"bool"})", "0 to 15"},
        {R"({"name":"a","address":"X20.1","type":"bool"})", "only a 16-bit register"},
        {R"({"name":"a","address":"200CC200","type":"int16"})", "32-bit register"},
        {R"({"name":"a","address":"X20","type":"bool","deadband":1})", "no \"deadband\""},
        {R"({"name":"a","address":"D100","type":"int16","deadband":-1})", "\"deadband\" must be"},
        {R"({"name":"a","address":"D100","type":"int16","station":0})", "\"station\" must be"},
        {R"({"name":"a","address":"D100","type":"int16","interval":0.5})", "\"interval\" must be"},
        {R"({"name":"a","address":"D100","type":"int16","writable":"yes"})", "\"writable\" must be"},
    };
    QVector<Tag> tags;
    QStringList errors;
    for (const auto &c : cases) {
        errors.clear();
        EXPECT_FALSE(parse(QByteArray(R"([{"name":"ok","address":"D1","type":"int16"},)") + c.entry + "]", &tags, &errors));
        ASSERT_EQ(errors.size(), 1) << c.entry;
        EXPECT_TRUE(errors[0].startsWith("tag 2") && errors[0].contains(c.reason)) << c.entry << " -> " << qPrintable(errors[0]);
    }
    // Every bad entry is listed, not only the first.
    errors.clear();
    EXPECT_FALSE(parse(R"([{"name":"a","address":"D1","type":"int16"},{"name":"a","address":"D2","type":"int16"},
                           {"name":"b","address":"D1","type":"nope"}])", &tags, &errors));
    ASSERT_EQ(errors.size(), 2);
    EXPECT_TRUE(errors[0].contains("tag 2 (a): the name is taken by tag 1")) << qPrintable(errors[0]);
    EXPECT_TRUE(errors[1].startsWith("tag 3 (b)"));
    for (const char *file : {"{}", "[]", "[", "nonsense"}) {
        errors.clear();
        EXPECT_FALSE(parse(file, &tags, &errors)) << file;
        EXPECT_EQ(errors.size(), 1) << file;
    }
}

TEST(TagFile, ValuesBetweenCacheTextAndSets)
{
    const Tag i16 = one(R"({"name":"a","address":"D1","type":"int16"})");
    const Tag u16 = one(R"({"name":"a","address":"D1","type":"uint16"})");
    const Tag i32 = one(R"({"name":"a","address":"D1","type":"int32"})");
    const Tag u32 = one(R"({"name":"a","address":"200CC200","type":"uint32"})");
    const Tag f32 = one(R"({"name":"a","address":"D1","type":"float32"})");
    const Tag x = one(R"({"name":"a","address":"X1","type":"bool"})");
    // Set value -> raw -> the bytes written -> back from the cache -> text.
    const struct {
        const Tag &tag;
        const char *set;  // as JSON
        QByteArray bytes;
        const char *text;
    } good[] = {
        {i16, "-42", QByteArray("\xD6\xFF", 2), "-42"},
        {i16, "\"32767\"", QByteArray("\xFF\x7F", 2), "32767"},
        {u16, "65535", QByteArray("\xFF\xFF", 2), "65535"},
        {i32, "-2", QByteArray("\xFE\xFF\xFF\xFF", 4), "-2"},
        {i32, "70000", QByteArray("\x70\x11\x01\x00", 4), "70000"},  // low word first
        {u32, "4294967295", QByteArray("\xFF\xFF\xFF\xFF", 4), "4294967295"},
        {f32, "3.25", QByteArray("\x00\x00\x50\x40", 4), "3.25"},
        {f32, "\"0.1\"", QByteArray("\xCD\xCC\xCC\x3D", 4), "0.1"},
        {x, "true", QByteArray("\x01", 1), "1"},
        {x, "\"0\"", QByteArray("\x00", 1), "0"},
    };
    for (const auto &c : good) {
        quint32 raw = 0;
        QString why;
        ASSERT_TRUE(parseValue(c.tag, jsonValue(c.set), &raw, &why)) << c.set << ": " << qPrintable(why);
        EXPECT_EQ(encodeRaw(c.tag, raw).toHex(), c.bytes.toHex()) << c.set;
        EXPECT_EQ(valueText(c.tag, decodeRaw(c.tag, c.bytes)), c.text) << c.set;
    }
    // A bit of a word keeps the word's other bits.
    const Tag bit = one(R"({"name":"a","address":"D1.3","type":"bool"})");
    EXPECT_EQ(encodeRaw(bit, 1, 0x8001).toHex() + encodeRaw(bit, 0, 0xFFFF).toHex(), QByteArray("0980f7ff"));
    EXPECT_EQ(decodeRaw(bit, QByteArray("\x08\x00", 2)) + 2 * decodeRaw(bit, QByteArray("\xF7\xFF", 2)), 1u);

    const struct {
        const Tag &tag;
        const char *set;
    } bad[] = {{i16, "32768"}, {i16, "1.5"}, {u16, "-1"}, {u32, "4294967296"}, {f32, "1e39"}, {f32, "\"nan\""},
               {x, "2"}, {x, "\"yes\""}, {i16, "\"12abc\""}, {i16, "null"}, {i16, "[1]"}, {i32, "\"\""}};
    for (const auto &c : bad) {
        quint32 raw = 0;
        QString why;
        EXPECT_FALSE(parseValue(c.tag, jsonValue(c.set), &raw, &why)) << c.set;
        EXPECT_FALSE(why.isEmpty()) << c.set;
    }
}

} // namespace
