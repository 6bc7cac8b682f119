// The driver as the panel sees it: a shared library opened by file name whose
// entry points are looked up by name.
#ifndef KQ71_RUNTIME_DRIVER_LIBRARY_H
#define KQ71_RUNTIME_DRIVER_LIBRARY_H

#include "vorn_kq71_ap.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

// The 19 entry points: the member that holds each, and its exported name.
#define KQ71_ENTRY_POINTS(X)                                        \
    X(getProtocolType, intf_getProtocolType)                        \
    X(getDriverParameter, intf_getDriverParameter)                  \
    X(getDriverPropertyPage, intf_getDriverPropertyPage)            \
    X(setDriverPropertyPage, intf_SetDriverPropertyPage)            \
    X(getVersion, intf_getVersion)                                  \
    X(setAddrValueChangeCallBack, intf_setAddrValueChangeCallBack)  \
    X(initProperty, intf_initProperty)                              \
    X(getRegListByType, intf_getRegListByType)                      \
    X(getRegDiscription, intf_getRegDiscription)                    \
    X(checkAddrValidity, intf_checkAddrValidity)                    \
    X(checkAddr, intf_checkAddr)                                    \
    X(multiCopy, intf_multiCopy)                                    \
    X(addrMerge, intf_addrMerge)                                    \
    X(addConditionRead, intf_addConditionRead)                      \
    X(setRcpAddress, intf_setRcpAddress)                            \
    X(getSendFrame, intf_getSendFrame)                              \
    X(dealRcvFrame, intf_dealRcvFrame)                              \
    X(getData, intf_getData)                                        \
    X(setData, intf_setData)

namespace kq71rt {

// The driver's serial defaults, from fields 2..5 of its parameter text, and
// its network defaults from the two fields of its IP text.
struct DriverDefaults {
    int baud = 19200;
    int dataBits = 8;
    QString parity = "NONE";
    int stopBits = 2;
    QString host;
    int port = 8000;
    QString name;
    QStringList registers;
};

class DriverLibrary {
public:
    DriverLibrary() = default;
    DriverLibrary(const DriverLibrary &) = delete;
    DriverLibrary &operator=(const DriverLibrary &) = delete;
    // The library stays loaded: its global driver object outlives any runtime.
    ~DriverLibrary() = default;

    // The file to load: the explicit path, else $KQ71_DRIVER, else a copy next
    // to the executable, else the one this build produced.
    static QString locate(const QString &explicitPath = QString());

    // Opens the file and resolves the 19 entry points and `driver`. On failure
    // the error names the file or every missing symbol.
    bool load(const QString &path, QString *error);
    bool loaded() const { return handle_ != nullptr; }
    const QString &path() const { return path_; }

    DriverDefaults defaults() const;
    static DriverDefaults parseParameter(const QString &text);

#define KQ71_SLOT(member, symbol) decltype(&::symbol) member = nullptr;
    KQ71_ENTRY_POINTS(KQ71_SLOT)
#undef KQ71_SLOT
    void *driverObject = nullptr;

private:
    void *handle_ = nullptr;
    QString path_;
};

} // namespace kq71rt

#endif
