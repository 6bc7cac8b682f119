// The driver as a runtime meets it: a file opened with dlopen, entry points
// found by name, records passed by pointer: the fresh-load state, then the
// calls a runtime should never make: null pointers, negative and oversized
// lengths, exchanges before intf_initProperty. None may crash, hang or grow
// without bound; each gives the code listed in docs/robustness.md.
#include "entry_points.h"
#include "records.h"
#include "../qt_compat.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

using kq71test::key;

// The entry points of one loaded copy of the library, typed as declared.
struct Api {
#define KQ71_SLOT(name) decltype(&::name) name = nullptr;
    KQ71_ENTRY_POINTS(KQ71_SLOT)
#undef KQ71_SLOT
};

// Loads a private copy of the file the runtime opens (the linker name), so
// that each test starts from a fresh load whatever ran before it.
std::string loadFreshCopy(void *&handle, Api &api)
{
    char path[] = "/tmp/kq71_e2e_XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return "mkstemp failed";
    std::ofstream(path, std::ios::binary) << std::ifstream(libraryPath("libvorn_kq71_ap.so"), std::ios::binary).rdbuf();
    close(fd);
    handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    unlink(path);
    if (!handle)
        return dlerror();
    std::string missing = dlsym(handle, "driver") ? "" : " driver";
#define KQ71_RESOLVE(name)                                                   \
    api.name = reinterpret_cast<decltype(&::name)>(dlsym(handle, #name)); \
    missing += api.name ? "" : " " #name;
    KQ71_ENTRY_POINTS(KQ71_RESOLVE)
#undef KQ71_RESOLVE
    return missing.empty() ? "" : "not found:" + missing;
}

using Report = std::tuple<int, int, std::string, int>;
std::vector<Report> g_reports;

void record(int deviceId, int station, const QString &regName, int address)
{
    g_reports.emplace_back(deviceId, station, regName.toStdString(), address);
}

QByteArray withCrc(QByteArray body)
{
    unsigned crc = 0xFFFF;
    for (char c : body) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return body.append(char(crc & 0xFF)).append(char(crc >> 8));
}

// The PLC's good answer to a frame: zeros for a read, the acknowledgement
// (station, function, address, count or value) for a write.
QByteArray goodReply(const FRAME_PRO &f)
{
    QByteArray body(reinterpret_cast<const char *>(f.frame), f.itemCount ? 2 : 6);
    if (f.itemCount)
        body.append(char(f.recvLen - 5)).append(QByteArray(f.recvLen > 5 ? f.recvLen - 5 : 0, '\0'));
    return withCrc(body);
}

class LoadedLibrary : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // The driver's planning and write-queue lines would bury the test output.
        kq71test::installMessageSink([](QtMsgType type, const QString &message) {
            if (type != QtDebugMsg)
                fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
        });
#ifndef KQ71_SANITIZED // a sanitizer's allocator reserves far more
        // A call that allocates without bound fails its test instead of taking
        // the machine down: the address space may grow by 1 GiB at most.
        long pages = 0;
        FILE *statm = fopen("/proc/self/statm", "r");
        if (statm && fscanf(statm, "%ld", &pages) == 1) {
            const rlim_t cap = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (rlim_t(1) << 30);
            const rlimit limit = {cap, cap};
            setrlimit(RLIMIT_AS, &limit);
        }
        if (statm)
            fclose(statm);
#endif
    }
    static void TearDownTestSuite() { kq71test::installMessageSink(nullptr); }

    void SetUp() override
    {
        ASSERT_EQ(loadFreshCopy(handle_, a), "");
        g_reports.clear();
        a.intf_setAddrValueChangeCallBack(&record);
    }
    void TearDown() override
    {
        if (handle_)
            dlclose(handle_);
    }

    int init(const char *property, int *status = nullptr)
    {
        return a.intf_initProperty(shared_.data(), nullptr, recipe_.data(), status, property, &mutex_);
    }
    int watch(const KEY_ADDRESS &k)
    {
        QList<KEY_ADDRESS> keys{k};
        return a.intf_addrMerge(&keys);
    }
    int conditionRead(KEY_ADDRESS k) { return a.intf_addConditionRead(&k, 9); }
    int setRecipe(int address, int length, int bufOffset, int deviceId = 1)
    {
        QVector<_RCP_VAR_PRO> items(1);
        items[0].deviceId = deviceId;
        items[0].station = 1;
        items[0].regName = "D";
        items[0].address = address;
        items[0].length = length;
        items[0].bufOffset = bufOffset;
        return a.intf_setRcpAddress(&items);
    }
    int setData(QString reg, int address, int length, unsigned char *values)
    {
        return a.intf_setData(1, &reg, address, length, values, 7);
    }
    int getData(QString reg, int address, int length, unsigned char *values)
    {
        return a.intf_getData(1, &reg, address, length, values);
    }
    // One exchange answered well (or with `reply` when given); -1: no frame.
    // Asks twice: after a burst of writes or condition reads with no cyclic
    // plan the driver answers once with nothing.
    int exchange(FRAME_PRO *sent = nullptr, const QByteArray *reply = nullptr)
    {
        FRAME_PRO f;
        if (a.intf_getSendFrame(&f) != 1 && a.intf_getSendFrame(&f) != 1)
            return -1;
        if (sent)
            *sent = f;
        QByteArray bytes = reply ? *reply : goodReply(f);
        return a.intf_dealRcvFrame(&bytes, nullptr);
    }
    Api a;
    void *handle_ = nullptr;
    std::vector<unsigned char> shared_ = std::vector<unsigned char>(KQ71_SHARED_MEM_MIN, 0);
    std::vector<unsigned char> recipe_ = std::vector<unsigned char>(4096, 0);
    QMutex mutex_;
};

TEST_F(LoadedLibrary, BeforeInitPropertyOnlyAWriteGoesOutAndInitPropertyClearsIt)
{
    FRAME_PRO f;
    f.sendLen = 99;
    EXPECT_EQ(a.intf_getSendFrame(&f), 0);
    EXPECT_EQ(f.sendLen, 99) << "the record was written";
    QByteArray reply("\x01\x03\x02\x00\x00", 5);
    QString text("stale");
    EXPECT_EQ(a.intf_dealRcvFrame(&reply, &text), 0);
    EXPECT_EQ(text, QString());
    // Items are kept (the device id is still 0), but without shared memory no
    // flag can start a transfer.
    EXPECT_EQ(setRecipe(100, 2, 0, 0), 1);
    EXPECT_EQ(a.intf_getSendFrame(&f), 0);

    unsigned char v[2] = {0x34, 0x12}, back[2] = {0, 0};
    EXPECT_EQ(setData("D", 100, 1, v), 1);
    EXPECT_EQ(getData("D", 100, 1, back), 1);
    EXPECT_EQ(back[0], 0x34);
    // With no retry limit yet, the first bad reply gives the job up.
    const QByteArray nothing;
    EXPECT_EQ(exchange(nullptr, &nothing), 2);
    EXPECT_EQ(setData("D", 100, 1, v), 1);
    init("1#0#0#3#16");
    EXPECT_EQ(exchange(), -1) << "initProperty left a job queued";
}

class OutOfContract : public LoadedLibrary {
protected:
    void SetUp() override
    {
        LoadedLibrary::SetUp();
        init("1#0#0#3#16");
    }
};

TEST_F(OutOfContract, NullPointersAreRefusedAndChangeNothing)
{
    ASSERT_EQ(watch(key(1, "D", 100, 3)), 1);
    a.intf_getProtocolType(nullptr);
    a.intf_getDriverParameter(nullptr);
    a.intf_getDriverPropertyPage(nullptr);
    a.intf_SetDriverPropertyPage(nullptr);

    QString reg("D"), text("100");
    int address = -1;
    QList<QString> list;
    QVector<QString> texts;
    QVector<int> addresses;
    unsigned char v[2] = {1, 2};
    EXPECT_EQ(a.intf_getRegListByType(0, nullptr), 0);
    EXPECT_EQ(a.intf_getRegDiscription(nullptr, &list), 0);
    EXPECT_EQ(a.intf_getRegDiscription(&reg, nullptr), 0);
    // Each pointer null in turn. 3 is the code of an unknown register: the
    // editor refuses the address.
    for (int nullAt = 0; nullAt < 3; ++nullAt) {
        SCOPED_TRACE("pointer " + std::to_string(nullAt + 1) + " null");
        QString *r = nullAt == 0 ? nullptr : &reg, *t = nullAt == 1 ? nullptr : &text;
        int *at = nullAt == 2 ? nullptr : &address;
        EXPECT_EQ(a.intf_checkAddr(r, t, at, 0, 1, 0), 3);
        EXPECT_EQ(a.intf_checkAddrValidity(r, t, at, 1, 1), 3);
        EXPECT_EQ(a.intf_multiCopy(r, 0, 3, 1, nullAt == 1 ? nullptr : &texts, nullAt == 2 ? nullptr : &addresses), 0);
    }
    EXPECT_EQ(a.intf_getData(1, nullptr, 100, 1, v), 0);
    EXPECT_EQ(getData("D", 100, 1, nullptr), 0);
    EXPECT_EQ(a.intf_setData(1, nullptr, 100, 1, v, 7), 0);
    EXPECT_EQ(setData("D", 100, 1, nullptr), 0);
    EXPECT_EQ(a.intf_addrMerge(nullptr), 0);
    EXPECT_EQ(a.intf_addConditionRead(nullptr, 5), 0);
    EXPECT_EQ(a.intf_setRcpAddress(nullptr), 0);
    EXPECT_EQ(a.intf_getSendFrame(nullptr), 0);
    EXPECT_EQ(address, -1);
    EXPECT_TRUE(list.isEmpty() && texts.isEmpty() && addresses.isEmpty());
    QString huge(1 << 20, QChar('9')); // parses as no number, not as one cut short
    EXPECT_EQ(a.intf_checkAddr(&reg, &huge, &address, 0, 1, 0), 4);
    // An object past any end is out of range, not wrapped into it.
    EXPECT_EQ(a.intf_checkAddr(&reg, &text, &address, 0, INT_MAX, 0), 2);
    EXPECT_EQ(a.intf_checkAddrValidity(&reg, &text, &address, INT_MAX, 1), 2);

    // The frame held back is still the cyclic read: nothing was queued or planned.
    FRAME_PRO f;
    ASSERT_EQ(a.intf_getSendFrame(&f), 1);
    EXPECT_EQ(std::make_pair(f.var.id, f.var.address), std::make_pair(4, 100));
    // No reply object and a flood are bad replies, sent again; no error text object is fine.
    QByteArray flood(1 << 20, '\x01'), good = goodReply(f);
    EXPECT_EQ(a.intf_dealRcvFrame(nullptr, nullptr), 8);
    EXPECT_EQ(exchange(nullptr, &flood), 8);
    EXPECT_EQ(exchange(nullptr, &good), 1);
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(OutOfContract, SetupCallsWithNullPointers)
{
    // A null property keeps the configuration: the retry limit of 3 stands.
    int status = -1;
    EXPECT_EQ(a.intf_initProperty(shared_.data(), nullptr, recipe_.data(), &status, nullptr, &mutex_), 1);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(watch(key(1, "D", 100, 1)), 1);
    const QByteArray nothing;
    for (int expected : {8, 8, 2})
        EXPECT_EQ(exchange(nullptr, &nothing), expected);

    // Recipe transfers run without mutex or recipe buffer.
    EXPECT_EQ(a.intf_initProperty(shared_.data(), nullptr, nullptr, &status, "1#0#0#3#16", nullptr), 1);
    ASSERT_EQ(setRecipe(200, 2, 0), 1);
    FRAME_PRO f;
    for (int flag : {int(KQ71_RECIPE_WRITE_FLAG), int(KQ71_RECIPE_READ_FLAG)}) {
        shared_[flag] = 1;
        EXPECT_EQ(exchange(&f), 1);
        EXPECT_EQ(f.var.address, 200);
        EXPECT_EQ(shared_[flag], 0) << "the transfer did not end";
    }

    // Without the shared memory no recipe flag is seen; the cycle still runs.
    EXPECT_EQ(a.intf_initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 1);
    ASSERT_EQ(watch(key(1, "D", 100, 1)), 1);
    ASSERT_EQ(setRecipe(200, 2, 0), 1);
    shared_[KQ71_RECIPE_WRITE_FLAG] = 1;
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(f.var.id, 4);

    // Without a callback changes and batch ends go unreported.
    a.intf_setAddrValueChangeCallBack(nullptr);
    g_reports.clear();
    EXPECT_EQ(conditionRead(key(1, "D", 300, 1)), 1);
    const QByteArray reply = withCrc(QByteArray("\x01\x03\x02\x12\x34", 5));
    EXPECT_EQ(exchange(nullptr, &reply), 1);
    EXPECT_EQ(exchange(nullptr, &reply), 1);
    EXPECT_TRUE(g_reports.empty());
}

// --- lengths, addresses and numbers ---------------------------------------

// No read covers more than the 65,536 units the wire can address, and none of
// no units writes a byte: the runtime's buffer is written no further.
TEST_F(OutOfContract, ReadsOfAnyLengthStayInTheAddressSpace)
{
    const struct {
        const char *reg;
        int length, bytes;
    } reads[] = {{"X", -1, 0},           {"D", -3, 0},          {"200CC", INT_MIN, 0}, {"200CC", 1, 0},
                 {"M", INT_MAX, 0x10000}, {"D", INT_MAX, 0x20000}, {"200CC", INT_MAX, 0x40000}};
    for (const auto &r : reads) {
        std::vector<unsigned char> buf(size_t(r.bytes) + 64, 0xEE);
        EXPECT_EQ(getData(r.reg, 0, r.length, buf.data()), 1) << r.reg << " " << r.length;
        EXPECT_EQ(std::count(buf.begin(), buf.begin() + r.bytes, 0), r.bytes) << r.reg << " " << r.length;
        EXPECT_EQ(std::count(buf.begin() + r.bytes, buf.end(), 0xEE), 64) << r.reg << " " << r.length;
    }
}

// Negative lengths queue nothing; an oversized write is cut into pieces of
// the merge gap; a write of no units without values is still queued and sent
// (the PLC refuses it).
TEST_F(OutOfContract, WritesOfAnyLength)
{
    std::vector<unsigned char> values(size_t(0x10000) * 4, 0x11);
    const struct {
        const char *reg;
        int length;
        bool withValues;
        int result, registers; // registers of the first frame, -1: nothing sent
    } writes[] = {{"X", -1, true, 1, -1},      {"D", -3, true, 1, -1},  {"200CC", INT_MIN, true, 1, -1},
                  {"D", 1, false, 0, -1},      {"D", 0, false, 1, 0},   {"D", INT_MAX, true, 1, 16}};
    for (const auto &w : writes) {
        init("1#0#0#3#16");
        g_reports.clear();
        EXPECT_EQ(setData(w.reg, 0, w.length, w.withValues ? values.data() : nullptr), w.result) << w.reg << w.length;
        FRAME_PRO f;
        const bool sent = exchange(&f) == 1;
        EXPECT_EQ(sent ? f.frame[4] << 8 | f.frame[5] : -1, w.registers) << w.reg << " " << w.length;
        if (sent)
            EXPECT_EQ(std::make_pair(int(f.frame[1]), f.sendLen), std::make_pair(0x10, 9 + 2 * w.registers)) << w.reg;
        EXPECT_TRUE(g_reports.empty()) << w.reg << " " << w.length;
    }
}

// Queues and plans stay within the 65,536 units the wire can address: of a
// condition read of them all at most 513 pieces wait, the last slot taking
// the newest; one of no units ends its batch at once. Keys at the ends of the
// int range plan jobs that each come to an end.
TEST_F(OutOfContract, OversizedRequestsStayBounded)
{
    EXPECT_EQ(conditionRead(key(1, "D", 100, 0)), 1);
    EXPECT_EQ(exchange(), -1);
    EXPECT_EQ(conditionRead(key(1, "D", 0, INT_MAX)), 1);
    int pieces = 0;
    while (pieces < 2000 && exchange() == 1)
        ++pieces;
    EXPECT_EQ(pieces, 513);
    EXPECT_EQ(g_reports, (std::vector<Report>{{-1, -1, "-1", 0}, {-1, -1, "-1", 0}}));
    EXPECT_EQ(setRecipe(0, INT_MAX, 0), 1);
    const int jobs = watch(key(1, "D", 0, INT_MAX));
    EXPECT_TRUE(jobs >= 1 && jobs <= 0x10000 / 128) << jobs;
    QList<KEY_ADDRESS> keys{key(1, "D", INT_MIN, -5), key(1, "M", INT_MAX - 40, 1000, -1), key(1, "200CC", 200, INT_MIN),
                            key(1, "D", -100, 50)};
    const QByteArray nothing;
    const int planned = a.intf_addrMerge(&keys);
    EXPECT_GE(planned, 1);
    for (int i = 0; i < 3 * planned; ++i)
        EXPECT_NE(exchange(nullptr, &nothing), -1);
}

TEST_F(OutOfContract, RecipeItemOutsideTheBufferIsWrittenAsZeros)
{
    std::fill(recipe_.begin(), recipe_.end(), 0x5A);
    ASSERT_EQ(setRecipe(200, 2, -100), 1);
    shared_[KQ71_RECIPE_WRITE_FLAG] = 1;
    FRAME_PRO f;
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(kq71test::hexText(f.frame + 7, 4), "00 00 00 00");
    EXPECT_EQ(shared_[KQ71_RECIPE_WRITE_FLAG], 0);

    // Read back, nothing lands before the buffer (the bytes around stay).
    shared_[KQ71_RECIPE_READ_FLAG] = 1;
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(shared_[KQ71_RECIPE_READ_FLAG], 0);
    EXPECT_EQ(std::count(recipe_.begin(), recipe_.end(), 0x5A), 4096);
}

} // namespace
