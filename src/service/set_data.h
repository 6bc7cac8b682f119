// Values the runtime writes, mirrored into the cache as pending.
#ifndef SERVICE_SET_DATA_H
#define SERVICE_SET_DATA_H

#include <QtCore/QString>

void write_saveDataToArea(int station, const QString &regName, int address, int length, const unsigned char *values);

#endif
