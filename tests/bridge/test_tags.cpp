// The tag file and the value conversions: what a bad entry is told, and how
// each type goes between the driver's bytes, the broker's text and a set. What
// the other keys do, the bridge's tests show through the broker.
#include "support.h"
#include "tags.h"

#include <gtest/gtest.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

using namespace kq71bridge;

namespace {

bool parse(const QByteArray &json, QVector<Tag> *tags, QStringList *errors)
{
    return parseTags(json, kq71test::driver(), kq71rt::registerCatalogue(kq71test::driver()), 1, tags, errors);
}

TEST(TagFile, BadEntriesAreAllRefusedEachWithItsNumberAndTheReason)
{
    const char *reasons[] = {
        R"("speed")", "not a JSON object",
        R"({"name":"Speed","address":"D100","type":"int16"})", "\"name\" must be",
        R"({"name":"b","address":"D100","type":"int8"})", "\"type\" must be one of",
        R"({"name":"c","address":"D100","type":"int16","scale":2})", "unknown key \"scale\"",
        R"({"name":"d","type":"int16"})", "\"address\" is missing",
        R"({"name":"e","address":"D100:4","type":"int16"})", "no \":count\"",
        R"({"name":"f","address":"Q100","type":"int16"})", "unknown register",
        R"({"name":"g","address":"D99999","type":"int16"})", "out of range",
        R"({"name":"h","address":"X28","type":"bool"})", "octal",
        R"({"name":"i","address":"X20","type":"int16"})", "does not fit",
        R"({"name":"j","address":"D100","type":"bool"})", "bool needs a bit",
        R"({"name":"k","address":"D100.16","type":"bool"})", "0 to 15",
        R"({"name":"l","address":"X20.1","type":"bool"})", "only a 16-bit register",
        R"({"name":"m","address":"200CC200","type":"int16"})", "32-bit register",
        R"({"name":"n","address":"X20","type":"bool","deadband":1})", "no \"deadband\"",
        R"({"name":"o","address":"D100","type":"int16","station":0})", "\"station\" must be",
        R"({"name":"p","address":"D100","type":"int16","interval":0.5})", "\"interval\" must be",
        R"({"name":"q","address":"D100","type":"int16","writable":"yes"})", "\"writable\" must be",
        R"({"name":"ok","address":"D2","type":"int16"})", "the name is taken by tag 1",
    };
    const int n = int(sizeof reasons / sizeof reasons[0]) / 2;
    QByteArray file = R"([{"name":"ok","address":"D1","type":"int16"})";
    for (int i = 0; i < n; ++i)
        file += QByteArray(",") + reasons[2 * i];
    QVector<Tag> tags;
    QStringList errors;
    EXPECT_FALSE(parse(file + "]", &tags, &errors));
    ASSERT_EQ(errors.size(), n) << qPrintable(errors.join('\n'));
    for (int i = 0; i < n; ++i)
        EXPECT_TRUE(errors[i].startsWith(QString("tag %1").arg(i + 2)) && errors[i].contains(reasons[2 * i + 1]))
            << qPrintable(errors[i]);
    for (const char *bad : {"{}", "[]", "["}) {
        errors.clear();
        EXPECT_FALSE(parse(bad, &tags, &errors) || errors.size() != 1) << bad;
    }
}

TEST(TagFile, ValuesBetweenCacheTextAndSets)
{
    QVector<Tag> t;
    QStringList errors;
    ASSERT_TRUE(parse(R"([{"name":"a","address":"d1","type":"int16","station":7}, {"name":"b","address":"D1","type":"uint16"},
                          {"name":"c","address":"D1","type":"int32"}, {"name":"d","address":"200CC200","type":"uint32"},
                          {"name":"e","address":"D1","type":"float32"}, {"name":"f","address":"X1","type":"bool"},
                          {"name":"g","address":"D1.3","type":"bool"}])", &t, &errors)) << qPrintable(errors.join('\n'));
    EXPECT_EQ(std::make_tuple(t[0].regName, t[0].address, t[0].station), std::make_tuple(QString("D"), 1, 7));
    const Tag &i16 = t[0], &u16 = t[1], &i32 = t[2], &u32 = t[3], &f32 = t[4], &x = t[5], &bit = t[6];
    // Set value -> raw -> the bytes written -> back from the cache -> text.
    const struct {
        const Tag &tag;
        const char *set;  // as JSON
        QByteArray bytes;
        const char *text;
    } good[] = {
        {i16, "\"-32768\"", QByteArray("\x00\x80", 2), "-32768"},
        {u16, "65535", QByteArray("\xFF\xFF", 2), "65535"},
        {i32, "-2", QByteArray("\xFE\xFF\xFF\xFF", 4), "-2"},
        {i32, "70000", QByteArray("\x70\x11\x01\x00", 4), "70000"},  // low word first
        {u32, "4294967295", QByteArray("\xFF\xFF\xFF\xFF", 4), "4294967295"},
        {f32, "\"0.1\"", QByteArray("\xCD\xCC\xCC\x3D", 4), "0.1"},
        {x, "\"0\"", QByteArray("\x00", 1), "0"},
    };
    auto value = [](const char *json) { return QJsonDocument::fromJson(QByteArray("[") + json + "]").array().at(0); };
    for (const auto &c : good) {
        quint32 raw = 0;
        QString why;
        ASSERT_TRUE(parseValue(c.tag, value(c.set), &raw, &why)) << c.set << ": " << qPrintable(why);
        EXPECT_EQ(encodeRaw(c.tag, raw).toHex(), c.bytes.toHex()) << c.set;
        EXPECT_EQ(valueText(c.tag, decodeRaw(c.tag, c.bytes)), c.text) << c.set;
    }
    // A bit of a word keeps the word's other bits.
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
        EXPECT_FALSE(parseValue(c.tag, value(c.set), &raw, &why) || why.isEmpty()) << c.set;
    }
}

} // namespace
