// Values the runtime writes, mirrored into the cache as pending.
#ifndef SERVICE_SET_DATA_H
#define SERVICE_SET_DATA_H

#include <QtCore/QString>

// Queues the write jobs of a request without touching the cache; the length
// counts as the runtime's value calls count it.
void queueWriteJobs(int station, const QString &regName, int address, int length, const unsigned char *values,
                    int id);
void write_saveDataToArea(int station, const QString &regName, int address, int length, const unsigned char *values);

#endif
