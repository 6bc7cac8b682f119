#include "frame_queue.h"
#include "driver_state.h"
#include "frames.h"

// The family module builds and rates frames without state; these wrappers
// bind it to the driver's frame queue and configuration.

void handShakeFrame()
{
    FRAME_PRO job;
    buildHandshakeFrame(job);
    ServiceLock lock;
    driver.frameQueue.append(job);
}

int getReadFrame(const QList<VARIABLE> &list)
{
    if (list.isEmpty())
        return 0;
    FRAME_PRO job;
    if (!buildReadFrame(list.first(), job))
        return 0;
    ServiceLock lock;
    driver.frameQueue.append(job);
    return 1;
}

void getWriteFrame(VARIABLE &v)
{
    FRAME_PRO job;
    if (!buildWriteFrame(v, job))
        return;
    ServiceLock lock;
    driver.frameQueue.append(job);
}

int check_rcv_data(const unsigned char *bytes, const QList<VARIABLE> &list, int length)
{
    Q_UNUSED(list);
    ServiceLock lock;
    if (driver.frameQueue.isEmpty())
        return 0;
    return rateReply(bytes, length, driver.frameQueue.first());
}
