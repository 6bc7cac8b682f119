// What the panel editor asks of the driver: the ends of every register's
// range and the register catalogue. Result codes and copy series are checked
// against the fuzz editor target's model, replayed over its kept inputs.
#include "test_support.h"

#include <QtCore/QStringList>

#include <cstdlib>

using namespace kq71test;

namespace {

const int UNTOUCHED = 0x5A5A5A5A;

QString q(const char *s) { return QString::fromLatin1(s); }
QList<QString> names(const char *spaced) { return q(spaced).split(QLatin1Char(' '), SKIP_EMPTY_PARTS); }

} // namespace

// Both ends of every register's range, as an editor meets them: one object of
// the register's natural size at min, just below, at max and just beyond, and
// one size too many at max; the address comes back parsed in the register's radix.
TEST(AddressCheck, BothEndsOfEveryRegisterRange)
{
    const struct { const char *names; int dataType, count, radix, min, max; } rows[] = {
        {"X Y", BIT, 1, 8, 0, 255},       {"S M T", BIT, 1, 10, 0, 9999},      {"C", BIT, 1, 10, 0, 199},
        {"200C", BIT, 1, 10, 200, 255},   {"256C", BIT, 1, 10, 256, 9999},     {"D V Z TC TP", 0, 1, 10, 0, 9999},
        {"CC CP", 0, 1, 10, 0, 199},      {"200CC 200CP", 1, 2, 10, 200, 255}, {"256CC 256CP", 1, 2, 10, 256, 9999},
    };
    for (const auto &r : rows)
        for (const QString &name : names(r.names)) {
            const struct { int address, count, code; } ends[] = {
                {r.min, r.count, 0}, {r.min - 1, r.count, 2}, {r.max, r.count, 0}, {r.max, r.count + 1, 2},
                {r.max + 1, r.count, 2}};
            for (const auto &e : ends) {
                QString n = name, t = (e.address < 0 ? "-" : "") + QString::number(std::abs(e.address), r.radix);
                int a = UNTOUCHED, b = UNTOUCHED;
                EXPECT_EQ(std::make_tuple(e.code, e.address, e.code, e.address),
                          std::make_tuple(intf_checkAddr(&n, &t, &a, r.dataType, e.count, 0), a,
                                          intf_checkAddrValidity(&n, &t, &b, e.count, r.dataType == BIT ? 0 : 1), b))
                    << name.toStdString() << " " << e.address << " x" << e.count;
            }
        }
}

TEST(Catalogue, ListsRegistersByTypeAndDescribesEach)
{
    const QList<QString> bits = names("X Y S M T C 200C 256C");
    const QList<QString> words = names("D V Z TC TP CC CP 200CC 200CP 256CC 256CP");
    const struct { int type, result; const QList<QString> &expected; } lists[] = {{0, 1, bits}, {1, 1, words}, {2, 0, words}};
    for (const auto &c : lists) {
        QList<QString> out = names("kept"); // appended to, never emptied
        EXPECT_EQ(c.result, intf_getRegListByType(c.type, &out)) << c.type;
        EXPECT_EQ(names("kept") + c.expected, out) << c.type;
    }
    const struct { const char *name, *items; } descriptions[] = {
        {"X", "OOO 0 377 0 1"}, {"200C", "DDD 200 255 0 1"}, {"D", "DDDD 0 9999 1 1"}, {"256CP", "DDD 256 9999 2 1"},
        {"D_bit", ""},
    };
    for (const auto &c : descriptions) {
        QString name = q(c.name);
        QList<QString> out;
        EXPECT_EQ(0, intf_getRegDiscription(&name, &out)) << c.name;
        EXPECT_EQ(names(c.items), out) << c.name;
    }
}
