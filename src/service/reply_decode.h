// Decoding of a good read reply into the cache (and the recipe buffer).
#ifndef SERVICE_REPLY_DECODE_H
#define SERVICE_REPLY_DECODE_H

#include "vorn_kq71_ap.h"

void analyzeFrameOfVal(const QByteArray &reply, int itemCount, int dataPos, const VARIABLE &var);

#endif
