// The tag file: what a bad entry is told, and which values a set may carry.
// What the keys do, and how each type goes to the PLC and back, the bridge's
// tests show through the broker.
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
        R"({"name":"i","address":"X20","type":"int16"})", "does not fit",
        R"({"name":"j","address":"D100","type":"bool"})", "bool needs a bit",
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

TEST(TagFile, SetValuesMustFitTheirTagsType)
{
    QVector<Tag> t;
    QStringList errors;
    ASSERT_TRUE(parse(R"([{"name":"a","address":"d1","type":"int16","station":7},
                          {"name":"b","address":"D1","type":"uint16"},
                          {"name":"c","address":"D1","type":"int32"}, {"name":"d","address":"200CC200","type":"uint32"},
                          {"name":"e","address":"D1","type":"float32"}, {"name":"f","address":"X1","type":"bool"}])",
                      &t, &errors)) << qPrintable(errors.join('\n'));
    EXPECT_EQ(std::make_tuple(t[0].regName, t[0].address, t[0].station), std::make_tuple(QString("D"), 1, 7));
    const Tag &i16 = t[0], &u16 = t[1], &i32 = t[2], &u32 = t[3], &f32 = t[4], &x = t[5];
    const struct {
        const Tag &tag;
        const char *set;  // as JSON
        bool fits;
    } cases[] = {
        {i16, "\"-32768\"", true}, {i16, "32768", false},       {i16, "1.5", false},        {i16, "\"12abc\"", false},
        {i16, "null", false},      {i16, "[1]", false},         {u16, "65535", true},       {u16, "-1", false},
        {i32, "\"\"", false},      {u32, "4294967295", true},   {u32, "4294967296", false}, {f32, "1e39", false},
        {f32, "\"nan\"", false},   {x, "\"0\"", true},           {x, "2", false},            {x, "\"yes\"", false},
    };
    for (const auto &c : cases) {
        quint32 raw = 0;
        QString why;
        const QJsonValue v = QJsonDocument::fromJson(QByteArray("[") + c.set + "]").array().at(0);
        const bool fits = parseValue(c.tag, v, &raw, &why);
        EXPECT_TRUE(fits == c.fits && why.isEmpty() == c.fits) << c.set << ": " << qPrintable(why);
    }
}

} // namespace
