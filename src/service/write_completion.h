// Settling a write once the PLC acknowledged it or the driver gave it up.
#ifndef SERVICE_WRITE_COMPLETION_H
#define SERVICE_WRITE_COMPLETION_H

#include <QtCore/QString>

void _write_FailOrSuc(int station, const QString &regName, int address, int length, int success);

#endif
