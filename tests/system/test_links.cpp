// The runtime's real links: a serial port (the slave end of a pseudo-terminal)
// and RTU over TCP, with the simulated PLC served from a thread on the far end;
// and the loading of the driver that sits behind them.
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
        for (int i = 0; i < 8; ++i)
            setSim("D", i, 1000 + 7 * i);
    }

    void setSim(const QString &reg, int address, quint32 v)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        setSimValue(sim_, reg, address, v);
    }
    quint32 sim(const QString &reg, int address)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return simValue(sim_, reg, address);
    }

    kq71sim::PlcSimulator sim_;
    std::mutex mutex_;
};

TEST_F(Links, SerialPortLinkOnAPseudoTerminalReadsAndWritesThePlc)
{
    PtyPair pty;
    ASSERT_TRUE(pty.ok());
    SimServer server(sim_, mutex_);
    server.serveFd(pty.master());

    SerialSettings s;
    s.device = QString::fromStdString(pty.slavePath());
    s.baud = 115200;
    SerialLink link(s);
    QString error;
    ASSERT_TRUE(link.open(&error)) << error.toStdString();
    Runtime rt(*driver(), link);
    rt.start();
    const int jobs = rt.watch({wordKey("D", 0, 8)});
    ASSERT_TRUE(runCyclicReads(rt, jobs, 50));
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(cachedValue(rt, 1, "D", i), sim("D", i));

    rt.write(1, "D", 5, 1, valueBytes(UnitKind::Word, 4242), 60);
    ASSERT_TRUE(runCyclicReads(rt, 2 * jobs, 50));
    EXPECT_EQ(sim("D", 5), 4242u);
    EXPECT_EQ(rt.stats().retries, 0u) << rt.stats().lastError.toStdString();
}

TEST_F(Links, SerialPortThatCannotBeOpenedSaysWhich)
{
    SerialSettings s;
    s.device = "/nonexistent/ttyKQ71";
    SerialLink link(s);
    QString error;
    EXPECT_FALSE(link.open(&error));
    EXPECT_TRUE(error.startsWith("cannot open /nonexistent/ttyKQ71")) << error.toStdString();
}

TEST_F(Links, TcpLinkCarriesRtuFramesAndReconnectsAfterTheConnectionDrops)
{
    SimServer server(sim_, mutex_);
    const int port = server.listenTcp();
    ASSERT_GT(port, 0);
    TcpLink link("127.0.0.1", port);
    QString error;
    ASSERT_TRUE(link.open(&error)) << error.toStdString();
    Runtime rt(*driver(), link);
    rt.start();
    const int jobs = rt.watch({wordKey("D", 0, 8)});
    ASSERT_TRUE(runCyclicReads(rt, jobs, 50));
    EXPECT_EQ(cachedValue(rt, 1, "D", 3), 1021u);

    server.dropConnection();
    setSim("D", 3, 777);
    for (int i = 0; i < 50 && cachedValue(rt, 1, "D", 3) != 777; ++i)
        runCyclicReads(rt, jobs, 10);
    EXPECT_EQ(cachedValue(rt, 1, "D", 3), 777u);
    EXPECT_EQ(server.connections(), 2);
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
    EXPECT_EQ(d.baud, 19200);
    EXPECT_EQ(d.dataBits, 8);
    EXPECT_EQ(d.parity, "NONE");
    EXPECT_EQ(d.stopBits, 2);
    EXPECT_EQ(d.port, 8000);
    EXPECT_EQ(d.name, "vorn_kq71_ap");
    EXPECT_EQ(d.registers.size(), 19);
}

} // namespace
