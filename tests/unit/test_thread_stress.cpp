// A runtime's UI thread reading, writing and queueing condition reads while its
// communication thread runs the exchange, and the driver's lock between them.
#include "test_support.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace kq71test;

namespace {

const int WORDS = 20, BITS = 16, UI_ROUNDS = 6000, EXCHANGE_CAP = 400000;
thread_local bool onCommThread = false;

using ThreadStress = DriverTest;

bool workLeft()
{
    ServiceLock lock;
    return !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() || !driver.frameQueue.isEmpty();
}

// The UI thread holds the runtime's own mutex around its calls; the callback,
// on either thread, takes it too, reads the unit reported and raises the
// recipe flags it guards. The communication thread exchanges, with a corrupted
// reply now and then (its frame goes out again), until the UI is done and the
// queues are drained: neither thread waits for ever, and no write is lost.
TEST_F(ThreadStress, UiCallsUnderTheRuntimesMutexAgainstRunningExchange)
{
    DebugCapture quiet;
    QMutex runtimeMutex(QMutex::Recursive); // a callback may run on the thread that holds it
    configure("1#0#0#3#10", &runtimeMutex);
    // D 50 changes in the PLC at every exchange: reports come from this thread too.
    watch({key(1, "D", 0, WORDS), key(1, "M", 0, BITS, BIT), key(1, "D", 50, 1)});
    QVector<_RCP_VAR_PRO> items{named<_RCP_VAR_PRO>(1, "D", 100, 4)};
    items[0].deviceId = 1;
    intf_setRcpAddress(&items);
    int commReports = 0;
    inReport = [&](const Report &r) {
        QMutexLocker hold(&runtimeMutex);
        unsigned char value[4];
        QString name = QString::fromStdString(std::get<2>(r));
        if (std::get<1>(r) >= 0)
            intf_getData(std::get<1>(r), &name, std::get<3>(r), 1, value);
        // Raised on the thread that exchanges: thread checkers do not see the
        // runtime's mutex order the bytes between threads.
        if (onCommThread && ++commReports % 20 == 0)
            shared_[KQ71_RECIPE_WRITE_FLAG + (commReports / 20) % 2] = 1;
    };
    std::atomic<bool> uiDone(false);
    int exchanges = 0;
    std::thread comm([&] {
        onCommThread = true;
        for (FRAME_PRO f; (!uiDone || workLeft()) && exchanges < EXCHANGE_CAP; ++exchanges) {
            if (intf_getSendFrame(&f) != 1)
                continue;
            ++plc.regs[0x4338 + 50];
            QByteArray reply = plc.answer(f);
            if (exchanges % 5 == 0)
                reply[reply.size() - 1] = char(reply.at(reply.size() - 1) ^ 0x5A);
            answerWith(reply);
        }
    });
    std::vector<int> lastWord(WORDS, 0);
    QString d("D");
    for (int i = 0; i < UI_ROUNDS; ++i) {
        QMutexLocker hold(&runtimeMutex);
        unsigned char v[2] = {static_cast<unsigned char>(i), static_cast<unsigned char>(i >> 8)}, buf[2 * WORDS];
        intf_setData(1, &d, i % WORDS, 1, v, i);
        lastWord[i % WORDS] = i & 0xFFFF;
        if (i % 10 == 0) { // new units appear on the exchange side...
            KEY_ADDRESS k = key(1, "D", 3000 + i, 4);
            intf_addConditionRead(&k, i);
        }
        intf_getData(1, &d, 0, WORDS, buf);
        intf_getData(1, &d, 20000 + i, 1, buf); // ...and on this one
    }
    uiDone = true;
    comm.join();
    inReport = nullptr;
    ASSERT_LT(exchanges, EXCHANGE_CAP) << "the exchange never drained the queues";
    EXPECT_GT(commReports, 40);
    for (int a = 0; a < WORDS; ++a)
        EXPECT_EQ(std::make_pair(lastWord[a], lastWord[a]), std::make_pair(int(plc.regs[0x4338 + a]), word("D", a)))
            << "D" << a;
    configure("1#0#0#3#10"); // the mutex goes out of scope
}

// The driver's lock, recursive for its holder, keeps every other thread out.
TEST_F(ThreadStress, DriverLockKeepsOtherThreadsOut)
{
    std::atomic<bool> entered(false);
    std::thread other;
    {
        ServiceLock held, again;
        other = std::thread([&] {
            ServiceLock lock;
            entered = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(entered) << "two threads held the driver's lock at once";
    }
    other.join();
    EXPECT_TRUE(entered);
}

} // namespace
