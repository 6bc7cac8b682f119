// Address text of the editor, parsed in a register's radix.
#ifndef SERVICE_ADDRESS_CHECK_H
#define SERVICE_ADDRESS_CHECK_H

#include <QtCore/QString>

// 1 with value set when text is an address in format, -1 when it is not.
int a2i(const QString &text, int &value, const QString &format, const QString &regName);

#endif
