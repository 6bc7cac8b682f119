// What a runtime looks up in the driver library by name, and where the build
// put the library.
#ifndef E2E_ENTRY_POINTS_H
#define E2E_ENTRY_POINTS_H

#include "vorn_kq71_ap.h"

#include <string>

// The one list of the entry points, besides the data object "driver". Typing
// each as the public header declares it (decltype) fails to compile for a
// name the header lacks.
#define KQ71_ENTRY_POINTS(X)                                                                                        \
    X(intf_getProtocolType) X(intf_getDriverParameter) X(intf_getDriverPropertyPage) X(intf_SetDriverPropertyPage) \
    X(intf_getVersion) X(intf_setAddrValueChangeCallBack) X(intf_initProperty) X(intf_getRegListByType)            \
    X(intf_getRegDiscription) X(intf_checkAddrValidity) X(intf_checkAddr) X(intf_multiCopy) X(intf_addrMerge)      \
    X(intf_addConditionRead) X(intf_setRcpAddress) X(intf_getSendFrame) X(intf_dealRcvFrame) X(intf_getData)       \
    X(intf_setData)

inline std::string libraryPath(const std::string &fileName) { return std::string(KQ71_LIBRARY_DIR) + "/" + fileName; }

#endif
