// The runtime's real links, with the kq71-sim program on the far end: a serial
// port (the slave end of its pseudo-terminal) and RTU over TCP; and the
// loading of the driver that sits behind them.
#include "sim_process.h"
#include "system_support.h"

#include <gtest/gtest.h>

using namespace kq71test;
using namespace kq71rt;

namespace {

class Links : public ::testing::Test {
protected:
    void SetUp() override
    {
        QString why;
        ASSERT_NE(driver(&why), nullptr) << why.toStdString();
    }
    // Writes D3 and reads D0..D7 back until the PLC's value shows, then once more.
    void writeAndReadBack(Runtime &rt, quint32 value)
    {
        const int jobs = rt.watch({area("D", 0, 8)});
        rt.write(1, "D", 3, 1, valueBytes(UnitKind::Word, value), 60);
        ASSERT_TRUE(runCyclicReads(rt, 2 * jobs, 50));
        for (int i = 0; i < 8; ++i) // a write the PLC did not keep would be read back as 0
            EXPECT_EQ(cachedValue(rt, 1, "D", i), i == 3 ? value : 0u) << "D" << i;
    }
};

TEST_F(Links, SerialPortLinkOnAPseudoTerminalReadsAndWritesThePlc)
{
    SimProcess sim({"--pty", "--quiet"});
    ASSERT_TRUE(sim.first.startsWith("PTY /dev/")) << sim.first.toStdString();
    SerialSettings s;
    s.device = sim.first.mid(4);
    s.baud = 115200;
    SerialLink link(s);
    QString error;
    ASSERT_TRUE(link.open(&error)) << error.toStdString();
    Runtime rt(*driver(), link);
    rt.start();
    writeAndReadBack(rt, 4242);
    EXPECT_EQ(rt.stats().retries, 0u) << rt.stats().lastError.toStdString();

    SerialSettings missing;
    missing.device = "/nonexistent/ttyKQ71";
    EXPECT_FALSE(SerialLink(missing).open(&error));
    EXPECT_TRUE(error.startsWith("cannot open /nonexistent/ttyKQ71")) << error.toStdString();
}

TEST_F(Links, TcpLinkCarriesRtuFramesAndReconnectsAfterTheConnectionDrops)
{
    std::unique_ptr<SimProcess> sim(new SimProcess({"--tcp", "0", "--quiet"}));
    ASSERT_TRUE(sim->first.startsWith("TCP 127.0.0.1:")) << sim->first.toStdString();
    const QString port = sim->first.mid(14);
    TcpLink link("127.0.0.1", port.toInt());
    QString error;
    ASSERT_TRUE(link.open(&error)) << error.toStdString();
    Runtime rt(*driver(), link);
    rt.start();
    writeAndReadBack(rt, 777);

    sim.reset(); // the PLC restarts, cleared: the connection is gone
    sim.reset(new SimProcess({"--tcp", port, "--quiet"}));
    ASSERT_EQ(sim->first.toStdString(), "TCP 127.0.0.1:" + port.toStdString());
    writeAndReadBack(rt, 778);
    EXPECT_EQ(rt.stats().givenUp, 0u) << rt.stats().lastError.toStdString();
}

TEST(DriverLoading, LibraryWithoutTheEntryPointsIsRefusedNamingWhatIsMissing)
{
    DriverLibrary lib;
    QString error;
    EXPECT_FALSE(lib.load("libm.so.6", &error));
    EXPECT_FALSE(lib.loaded());
    EXPECT_TRUE(error.contains("lacks intf_getProtocolType, intf_getDriverParameter")) << error.toStdString();
    EXPECT_TRUE(error.endsWith("intf_setData, driver")) << error.toStdString();
    EXPECT_FALSE(lib.load("/nonexistent/libvorn_kq71_ap.so", &error));
    EXPECT_TRUE(error.startsWith("cannot load driver /nonexistent/libvorn_kq71_ap.so")) << error.toStdString();
}

TEST(DriverLoading, LinkDefaultsComeFromTheDriversParameterText)
{
    QString why;
    ASSERT_NE(driver(&why), nullptr) << why.toStdString();
    const DriverDefaults d = driver()->defaults();
    EXPECT_EQ(std::make_tuple(d.baud, d.dataBits, d.parity, d.stopBits, d.port, d.name, d.registers.size()),
              std::make_tuple(19200, 8, QString("NONE"), 2, 8000, QString("vorn_kq71_ap"), 19));
}

} // namespace
