// Shared helpers of the unit tests: byte strings as a line monitor shows them,
// record builders, a flat Modbus memory standing in for the PLC, and the
// fixture that configures the one global driver as a runtime does.
#ifndef KQ71_TEST_SUPPORT_H
#define KQ71_TEST_SUPPORT_H

#include "driver_internals.h"
#include "records.h"
#include "../qt_compat.h"

#include <QtCore/QByteArray>
#include <QtCore/QMutex>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace kq71test {

using Bytes = std::vector<unsigned char>;
const int BIT = -1; // data type of a bit object

// "01 03 43 9C": characters other than hex digits are skipped.
inline Bytes hexBytes(const char *text)
{
    const QByteArray b = QByteArray::fromHex(QByteArray(text));
    return Bytes(b.begin(), b.end());
}
inline Bytes withCrc(Bytes b)
{
    const unsigned short crc = computate_check(b.data(), static_cast<unsigned short>(b.size()));
    b.push_back(crc & 0xFF);
    b.push_back(crc >> 8);
    return b;
}
inline QByteArray toQt(const Bytes &b) { return QByteArray(reinterpret_cast<const char *>(b.data()), int(b.size())); }
inline Bytes sentBytes(const FRAME_PRO &f) { return Bytes(f.frame, f.frame + f.sendLen); }

inline VARIABLE job(const QString &reg, int address, int length) { return named<VARIABLE>(1, reg, address, length); }

// One call of the value-change callback: deviceId, station, register, address.
using Report = std::tuple<int, int, std::string, int>;
using Reports = std::vector<Report>;
inline std::mutex reportsMutex;
inline Reports recorded;
inline std::function<void(const Report &)> inReport; // runs inside a report, as a runtime's code would
inline void recordReport(int deviceId, int station, const QString &regName, int address)
{
    const Report r{deviceId, station, regName.toStdString(), address};
    {
        std::lock_guard<std::mutex> g(reportsMutex);
        recorded.push_back(r);
    }
    if (inReport)
        inReport(r);
}

// A flat Modbus memory by wire address, independent of the driver's register
// mapping: tests state where a value must land in the PLC.
struct FakePlc {
    std::map<int, quint16> regs;
    std::map<int, int> bits;

    QByteArray answer(const FRAME_PRO &f)
    {
        const unsigned char *q = f.frame;
        const int fn = q[1], addr = q[2] << 8 | q[3], count = q[4] << 8 | q[5];
        Bytes r{q[0], q[1]};
        if (fn == 0x01) {
            r.resize(3 + (count + 7) / 8, 0);
            r[2] = (count + 7) / 8;
            for (int i = 0; i < count; ++i)
                r[3 + i / 8] |= (bits[addr + i] ? 1 : 0) << (i % 8);
        } else if (fn == 0x03) {
            r.push_back(2 * count);
            for (int i = 0; i < count; ++i) {
                r.push_back(regs[addr + i] >> 8);
                r.push_back(regs[addr + i] & 0xFF);
            }
        } else {
            r.assign(q, q + 6); // acknowledgement
        }
        if (fn == 0x05)
            bits[addr] = q[4] == 0xFF;
        else if (fn == 0x06)
            regs[addr] = quint16(q[4] << 8 | q[5]);
        for (int i = 0; fn == 0x0F && i < count; ++i)
            bits[addr + i] = (q[7 + i / 8] >> (i % 8)) & 1;
        for (int i = 0; fn == 0x10 && i < count; ++i)
            regs[addr + i] = quint16(q[7 + 2 * i] << 8 | q[8 + 2 * i]);
        return toQt(withCrc(r));
    }
};

// The driver's debug lines, without the quotes of the debug stream, kept off the test's output.
struct DebugCapture {
    DebugCapture() : prev(installMessageSink(&keep)) { lines.clear(); }
    ~DebugCapture() { installMessageSink(prev); }
    inline static std::vector<std::string> lines;
    static void keep(QtMsgType type, const QString &msg)
    {
        std::lock_guard<std::mutex> g(reportsMutex); // the exchange thread may log too
        const QString t = msg.trimmed();
        if (type == QtDebugMsg)
            lines.push_back((t.startsWith(QLatin1Char('"')) ? t.mid(1, t.size() - 2) : t).toStdString());
    }
    MessageSink prev;
};

class DriverTest : public ::testing::Test {
protected:
    void SetUp() override { configure("1#0#0#3#10"); }
    void TearDown() override { inReport = nullptr; }

    // Property text: deviceId#cacheOnlyWrites#-#retryLimit#mergeGap.
    void configure(const std::string &property, QMutex *runtimeMutex = nullptr)
    {
        static Bytes sharedMem(KQ71_SHARED_MEM_MIN + 16), recipeBuf(8192); // outlive every test
        static QMutex ownMutex;
        std::fill(sharedMem.begin(), sharedMem.end(), 0);
        std::fill(recipeBuf.begin(), recipeBuf.end(), 0);
        shared_ = sharedMem.data();
        recipe_ = recipeBuf.data();
        {
            ServiceLock lock; // the recipe survives initialisation; a test starts without one
            driver.resetAll();
        }
        intf_setAddrValueChangeCallBack(&recordReport);
        int status = -1;
        ASSERT_EQ(1, intf_initProperty(shared_, nullptr, recipe_, &status, property.c_str(),
                                       runtimeMutex ? runtimeMutex : &ownMutex));
        reports();
    }
    Reports reports()
    {
        std::lock_guard<std::mutex> g(reportsMutex);
        Reports out;
        out.swap(recorded);
        return out;
    }
    int watch(const std::vector<KEY_ADDRESS> &keys)
    {
        QList<KEY_ADDRESS> list;
        for (const KEY_ADDRESS &k : keys)
            list.append(k);
        return intf_addrMerge(&list);
    }
    // intf_getData of `bytes` bytes; guard bytes after them must stay untouched.
    Bytes get(QString reg, int address, int length, int bytes)
    {
        Bytes out(bytes + 4, 0xEE);
        EXPECT_EQ(1, intf_getData(1, &reg, address, length, out.data()));
        EXPECT_EQ(Bytes(4, 0xEE), Bytes(out.begin() + bytes, out.end())) << "written past the values";
        out.resize(bytes);
        return out;
    }
    int word(const QString &reg, int address)
    {
        const Bytes b = get(reg, address, 1, 2);
        return b[0] | b[1] << 8;
    }
    void set(QString reg, int address, int length, Bytes values, int id = 1)
    {
        values.resize(std::max<size_t>(values.size(), 4096), 0);
        EXPECT_EQ(1, intf_setData(1, &reg, address, length, values.data(), id));
    }
    const _DATA_ &unit(const QString &reg, int a) { return driver.dataAreas.at(getIndexOfDataArea(1, reg, a)); }
    FRAME_PRO nextFrame()
    {
        FRAME_PRO f;
        EXPECT_EQ(1, intf_getSendFrame(&f));
        return f;
    }
    int answerWith(QByteArray reply)
    {
        QString err;
        return intf_dealRcvFrame(&reply, &err);
    }
    // One exchange answered by plc: intf_dealRcvFrame's result, -1 when idle.
    int step(FRAME_PRO *sent = nullptr)
    {
        FRAME_PRO f;
        if (intf_getSendFrame(&f) != 1)
            return -1;
        if (sent)
            *sent = f;
        return answerWith(plc.answer(f));
    }
    int runUntilIdle()
    {
        int n = 0;
        while (n < 5000 && step() >= 0)
            ++n;
        EXPECT_LT(n, 5000) << "the cycle never went idle";
        return n;
    }
    // A read reply of D address.. decoded as the cycle decodes one.
    void replyOfWords(int address, const std::vector<quint16> &values)
    {
        Bytes r{1, 3, quint8(2 * values.size())};
        for (quint16 v : values) {
            r.push_back(v >> 8);
            r.push_back(v & 0xFF);
        }
        ServiceLock lock;
        analyzeFrameOfVal(toQt(withCrc(r)), int(values.size()), 3, job("D", address, int(values.size())));
    }

    FakePlc plc;
    unsigned char *shared_ = nullptr;
    unsigned char *recipe_ = nullptr;
};

// Exception replies: a refused read (code 2 of function 0x03) and write (0x06).
const QByteArray READ_REFUSED("\x01\x83\x02\xC0\xF1", 5);
const QByteArray WRITE_REFUSED("\x01\x86\x02\xC3\xA1", 5);

} // namespace kq71test

#endif
