#include "job_queue.h"
#include "driver_state.h"
#include "register_traits.h"

#include <string.h>

namespace {
bool sameRange(const VARIABLE &a, const VARIABLE &b)
{
    // Numbers first: the name compare is the costly one.
    return a.address == b.address && a.length == b.length && a.station == b.station && a.regName == b.regName;
}
} // namespace

bool queueReplacingSameRange(QList<VARIABLE> &queue, const VARIABLE &job, VARIABLE *evicted)
{
    for (int i = queue.size() - 1; i >= 1; --i) {
        if (sameRange(queue.at(i), job)) {
            queue[i] = job;
            return false;
        }
    }
    if (queue.size() < MAX_QUEUED_JOBS) {
        queue.append(job);
        return false;
    }
    if (evicted)
        *evicted = queue.at(MAX_QUEUED_JOBS - 1);
    queue[MAX_QUEUED_JOBS - 1] = job;
    return true;
}

int splitAtRelayBoundary(const VARIABLE &job, VARIABLE parts[2])
{
    const kq71::RegisterTraits t = kq71::registerTraits(job.regName);
    parts[0] = job;
    if (!t.crossesRelayBoundary(job.address, job.length))
        return 1;
    const int low = kq71::RELAY_BOUNDARY - job.address;
    parts[0].length = low;
    parts[1] = job;
    parts[1].address = kq71::RELAY_BOUNDARY;
    parts[1].length = job.length - low;
    const qint64 skip = qint64(low) * t.bytesPerUnit();
    memset(parts[1].data, 0, sizeof(parts[1].data));
    if (skip < KQ71_DATA_BYTES)
        memcpy(parts[1].data, job.data + skip, size_t(KQ71_DATA_BYTES - skip));
    return 2;
}
