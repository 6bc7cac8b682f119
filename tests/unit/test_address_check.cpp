#include "protocol.h"

#include <gtest/gtest.h>

namespace {

const int UNTOUCHED = 0x5A5A5A5A;
const int BIT = -1; // data type code of a bit object

QString q(const char *s) { return QString::fromLatin1(s); }

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
    struct Case {
        const char *text, *format;
        int result, value;
    };
    const Case cases[] = {
        {"12", "DDDD", 1, 12},   {"1A", "DDDD", -1, 0},   {"1A", "HHHH", 1, 26},
        {"17", "OOO", 1, 15},    {"8", "OOO", -1, 0},     {"377", "OOO", 1, 255},
        {"12", "", 1, 12},       {"12", "QQ", 1, 12},     {"-7", "DDD", 1, -7},
        {"", "DDD", -1, 0},      {"2147483648", "DDDD", -1, 0},
        {"99", "DH", 1, 0}, // letters mixed: the family's hook, which knows no such format
    };
    for (const Case &c : cases) {
        int value = 77;
        EXPECT_EQ(a2i(q(c.text), value, q(c.format), q("D")), c.result) << c.text << " " << c.format;
        EXPECT_EQ(value, c.value) << c.text << " " << c.format;
    }
}

// Both ends of every register's range, as an editor meets them: one object of
// the register's natural size at min, just below, at max and just beyond.
TEST(AddressCheck, BothEndsOfEveryRegisterRange)
{
    struct Row {
        const char *name;
        int dataType, count;
        const char *minText;
        int min;
        const char *belowText, *maxText;
        int max;
        const char *aboveText;
    };
    const Row rows[] = {
        {"X", BIT, 1, "0", 0, "-1", "377", 255, "400"},
        {"Y", BIT, 1, "0", 0, "-1", "377", 255, "400"},
        {"S", BIT, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"M", BIT, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"T", BIT, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"C", BIT, 1, "0", 0, "-1", "199", 199, "200"},
        {"200C", BIT, 1, "200", 200, "199", "255", 255, "256"},
        {"256C", BIT, 1, "256", 256, "255", "9999", 9999, "10000"},
        {"D", 0, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"V", 0, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"Z", 0, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"TC", 0, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"TP", 0, 1, "0", 0, "-1", "9999", 9999, "10000"},
        {"CC", 0, 1, "0", 0, "-1", "199", 199, "200"},
        {"CP", 0, 1, "0", 0, "-1", "199", 199, "200"},
        {"200CC", 1, 2, "200", 200, "199", "255", 255, "256"},
        {"200CP", 1, 2, "200", 200, "199", "255", 255, "256"},
        {"256CC", 1, 2, "256", 256, "255", "9999", 9999, "10000"},
        {"256CP", 1, 2, "256", 256, "255", "9999", 9999, "10000"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        const int wordFlag = r.dataType == BIT ? 0 : 1;
        struct End {
            const char *text;
            int count, code, address;
        };
        const End ends[] = {
            {r.minText, r.count, 0, r.min},
            {r.belowText, r.count, 2, r.min - 1},
            {r.maxText, r.count, 0, r.max},
            {r.maxText, r.count + 1, 2, r.max},
            {r.aboveText, r.count, 2, r.max + 1},
        };
        for (const End &e : ends) {
            int a = UNTOUCHED;
            EXPECT_EQ(checkAddr(r.name, e.text, a, r.dataType, e.count), e.code) << e.text << " x" << e.count;
            EXPECT_EQ(a, e.address) << e.text;
            a = UNTOUCHED;
            EXPECT_EQ(checkValidity(r.name, e.text, a, e.count, wordFlag), e.code) << e.text << " x" << e.count;
            EXPECT_EQ(a, e.address) << e.text;
        }
    }
}

// The first failing test decides; the address argument shows how far the check got.
TEST(AddressCheck, ResultCodesAndTheAddressTheyLeave)
{
    struct Case {
        const char *name, *text;
        int dataType, count, access, code, address;
    };
    const Case cases[] = {
        {"X", "17", BIT, 8, 0, 0, 15},            // octal text
        {"X", "8", BIT, 1, 0, 4, 0},              // not an octal digit
        {"X", "0", 0, 1, 0, 1, UNTOUCHED},        // word object on a bit register
        {"D", "0", BIT, 1, 0, 1, UNTOUCHED},      // bit object on a word register
        {"D", "9999", 0, 1, 1, 0, 9999},          // writing on a read-write register
        {"200CC", "255", 0, 2, 0, 5, UNTOUCHED},  // data type not allowed on a double word
        {"200CC", "255", BIT, 2, 0, 1, UNTOUCHED}, // kind is tested before data type
        {"200CC", "zz", 0, 2, 0, 5, UNTOUCHED},   // data type is tested before the text
        {"200CC", "254", 1, 3, 0, 0, 254},        // odd word count: ends half-way into 255
        {"200CC", "255", 1, 3, 0, 2, 255},        // 255 + 1.5 > 256
        {"W", "1", BIT, 1, 0, 3, UNTOUCHED},
        {"D_bit", "1", BIT, 1, 0, 3, UNTOUCHED},  // bit-in-word names are not registers here
        {"d", "1", 0, 1, 0, 3, UNTOUCHED},
        {"W", "zz", 0, 1, 0, 3, UNTOUCHED},       // the name is tested first
        {"D", "", 0, 1, 0, 4, 0},
        {"D", " 12 ", 0, 1, 0, 0, 12},            // surrounding blanks are accepted
        {"D", "1 2", 0, 1, 0, 4, 0},
        {"D", "+12", 0, 1, 0, 0, 12},
        {"D", "0x10", 0, 1, 0, 4, 0},
        {"D", "99999999999", 0, 1, 0, 4, 0},
        {"D", "-2147483648", 0, 1, 0, 2, -2147483647 - 1},
        {"D", "2147483647", 0, 1, 0, 2, 2147483647}, // no wrap past max
    };
    for (const Case &c : cases) {
        int a = UNTOUCHED;
        EXPECT_EQ(checkAddr(c.name, c.text, a, c.dataType, c.count, c.access), c.code)
            << c.name << " '" << c.text << "' type " << c.dataType << " x" << c.count;
        EXPECT_EQ(a, c.address) << c.name << " '" << c.text << "'";
    }
}

TEST(AddressCheck, DoubleWordsTakeOnlyTheirFiveDataTypes)
{
    for (int type = -1; type <= 12; ++type) {
        const bool allowed = type == 1 || type == 3 || type == 5 || type == 6 || type == 9;
        int a = UNTOUCHED;
        EXPECT_EQ(checkAddr("256CC", "300", a, type, 2), type == BIT ? 1 : allowed ? 0 : 5) << type;
        // A 16-bit register takes any word type.
        EXPECT_EQ(checkAddr("D", "300", a, type, 1), type == BIT ? 1 : 0) << type;
    }
}

TEST(AddressCheck, ValidityTakesTheWordFlagForTheObjectKind)
{
    struct Case {
        const char *text;
        int count, wordFlag, code;
    };
    const Case cases[] = {
        {"8000", 16, 0, 0}, {"9990", 16, 0, 2}, {"9984", 16, 0, 0}, {"9999", 1, 0, 0},
        {"0", 1, 1, 1},     {"0", 1, 7, 1}, // any non-zero flag asks for a word
    };
    for (const Case &c : cases) {
        int a = UNTOUCHED;
        EXPECT_EQ(checkValidity("M", c.text, a, c.count, c.wordFlag), c.code) << c.text << " x" << c.count;
    }
    int a = UNTOUCHED;
    EXPECT_EQ(checkValidity("200CC", "255", a, 3, 9), 2);
    EXPECT_EQ(checkValidity("D", "5", a, 1, 0), 1);
}

TEST(AddressCheck, MissingArgumentsAreRefusedWithoutTouchingAnything)
{
    QString name = q("D"), text = q("5");
    int a = UNTOUCHED;
    EXPECT_EQ(intf_checkAddr(nullptr, &text, &a, 0, 1, 0), 3);
    EXPECT_EQ(intf_checkAddr(&name, nullptr, &a, 0, 1, 0), 3);
    EXPECT_EQ(intf_checkAddr(&name, &text, nullptr, 0, 1, 0), 3);
    EXPECT_EQ(intf_checkAddrValidity(nullptr, &text, &a, 1, 1), 3);
    EXPECT_EQ(intf_checkAddrValidity(&name, nullptr, &a, 1, 1), 3);
    EXPECT_EQ(intf_checkAddrValidity(&name, &text, nullptr, 1, 1), 3);
    EXPECT_EQ(a, UNTOUCHED);
}
