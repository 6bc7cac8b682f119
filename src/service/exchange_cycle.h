// The exchange cycle: the bookkeeping when a job ends, and a good read reply.
#ifndef SERVICE_EXCHANGE_CYCLE_H
#define SERVICE_EXCHANGE_CYCLE_H

#include <QtCore/QByteArray>

void dealListWhenFinish();
void dealReadFrameReturnSaveData(const QByteArray &reply);

#endif
