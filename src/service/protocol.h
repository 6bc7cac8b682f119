// The driver service: the one driver object and the routines that share it.
// Every routine reaches the state through the global `driver`.
#ifndef SERVICE_PROTOCOL_H
#define SERVICE_PROTOCOL_H

#include "vorn_kq71_ap.h"
#include "data_index.h"

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <mutex>

// One cached unit of PLC memory (a bit, a word or a double word).
struct _DATA_ {
    quint8 spareFlag;
    quint8 writePending;     // writtenValue stands and its write has not completed
    qint32 bitWritePending;  // reserved for bit writes inside a unit; always 0 here
    qint32 monitorFlags;     // bit 0: the unit is watched
    qint32 bitMonitorMask;   // reserved for bits watched inside a unit; always 0 here
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
    MERGE_BOUNDARY = 8000,
    CYCLIC_READ_ID = 4,
    MAX_WRITE_BURST = 9,     // a write is taken while burstCount <= 9
    MAX_CONDITION_BURST = 2, // a condition read while burstCount <= 2
    // No call covers more units than the whole 16-bit wire address space: a
    // longer range cannot name PLC memory, and bounding it bounds the cache.
    MAX_RANGE_UNITS = 0x10000
};

// Units of a range starting at address, bounded so that no address overflows.
int boundedUnits(int address, qint64 length);

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
    // Recursive: the callback may call back into the driver on the same thread.
    // A standard mutex, so that thread checkers see what it orders.
    std::recursive_mutex serviceLock;
    // For each recipe block, the items it covers (first item index, item count).
    // Filled beside rcpBlockStarts, so items cut over several blocks stay placed.
    QVector<QPair<int, int> > rcpBlockItems;

    Protocol();
    ~Protocol();

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

// --- register lookups ---------------------------------------------------
// Sort key (station * 19 + register index) * 65535 + address, 32-bit wrapping.
int getRegAddressWeight(int station, const QString &regName, int address, int length);
// Part of a name before its first "_" (the whole name without one).
QString areaName(const QString &regName);

// --- job queues (writes, condition reads) ---------------------------------
// Queues a job: a waiting job for exactly the same range (station, register,
// address, length) is overwritten in place, the head never, since the cycle
// sends it next or is sending it; otherwise the job is appended, or, once the
// queue holds MAX_QUEUED_JOBS, written over its last slot.
void queueReplacingSameRange(QList<VARIABLE> &queue, const VARIABLE &job);

// --- frame queue (builders from the family module, queued on frameQueue) ---
void handShakeFrame();
int getReadFrame(const QList<VARIABLE> &list);
void getWriteFrame(VARIABLE &v);
int check_rcv_data(const unsigned char *bytes, const QList<VARIABLE> &list, int length);
int judgeAddrMerge(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode);

// --- address text ----------------------------------------------------------
int a2i(const QString &text, int &value, const QString &format, const QString &regName);
int multiCp(const QString &regName, const QString &format, int start, int count, int interval,
            QVector<QString> &texts, QVector<int> &addresses, int maxAddress, const QString &maxText);

// --- error text -------------------------------------------------------------
QString getErrorInfo(const QByteArray &reply);

// --- cache ----------------------------------------------------------------
int getIndexOfDataArea(int station, const QString &regName, int address);
// A register name with its index id looked up once, for loops over a range.
struct AreaKey {
    QString name;
    int nameId; // -1 until a record carries the name
    explicit AreaKey(const QString &regName);
};
int getIndexOfDataArea(int station, AreaKey &area, int address);
void clearDataAreas();
int _setDataAreaMonitorFlag(int station, const QString &regName, int address, int length);
int _setBitValue(int value, int bit, int on);
void _bitDataChange(int index);
void _wordDataChange(const int *oldValue, const int *newValue, int index, int mode);
void _dwordDataChange(const int *oldValue, const int *newValue, int index, int mode);
void reportValueChange(int deviceId, int station, const QString &regName, int address);
void write_saveDataToArea(int station, const QString &regName, int address, int length, const unsigned char *values);
void _write_FailOrSuc(int station, const QString &regName, int address, int length, int success);

// --- decoding -----------------------------------------------------------------
void analyzeFrameOfVal(const QByteArray &reply, int itemCount, int dataPos, const VARIABLE &var);

// --- planning ---------------------------------------------------------------
void addrMerge(QList<KEY_ADDRESS> &keys, int mode);
void groupingKey(const KEY_ADDRESS &key, int maxLength, QList<KEY_ADDRESS> &out, int copyData);
void rcpAddrToVar(const _RCP_VAR_PRO &block, VARIABLE &job, int isWrite);
// Recipe flag bytes in the runtime's shared memory (0 when there is none).
int recipeFlag(int offset, bool locked);
void setRecipeFlagLocked(int offset, unsigned char value);

// --- exchange cycle -----------------------------------------------------------
void dealListWhenFinish();
void dealReadFrameReturnSaveData(const QByteArray &reply);

#endif
