#include "driver_state.h"
#include "data_area.h"
#include "register_table.h"

#include <QtCore/QMutexLocker>

#include <string.h>

_DATA_::_DATA_()
    : spareFlag(0), writePending(0), bitWritePending(0), monitorFlags(0), bitMonitorMask(0), station(0), address(0)
{
    memset(readValue, 0, sizeof(readValue));
    memset(writtenValue, 0, sizeof(writtenValue));
}

namespace {
// One byte per thread: its address names the thread that holds the lock.
thread_local char threadMark;
} // namespace

void ServiceMutex::lock()
{
    if (owner_.load(std::memory_order_relaxed) == &threadMark) {
        ++depth_;
        return;
    }
    mutex_.lock();
    owner_.store(&threadMark, std::memory_order_relaxed);
    depth_ = 1;
}

void ServiceMutex::unlock()
{
    if (--depth_ > 0)
        return;
    owner_.store(0, std::memory_order_relaxed);
    mutex_.unlock();
}

int ServiceMutex::releaseAll()
{
    if (owner_.load(std::memory_order_relaxed) != &threadMark)
        return 0;
    const int depth = depth_;
    depth_ = 0;
    owner_.store(0, std::memory_order_relaxed);
    mutex_.unlock();
    return depth;
}

void ServiceMutex::reacquire(int depth)
{
    if (depth <= 0)
        return;
    mutex_.lock();
    owner_.store(&threadMark, std::memory_order_relaxed);
    depth_ = depth;
}

// Members not named here keep the zeros of static storage until intf_initProperty.
Protocol::Protocol() : listMutex(QMutex::NonRecursive)
{
    burstCount = 0;
    lastJobFailed = 0;
    rcpIndex = 0;
    // Static initialisation order between modules is not fixed, so the names
    // come from constant-initialised text rather than from REG_LIST.
    for (int i = 0; i < REG_COUNT; ++i)
        regNames.append(QString::fromLatin1(REG_NAME_TEXT[i]));
}

Protocol::~Protocol() {}

void Protocol::clearRunState()
{
    cyclicReads.clear();
    {
        QMutexLocker guard(&listMutex);
        writeJobs.clear();
    }
    conditionReads.clear();
    clearDataAreas();
    heldBitWriteIds.clear();
    frameQueue.clear();
    cycleState = CYCLE_IDLE;
    burstCount = 0;
    handshakePending = 0;
    retryCount = 0;
    lastJobFailed = 0;
    conditionBatchOpen = 0;
}

void Protocol::resetAll()
{
    valueChangeCallBack = 0;
    deviceId = 0;
    cacheOnlyWrites = 0;
    retryLimit = 0;
    mergeGap = 0;
    sharedMem = 0;
    recipeBuf = 0;
    sharedMemMutex = 0;
    maxBitsPerPiece = 0;
    maxWordsPerPiece = 0;
    rcpItems.clear();
    rcpBlocks.clear();
    rcpBlockStarts.clear();
    rcpBlockItems.clear();
    rcpIndex = 0;
    lastCondition = VARIABLE();
    currentJob = VARIABLE();
    currentReadList.clear();
    propertyPage.clear();
    clearRunState();
}

__attribute__((visibility("default"))) Protocol driver;
