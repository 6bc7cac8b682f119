// Calls a runtime should never make: null pointers where a record, list or
// string belongs, negative and oversized lengths, exchanges before
// intf_initProperty. None may crash, hang or grow without bound; each gives
// the code listed in docs/robustness.md.
#include "entry_points.h"
#include "../qt_compat.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

#ifdef KQ71_SANITIZED
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

// The entry points of one loaded copy of the library, typed as declared.
struct Api {
#define KQ71_SLOT(name) decltype(&::name) name = nullptr;
    KQ71_ENTRY_POINTS(KQ71_SLOT)
#undef KQ71_SLOT
};

// A private copy of the library file, so that every test starts from the
// state of a fresh load whatever ran before it in this process.
class FreshLibrary {
public:
    FreshLibrary()
    {
        char dir[] = "/tmp/kq71_contract_XXXXXX";
        if (!mkdtemp(dir)) {
            error_ = "mkdtemp failed";
            return;
        }
        dir_ = dir;
        copy_ = dir_ + "/libvorn_kq71_ap.so";
        if (!QFile::copy(QString::fromStdString(libraryPath("libvorn_kq71_ap.so.2.0.0")),
                         QString::fromStdString(copy_))) {
            error_ = "cannot copy the library";
            return;
        }
        handle_ = dlopen(copy_.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle_) {
            error_ = dlerror();
            return;
        }
#define KQ71_RESOLVE(name) api.name = reinterpret_cast<decltype(&::name)>(dlsym(handle_, #name));
        KQ71_ENTRY_POINTS(KQ71_RESOLVE)
#undef KQ71_RESOLVE
    }
    ~FreshLibrary()
    {
        if (handle_) {
            api.intf_setAddrValueChangeCallBack(nullptr);
            dlclose(handle_);
        }
        if (!copy_.empty())
            unlink(copy_.c_str());
        if (!dir_.empty())
            rmdir(dir_.c_str());
    }
    FreshLibrary(const FreshLibrary &) = delete;
    FreshLibrary &operator=(const FreshLibrary &) = delete;

    bool loaded() const { return handle_ != nullptr; }
    const std::string &error() const { return error_; }
    Api api;

private:
    std::string dir_, copy_, error_;
    void *handle_ = nullptr;
};

using Report = std::tuple<int, int, std::string, int>;
std::vector<Report> g_reports;

void record(int deviceId, int station, const QString &regName, int address)
{
    g_reports.emplace_back(deviceId, station, regName.toStdString(), address);
}

unsigned short crc16(const unsigned char *p, int n)
{
    unsigned short crc = 0xFFFF;
    for (int i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    return crc;
}

QByteArray withCrc(QByteArray body)
{
    const unsigned short crc = crc16(reinterpret_cast<const unsigned char *>(body.constData()), body.size());
    body.append(char(crc & 0xFF));
    body.append(char(crc >> 8));
    return body;
}

// The PLC's good answer to a frame: zeros for a read, the acknowledgement
// (station, function, address, count or value) for a write.
QByteArray goodReply(const FRAME_PRO &f)
{
    QByteArray body(reinterpret_cast<const char *>(f.frame), 6);
    if (f.itemCount == 0)
        return withCrc(body);
    const int data = f.recvLen - 5;
    body.truncate(2);
    body.append(char(data & 0xFF));
    body.append(QByteArray(data > 0 ? data : 0, '\0'));
    return withCrc(body);
}

// The driver's planning and write-queue lines would bury the test output.
void quiet(QtMsgType type, const QString &message)
{
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

class OutOfContract : public ::testing::Test {
protected:
    static void SetUpTestSuite() { kq71test::installMessageSink(quiet); }
    static void TearDownTestSuite() { kq71test::installMessageSink(nullptr); }

    void SetUp() override
    {
        ASSERT_TRUE(lib_.loaded()) << lib_.error();
        g_reports.clear();
        api().intf_setAddrValueChangeCallBack(&record);
        init("1#0#0#3#16");
    }

    const Api &api() const { return lib_.api; }
    int init(const char *property)
    {
        int status = -1;
        return api().intf_initProperty(shared_.data(), nullptr, recipe_.data(), &status, property, &mutex_);
    }

    KEY_ADDRESS key(const char *reg, int address, int length, int dataType = 0) const
    {
        KEY_ADDRESS k;
        k.station = 1;
        k.regName = reg;
        k.address = address;
        k.length = length;
        k.dataType = dataType;
        return k;
    }
    _RCP_VAR_PRO item(const char *reg, int address, int length, int bufOffset, int deviceId = 1) const
    {
        _RCP_VAR_PRO r;
        r.deviceId = deviceId;
        r.station = 1;
        r.regName = reg;
        r.address = address;
        r.length = length;
        r.bufOffset = bufOffset;
        return r;
    }
    int watch(const KEY_ADDRESS &k)
    {
        QList<KEY_ADDRESS> keys;
        keys.append(k);
        return api().intf_addrMerge(&keys);
    }
    int setData(const char *reg, int address, int length, unsigned char *values, int id = 7)
    {
        QString name(reg);
        return api().intf_setData(1, &name, address, length, values, id);
    }
    int getData(const char *reg, int address, int length, unsigned char *values)
    {
        QString name(reg);
        return api().intf_getData(1, &name, address, length, values);
    }
    // One exchange answered well (or with `reply` when given); -1: no frame.
    // Asks twice: after a burst of writes or condition reads with no cyclic
    // plan the driver answers once with nothing.
    int exchange(FRAME_PRO *sent = nullptr, const QByteArray *reply = nullptr)
    {
        FRAME_PRO f;
        if (api().intf_getSendFrame(&f) != 1 && api().intf_getSendFrame(&f) != 1)
            return -1;
        if (sent)
            *sent = f;
        QByteArray bytes = reply ? *reply : goodReply(f);
        QString text;
        return api().intf_dealRcvFrame(&bytes, &text);
    }
    int batchEnds() const
    {
        int n = 0;
        for (const Report &r : g_reports)
            n += std::get<1>(r) == -1 && std::get<2>(r) == "-1";
        return n;
    }

    FreshLibrary lib_;
    std::vector<unsigned char> shared_ = std::vector<unsigned char>(KQ71_SHARED_MEM_MIN, 0);
    std::vector<unsigned char> recipe_ = std::vector<unsigned char>(4096, 0);
    QMutex mutex_;
};

// Runs `check` in a child process whose address space may grow by 1 GiB at
// most and which has 60 s, so that a call that allocates or loops without
// bound fails the test instead of taking the machine down. `check` returns
// the child's exit code: 0 when all held.
int inBoundedChild(const std::function<int()> &check)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        long pages = 0;
        if (FILE *f = fopen("/proc/self/statm", "r")) {
            if (fscanf(f, "%ld", &pages) != 1)
                pages = 0;
            fclose(f);
        }
        const rlim_t cap = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (rlim_t(1) << 30);
        const rlimit limit = {cap, cap};
        setrlimit(RLIMIT_AS, &limit);
        alarm(60);
        _exit(check());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}

// --- before intf_initProperty ---------------------------------------------

class BeforeInitProperty : public OutOfContract {
protected:
    void SetUp() override { ASSERT_TRUE(lib_.loaded()) << lib_.error(); }
};

TEST_F(BeforeInitProperty, ExchangeHasNothingToSendOrTake)
{
    FRAME_PRO f;
    f.sendLen = 99;
    EXPECT_EQ(api().intf_getSendFrame(&f), 0);
    EXPECT_EQ(f.sendLen, 99) << "the record was written";
    QByteArray reply("\x01\x03\x02\x00\x00", 5);
    QString text("stale");
    EXPECT_EQ(api().intf_dealRcvFrame(&reply, &text), 0);
    EXPECT_EQ(text, QString());
}

TEST_F(BeforeInitProperty, RecipeFlagsCannotStartATransferWithoutSharedMemory)
{
    // The device id is still 0.
    QVector<_RCP_VAR_PRO> items{item("D", 100, 2, 0, 0)};
    EXPECT_EQ(api().intf_setRcpAddress(&items), 1);
    FRAME_PRO f;
    EXPECT_EQ(api().intf_getSendFrame(&f), 0);
}

TEST_F(BeforeInitProperty, WriteIsQueuedAndInitPropertyClearsIt)
{
    unsigned char v[2] = {0x34, 0x12};
    EXPECT_EQ(setData("D", 100, 1, v), 1);
    unsigned char back[2] = {0, 0};
    EXPECT_EQ(getData("D", 100, 1, back), 1);
    EXPECT_EQ(back[0], 0x34);
    // With no retry limit yet, the first bad reply gives the job up.
    QByteArray nothing;
    EXPECT_EQ(exchange(nullptr, &nothing), 2);

    EXPECT_EQ(setData("D", 100, 1, v), 1);
    init("1#0#0#3#16");
    EXPECT_EQ(exchange(), -1) << "initProperty left a job queued";
}

// --- null pointers --------------------------------------------------------

TEST_F(OutOfContract, NullOutArgumentsOfTheDescriptiveQueriesAreIgnored)
{
    api().intf_getProtocolType(nullptr);
    api().intf_getDriverParameter(nullptr);
    api().intf_getDriverPropertyPage(nullptr);
    api().intf_SetDriverPropertyPage(nullptr);
    EXPECT_EQ(api().intf_getVersion(), QString("2.0.0.0"));
}

TEST_F(OutOfContract, NullArgumentsOfTheEditorQueriesGiveTheirRefusal)
{
    QString reg("D"), text("100");
    int address = -1;
    QList<QString> list;
    QVector<QString> texts;
    QVector<int> addresses;
    EXPECT_EQ(api().intf_getRegListByType(0, nullptr), 0);
    EXPECT_EQ(api().intf_getRegDiscription(nullptr, &list), 0);
    EXPECT_EQ(api().intf_getRegDiscription(&reg, nullptr), 0);
    EXPECT_TRUE(list.isEmpty());
    // 3 is the code of an unknown register: the editor refuses the address.
    EXPECT_EQ(api().intf_checkAddr(nullptr, &text, &address, 0, 1, 0), 3);
    EXPECT_EQ(api().intf_checkAddr(&reg, nullptr, &address, 0, 1, 0), 3);
    EXPECT_EQ(api().intf_checkAddr(&reg, &text, nullptr, 0, 1, 0), 3);
    EXPECT_EQ(api().intf_checkAddrValidity(nullptr, &text, &address, 1, 1), 3);
    EXPECT_EQ(api().intf_checkAddrValidity(&reg, nullptr, &address, 1, 1), 3);
    EXPECT_EQ(api().intf_checkAddrValidity(&reg, &text, nullptr, 1, 1), 3);
    EXPECT_EQ(address, -1);
    EXPECT_EQ(api().intf_multiCopy(nullptr, 0, 3, 1, &texts, &addresses), 0);
    EXPECT_EQ(api().intf_multiCopy(&reg, 0, 3, 1, nullptr, &addresses), 0);
    EXPECT_EQ(api().intf_multiCopy(&reg, 0, 3, 1, &texts, nullptr), 0);
    EXPECT_TRUE(texts.isEmpty() && addresses.isEmpty());
}

TEST_F(OutOfContract, NullPlanningArgumentsChangeNothing)
{
    ASSERT_EQ(watch(key("D", 100, 3)), 1);
    EXPECT_EQ(api().intf_addrMerge(nullptr), 0);
    EXPECT_EQ(api().intf_addConditionRead(nullptr, 5), 0);
    EXPECT_EQ(api().intf_setRcpAddress(nullptr), 0);
    FRAME_PRO f;
    ASSERT_EQ(exchange(&f), 1);
    EXPECT_EQ(f.var.id, 4) << "the plan is still the cyclic read";
    EXPECT_EQ(f.var.address, 100);
    EXPECT_EQ(batchEnds(), 0);
}

TEST_F(OutOfContract, NullExchangeArgumentsKeepTheFrameInPlace)
{
    ASSERT_EQ(watch(key("D", 100, 3)), 1);
    EXPECT_EQ(api().intf_getSendFrame(nullptr), 0);
    FRAME_PRO f;
    ASSERT_EQ(api().intf_getSendFrame(&f), 1);
    // No reply object reads as no bytes: a bad reply, sent again.
    EXPECT_EQ(api().intf_dealRcvFrame(nullptr, nullptr), 8);
    QByteArray good = goodReply(f);
    EXPECT_EQ(api().intf_dealRcvFrame(&good, nullptr), 1);
}

TEST_F(OutOfContract, NullValueArgumentsReadAndWriteNothing)
{
    unsigned char v[2] = {1, 2};
    EXPECT_EQ(api().intf_getData(1, nullptr, 100, 1, v), 0);
    EXPECT_EQ(getData("D", 100, 1, nullptr), 0);
    EXPECT_EQ(api().intf_setData(1, nullptr, 100, 1, v, 7), 0);
    EXPECT_EQ(setData("D", 100, 1, nullptr), 0);
    EXPECT_EQ(exchange(), -1) << "a write was queued";
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(OutOfContract, InitPropertyWithoutAnyPointerStillConfiguresTheCycle)
{
    EXPECT_EQ(api().intf_initProperty(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 1);
    ASSERT_EQ(watch(key("D", 100, 3)), 1);
    FRAME_PRO f;
    EXPECT_EQ(exchange(&f), 1);
    // Without the shared memory there are no recipe flags to raise.
    QVector<_RCP_VAR_PRO> items{item("D", 200, 2, 0)};
    EXPECT_EQ(api().intf_setRcpAddress(&items), 1);
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(f.var.id, 4);
}

TEST_F(OutOfContract, NullPropertyTextKeepsTheConfiguration)
{
    int status = -1;
    EXPECT_EQ(api().intf_initProperty(shared_.data(), nullptr, recipe_.data(), &status, nullptr, &mutex_), 1);
    EXPECT_EQ(status, 0);
    // The retry limit of 3 still stands: two bad replies are sent again.
    ASSERT_EQ(watch(key("D", 100, 3)), 1);
    QByteArray nothing;
    EXPECT_EQ(exchange(nullptr, &nothing), 8);
    EXPECT_EQ(exchange(nullptr, &nothing), 8);
    EXPECT_EQ(exchange(nullptr, &nothing), 2);
}

TEST_F(OutOfContract, RecipeTransfersRunWithoutMutexOrBuffer)
{
    int status = -1;
    EXPECT_EQ(api().intf_initProperty(shared_.data(), nullptr, nullptr, &status, "1#0#0#3#16", nullptr), 1);
    QVector<_RCP_VAR_PRO> items{item("D", 200, 2, 0)};
    ASSERT_EQ(api().intf_setRcpAddress(&items), 1);
    for (int flag : {int(KQ71_RECIPE_WRITE_FLAG), int(KQ71_RECIPE_READ_FLAG)}) {
        shared_[flag] = 1;
        FRAME_PRO f;
        EXPECT_EQ(exchange(&f), 1);
        EXPECT_EQ(f.var.address, 200);
        EXPECT_EQ(shared_[flag], 0) << "the transfer did not end";
    }
}

TEST_F(OutOfContract, NullCallbackSkipsReports)
{
    api().intf_setAddrValueChangeCallBack(nullptr);
    ASSERT_EQ(watch(key("D", 100, 1)), 1);
    KEY_ADDRESS k = key("D", 300, 1);
    EXPECT_EQ(api().intf_addConditionRead(&k, 9), 1);
    QByteArray reply = withCrc(QByteArray("\x01\x03\x02\x12\x34", 5));
    EXPECT_EQ(exchange(nullptr, &reply), 1);
    EXPECT_EQ(exchange(nullptr, &reply), 1);
    EXPECT_TRUE(g_reports.empty());
}

// --- negative and oversized lengths ---------------------------------------

TEST_F(OutOfContract, NegativeLengthsReadWriteAndQueueNothing)
{
    unsigned char v[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    for (const char *reg : {"X", "D", "200CC"}) {
        EXPECT_EQ(getData(reg, 10, -1, v), 1) << reg;
        EXPECT_EQ(setData(reg, 10, -3, v), 1) << reg;
        EXPECT_EQ(setData(reg, 10, INT_MIN, v), 1) << reg;
    }
    EXPECT_EQ(std::vector<unsigned char>(v, v + 8), std::vector<unsigned char>(8, 0xEE));
    EXPECT_EQ(exchange(), -1) << "a write was queued";
    EXPECT_TRUE(g_reports.empty());
}

// A read of more units than the wire can address covers the address space
// once: the runtime's oversized buffer is written no further.
TEST_F(OutOfContract, OversizedReadsStopAtTheAddressSpace)
{
    struct Case {
        const char *reg;
        int bytesPerUnit;
    };
    for (const Case &c : {Case{"M", 1}, Case{"D", 2}, Case{"200CC", 4}}) {
        const size_t used = size_t(0x10000) * c.bytesPerUnit;
        std::vector<unsigned char> buf(used + 64, 0xEE);
        EXPECT_EQ(getData(c.reg, 0, INT_MAX, buf.data()), 1) << c.reg;
        EXPECT_EQ(buf[used - 1], 0) << c.reg;
        EXPECT_EQ(std::vector<unsigned char>(buf.begin() + used, buf.end()), std::vector<unsigned char>(64, 0xEE))
            << c.reg << ": written past " << used << " bytes";
    }
}

TEST_F(OutOfContract, OversizedWriteIsCutIntoFramesThatFit)
{
    std::vector<unsigned char> values(size_t(0x10000) * 4, 0x11);
    EXPECT_EQ(setData("D", 0, INT_MAX, values.data()), 1);
    FRAME_PRO f;
    ASSERT_EQ(exchange(&f), 1);
    EXPECT_EQ(f.frame[1], 0x10);
    EXPECT_LE(f.sendLen, 9 + 2 * 16) << "a piece longer than the merge gap";
}

TEST_F(OutOfContract, ConditionReadOfNoUnitsEndsItsBatchAtTheNextFrameRequest)
{
    // Nothing is queued, yet the batch the runtime opened ends, once.
    for (int length : {0, -5, INT_MIN}) {
        KEY_ADDRESS k = key("D", 100, length);
        EXPECT_EQ(api().intf_addConditionRead(&k, 9), 1) << length;
    }
    KEY_ADDRESS half = key("200CC", 200, 1);  // one word of a double word
    EXPECT_EQ(api().intf_addConditionRead(&half, 9), 1);
    EXPECT_EQ(batchEnds(), 0);
    EXPECT_EQ(exchange(), -1);
    EXPECT_EQ(batchEnds(), 1);
    EXPECT_EQ(exchange(), -1);
    EXPECT_EQ(batchEnds(), 1); // counted since the start: no second end
}

TEST_F(OutOfContract, OversizedConditionReadIsBoundedAndEndsItsBatch)
{
    // The range stops at the address space: 4096 pieces of 16 words, of which
    // at most 513 wait, the last slot taking the newest.
    KEY_ADDRESS k = key("D", 0, INT_MAX);
    EXPECT_EQ(api().intf_addConditionRead(&k, 10), 1);
    int frames = 0;
    while (batchEnds() == 0 && frames < 2000) {
        FRAME_PRO f;
        ASSERT_EQ(exchange(&f), 1);
        EXPECT_LE(f.var.length, 16);
        ++frames;
    }
    EXPECT_EQ(frames, 513);
    ASSERT_FALSE(g_reports.empty());
    EXPECT_EQ(g_reports.back(), Report(-1, -1, "-1", 0));
}

TEST_F(OutOfContract, OversizedWatchKeyIsPlannedWithinTheAddressSpace)
{
    if (kSanitized)
        GTEST_SKIP() << "the child's memory cap does not hold under a sanitizer's allocator";
    const int code = inBoundedChild([this] {
        const int jobs = watch(key("D", 0, INT_MAX));
        return jobs >= 1 && jobs <= 0x10000 / 128 ? 0 : 1;
    });
    EXPECT_EQ(code, 0) << "128+n: killed by signal n (6: an exception left the library)";
}

TEST_F(OutOfContract, OversizedRecipeItemIsPlannedWithinTheAddressSpace)
{
    if (kSanitized)
        GTEST_SKIP() << "the child's memory cap does not hold under a sanitizer's allocator";
    const int code = inBoundedChild([this] {
        QVector<_RCP_VAR_PRO> items{item("D", 0, INT_MAX, 0)};
        return api().intf_setRcpAddress(&items) == 1 ? 0 : 1;
    });
    EXPECT_EQ(code, 0) << "128+n: killed by signal n (6: an exception left the library)";
}

TEST_F(OutOfContract, NegativeAndExtremeAddressesInThePlanAreHarmless)
{
    QList<KEY_ADDRESS> keys{key("D", INT_MIN, -5), key("M", INT_MAX - 40, 1000, -1), key("200CC", 200, INT_MIN),
                            key("D", -100, 50)};
    const int jobs = api().intf_addrMerge(&keys);
    EXPECT_GE(jobs, 1);
    QByteArray nothing;
    for (int i = 0; i < 3 * jobs; ++i)
        EXPECT_NE(exchange(nullptr, &nothing), -1);
}

TEST_F(OutOfContract, RecipeItemOutsideTheBufferIsWrittenAsZeros)
{
    std::fill(recipe_.begin(), recipe_.end(), 0x5A);
    QVector<_RCP_VAR_PRO> items{item("D", 200, 2, -100)};
    ASSERT_EQ(api().intf_setRcpAddress(&items), 1);
    shared_[KQ71_RECIPE_WRITE_FLAG] = 1;
    FRAME_PRO f;
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(std::vector<unsigned char>(f.frame + 7, f.frame + 11), std::vector<unsigned char>(4, 0));
    EXPECT_EQ(shared_[KQ71_RECIPE_WRITE_FLAG], 0);

    // Read back, nothing lands before the buffer (the bytes around stay).
    shared_[KQ71_RECIPE_READ_FLAG] = 1;
    EXPECT_EQ(exchange(&f), 1);
    EXPECT_EQ(shared_[KQ71_RECIPE_READ_FLAG], 0);
    EXPECT_EQ(recipe_, std::vector<unsigned char>(recipe_.size(), 0x5A));
}

TEST_F(OutOfContract, PropertyNumbersOutOfRangeGiveWorkingLimits)
{
    // Not decimal or too big reads as 0; a merge gap below 1 cuts pieces of
    // one block (128 units); a huge one is itself the piece limit.
    struct Case {
        const char *property;
        int pieces;
    };
    for (const Case &c : {Case{"a#b#c#99999999999#-7", 3}, Case{"1#0#0#0#0", 3}, Case{"1#0#0#-3#2147483647", 1}}) {
        EXPECT_EQ(init(c.property), 1) << c.property;
        g_reports.clear();
        KEY_ADDRESS k = key("D", 0, 300);
        EXPECT_EQ(api().intf_addConditionRead(&k, 9), 1);
        int frames = 0;
        while (batchEnds() == 0 && frames < 10) {
            ASSERT_EQ(exchange(), 1) << c.property;
            ++frames;
        }
        EXPECT_EQ(frames, c.pieces) << c.property;
        EXPECT_EQ(batchEnds(), 1) << c.property;
    }
}

TEST_F(OutOfContract, EditorInputsOutOfRangeGiveTheirCodes)
{
    QString reg("D"), text("100");
    int address = -1;
    EXPECT_EQ(api().intf_checkAddr(&reg, &text, &address, 0, INT_MAX, 0), 2);
    EXPECT_EQ(api().intf_checkAddrValidity(&reg, &text, &address, INT_MAX, 1), 2);
    QString huge(1 << 20, QChar('9'));
    EXPECT_EQ(api().intf_checkAddr(&reg, &huge, &address, 0, 1, 0), 4);

    QVector<QString> texts;
    QVector<int> addresses;
    EXPECT_EQ(api().intf_multiCopy(&reg, 0, -5, 1, &texts, &addresses), 1);
    EXPECT_TRUE(addresses.isEmpty());
    EXPECT_EQ(api().intf_multiCopy(&reg, 0, INT_MAX, 1, &texts, &addresses), 2);
    EXPECT_EQ(addresses.size(), 65536);
    texts.clear();
    addresses.clear();
    EXPECT_EQ(api().intf_multiCopy(&reg, 5, 3, INT_MIN, &texts, &addresses), 1);
    EXPECT_EQ(addresses, (QVector<int>{5, 6, 7}));
}

// A job whose register has no frame is chosen again and again and sends
// nothing: it holds the later jobs of its queue until intf_initProperty.
// A job no frame can be built for is given up where it stands, and the next
// one goes out in the same call: nothing waits behind it.
TEST_F(OutOfContract, UnknownRegisterJobsAreGivenUpAndTheNextGoesOut)
{
    unsigned char v[2] = {1, 2};
    EXPECT_EQ(setData("QQ", 1, 1, v), 1);
    EXPECT_EQ(setData("D", 1, 1, v), 1);
    FRAME_PRO f;
    ASSERT_EQ(api().intf_getSendFrame(&f), 1);
    EXPECT_EQ(f.frame[1], 0x06);
    EXPECT_EQ(QString(f.var.regName), QString("D"));
    init("1#0#0#3#16");
    KEY_ADDRESS k = key("QQ", 1, 1);
    EXPECT_EQ(api().intf_addConditionRead(&k, 9), 1);
    EXPECT_EQ(api().intf_getSendFrame(&f), 0);
    ASSERT_EQ(batchEnds(), 1);
    EXPECT_EQ(std::get<3>(g_reports.back()), -1);
}

// No bytes to take for no units: the job of no units is still queued and
// sent (the PLC refuses it).
TEST_F(OutOfContract, ZeroLengthWriteWithoutValuesQueuesAnEmptyJob)
{
    EXPECT_EQ(setData("D", 10, 0, nullptr), 1);
    FRAME_PRO f;
    ASSERT_EQ(exchange(&f), 1);
    EXPECT_EQ(f.frame[1], 0x10);
    EXPECT_EQ(f.frame[5], 0) << "register count";
    EXPECT_TRUE(g_reports.empty());
}

TEST_F(OutOfContract, OversizedReplyIsABadReply)
{
    ASSERT_EQ(watch(key("D", 100, 3)), 1);
    QByteArray flood(1 << 20, '\x01');
    EXPECT_EQ(exchange(nullptr, &flood), 8);
    EXPECT_EQ(exchange(), 1);
}

} // namespace
