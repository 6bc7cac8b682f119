// What the panel editor asks of the driver: address checks, the register
// catalogue, address series for copies and sort weights.
#include "register_table.h"
#include "test_support.h"

#include <QtCore/QStringList>

#include <climits>
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

// The first failing check decides; the address argument shows how far the check got.
TEST(AddressCheck, ResultCodesAndTheAddressTheyLeave)
{
    const struct { const char *name, *text; int dataType, count, access, code, address; } cases[] = {
        {"X", "8", BIT, 1, 0, 4, 0},               // not an octal digit
        {"X", "0", 0, 1, 0, 1, UNTOUCHED},         // word object on a bit register
        {"D", "0", BIT, 1, 0, 1, UNTOUCHED},       // bit object on a word register
        {"D", "9999", 0, 1, 1, 0, 9999},           // writing on a read-write register
        {"200CC", "255", BIT, 2, 0, 1, UNTOUCHED}, // kind is tested before data type
        {"200CC", "zz", 0, 2, 0, 5, UNTOUCHED},    // data type is tested before the text
        {"200CC", "254", 1, 3, 0, 0, 254},         // odd word count: ends half-way into 255
        {"200CC", "255", 1, 3, 0, 2, 255},         // 255 + 1.5 > 256
        {"D_bit", "1", BIT, 1, 0, 3, UNTOUCHED},   // bit-in-word names are not registers here
        {"W", "zz", 0, 1, 0, 3, UNTOUCHED},        // the name is tested first
        {"D", " 12 ", 0, 1, 0, 0, 12},             // surrounding blanks are accepted
        {"D", "-2147483648", 0, 1, 0, 2, INT_MIN},
        {"D", "2147483647", 0, 1, 0, 2, INT_MAX},  // no wrap past max
        {"D", "100", 0, INT_MAX, 0, 2, 100},       // an object past any end
    };
    for (const auto &c : cases) {
        QString n = q(c.name), t = q(c.text);
        int a = UNTOUCHED;
        EXPECT_EQ(c.code, intf_checkAddr(&n, &t, &a, c.dataType, c.count, c.access)) << c.name << " '" << c.text << "'";
        EXPECT_EQ(c.address, a) << c.name << " '" << c.text << "'";
    }
    for (int type = -1; type <= 12; ++type) { // double words take five data types, words any
        const bool allowed = type == 1 || type == 3 || type == 5 || type == 6 || type == 9;
        QString dw = q("256CC"), w = q("D"), t = q("300");
        int a = UNTOUCHED;
        EXPECT_EQ(type == BIT ? 1 : allowed ? 0 : 5, intf_checkAddr(&dw, &t, &a, type, 2, 0)) << type;
        EXPECT_EQ(type == BIT ? 1 : 0, intf_checkAddr(&w, &t, &a, type, 1, 0)) << type;
    }
    // Validity takes the word flag for the object kind: any non-zero flag asks for a word.
    const struct { const char *name, *text; int count, wordFlag, code; } validity[] = {
        {"M", "9990", 16, 0, 2}, {"M", "9984", 16, 0, 0}, {"M", "0", 1, 7, 1}, {"200CC", "255", 3, 9, 2}, {"D", "5", 1, 0, 1}, {"D", "100", INT_MAX, 1, 2},
    };
    for (const auto &c : validity) {
        QString n = q(c.name), t = q(c.text);
        int a = UNTOUCHED;
        EXPECT_EQ(c.code, intf_checkAddrValidity(&n, &t, &a, c.count, c.wordFlag)) << c.name << c.text << " x" << c.count;
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

// Every series is appended to what the lists already hold; texts in the register's radix.
TEST(MultiCopy, SeriesStopAtTheRegistersEnd)
{
    const struct { const char *reg; int start, count, interval, result; const char *addresses, *texts; } cases[] = {
        {"X", 250, 8, 1, 2, "-9 250 251 252 253 254 255 255 255", "old 372 373 374 375 376 377 377 377"},
        {"Y", 0, 3, -2, 1, "-9 0 32 64", "old 0 40 100"}, // a negative interval counts words of the register
        {"200CC", 200, 3, -2, 1, "-9 200 201 202", "old 200 201 202"},
        {"D", 9997, 3, 1, 1, "-9 9997 9998 9999", "old 9997 9998 9999"}, // ends at max: all as asked
        {"200C", 190, 2, 5, 1, "-9 190 195", "old 190 195"},              // min is not enforced
        {"D", -1, 1, 1, 1, "-9 -1", "old 4294967295"},                    // text is unsigned
        {"Q", 0, 3, 1, 0, "-9", "old"},
        {"D", 0, -5, 1, 1, "-9", "old"},
        {"D", 5, 3, INT_MIN, 1, "-9 5 6 7", "old 5 6 7"}, // intervals below -2 count as 1
        {"D", 9000, 3, INT_MAX, 2, "-9 9000 9999 9999", "old 9000 9999 9999"}, // clamps, never wraps
    };
    for (const auto &c : cases) {
        QString name = q(c.reg);
        QVector<int> addresses{-9};
        QVector<QString> texts{q("old")};
        EXPECT_EQ(c.result, intf_multiCopy(&name, c.start, c.count, c.interval, &texts, &addresses)) << c.reg;
        QStringList numbers;
        for (int a : addresses)
            numbers << QString::number(a);
        EXPECT_EQ(q(c.addresses), numbers.join(q(" "))) << c.reg << c.start;
        EXPECT_EQ(q(c.texts), QStringList(texts.toList()).join(q(" "))) << c.reg << c.start;
    }
    QString d = q("D"); // a runaway count is cut to 65536 entries and reported as not as asked
    QVector<int> addresses;
    QVector<QString> texts;
    EXPECT_EQ(2, intf_multiCopy(&d, 0, INT_MAX, 1, &texts, &addresses));
    EXPECT_EQ(std::make_tuple(65536, 65536, 9999), std::make_tuple(addresses.size(), texts.size(), addresses.last()));
}

// The planner sorts by this weight: station, then table row, then address.
TEST(RegisterWeight, OrdersByStationThenTableRowThenAddress)
{
    ASSERT_EQ(REG_COUNT, driver.regNames.size()); // the rows the weight counts
    unsigned last = 0;
    for (int station = 0; station < 3; ++station)
        for (int row = 0; row < REG_COUNT; ++row) {
            EXPECT_EQ(REG_LIST[row], driver.regNames.at(row));
            for (int address : {0, 1, 9999}) {
                const unsigned w = unsigned(getRegAddressWeight(station, REG_LIST[row], address, 1));
                EXPECT_TRUE(last < w || (last == 0 && w == 0)) << station << " " << REG_LIST[row].toStdString() << address;
                last = w;
            }
        }
    // An unknown name weighs as row -1: compared unsigned, it sorts last on station 0.
    EXPECT_GT(unsigned(getRegAddressWeight(0, q("Q"), 10, 1)), last);
    EXPECT_EQ(getRegAddressWeight(0, q("256CP"), 10, 1), getRegAddressWeight(1, q("Q"), 10, 1));
}
