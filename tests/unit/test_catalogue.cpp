#include "protocol.h"

#include <gtest/gtest.h>

namespace {

QList<QString> names(std::initializer_list<const char *> list)
{
    QList<QString> out;
    for (const char *s : list)
        out.append(QString::fromLatin1(s));
    return out;
}

} // namespace

TEST(Catalogue, ListsBitOrWordRegistersByType)
{
    const QList<QString> bits = names({"X", "Y", "S", "M", "T", "C", "200C", "256C"});
    const QList<QString> words =
        names({"D", "V", "Z", "TC", "TP", "CC", "CP", "200CC", "200CP", "256CC", "256CP"});
    struct Case {
        int type, result;
        const QList<QString> &expected;
    };
    const Case cases[] = {{0, 1, bits}, {1, 1, words}, {2, 0, words}, {5, 0, words}, {-1, 0, words}};
    for (const Case &c : cases) {
        QList<QString> out;
        EXPECT_EQ(intf_getRegListByType(c.type, &out), c.result) << c.type;
        EXPECT_EQ(out, c.expected) << c.type;
    }
}

TEST(Catalogue, AppendsWithoutEmptyingTheList)
{
    QList<QString> out = names({"kept"});
    intf_getRegListByType(0, &out);
    intf_getRegListByType(0, &out);
    EXPECT_EQ(out.size(), 1 + 2 * 8);
    EXPECT_EQ(out.at(9), QString::fromLatin1("X"));
}

TEST(Catalogue, DescribesSyntaxRangeKindAndAccess)
{
    struct Case {
        const char *name;
        std::initializer_list<const char *> items;
    };
    const Case cases[] = {
        {"X", {"OOO", "0", "377", "0", "1"}},
        {"200C", {"DDD", "200", "255", "0", "1"}},
        {"D", {"DDDD", "0", "9999", "1", "1"}},
        {"CP", {"DDD", "0", "199", "1", "1"}},
        {"256CP", {"DDD", "256", "9999", "2", "1"}},
        {"D_bit", {}},
        {"x", {}},
        {"", {}},
    };
    for (const Case &c : cases) {
        QString name = QString::fromLatin1(c.name);
        QList<QString> out;
        EXPECT_EQ(intf_getRegDiscription(&name, &out), 0) << c.name;
        EXPECT_EQ(out, names(c.items)) << c.name;
    }
}

TEST(Catalogue, MissingArgumentsFillNothing)
{
    QString d = QString::fromLatin1("D");
    QList<QString> out;
    EXPECT_EQ(intf_getRegListByType(0, nullptr), 0);
    EXPECT_EQ(intf_getRegDiscription(nullptr, &out), 0);
    EXPECT_EQ(intf_getRegDiscription(&d, nullptr), 0);
    EXPECT_TRUE(out.isEmpty());
}
