// The quality mark a front end puts next to a value; what a failed read and
// a station's state show, kq71 watch and the bridge prove.
#include "value_status.h"

#include <gtest/gtest.h>

using namespace kq71rt;

namespace {

TEST(ValueStatus, AValueIsStaleOnceOlderThanTheStaleAgeOrAfterAFailedReadShowingItsLastGoodRead)
{
    ValueStatus s;
    s.setStaleAfterMs(1000);
    s.readEnded(1, "D", 10, 3, true, 200);
    EXPECT_EQ(s.quality(1, "D", 12, 1200), Quality::Good);
    EXPECT_EQ(s.quality(1, "D", 12, 1201), Quality::Stale);
    EXPECT_EQ(s.quality(1, "D", 13, 200), Quality::NeverRead);  // past the read
    EXPECT_EQ(s.quality(2, "D", 10, 200), Quality::NeverRead);  // another station
    EXPECT_EQ(s.quality(1, "TC", 10, 200), Quality::NeverRead);
    s.readEnded(1, "D", 11, 1, false, 300);
    EXPECT_EQ(s.quality(1, "D", 11, 300), Quality::Stale);
    EXPECT_EQ(s.lastGoodMs(1, "D", 11), 200);
    EXPECT_EQ(s.quality(1, "D", 10, 300), Quality::Good);
}

} // namespace
