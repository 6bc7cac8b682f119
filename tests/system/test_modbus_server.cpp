// The built driver through the stand-in runtime against an independent Modbus
// RTU server: libmodbus's, on the far end of a pseudo-terminal.
#include "pty_pair.h"
#include "system_support.h"

#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>
#include <modbus.h>

#include <atomic>
#include <thread>

using namespace kq71test;
using namespace kq71rt;

namespace {

class ModbusPeer : public ::testing::Test {
protected:
    void SetUp() override
    {
        QString why;
        ASSERT_NE(driver(&why), nullptr) << why.toStdString();
        ASSERT_TRUE(pty_.ok());
        map_ = modbus_mapping_new_start_address(0, 0, 0, 0, 0x4338, 2000, 0, 0); // D0..D1999
        ctx_ = modbus_new_rtu(pty_.slavePath().c_str(), 115200, 'N', 8, 1);
        ASSERT_TRUE(map_ && ctx_);
        modbus_set_slave(ctx_, 1);
        modbus_set_indication_timeout(ctx_, 0, 50000); // wake up to look at stop_
        modbus_set_byte_timeout(ctx_, 0, 200000);
        ASSERT_EQ(modbus_connect(ctx_), 0) << "libmodbus cannot open " << pty_.slavePath();
        server_ = std::thread([this] {
            uint8_t req[MODBUS_RTU_MAX_ADU_LENGTH];
            while (!stop_) {
                const int rc = modbus_receive(ctx_, req);
                if (rc > 0)
                    modbus_reply(ctx_, req, rc, map_);
            }
        });
        QString error;
        ASSERT_TRUE(link_.open(&error)) << error.toStdString();
    }
    void TearDown() override
    {
        stop_ = true;
        if (server_.joinable())
            server_.join();
        if (ctx_) {
            modbus_close(ctx_);
            modbus_free(ctx_);
        }
        if (map_)
            modbus_mapping_free(map_);
    }

    PtyPair pty_;
    FdLink link_{pty_.master(), 115200, "pty"};
    modbus_t *ctx_ = nullptr;
    modbus_mapping_t *map_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread server_;
};

TEST_F(ModbusPeer, ExceptionRepliesBecomeRetriesAndAnErrorTextWithoutWaitingForTheTimeout)
{
    RuntimeOptions ro;
    ro.timeoutMs = 1000;
    Runtime rt(*driver(), link_, ro);
    rt.start();
    // The last ten words lie past the server's memory: illegal data address.
    const int jobs = rt.watch({area("D", 1990, 20)});
    QElapsedTimer t;
    t.start();
    ASSERT_TRUE(runCyclicReads(rt, jobs, 20));
    EXPECT_LT(t.elapsed(), 1000) << "each of the three refusals waited for the response timeout";
    EXPECT_EQ(rt.stats().framesSent, 3u);
    EXPECT_EQ(rt.stats().retries, 2u);
    EXPECT_EQ(rt.stats().givenUp, 1u);
    EXPECT_EQ(rt.stats().lastError, "1#D1990(20),error code:3: exception 2 from the PLC for function 0x03");
}

} // namespace
