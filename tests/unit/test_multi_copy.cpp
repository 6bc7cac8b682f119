#include "protocol.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

struct Series {
    int result;
    QVector<int> addresses;
    QVector<QString> texts;
};

Series copy(const char *reg, int start, int count, int interval)
{
    Series s;
    QString name = QString::fromLatin1(reg);
    s.result = intf_multiCopy(&name, start, count, interval, &s.texts, &s.addresses);
    return s;
}

QVector<QString> texts(std::initializer_list<const char *> list)
{
    QVector<QString> out;
    for (const char *t : list)
        out.append(QString::fromLatin1(t));
    return out;
}

} // namespace

TEST(MultiCopy, SeriesNumbersAndTextsInTheRegistersRadix)
{
    struct Case {
        const char *reg;
        int start, count, interval, result;
        std::vector<int> addresses;
        std::initializer_list<const char *> texts;
    };
    const Case cases[] = {
        {"X", 6, 4, 1, 1, {6, 7, 8, 9}, {"6", "7", "10", "11"}},
        {"X", 250, 8, 1, 2, {250, 251, 252, 253, 254, 255, 255, 255},
         {"372", "373", "374", "375", "376", "377", "377", "377"}},
        {"D", 100, 3, -2, 1, {100, 102, 104}, {"100", "102", "104"}},
        {"M", 0, 3, -1, 1, {0, 16, 32}, {"0", "16", "32"}},
        {"Y", 0, 3, -2, 1, {0, 32, 64}, {"0", "40", "100"}},
        {"200CC", 200, 3, -1, 1, {200, 201, 202}, {"200", "201", "202"}},
        {"200CC", 200, 3, -2, 1, {200, 201, 202}, {"200", "201", "202"}},
        {"D", 5, 3, 0, 1, {5, 6, 7}, {"5", "6", "7"}},
        {"D", 5, 2, -7, 1, {5, 6}, {"5", "6"}},
        {"D", 9990, 3, 5, 2, {9990, 9995, 9999}, {"9990", "9995", "9999"}},
        {"200C", 190, 2, 5, 1, {190, 195}, {"190", "195"}}, // min is not enforced
        {"D", -1, 1, 1, 1, {-1}, {"4294967295"}},          // text is unsigned
        {"D", 0, 0, 1, 1, {}, {}},
        {"Q", 0, 3, 1, 0, {}, {}},
    };
    for (const Case &c : cases) {
        const Series s = copy(c.reg, c.start, c.count, c.interval);
        SCOPED_TRACE(testing::Message() << c.reg << " from " << c.start << " x" << c.count << " step " << c.interval);
        EXPECT_EQ(s.result, c.result);
        EXPECT_EQ(s.addresses, QVector<int>(c.addresses.begin(), c.addresses.end()));
        EXPECT_EQ(s.texts, texts(c.texts));
    }
}

TEST(MultiCopy, AppendsToWhatTheListsHold)
{
    Series s;
    s.addresses.append(-9);
    s.texts.append(QString::fromLatin1("old"));
    QString name = QString::fromLatin1("X");
    EXPECT_EQ(intf_multiCopy(&name, 7, 2, 1, &s.texts, &s.addresses), 1);
    EXPECT_EQ(s.addresses, QVector<int>({-9, 7, 8}));
    EXPECT_EQ(s.texts, texts({"old", "7", "10"}));
}

TEST(MultiCopy, LowerCaseHexAndTextKeptForUnknownLetters)
{
    QVector<QString> t;
    QVector<int> a;
    EXPECT_EQ(multiCp(QString::fromLatin1("H"), QString::fromLatin1("HHH"), 0xfe, 2, 1, t, a, 0x1ff,
                      QString::fromLatin1("1ff")),
              1);
    EXPECT_EQ(t, texts({"fe", "ff"}));

    // A letter that names no radix leaves the text buffer as it was: empty here.
    t.clear();
    a.clear();
    EXPECT_EQ(multiCp(QString::fromLatin1("Q"), QString::fromLatin1("QQ"), 3, 2, 1, t, a, 10, QString::fromLatin1("10")),
              1);
    EXPECT_EQ(a, QVector<int>({3, 4}));
    EXPECT_EQ(t, texts({"", ""}));
}

TEST(MultiCopy, MixedFormatWithoutTextStopsAtOnce)
{
    QVector<QString> t;
    QVector<int> a;
    EXPECT_EQ(multiCp(QString::fromLatin1("D"), QString::fromLatin1("DH"), 0, 3, 1, t, a, 100, QString::fromLatin1("100")),
              2);
    EXPECT_TRUE(a.isEmpty());
    EXPECT_TRUE(t.isEmpty());
}

TEST(MultiCopy, HugeStartsIntervalsAndCountsStayBounded)
{
    // start + i * interval past INT_MAX must clamp, not wrap to a small address.
    Series s = copy("D", 9000, 3, INT_MAX);
    EXPECT_EQ(s.result, 2);
    EXPECT_EQ(s.addresses, QVector<int>({9000, 9999, 9999}));

    s = copy("D", INT_MAX, 2, INT_MAX);
    EXPECT_EQ(s.addresses, QVector<int>({9999, 9999}));

    // A runaway count is cut to 65536 entries and reported as not as asked.
    s = copy("D", 0, INT_MAX, 1);
    EXPECT_EQ(s.result, 2);
    EXPECT_EQ(s.addresses.size(), 65536);
    EXPECT_EQ(s.texts.size(), 65536);
    EXPECT_EQ(s.addresses.last(), 9999);
}
