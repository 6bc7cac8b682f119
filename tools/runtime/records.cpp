// The record constructors. The public header declares them and the library
// keeps its own definitions hidden, so a runtime brings its own.
#include "vorn_kq71_ap.h"

#include <cstring>

VARIABLE::VARIABLE() : id(0), station(0), address(0), length(0) { std::memset(data, 0, sizeof(data)); }

KEY_ADDRESS::KEY_ADDRESS() : tag(0), bufOffset(0), station(0), address(0), dataType(0), length(0)
{
    std::memset(data, 0, sizeof(data));
}

FRAME_PRO::FRAME_PRO() : sendLen(0), recvLen(0), dataPos(0), itemCount(0), reserved(0)
{
    std::memset(frame, 0, sizeof(frame));
}

_RCP_VAR_PRO::_RCP_VAR_PRO() : deviceId(0), station(0), address(0), length(0), bufOffset(0), reserved(0) {}
