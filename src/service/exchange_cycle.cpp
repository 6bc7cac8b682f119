// The exchange cycle: which frame goes out next, what a reply does, resends,
// giving up, and the bookkeeping when a job ends.
#include "vorn_kq71_ap.h"
#include "exchange_cycle.h"
#include "bit_in_word.h"
#include "change_notify.h"
#include "driver_state.h"
#include "error_text.h"
#include "frame_queue.h"
#include "recipe.h"
#include "register_traits.h"
#include "reply_decode.h"
#include "write_completion.h"

#include <QtCore/QMutexLocker>

namespace {

void startRead(int state)
{
    driver.cycleState = state;
    driver.currentReadList.clear();
    driver.currentReadList.append(driver.currentJob);
    getReadFrame(driver.currentReadList);
}

// A raised flag with no block left to transfer is lowered at once, so that
// it does not hold up every other job.
void lowerOrphanRecipeFlags(int &writeFlag, int &readFlag)
{
    const bool blocksLeft = driver.rcpIndex >= 0 && driver.rcpIndex < driver.rcpBlocks.size();
    if (blocksLeft)
        return;
    if (writeFlag == 1) {
        setRecipeFlagLocked(KQ71_RECIPE_WRITE_FLAG, 0);
        writeFlag = 0;
    }
    if (readFlag == 1) {
        setRecipeFlagLocked(KQ71_RECIPE_READ_FLAG, 0);
        readFlag = 0;
    }
}

// Takes the next job by priority and queues its frames (none when nothing is
// due or no frame can be built for it).
void takeNextJob()
{
    int writeFlag = recipeFlag(KQ71_RECIPE_WRITE_FLAG, true);
    int readFlag = recipeFlag(KQ71_RECIPE_READ_FLAG, true);
    lowerOrphanRecipeFlags(writeFlag, readFlag);
    const bool blocksLeft = driver.rcpIndex >= 0 && driver.rcpIndex < driver.rcpBlocks.size();

    if (driver.handshakePending) {
        driver.cycleState = CYCLE_HANDSHAKE;
        handShakeFrame();
    } else if (writeFlag == 1 && blocksLeft) {
        rcpAddrToVar(driver.rcpBlocks.at(driver.rcpIndex), driver.currentJob, 1);
        driver.cycleState = CYCLE_RECIPE_WRITE;
        // V and Z blocks were queued word by word already.
        if (!kq71::registerTraits(driver.currentJob.regName).interleaved)
            getWriteFrame(driver.currentJob);
    } else if (writeFlag != 1 && readFlag == 1 && blocksLeft) {
        rcpAddrToVar(driver.rcpBlocks.at(driver.rcpIndex), driver.currentJob, 0);
        startRead(CYCLE_RECIPE_READ);
    } else if (!driver.writeJobs.isEmpty() && driver.burstCount <= MAX_WRITE_BURST) {
        driver.currentJob = driver.writeJobs.first();
        driver.cycleState = CYCLE_WRITE;
        ++driver.burstCount;
        getWriteFrame(driver.currentJob);
    } else if (!driver.conditionReads.isEmpty() && driver.burstCount <= MAX_CONDITION_BURST) {
        driver.currentJob = driver.conditionReads.first();
        ++driver.burstCount;
        startRead(CYCLE_CONDITION);
    } else if (!driver.cyclicReads.isEmpty()) {
        driver.currentJob = driver.cyclicReads.first();
        driver.burstCount = 0;
        startRead(CYCLE_CYCLIC);
    } else {
        driver.burstCount = 0;
        driver.cycleState = CYCLE_IDLE;
        driver.frameQueue.clear();
    }
}

// The end of a condition-read batch, told once: -1 when a read of it was
// given up or refused, 0 when every read of it came back.
void endConditionBatch(int failed)
{
    if (!driver.conditionBatchOpen)
        return;
    failed = failed || driver.conditionBatchOpen == 2;
    driver.conditionBatchOpen = 0;
    reportValueChange(-1, -1, QString::fromLatin1("-1"), failed ? -1 : 0);
}

// A job the builders refuse (an unknown register, a request that cannot be
// laid down) would wait at the head of its queue for ever: it is given up as
// if its retries had run out. A cyclic read only rotates the plan.
void giveUpUnbuildableJob()
{
    // Nothing went out: the job does not count towards the run of writes and
    // condition reads, so that every unbuildable one ahead goes in this call.
    if (driver.cycleState == CYCLE_WRITE || driver.cycleState == CYCLE_CONDITION)
        --driver.burstCount;
    driver.lastJobFailed = driver.cycleState == CYCLE_CYCLIC ? 0 : 1;
    if (driver.cycleState == CYCLE_WRITE) {
        const VARIABLE job = driver.currentJob;
        _write_FailOrSuc(job.station, job.regName, job.address, job.length, 0);
    }
    dealListWhenFinish();
}

void chooseJob()
{
    // A batch whose keys named no unit has nothing to wait for.
    if (driver.conditionBatchOpen && driver.conditionReads.isEmpty())
        endConditionBatch(0);
    // Each pass either queues a frame, goes idle, or ends a job (a cyclic read
    // rotates), so the number of jobs bounds it.
    const qint64 passes = qint64(driver.writeJobs.size()) + driver.conditionReads.size() + driver.cyclicReads.size() +
                          driver.rcpBlocks.size() + 2;
    for (qint64 pass = 0; pass < passes && driver.frameQueue.isEmpty(); ++pass) {
        takeNextJob();
        if (!driver.frameQueue.isEmpty() || driver.cycleState == CYCLE_IDLE || driver.cycleState == CYCLE_HANDSHAKE)
            return;
        giveUpUnbuildableJob();
    }
}

void endRecipeTransfer(int flagOffset)
{
    bool ended = true;
    if (!driver.lastJobFailed) {
        ++driver.rcpIndex;
        ended = driver.rcpIndex >= driver.rcpBlocks.size();
    }
    if (ended) {
        driver.rcpIndex = 0;
        setRecipeFlagLocked(flagOffset, 0);
    }
}

} // namespace

void dealListWhenFinish()
{
    switch (driver.cycleState) {
    case CYCLE_WRITE:
        if (!driver.writeJobs.isEmpty()) {
            QMutexLocker guard(&driver.listMutex);
            driver.writeJobs.removeFirst();
        }
        break;
    case CYCLE_CONDITION:
        // A read given up drops the rest of its batch; the batch ends once its
        // last read is done or dropped, whichever read it was.
        if (driver.lastJobFailed == 1) {
            driver.conditionReads.clear();
            giveUpHeldBitWrites(); // the reads they waited for are gone
        } else if (!driver.conditionReads.isEmpty()) {
            driver.conditionReads.removeFirst();
        }
        if (driver.conditionReads.isEmpty())
            endConditionBatch(driver.lastJobFailed == 1);
        break;
    case CYCLE_CYCLIC:
        if (driver.cyclicReads.size() >= 2)
            driver.cyclicReads.append(driver.cyclicReads.takeFirst());
        break;
    case CYCLE_RECIPE_WRITE:
        endRecipeTransfer(KQ71_RECIPE_WRITE_FLAG);
        break;
    case CYCLE_RECIPE_READ:
        endRecipeTransfer(KQ71_RECIPE_READ_FLAG);
        break;
    default:
        break;
    }
}

void dealReadFrameReturnSaveData(const QByteArray &reply)
{
    if (driver.frameQueue.isEmpty())
        return;
    const FRAME_PRO &head = driver.frameQueue.first();
    const int itemCount = head.itemCount;
    const int dataPos = head.dataPos;
    const VARIABLE var = head.var;
    analyzeFrameOfVal(reply, itemCount, dataPos, var);
}

int intf_getSendFrame(FRAME_PRO *out)
{
    if (!out)
        return 0;
    ServiceLock lock;
    if (driver.frameQueue.isEmpty())
        chooseJob();
    if (driver.frameQueue.isEmpty())
        return 0;
    *out = driver.frameQueue.first();
    return 1;
}

int intf_dealRcvFrame(QByteArray *reply, QString *errorText)
{
    ServiceLock lock;
    if (errorText)
        *errorText = QString();
    if (driver.frameQueue.isEmpty())
        return 0;
    const QByteArray bytes = reply ? *reply : QByteArray();
    if (errorText)
        *errorText = getErrorInfo(bytes);

    const int rating = check_rcv_data(reinterpret_cast<const unsigned char *>(bytes.constData()),
                                      driver.currentReadList, bytes.size());
    if (rating == 0) {
        ++driver.retryCount;
        if (driver.retryCount < driver.retryLimit)
            return 8;
        driver.lastJobFailed = 1;
        if (driver.cycleState == CYCLE_WRITE) {
            const VARIABLE var = driver.frameQueue.first().var;
            _write_FailOrSuc(var.station, var.regName, var.address, var.length, 0);
        }
        driver.frameQueue.clear();
        driver.retryCount = 0;
        dealListWhenFinish();
        return 2;
    }

    driver.lastJobFailed = 0;
    if (rating == 1) {
        dealReadFrameReturnSaveData(bytes);
    } else if (driver.cycleState == CYCLE_WRITE) {
        const VARIABLE var = driver.frameQueue.first().var;
        _write_FailOrSuc(var.station, var.regName, var.address, var.length, 1);
    }
    // Reports above may have re-entered the driver and emptied the queue.
    if (!driver.frameQueue.isEmpty())
        driver.frameQueue.removeFirst();
    if (driver.frameQueue.isEmpty())
        dealListWhenFinish();
    driver.retryCount = 0;
    return 1;
}
