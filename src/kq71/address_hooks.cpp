#include "address_hooks.h"

// No register of this family writes its address with letters: the hooks for
// such formats parse to 0, format to nothing and pass addresses through.

int addr_str2int(const QString &text, const QString &regName)
{
    Q_UNUSED(text);
    Q_UNUSED(regName);
    return 0;
}

QString addr_int2str(int address, const QString &regName)
{
    Q_UNUSED(address);
    Q_UNUSED(regName);
    return QString();
}

int addrOffset(const QString &regName, int address)
{
    Q_UNUSED(regName);
    return address;
}
