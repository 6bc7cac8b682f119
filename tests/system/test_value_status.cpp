// The marks a front end puts next to values and stations.
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

// Offline after three jobs in a row given up, online at the next good reply.
TEST(ValueStatus, AStationGoesOfflineAfterJobsInARowGivenUpAndBackAtAGoodReply)
{
    ValueStatus s(3);
    using C = ValueStatus::Change;
    const StationState U = StationState::Unknown, OFF = StationState::Offline, ON = StationState::Online;
    EXPECT_EQ(s.state(1), U);
    const struct {
        bool good;
        C change;
        StationState state;
    } steps[] = {
        {false, C::None, U},   {false, C::None, U},   {false, C::WentOffline, OFF}, {false, C::None, OFF},
        {true, C::CameOnline, ON}, {false, C::None, ON}, {false, C::None, ON},   {true, C::None, ON},
        {false, C::None, ON},  {false, C::None, ON},  {false, C::WentOffline, OFF},
    };
    for (size_t i = 0; i < sizeof steps / sizeof steps[0]; ++i) {
        EXPECT_EQ(s.jobEnded(1, steps[i].good), steps[i].change) << "step " << i;
        EXPECT_EQ(s.state(1), steps[i].state) << "step " << i;
    }
    EXPECT_EQ(s.state(2), U);  // stations are counted apart
    EXPECT_TRUE(s.anyGood());
}

} // namespace
