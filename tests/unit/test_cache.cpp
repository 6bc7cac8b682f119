// The cache of PLC memory: watch marks and the runtime's reads.
#include "test_support.h"

using namespace kq71test;

namespace {

class Cache : public DriverTest {
protected:
    bool exists(const char *reg, int address)
    {
        for (const _DATA_ &d : driver.dataAreas)
            if (d.station == 1 && d.regName == reg && d.address == address)
                return true;
        return false;
    }
    _DATA_ &unit(const char *reg, int address) { return driver.dataAreas[getIndexOfDataArea(1, reg, address)]; }
};

TEST_F(Cache, MarkingCoversTheUnitsOfTheRuntimeLength)
{
    _setDataAreaMonitorFlag(1, "200CC", 200, 4);
    EXPECT_EQ(1, unit("200CC", 201).monitorFlags);
    EXPECT_FALSE(exists("200CC", 202));
    _setDataAreaMonitorFlag(1, "256CC", 300, 1);
    _setDataAreaMonitorFlag(1, "X", 0, 0);
    EXPECT_FALSE(exists("256CC", 300) || exists("X", 0));
    _setDataAreaMonitorFlag(1, "D_bit", 1605, 1);
    _setDataAreaMonitorFlag(1, "D_bit", 1605, 1);
    EXPECT_EQ(1, unit("D", 1605).monitorFlags);
}

TEST_F(Cache, ReadsShowWrittenValuesUnitByUnitInTheRuntimeByteOrder)
{
    configure("1#1#0#3#10");
    unit("D", 100).readValue[0] = 0x12;
    unit("D", 100).readValue[1] = 0x34;
    set(1, "D", 101, 1, {0x78, 0x56});
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
    EXPECT_EQ((Bytes{0x34, 0x12}), get(1, "D_bit", 100, 1, 2));
    EXPECT_EQ(Bytes{}, get(1, "200CC", 200, 1, 0));
    EXPECT_EQ((Bytes{0, 0, 0}), get(1, "X", 0, 3, 3));
    EXPECT_TRUE(exists("X", 2));
}

TEST_F(Cache, ChangesWithoutACallbackAreStoredSilently)
{
    intf_setAddrValueChangeCallBack(nullptr);
    watch({key(1, "D", 100, 1)});
    FakePlc plc{{{0x439C, 3}}, {}};
    ASSERT_EQ(1, step(plc));
    set(1, "X", 0, 1, {1});
    EXPECT_EQ(3, word(1, "D", 100));
    EXPECT_TRUE(reports().empty());
}

} // namespace
