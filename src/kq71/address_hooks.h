// Address hooks for formats that mix letters (none in this family).
#ifndef KQ71_ADDRESS_HOOKS_H
#define KQ71_ADDRESS_HOOKS_H

#include <QtCore/QString>

int addr_str2int(const QString &text, const QString &regName);
QString addr_int2str(int address, const QString &regName);
int addrOffset(const QString &regName, int address);

#endif
