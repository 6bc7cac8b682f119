// Reports of changed units to the runtime's callback.
#ifndef SERVICE_CHANGE_NOTIFY_H
#define SERVICE_CHANGE_NOTIFY_H

#include <QtCore/QString>

void reportValueChange(int deviceId, int station, const QString &regName, int address);
// A watched unit at this cache position changed. The values only matter for
// bits watched inside the unit.
void _bitDataChange(int index);
void _wordDataChange(const int *oldValue, const int *newValue, int index, int mode);
void _dwordDataChange(const int *oldValue, const int *newValue, int index, int mode);

#endif
