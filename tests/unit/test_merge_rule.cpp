#include "kq71_protocol.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

KEY_ADDRESS key(int station, const char *reg, int address, int length)
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.length = length;
    return k;
}

} // namespace

TEST(MergeRule, JoinsOnlyNeighboursThatStayOnOneSideOf8000)
{
    const struct {
        const char *what;
        KEY_ADDRESS block, next;
        int mode, gap, result;
    } rows[] = {
        {"other station", key(1, "D", 0, 5), key(2, "D", 5, 1), 0, 10, 1},
        {"other register", key(1, "D", 0, 5), key(1, "TC", 5, 1), 0, 10, 1},
        {"touching", key(1, "D", 100, 5), key(1, "D", 105, 3), 0, 0, 0},
        {"overlapping", key(1, "D", 100, 5), key(1, "D", 101, 1), 0, 0, 0},
        {"one apart, mode 0", key(1, "D", 100, 5), key(1, "D", 106, 1), 0, 10, 1},
        {"gap equal to mergeGap", key(1, "D", 100, 5), key(1, "D", 110, 2), 1, 5, 0},
        {"gap above mergeGap", key(1, "D", 100, 5), key(1, "D", 110, 2), 1, 4, 1},
        {"ends exactly at 8000", key(1, "D", 7990, 5), key(1, "D", 7995, 5), 0, 0, 0},
        {"ends beyond 8000", key(1, "D", 7990, 5), key(1, "D", 7995, 10), 0, 0, 1},
        {"block from 8000 on", key(1, "M", 8000, 10), key(1, "M", 8010, 10), 0, 0, 0},
        {"huge numbers do not wrap", key(1, "D", INT_MAX, INT_MAX), key(1, "D", INT_MIN, 1), 1, INT_MAX, 0},
        {"huge gap stays a gap", key(1, "D", INT_MIN, 1), key(1, "D", INT_MAX, 1), 1, INT_MAX, 1},
    };
    for (const auto &r : rows)
        EXPECT_EQ(judgeAddrMergeWithGap(r.block, r.next, r.mode, r.gap), r.result) << r.what;
}

TEST(MergeRule, DriverRuleUsesTheConfiguredGap)
{
    const int saved = driver.mergeGap;
    driver.mergeGap = 10;
    EXPECT_EQ(judgeAddrMerge(key(1, "D", 100, 5), key(1, "D", 110, 2), 1), 0);
    driver.mergeGap = 4;
    EXPECT_EQ(judgeAddrMerge(key(1, "D", 100, 5), key(1, "D", 110, 2), 1), 1);
    driver.mergeGap = saved;
}
