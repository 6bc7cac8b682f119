// The driver as a runtime meets it: a file opened with dlopen, entry points
// found by name, records passed by pointer.
#include "entry_points.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

class LoadedDriver {
public:
    LoadedDriver() : handle_(dlopen(libraryPath("libvorn_kq71_ap.so").c_str(), RTLD_NOW | RTLD_LOCAL))
    {
        if (!handle_)
            error_ = dlerror();
    }
    ~LoadedDriver()
    {
        if (handle_)
            dlclose(handle_);
    }
    LoadedDriver(const LoadedDriver &) = delete;
    LoadedDriver &operator=(const LoadedDriver &) = delete;

    bool loaded() const { return handle_ != nullptr; }
    const std::string &error() const { return error_; }
    void *symbol(const std::string &name) const { return handle_ ? dlsym(handle_, name.c_str()) : nullptr; }

private:
    void *handle_;
    std::string error_;
};

// The entry point typed as the public header declares it.
#define ENTRY(lib, name) reinterpret_cast<decltype(&name)>((lib).symbol(#name))

class LoadedLibrary : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(lib_.loaded()) << lib_.error(); }
    LoadedDriver lib_;
};

TEST_F(LoadedLibrary, ResolvesEveryEntryPointAndTheDriverObject)
{
    for (const std::string &name : entryPointNames())
        EXPECT_NE(lib_.symbol(name), nullptr) << name;
    EXPECT_NE(lib_.symbol(driverObjectName()), nullptr);
}

TEST_F(LoadedLibrary, ReportsVersion2000)
{
    auto getVersion = ENTRY(lib_, intf_getVersion);
    ASSERT_NE(getVersion, nullptr);
    EXPECT_EQ(getVersion(), QString("2.0.0.0"));
}

TEST_F(LoadedLibrary, ReportsProtocolTypeZero)
{
    auto getProtocolType = ENTRY(lib_, intf_getProtocolType);
    ASSERT_NE(getProtocolType, nullptr);
    int type = -7;
    getProtocolType(&type);
    EXPECT_EQ(type, 0);
}

TEST_F(LoadedLibrary, DescribesItsLinkDefaultsNameAndRegisters)
{
    auto getDriverParameter = ENTRY(lib_, intf_getDriverParameter);
    ASSERT_NE(getDriverParameter, nullptr);
    QString text("stale");
    getDriverParameter(&text);
    EXPECT_EQ(text.toStdString(), "0,19200,8,NONE,2,0,1,192.168.1.10,8000,vorn_kq71_ap,"
                                  "X,Y,S,M,T,C,200C,256C,D,V,Z,TC,TP,CC,CP,200CC,200CP,256CC,256CP");
    // The runtime splits at the commas: 1 + 4 + 1 + 1 + 2 + 1 fields, then the 19 names.
    EXPECT_EQ(text.split(',').size(), 29);
}

TEST_F(LoadedLibrary, ReportsPropertyPageCode)
{
    auto getPage = ENTRY(lib_, intf_getDriverPropertyPage);
    ASSERT_NE(getPage, nullptr);
    QString page;
    getPage(&page);
    EXPECT_EQ(page, QString("0_0"));
}

std::vector<std::tuple<int, int, std::string, int>> g_reports;

void recordReport(int deviceId, int station, const QString &regName, int address)
{
    g_reports.emplace_back(deviceId, station, regName.toStdString(), address);
}

// One whole cyclic read through the exported names only: plan, frame out,
// reply in, callback, value read back in the runtime's byte order.
TEST_F(LoadedLibrary, CyclicReadOfWatchedWordsReachesCallbackAndCache)
{
    auto setCallBack = ENTRY(lib_, intf_setAddrValueChangeCallBack);
    auto initProperty = ENTRY(lib_, intf_initProperty);
    auto addrMerge = ENTRY(lib_, intf_addrMerge);
    auto getSendFrame = ENTRY(lib_, intf_getSendFrame);
    auto dealRcvFrame = ENTRY(lib_, intf_dealRcvFrame);
    auto getData = ENTRY(lib_, intf_getData);
    ASSERT_TRUE(setCallBack && initProperty && addrMerge && getSendFrame && dealRcvFrame && getData);

    g_reports.clear();
    setCallBack(&recordReport);
    std::vector<unsigned char> sharedMem(KQ71_SHARED_MEM_MIN, 0);
    std::vector<unsigned char> recipeBuf(256, 0);
    QMutex mutex;
    int status = -1;
    ASSERT_EQ(initProperty(sharedMem.data(), nullptr, recipeBuf.data(), &status, "5#0#0#3#10", &mutex), 1);
    EXPECT_EQ(status, 0);

    KEY_ADDRESS key;
    key.station = 1;
    key.regName = "D";
    key.address = 100;
    key.dataType = 0;
    key.length = 3;
    QList<KEY_ADDRESS> keys;
    keys.append(key);
    ASSERT_EQ(addrMerge(&keys), 1);

    FRAME_PRO out;
    ASSERT_EQ(getSendFrame(&out), 1);
    const std::vector<unsigned char> request = {0x01, 0x03, 0x43, 0x9C, 0x00, 0x03, 0xD0, 0x61};
    EXPECT_EQ(std::vector<unsigned char>(out.frame, out.frame + 8), request);
    EXPECT_EQ(out.sendLen, 8);
    EXPECT_EQ(out.recvLen, 11);
    EXPECT_EQ(out.dataPos, 3);
    EXPECT_EQ(out.itemCount, 3);
    EXPECT_EQ(out.var.id, 4);

    QByteArray reply("\x01\x03\x06\x00\x01\x00\x02\x00\x03\xFD\x74", 11);
    QString errorText;
    EXPECT_EQ(dealRcvFrame(&reply, &errorText), 1);
    EXPECT_EQ(errorText, QString("1#D100(3)"));

    using Report = std::tuple<int, int, std::string, int>;
    const std::vector<Report> expected = {Report(5, 1, "D", 100), Report(5, 1, "D", 101), Report(5, 1, "D", 102)};
    EXPECT_EQ(g_reports, expected);

    unsigned char values[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    QString regName("D");
    EXPECT_EQ(getData(1, &regName, 100, 3, values), 1);
    const std::vector<unsigned char> lowByteFirst = {0x01, 0x00, 0x02, 0x00, 0x03, 0x00};
    EXPECT_EQ(std::vector<unsigned char>(values, values + 6), lowByteFirst);

    setCallBack(nullptr);
}

} // namespace
