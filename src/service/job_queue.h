// The queueing rule of write jobs and condition reads.
#ifndef SERVICE_JOB_QUEUE_H
#define SERVICE_JOB_QUEUE_H

#include "vorn_kq71_ap.h"

// Queues a job: a waiting job for exactly the same range (station, register,
// address, length) is overwritten in place, the head never, since the cycle
// sends it next or is sending it; otherwise the job is appended, or, once the
// queue holds MAX_QUEUED_JOBS, written over its last slot. True when that
// pushed a different job out, which is then in *evicted.
bool queueReplacingSameRange(QList<VARIABLE> &queue, const VARIABLE &job, VARIABLE *evicted);

// A job whose units cross the relay boundary, cut there: each part addresses
// its own wire area (values follow their units). Gives 1 or 2 parts.
int splitAtRelayBoundary(const VARIABLE &job, VARIABLE parts[2]);

#endif
