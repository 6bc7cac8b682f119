#include "job_queue.h"
#include "driver_state.h"

namespace {
bool sameRange(const VARIABLE &a, const VARIABLE &b)
{
    // Numbers first: the name compare is the costly one.
    return a.address == b.address && a.length == b.length && a.station == b.station && a.regName == b.regName;
}
} // namespace

void queueReplacingSameRange(QList<VARIABLE> &queue, const VARIABLE &job)
{
    for (int i = queue.size() - 1; i >= 1; --i) {
        if (sameRange(queue.at(i), job)) {
            queue[i] = job;
            return;
        }
    }
    if (queue.size() >= MAX_QUEUED_JOBS)
        queue[MAX_QUEUED_JOBS - 1] = job;
    else
        queue.append(job);
}
