// What the panel editor asks of the driver: address checks, the register
// catalogue, address series for copies, driver information and sort weights.
#include "register_table.h"
#include "test_support.h"

#include <QtCore/QStringList>

#include <climits>
#include <cstdlib>

using namespace kq71test;

namespace {

const int UNTOUCHED = 0x5A5A5A5A;

QString q(const char *s) { return QString::fromLatin1(s); }
QList<QString> names(const char *spaced) { return q(spaced).split(QLatin1Char(' '), kq71test::SKIP_EMPTY_PARTS); }

int checkAddr(const char *name, const char *text, int &address, int dataType, int count, int access = 0)
{
    QString n = q(name), t = q(text);
    return intf_checkAddr(&n, &t, &address, dataType, count, access);
}
int checkValidity(const char *name, const char *text, int &address, int count, int wordFlag)
{
    QString n = q(name), t = q(text);
    return intf_checkAddrValidity(&n, &t, &address, count, wordFlag);
}

} // namespace

TEST(AddressText, ParsesInTheRadixOfTheFormatsLastLetter)
{
    const struct {
        const char *text, *format;
        int result, value;
    } cases[] = {
        {"12", "DDDD", 1, 12}, {"1A", "DDDD", -1, 0}, {"1A", "HHHH", 1, 26}, {"17", "OOO", 1, 15},
        {"8", "OOO", -1, 0},   {"377", "OOO", 1, 255}, {"12", "", 1, 12},    {"12", "QQ", 1, 12},
        {"-7", "DDD", 1, -7},  {"", "DDD", -1, 0},     {"2147483648", "DDDD", -1, 0},
        {"99", "DH", 1, 0}, // letters mixed: the family's hook, which knows no such format
    };
    for (const auto &c : cases) {
        int value = 77;
        EXPECT_EQ(a2i(q(c.text), value, q(c.format), q("D")), c.result) << c.text << " " << c.format;
        EXPECT_EQ(value, c.value) << c.text << " " << c.format;
    }
}

// Both ends of every register's range, as an editor meets them: one object of
// the register's natural size at min, just below, at max and just beyond, and
// one size too many at max.
TEST(AddressCheck, BothEndsOfEveryRegisterRange)
{
    const struct {
        const char *names;
        int dataType, count, radix, min, max;
    } rows[] = {
        {"X Y", BIT, 1, 8, 0, 255},        {"S M T", BIT, 1, 10, 0, 9999},    {"C", BIT, 1, 10, 0, 199},
        {"200C", BIT, 1, 10, 200, 255},    {"256C", BIT, 1, 10, 256, 9999},   {"D V Z TC TP", 0, 1, 10, 0, 9999},
        {"CC CP", 0, 1, 10, 0, 199},       {"200CC 200CP", 1, 2, 10, 200, 255}, {"256CC 256CP", 1, 2, 10, 256, 9999},
    };
    for (const auto &r : rows) {
        for (const QString &name : names(r.names)) {
            SCOPED_TRACE(name.toStdString());
            const struct {
                int address, count, code;
            } ends[] = {{r.min, r.count, 0}, {r.min - 1, r.count, 2}, {r.max, r.count, 0},
                        {r.max, r.count + 1, 2}, {r.max + 1, r.count, 2}};
            for (const auto &e : ends) {
                QString n = name, t = (e.address < 0 ? "-" : "") + QString::number(std::abs(e.address), r.radix);
                int a = UNTOUCHED;
                EXPECT_EQ(intf_checkAddr(&n, &t, &a, r.dataType, e.count, 0), e.code) << e.address << " x" << e.count;
                EXPECT_EQ(a, e.address);
                a = UNTOUCHED;
                EXPECT_EQ(intf_checkAddrValidity(&n, &t, &a, e.count, r.dataType == BIT ? 0 : 1), e.code)
                    << e.address << " x" << e.count;
                EXPECT_EQ(a, e.address);
            }
        }
    }
}

// The first failing test decides; the address argument shows how far the check got.
TEST(AddressCheck, ResultCodesAndTheAddressTheyLeave)
{
    const struct {
        const char *name, *text;
        int dataType, count, access, code, address;
    } cases[] = {
        {"X", "17", BIT, 8, 0, 0, 15},             // octal text
        {"X", "8", BIT, 1, 0, 4, 0},               // not an octal digit
        {"X", "0", 0, 1, 0, 1, UNTOUCHED},         // word object on a bit register
        {"D", "0", BIT, 1, 0, 1, UNTOUCHED},       // bit object on a word register
        {"D", "9999", 0, 1, 1, 0, 9999},           // writing on a read-write register
        {"200CC", "255", 0, 2, 0, 5, UNTOUCHED},   // data type not allowed on a double word
        {"200CC", "255", BIT, 2, 0, 1, UNTOUCHED}, // kind is tested before data type
        {"200CC", "zz", 0, 2, 0, 5, UNTOUCHED},    // data type is tested before the text
        {"200CC", "254", 1, 3, 0, 0, 254},         // odd word count: ends half-way into 255
        {"200CC", "255", 1, 3, 0, 2, 255},         // 255 + 1.5 > 256
        {"W", "1", BIT, 1, 0, 3, UNTOUCHED},
        {"D_bit", "1", BIT, 1, 0, 3, UNTOUCHED},   // bit-in-word names are not registers here
        {"d", "1", 0, 1, 0, 3, UNTOUCHED},
        {"W", "zz", 0, 1, 0, 3, UNTOUCHED},        // the name is tested first
        {"D", "", 0, 1, 0, 4, 0},
        {"D", " 12 ", 0, 1, 0, 0, 12},             // surrounding blanks are accepted
        {"D", "1 2", 0, 1, 0, 4, 0},
        {"D", "+12", 0, 1, 0, 0, 12},
        {"D", "0x10", 0, 1, 0, 4, 0},
        {"D", "99999999999", 0, 1, 0, 4, 0},
        {"D", "-2147483648", 0, 1, 0, 2, INT_MIN},
        {"D", "2147483647", 0, 1, 0, 2, INT_MAX},  // no wrap past max
    };
    for (const auto &c : cases) {
        int a = UNTOUCHED;
        EXPECT_EQ(checkAddr(c.name, c.text, a, c.dataType, c.count, c.access), c.code)
            << c.name << " '" << c.text << "' type " << c.dataType << " x" << c.count;
        EXPECT_EQ(a, c.address) << c.name << " '" << c.text << "'";
    }
    for (int type = -1; type <= 12; ++type) { // double words take five data types, words any
        const bool allowed = type == 1 || type == 3 || type == 5 || type == 6 || type == 9;
        int a = UNTOUCHED;
        EXPECT_EQ(checkAddr("256CC", "300", a, type, 2), type == BIT ? 1 : allowed ? 0 : 5) << type;
        EXPECT_EQ(checkAddr("D", "300", a, type, 1), type == BIT ? 1 : 0) << type;
    }
}

TEST(AddressCheck, ValidityTakesTheWordFlagForTheObjectKind)
{
    const struct {
        const char *name, *text;
        int count, wordFlag, code;
    } cases[] = {
        {"M", "8000", 16, 0, 0}, {"M", "9990", 16, 0, 2}, {"M", "9984", 16, 0, 0}, {"M", "9999", 1, 0, 0},
        {"M", "0", 1, 1, 1},     {"M", "0", 1, 7, 1}, // any non-zero flag asks for a word
        {"200CC", "255", 3, 9, 2}, {"D", "5", 1, 0, 1},
    };
    for (const auto &c : cases) {
        int a = UNTOUCHED;
        EXPECT_EQ(checkValidity(c.name, c.text, a, c.count, c.wordFlag), c.code) << c.name << c.text << " x" << c.count;
    }
}

TEST(Catalogue, ListsRegistersByTypeAndDescribesEach)
{
    const QList<QString> bits = names("X Y S M T C 200C 256C");
    const QList<QString> words = names("D V Z TC TP CC CP 200CC 200CP 256CC 256CP");
    const struct {
        int type, result;
        const QList<QString> &expected;
    } lists[] = {{0, 1, bits}, {1, 1, words}, {2, 0, words}, {5, 0, words}, {-1, 0, words}};
    for (const auto &c : lists) {
        QList<QString> out = names("kept"); // appended to, never emptied
        EXPECT_EQ(intf_getRegListByType(c.type, &out), c.result) << c.type;
        EXPECT_EQ(out, names("kept") + c.expected) << c.type;
    }
    const struct {
        const char *name, *items;
    } descriptions[] = {
        {"X", "OOO 0 377 0 1"}, {"200C", "DDD 200 255 0 1"},   {"D", "DDDD 0 9999 1 1"}, {"CP", "DDD 0 199 1 1"},
        {"256CP", "DDD 256 9999 2 1"}, {"D_bit", ""}, {"x", ""}, {"", ""},
    };
    for (const auto &c : descriptions) {
        QString name = q(c.name);
        QList<QString> out;
        EXPECT_EQ(intf_getRegDiscription(&name, &out), 0) << c.name;
        EXPECT_EQ(out, names(c.items)) << c.name;
    }
}

// Every series is appended to what the lists already hold.
TEST(MultiCopy, SeriesNumbersAndTextsInTheRegistersRadix)
{
    const struct {
        const char *reg;
        int start, count, interval, result;
        std::vector<int> addresses;
        const char *texts;
    } cases[] = {
        {"X", 6, 4, 1, 1, {6, 7, 8, 9}, "6 7 10 11"},
        {"X", 250, 8, 1, 2, {250, 251, 252, 253, 254, 255, 255, 255}, "372 373 374 375 376 377 377 377"},
        {"D", 100, 3, -2, 1, {100, 102, 104}, "100 102 104"},
        {"M", 0, 3, -1, 1, {0, 16, 32}, "0 16 32"},
        {"Y", 0, 3, -2, 1, {0, 32, 64}, "0 40 100"},
        {"200CC", 200, 3, -1, 1, {200, 201, 202}, "200 201 202"},
        {"200CC", 200, 3, -2, 1, {200, 201, 202}, "200 201 202"},
        {"D", 5, 3, 0, 1, {5, 6, 7}, "5 6 7"},
        {"D", 5, 2, -7, 1, {5, 6}, "5 6"},
        {"D", 9990, 3, 5, 2, {9990, 9995, 9999}, "9990 9995 9999"},
        {"D", 9997, 3, 1, 1, {9997, 9998, 9999}, "9997 9998 9999"}, // ends at max: all as asked
        {"200C", 190, 2, 5, 1, {190, 195}, "190 195"}, // min is not enforced
        {"D", -1, 1, 1, 1, {-1}, "4294967295"},        // text is unsigned
        {"D", 0, 0, 1, 1, {}, ""},
        {"Q", 0, 3, 1, 0, {}, ""},
        {"D", 9000, 3, INT_MAX, 2, {9000, 9999, 9999}, "9000 9999 9999"}, // clamps, never wraps
        {"D", INT_MAX, 2, INT_MAX, 2, {9999, 9999}, "9999 9999"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.reg << " from " << c.start << " x" << c.count << " step " << c.interval);
        QString name = q(c.reg);
        QVector<int> addresses{-9};
        QVector<QString> texts{q("old")};
        EXPECT_EQ(intf_multiCopy(&name, c.start, c.count, c.interval, &texts, &addresses), c.result);
        EXPECT_EQ(addresses, QVector<int>{-9} + kq71test::qtContainer<QVector<int>>(c.addresses.begin(), c.addresses.end()));
        EXPECT_EQ(texts.toList(), names("old") + names(c.texts));
    }
    // A runaway count is cut to 65536 entries and reported as not as asked.
    QString d = q("D");
    QVector<int> addresses;
    QVector<QString> texts;
    EXPECT_EQ(intf_multiCopy(&d, 0, INT_MAX, 1, &texts, &addresses), 2);
    EXPECT_EQ(addresses.size(), 65536);
    EXPECT_EQ(texts.size(), 65536);
    EXPECT_EQ(addresses.last(), 9999);
}

TEST(MultiCopy, TextFollowsTheFormatsLetter)
{
    const struct {
        const char *format;
        int start, result;
        std::vector<int> addresses;
        std::vector<const char *> texts;
    } cases[] = {
        {"HHH", 0xfe, 1, {0xfe, 0xff}, {"fe", "ff"}}, // lower case hex
        {"QQ", 3, 1, {3, 4}, {"", ""}},               // no radix: the text stays as it was
        {"DH", 0, 2, {}, {}},                         // mixed letters without a hook text: stop at once
    };
    for (const auto &c : cases) {
        QVector<QString> t;
        QVector<int> a;
        EXPECT_EQ(multiCp(q("D"), q(c.format), c.start, 2, 1, t, a, 0x1ff, q("1ff")), c.result) << c.format;
        EXPECT_EQ(a, kq71test::qtContainer<QVector<int>>(c.addresses.begin(), c.addresses.end())) << c.format;
        EXPECT_EQ(t, kq71test::qtContainer<QVector<QString>>(c.texts.begin(), c.texts.end())) << c.format;
    }
}

TEST(DriverInfo, ParameterTypeVersionAndPropertyPage)
{
    QString text = q("stale");
    intf_getDriverParameter(&text);
    EXPECT_EQ(text, q("0,19200,8,NONE,2,0,1,192.168.1.10,8000,vorn_kq71_ap,"
                      "X,Y,S,M,T,C,200C,256C,D,V,Z,TC,TP,CC,CP,200CC,200CP,256CC,256CP"));
    int type = 42;
    intf_getProtocolType(&type);
    EXPECT_EQ(type, 0);
    EXPECT_EQ(intf_getVersion(), q("2.0.0.0"));

    // A stored page is kept (a copy) but never reported; a missing one changes nothing.
    QString stored = q("3_7"), page;
    intf_SetDriverPropertyPage(&stored);
    stored = q("changed afterwards");
    intf_SetDriverPropertyPage(nullptr);
    EXPECT_EQ(driver.propertyPage, q("3_7"));
    intf_getDriverPropertyPage(&page);
    EXPECT_EQ(page, q("0_0"));
}

TEST(RegisterWeight, OrdersByStationThenTableRowThenAddressWrappingAt32Bits)
{
    ASSERT_EQ(driver.regNames.size(), REG_COUNT); // the rows the weight counts
    for (int i = 0; i < REG_COUNT; ++i)
        EXPECT_EQ(driver.regNames.at(i), REG_LIST[i]);
    const struct {
        int station;
        const char *name;
        int address;
        int weight;
    } cases[] = {
        {0, "X", 0, 0},
        {0, "Y", 0, 65535},
        {1, "X", 5, 19 * 65535 + 5},
        {0, "256CP", 0, 18 * 65535},
        {2, "D", 100, (2 * 19 + 8) * 65535 + 100},
        {0, "Q", 10, -65525},            // an unknown name weighs as row -1...
        {1, "D_bit", 7, 18 * 65535 + 7}, // ...so a bit-in-word name sorts like 256CP one station lower
        {0, "", 0, -65535},
        // no signed overflow (the sanitizer build checks): the weight wraps
        {INT_MAX, "D", INT_MAX, int((quint32(INT_MAX) * 19u + 8u) * 65535u + quint32(INT_MAX))},
        {INT_MIN, "X", INT_MIN, int((quint32(INT_MIN) * 19u) * 65535u + quint32(INT_MIN))},
    };
    for (const auto &c : cases)
        for (int length : {0, 1, 128})
            EXPECT_EQ(getRegAddressWeight(c.station, q(c.name), c.address, length), c.weight)
                << c.station << " " << c.name << " " << c.address << " length " << length;
    // Compared unsigned, unknown names on station 0 sort after everything.
    EXPECT_GT(unsigned(getRegAddressWeight(0, q("Q"), 10, 1)), unsigned(getRegAddressWeight(255, q("256CP"), 9999, 1)));
}
