// What a runtime looks up in the driver library by name.
#ifndef E2E_ENTRY_POINTS_H
#define E2E_ENTRY_POINTS_H

#include "vorn_kq71_ap.h"

#include <string>
#include <vector>

// The one list of the entry points. Each name must be declared by the public
// header: KQ71_DECLARED below fails to compile otherwise.
#define KQ71_ENTRY_POINTS(X)             \
    X(intf_getProtocolType)              \
    X(intf_getDriverParameter)           \
    X(intf_getDriverPropertyPage)        \
    X(intf_SetDriverPropertyPage)        \
    X(intf_getVersion)                   \
    X(intf_setAddrValueChangeCallBack)   \
    X(intf_initProperty)                 \
    X(intf_getRegListByType)             \
    X(intf_getRegDiscription)            \
    X(intf_checkAddrValidity)            \
    X(intf_checkAddr)                    \
    X(intf_multiCopy)                    \
    X(intf_addrMerge)                    \
    X(intf_addConditionRead)             \
    X(intf_setRcpAddress)                \
    X(intf_getSendFrame)                 \
    X(intf_dealRcvFrame)                 \
    X(intf_getData)                      \
    X(intf_setData)

#define KQ71_DECLARED(name) static_assert(sizeof(decltype(&name)) > 0, #name);
KQ71_ENTRY_POINTS(KQ71_DECLARED)
#undef KQ71_DECLARED

// The exported data object; the runtime only looks it up.
inline const char *driverObjectName() { return "driver"; }

inline std::vector<std::string> entryPointNames()
{
#define KQ71_NAME(name) #name,
    return {KQ71_ENTRY_POINTS(KQ71_NAME)};
#undef KQ71_NAME
}

// Where the build put the library: the linker name, the SONAME link and the file.
inline std::string libraryPath(const std::string &fileName) { return std::string(KQ71_LIBRARY_DIR) + "/" + fileName; }

#endif
