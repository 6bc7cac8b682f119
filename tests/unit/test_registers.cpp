#include "protocol.h"

#include <gtest/gtest.h>

#include <climits>

TEST(RegisterWeight, OrdersByStationThenRegisterThenAddress)
{
    struct Case {
        int station;
        const char *name;
        int address;
        int weight;
    };
    const Case cases[] = {
        {0, "X", 0, 0},
        {0, "Y", 0, 65535},
        {1, "X", 5, 19 * 65535 + 5},
        {0, "256CP", 0, 18 * 65535},
        {2, "D", 100, (2 * 19 + 8) * 65535 + 100},
        {0, "Q", 10, -65525},       // unknown name weighs as index -1
        {1, "D_bit", 7, 18 * 65535 + 7}, // like 256CP one station lower
        {0, "", 0, -65535},
    };
    for (const Case &c : cases) {
        for (int length : {0, 1, 128})
            EXPECT_EQ(getRegAddressWeight(c.station, QString::fromLatin1(c.name), c.address, length), c.weight)
                << c.station << " " << c.name << " " << c.address << " length " << length;
    }
}

TEST(RegisterWeight, UnknownNamesOnStationZeroSortAfterEverythingAsUnsigned)
{
    const unsigned unknown = unsigned(getRegAddressWeight(0, QString::fromLatin1("Q"), 10, 1));
    EXPECT_EQ(unknown, 4294901771u);
    EXPECT_GT(unknown, unsigned(getRegAddressWeight(255, QString::fromLatin1("256CP"), 9999, 1)));
}

TEST(RegisterWeight, WrapsAt32BitsInsteadOfOverflowing)
{
    // Runs under -fsanitize=undefined in the sanitizer build: no signed overflow.
    const quint32 expected = (quint32(INT_MAX) * 19u + 8u) * 65535u + quint32(INT_MAX);
    EXPECT_EQ(getRegAddressWeight(INT_MAX, QString::fromLatin1("D"), INT_MAX, 1), int(expected));
    EXPECT_EQ(getRegAddressWeight(INT_MIN, QString::fromLatin1("X"), INT_MIN, 1),
              int((quint32(INT_MIN) * 19u) * 65535u + quint32(INT_MIN)));
}

TEST(AreaName, CutsAtTheFirstUnderscore)
{
    const char *const cases[][2] = {
        {"D_bit", "D"}, {"D", "D"}, {"256CP", "256CP"}, {"A_b_c", "A"}, {"_x", ""}, {"", ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(areaName(QString::fromLatin1(c[0])), QString::fromLatin1(c[1])) << c[0];
}
