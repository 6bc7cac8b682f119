// Reports of changed units to the runtime's callback.
#ifndef SERVICE_CHANGE_NOTIFY_H
#define SERVICE_CHANGE_NOTIFY_H

#include <QtCore/QString>

void reportValueChange(int deviceId, int station, const QString &regName, int address);
// Modes of the word change routine: the word when watched and then, in
// ascending order, each of its watched bits that differ between the two values
// (packed as uchar2int16 packs the stored bytes); or the word alone, for
// callers that report the bits themselves.
enum { REPORT_WORD_AND_BITS = 0, REPORT_WORD_ONLY = 1 };
// A watched unit at this cache position changed.
void _bitDataChange(int index);
void _wordDataChange(const int *oldValue, const int *newValue, int index, int mode);
void _dwordDataChange(const int *oldValue, const int *newValue, int index, int mode);

#endif
