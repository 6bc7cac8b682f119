// The built driver through the stand-in runtime against an independent Modbus
// RTU server: libmodbus's, on the far end of a pseudo-terminal. Requests stay
// within the standard limits (small merge gap, short watch entries).
#include "system_support.h"

#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>
#include <modbus.h>

#include <cerrno>
#include <random>

using namespace kq71test;
using namespace kq71rt;

namespace {

// Wire addresses the server holds: every bit register up to M7999, and D0..D1999.
const int BITS = 0x2200;
const int REGS_START = 0x4338;
const int REGS = 2000;

class ModbusServer {
public:
    explicit ModbusServer(const std::string &path)
    {
        map_ = modbus_mapping_new_start_address(0, BITS, 0, 0, REGS_START, REGS, 0, 0);
        ctx_ = modbus_new_rtu(path.c_str(), 115200, 'N', 8, 1);
        if (!map_ || !ctx_)
            return;
        modbus_set_slave(ctx_, 1);
        modbus_set_indication_timeout(ctx_, 0, 50000);  // wake up to look at stop_
        modbus_set_byte_timeout(ctx_, 0, 200000);
        if (modbus_connect(ctx_) != 0)
            return;
        connected_ = true;
        thread_ = std::thread([this] { serve(); });
    }
    ~ModbusServer()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        if (ctx_) {
            if (connected_)
                modbus_close(ctx_);
            modbus_free(ctx_);
        }
        if (map_)
            modbus_mapping_free(map_);
    }
    bool ok() const { return connected_; }

    quint32 value(const QString &reg, int address)
    {
        const UnitPlace p = placeOf(reg, address);
        std::lock_guard<std::mutex> lock(mutex_);
        return p.kind == UnitKind::Bit ? map_->tab_bits[p.wire] : map_->tab_registers[p.wire - REGS_START];
    }
    void set(const QString &reg, int address, quint32 v)
    {
        const UnitPlace p = placeOf(reg, address);
        std::lock_guard<std::mutex> lock(mutex_);
        if (p.kind == UnitKind::Bit)
            map_->tab_bits[p.wire] = v ? 1 : 0;
        else
            map_->tab_registers[p.wire - REGS_START] = quint16(v);
    }

private:
    void serve()
    {
        uint8_t req[MODBUS_RTU_MAX_ADU_LENGTH];
        while (!stop_) {
            const int rc = modbus_receive(ctx_, req);
            if (rc > 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                modbus_reply(ctx_, req, rc, map_);
            }
        }
    }

    modbus_t *ctx_ = nullptr;
    modbus_mapping_t *map_ = nullptr;
    bool connected_ = false;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::thread thread_;
};

class ModbusPeer : public ::testing::Test {
protected:
    void SetUp() override
    {
        QString why;
        ASSERT_NE(driver(&why), nullptr) << why.toStdString();
        ASSERT_TRUE(pty_.ok());
        server_.reset(new ModbusServer(pty_.slavePath()));
        ASSERT_TRUE(server_->ok()) << "libmodbus cannot open " << pty_.slavePath();
        link_.reset(new FdLink(pty_.master(), 115200, "pty"));
        QString error;
        ASSERT_TRUE(link_->open(&error));
    }

    std::unique_ptr<Runtime> runtime(int timeoutMs = 500)
    {
        RuntimeOptions ro;
        ro.gap = 4;  // no bridging: blocks stay as watched
        ro.timeoutMs = timeoutMs;
        std::unique_ptr<Runtime> rt(new Runtime(*driver(), *link_, ro));
        rt->start();
        return rt;
    }

    void fill(const QString &reg, int address, int units, quint32 seed)
    {
        std::mt19937 rng(seed);
        for (int i = 0; i < units; ++i)
            server_->set(reg, address + i, unitKindOf(reg) == UnitKind::Bit ? rng() & 1 : rng() & 0xFFFF);
    }

    void expectSame(Runtime &rt, const QString &reg, int address, int units)
    {
        for (int i = 0; i < units; ++i)
            EXPECT_EQ(cachedValue(rt, 1, reg, address + i), server_->value(reg, address + i))
                << unitName(reg, address + i).toStdString();
    }

    PtyPair pty_;
    std::unique_ptr<ModbusServer> server_;
    std::unique_ptr<FdLink> link_;
};

TEST_F(ModbusPeer, ValuesReadThroughTheDriverEqualTheServersMemory)
{
    fill("D", 0, 100, 1);
    fill("D", 150, 40, 2);
    fill("M", 0, 300, 3);
    fill("X", 0, 200, 4);
    fill("M", 7990, 10, 5);
    auto rt = runtime();
    const int jobs = rt->watch({wordKey("D", 0, 100), wordKey("D", 150, 40), bitKey("M", 0, 300),
                                bitKey("X", 0, 200), bitKey("M", 7990, 10)});
    ASSERT_TRUE(runCyclicReads(*rt, 2 * jobs, 200));
    EXPECT_EQ(rt->stats().retries, 0u) << rt->stats().lastError.toStdString();
    expectSame(*rt, "D", 0, 100);
    expectSame(*rt, "D", 150, 40);
    expectSame(*rt, "M", 0, 300);
    expectSame(*rt, "X", 0, 200);
    expectSame(*rt, "M", 7990, 10);
}

TEST_F(ModbusPeer, WritesOfEveryFunctionLandInTheServersMemory)
{
    auto rt = runtime();
    auto words = [](std::initializer_list<quint32> v) {
        QByteArray b;
        for (quint32 x : v)
            b += valueBytes(UnitKind::Word, x);
        return b;
    };
    rt->write(1, "D", 10, 1, words({0xBEEF}), 50);                // 0x06
    rt->write(1, "D", 20, 5, words({1, 2, 3, 0x8000, 0xFFFF}), 51);  // 0x10
    rt->write(1, "M", 5, 1, QByteArray(1, 1), 52);                 // 0x05
    rt->write(1, "M", 16, 12, QByteArray::fromHex("010001010000000101000101"), 53);  // 0x0F
    rt->write(1, "Y", 7, 1, QByteArray(1, 1), 54);
    int acked = 0;
    for (int i = 0; i < 50 && !rt->drained(); ++i) {
        const Exchange ex = rt->step();
        if (!ex.sent)
            continue;
        EXPECT_EQ(ex.result, 1) << ex.describe().toStdString();
        acked += ex.result == 1;
    }
    EXPECT_EQ(acked, 6);  // five words with a merge gap of 4 go in two pieces
    EXPECT_EQ(server_->value("D", 10), 0xBEEFu);
    const quint32 d20[] = {1, 2, 3, 0x8000, 0xFFFF};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(server_->value("D", 20 + i), d20[i]);
    EXPECT_EQ(server_->value("M", 5), 1u);
    const char *m16 = "010001010000000101000101";
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(server_->value("M", 16 + i), quint32(m16[2 * i + 1] - '0')) << "M" << 16 + i;
    EXPECT_EQ(server_->value("Y", 7), 1u);
}

TEST_F(ModbusPeer, ConditionReadOfTheServerEndsItsBatchWithTheValues)
{
    fill("D", 50, 10, 6);
    auto rt = runtime();
    rt->conditionRead(wordKey("D", 50, 10), 55);
    ASSERT_TRUE(runUntilIdle(*rt, 50));
    EXPECT_EQ(rt->takeBatchEnds(), QVector<int>{0});
    expectSame(*rt, "D", 50, 10);
}

TEST_F(ModbusPeer, ExceptionRepliesBecomeRetriesAndAnErrorTextWithoutWaitingForTheTimeout)
{
    auto rt = runtime(1000);
    // The last ten words lie past the server's memory: illegal data address.
    const int jobs = rt->watch({wordKey("D", 1990, 20)});
    QElapsedTimer t;
    t.start();
    ASSERT_TRUE(runCyclicReads(*rt, jobs, 20));
    const qint64 ms = t.elapsed();
    EXPECT_EQ(rt->stats().framesSent, 3u);
    EXPECT_EQ(rt->stats().retries, 2u);
    EXPECT_EQ(rt->stats().givenUp, 1u);
    EXPECT_EQ(rt->stats().lastError, "1#D1990(20),error code:3: exception 2 from the PLC for function 0x03");
    EXPECT_LT(ms, 1000) << "each of the three refusals waited for the response timeout";
}

} // namespace
