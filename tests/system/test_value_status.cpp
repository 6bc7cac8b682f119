// The marks a front end puts next to values and stations.
#include "value_status.h"

#include <gtest/gtest.h>

using namespace kq71rt;

namespace {

TEST(ValueStatus, ValuesAreNeverReadGoodOrStaleByFailureOrAge)
{
    ValueStatus s;
    s.setStaleAfterMs(1000);
    EXPECT_EQ(s.quality(1, "D", 10, 0), Quality::NeverRead);
    s.readEnded(1, "D", 10, 3, false, 100);  // a first read given up: stale, with no value
    EXPECT_EQ(s.quality(1, "D", 11, 100), Quality::Stale);
    EXPECT_EQ(s.lastGoodMs(1, "D", 11), -1);
    s.readEnded(1, "D", 10, 3, true, 200);
    struct Case {
        int station;
        const char *reg;
        int address;
        qint64 now;
        Quality want;
    };
    const Case cases[] = {
        {1, "D", 10, 200, Quality::Good},      {1, "D", 12, 1200, Quality::Good},
        {1, "D", 12, 1201, Quality::Stale},    // older than the stale age
        {1, "D", 13, 200, Quality::NeverRead}, // past the read
        {2, "D", 10, 200, Quality::NeverRead}, // another station
        {1, "TC", 10, 200, Quality::NeverRead},
    };
    for (const Case &c : cases)
        EXPECT_EQ(s.quality(c.station, c.reg, c.address, c.now), c.want) << c.reg << c.address << " at " << c.now;
    s.readEnded(1, "D", 11, 1, false, 300);
    EXPECT_EQ(s.quality(1, "D", 11, 300), Quality::Stale);
    EXPECT_TRUE(s.lastReadFailed(1, "D", 11));
    EXPECT_EQ(s.lastGoodMs(1, "D", 11), 200);  // the value shown is that of the last good read
    EXPECT_EQ(s.quality(1, "D", 10, 300), Quality::Good);
}

TEST(ValueStatus, AStationGoesOfflineAfterJobsInARowGivenUpAndBackAtAGoodReply)
{
    ValueStatus s(3);
    using C = ValueStatus::Change;
    EXPECT_EQ(s.state(1), StationState::Unknown);
    const struct {
        bool good;
        C change;
        StationState state;
    } steps[] = {
        {false, C::None, StationState::Unknown},     {false, C::None, StationState::Unknown},
        {false, C::WentOffline, StationState::Offline}, {false, C::None, StationState::Offline},
        {true, C::CameOnline, StationState::Online},  {false, C::None, StationState::Online},
        {false, C::None, StationState::Online},       {true, C::None, StationState::Online},
        {false, C::None, StationState::Online},       {false, C::None, StationState::Online},
        {false, C::WentOffline, StationState::Offline},
    };
    int i = 0;
    for (const auto &step : steps) {
        EXPECT_EQ(s.jobEnded(1, step.good), step.change) << "step " << i;
        EXPECT_EQ(s.state(1), step.state) << "step " << i;
        ++i;
    }
    EXPECT_EQ(s.state(2), StationState::Unknown);  // stations are counted apart
    EXPECT_TRUE(s.anyGood());
}

} // namespace
