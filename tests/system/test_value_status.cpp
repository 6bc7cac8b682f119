// The quality mark a front end puts next to a value. A station's state is
// shown through kq71 watch and the bridge.
#include "value_status.h"

#include <gtest/gtest.h>

using namespace kq71rt;

namespace {

TEST(ValueStatus, ValuesAreNeverReadGoodOrStaleByFailureOrAge)
{
    ValueStatus s;
    s.setStaleAfterMs(1000);
    s.readEnded(1, "D", 10, 3, false, 100);  // a first read given up: stale, with no value
    EXPECT_EQ(s.lastGoodMs(1, "D", 11), -1);
    const struct {
        int station;
        const char *reg;
        int address, readOk;  // -1: no read before this case
        qint64 now;
        Quality want;
    } cases[] = {
        {1, "D", 10, -1, 0, Quality::Stale},      {1, "D", 10, 1, 200, Quality::Good},
        {1, "D", 12, -1, 1200, Quality::Good},    {1, "D", 12, -1, 1201, Quality::Stale},  // older than the stale age
        {1, "D", 13, -1, 200, Quality::NeverRead},  // past the read
        {2, "D", 10, -1, 200, Quality::NeverRead},  {1, "TC", 10, -1, 200, Quality::NeverRead},
    };
    for (const auto &c : cases) {
        if (c.readOk >= 0)
            s.readEnded(1, "D", 10, 3, c.readOk, c.now);
        EXPECT_EQ(s.quality(c.station, c.reg, c.address, c.now), c.want) << c.reg << c.address << " at " << c.now;
    }
    s.readEnded(1, "D", 11, 1, false, 300);
    EXPECT_EQ(s.quality(1, "D", 11, 300), Quality::Stale);
    EXPECT_TRUE(s.lastReadFailed(1, "D", 11));
    EXPECT_EQ(s.lastGoodMs(1, "D", 11), 200);  // the value shown is that of the last good read
    EXPECT_EQ(s.quality(1, "D", 10, 300), Quality::Good);
}

} // namespace
