// The driver's state: the one driver object that every service routine
// reaches through the global `driver`, its cached unit record and its lock.
#ifndef SERVICE_DRIVER_STATE_H
#define SERVICE_DRIVER_STATE_H

#include "vorn_kq71_ap.h"
#include "data_index.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <atomic>
#include <mutex>

// The driver's own lock: recursive for the thread that holds it (the callback
// may call back into the driver), and able to let go of every level at once
// while the driver waits for the runtime's mutex or calls the runtime's
// callback, so that no runtime thread ever waits on us while we wait on it.
// Built on a standard mutex, so that thread checkers see what it orders.
class ServiceMutex {
public:
    ServiceMutex() : owner_(0), depth_(0) {}
    void lock();
    void unlock();
    // Lets go of every level this thread holds (0 when it holds none).
    int releaseAll();
    // Takes the lock again at the level releaseAll gave back.
    void reacquire(int depth);

private:
    std::mutex mutex_;
    std::atomic<const void *> owner_;
    int depth_;
};

// One cached unit of PLC memory (a bit, a word or a double word).
struct _DATA_ {
    quint8 spareFlag;        // words: WORD_SEEN, WORD_BITS_HELD (bit_in_word.h)
    quint8 writePending;     // writtenValue stands and its write has not completed
    qint32 bitWritePending;  // words: bits written and pending (bit n), their values (bit 16 + n)
    qint32 monitorFlags;     // bit 0: the unit is watched
    qint32 bitMonitorMask;   // words: bit n of the word is watched on its own
    qint32 station;
    QString regName;
    qint32 address;
    quint8 readValue[4];     // bytes in reply order (a register high byte first)
    quint8 writtenValue[4];  // same order as readValue

    _DATA_();
};

// Job kinds of the exchange cycle.
enum CycleState {
    CYCLE_IDLE = 0,
    CYCLE_HANDSHAKE = 1,
    CYCLE_WRITE = 2,
    CYCLE_CONDITION = 3,
    CYCLE_CYCLIC = 4,
    CYCLE_RECIPE_WRITE = 5,
    CYCLE_RECIPE_READ = 6
};

enum {
    MAX_QUEUED_JOBS = 513, // write and condition queues: index 512 is the last slot
    MAX_BLOCK_UNITS = 128,
    CYCLIC_READ_ID = 4,
    MAX_WRITE_BURST = 9,     // a write is taken while burstCount <= 9
    MAX_CONDITION_BURST = 2, // a condition read while burstCount <= 2
    // No call covers more units than the whole 16-bit wire address space: a
    // longer range cannot name PLC memory, and bounding it bounds the cache.
    MAX_RANGE_UNITS = 0x10000
};

class Protocol {
public:
    ValueChangeCallBack valueChangeCallBack;
    int deviceId;
    int cacheOnlyWrites;
    int retryLimit;
    int mergeGap;
    unsigned char *sharedMem;
    unsigned char *recipeBuf;
    QMutex *sharedMemMutex;
    QList<VARIABLE> cyclicReads;
    QList<VARIABLE> writeJobs;
    QList<VARIABLE> conditionReads;
    QList<_DATA_> dataAreas;
    QVector<_RCP_VAR_PRO> rcpItems;
    QVector<_RCP_VAR_PRO> rcpBlocks;
    QList<int> rcpBlockStarts;
    VARIABLE lastCondition;
    QList<QString> regNames;
    VARIABLE currentJob;
    QList<VARIABLE> currentReadList;
    int cycleState;
    int burstCount;
    int handshakePending;
    int retryCount;
    int maxBitsPerPiece;
    int maxWordsPerPiece;
    int lastJobFailed;
    QList<FRAME_PRO> frameQueue;
    QMutex listMutex;
    int rcpIndex;
    QString propertyPage;

    // Beside the list: finds a unit's index without scanning dataAreas.
    DataAreaIndex dataIndex;
    // Serialises the runtime's threads over the cache, job lists and frame queue.
    ServiceMutex serviceLock;
    // For each recipe block, the items it covers (first item index, item count).
    // Filled beside rcpBlockStarts, so items cut over several blocks stay placed.
    QVector<QPair<int, int> > rcpBlockItems;
    // The runtime has added condition reads whose end it has not been told
    // yet: 1; 2 when one of them was refused, so that the batch ends as failed.
    int conditionBatchOpen;
    // Bit writes waiting for their word's first read: cache position -> the
    // write's id, which the word write carries once the word is read.
    QHash<int, int> heldBitWriteIds;

    Protocol();
    ~Protocol();

    // Empties the job lists, the frame queue and the cache and puts the cycle
    // at rest; the configuration and the recipe stay.
    void clearRunState();
    // Everything back to the state of a freshly loaded library.
    void resetAll();

private:
    Protocol(const Protocol &);
    Protocol &operator=(const Protocol &);
};

extern Protocol driver;

// Holds the driver's service lock for a scope.
class ServiceLock {
public:
    ServiceLock() { driver.serviceLock.lock(); }
    ~ServiceLock() { driver.serviceLock.unlock(); }

private:
    ServiceLock(const ServiceLock &);
    ServiceLock &operator=(const ServiceLock &);
};

// Lets go of the driver's lock for a scope: around the runtime's callback and
// its mutex. Whatever the driver looked at before may have changed after.
class ServiceUnlocked {
public:
    ServiceUnlocked() : depth_(driver.serviceLock.releaseAll()) {}
    ~ServiceUnlocked() { driver.serviceLock.reacquire(depth_); }

private:
    ServiceUnlocked(const ServiceUnlocked &);
    ServiceUnlocked &operator=(const ServiceUnlocked &);
    int depth_;
};

#endif
