// The cache of PLC memory: read replies landing in it for every register
// family, the change reports, watch marks and the runtime's reads.
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

TEST_F(Cache, OneCyclicReadFillsTheCacheAndReportsChangedUnitsOfEveryFamily)
{
    const struct {
        const char *reg;
        int address, length, dataType;
        std::map<int, quint16> regs; // PLC memory by wire address
        std::map<int, int> bits;
        Bytes expected;   // intf_getData of the watched range
        Reports reported; // unchanged (still zero) units are not reported
    } cases[] = {
        {"D", 100, 3, 0, {{0x439C, 0x0001}, {0x439E, 0x1234}}, {}, {1, 0, 0, 0, 0x34, 0x12},
         {{1, 1, "D", 100}, {1, 1, "D", 102}}},
        {"X", 16, 10, BIT, {}, {{16, 1}, {25, 1}}, {1, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {{1, 1, "X", 16}, {1, 1, "X", 25}}},
        {"M", 8000, 3, BIT, {}, {{0x0F01, 1}}, {0, 1, 0}, {{1, 1, "M", 8001}}},
        {"CP", 199, 1, 0, {{0x675F, 0x00FF}}, {}, {0xFF, 0x00}, {{1, 1, "CP", 199}}},
        // V k at 0x6479 + 2k, Z k at 0x6478 + 2k: the other family's registers are skipped
        {"V", 5, 3, 0, {{0x6483, 0x11}, {0x6484, 0xAAAA}, {0x6485, 0x22}, {0x6486, 0xBBBB}, {0x6487, 0x33}}, {},
         {0x11, 0, 0x22, 0, 0x33, 0}, {{1, 1, "V", 5}, {1, 1, "V", 6}, {1, 1, "V", 7}}},
        {"Z", 5, 2, 0, {{0x6482, 0x0101}, {0x6483, 0x7777}, {0x6484, 0x0202}}, {}, {1, 1, 2, 2},
         {{1, 1, "Z", 5}, {1, 1, "Z", 6}}},
        // 32-bit values: low word first on the wire; the runtime's length counts words
        {"200CC", 201, 4, 0, {{0x42CA, 0x1170}, {0x42CB, 0x0001}, {0x42CD, 0xFFFF}}, {},
         {0x70, 0x11, 0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF}, {{1, 1, "200CC", 201}, {1, 1, "200CC", 202}}},
        {"256CP", 300, 2, 0, {{0x6A28, 0x5678}, {0x6A29, 0x1234}}, {}, {0x78, 0x56, 0x34, 0x12},
         {{1, 1, "256CP", 300}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reg);
        configure("1#0#0#3#10");
        watch({key(1, c.reg, c.address, c.length, c.dataType)});
        plc.regs = c.regs;
        plc.bits = c.bits;
        ASSERT_EQ(1, step());
        EXPECT_EQ(c.reported, reports());
        EXPECT_EQ(c.expected, get(1, c.reg, c.address, c.length, int(c.expected.size())));
    }
}

TEST_F(Cache, UnchangedValuesReportNothingAndBridgedUnitsUpdateSilently)
{
    watch({key(1, "D", 100, 1), key(1, "D", 103, 1)}); // one job D 100..103 across the gap
    plc.regs = {{0x439C, 1}, {0x439D, 2}, {0x439E, 3}, {0x439F, 4}};
    ASSERT_EQ(1, step());
    EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D", 103}}), reports());
    EXPECT_EQ((Bytes{1, 0, 2, 0, 3, 0, 4, 0}), get(1, "D", 100, 4, 8));
    ASSERT_EQ(1, step());
    EXPECT_TRUE(reports().empty());
}

TEST_F(Cache, StaleReplyKeepsAPendingWrittenValue)
{
    configure("1#1#0#3#10"); // cache-only writes: no write job competes with the reads
    watch({key(1, "D", 100, 1)});
    plc.regs[0x439C] = 5;
    ASSERT_EQ(1, step());
    set(1, "D", 100, 1, {7, 0});
    EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D", 100}}), reports());
    ASSERT_EQ(1, step()); // still 5 in the PLC
    EXPECT_TRUE(reports().empty());
    EXPECT_EQ(7, word("D", 100));
    plc.regs[0x439C] = 9;
    ASSERT_EQ(1, step());
    EXPECT_EQ((Reports{{1, 1, "D", 100}}), reports());
    EXPECT_EQ(9, word("D", 100));
}

TEST_F(Cache, ShortReplyReadsAsZerosPastItsEnd)
{
    {
        ServiceLock lock;
        analyzeFrameOfVal(QByteArray("\x01\x03\x02\x12", 4), 3, 3, job("V", 0, 3));
    }
    EXPECT_EQ((Bytes{0x00, 0x12, 0, 0, 0, 0}), get(1, "V", 0, 3, 6));
}

TEST_F(Cache, MarkingCoversTheUnitsOfTheRuntimeLength)
{
    _setDataAreaMonitorFlag(1, "200CC", 200, 4);
    EXPECT_EQ(1, unit("200CC", 201).monitorFlags);
    EXPECT_FALSE(exists("200CC", 202));
    _setDataAreaMonitorFlag(1, "256CC", 300, 1);
    _setDataAreaMonitorFlag(1, "X", 0, 0);
    EXPECT_FALSE(exists("256CC", 300) || exists("X", 0));
    _setDataAreaMonitorFlag(1, "D", 1605, 1);
    _setDataAreaMonitorFlag(1, "D", 1605, 1);
    EXPECT_EQ(1, unit("D", 1605).monitorFlags);
}

TEST_F(Cache, ReadsShowWrittenValuesUnitByUnitInTheRuntimeByteOrder)
{
    configure("1#1#0#3#10");
    unit("D", 100).readValue[0] = 0x12;
    unit("D", 100).readValue[1] = 0x34;
    set(1, "D", 101, 1, {0x78, 0x56});
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get(1, "D", 100, 2, 4));
    EXPECT_EQ(Bytes{}, get(1, "200CC", 200, 1, 0));
    EXPECT_EQ((Bytes{0, 0, 0}), get(1, "X", 0, 3, 3));
    EXPECT_TRUE(exists("X", 2));
}

} // namespace
