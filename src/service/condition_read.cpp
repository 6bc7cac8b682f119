// One-off reads the runtime asks for, served between cyclic reads.
#include "protocol.h"
#include "register_table.h"

namespace {

bool sameRange(const VARIABLE &a, const VARIABLE &b)
{
    return a.station == b.station && a.regName == b.regName && a.address == b.address && a.length == b.length;
}

// A waiting copy of the same read is refreshed in place; the head, which the
// cycle reads next or is reading, is never touched. A full queue reuses its
// last slot.
void queueConditionRead(const VARIABLE &job)
{
    QList<VARIABLE> &queue = driver.conditionReads;
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

} // namespace

int intf_addConditionRead(KEY_ADDRESS *key, int id)
{
    if (!key)
        return 0;
    ServiceLock lock;
    const int w = rowWidth(rangeRowFor(key->regName));
    int limit = key->dataType == -1 ? driver.maxBitsPerPiece : driver.maxWordsPerPiece;
    if (limit < 1)
        limit = MAX_BLOCK_UNITS;
    const bool bitInWord = key->regName.contains(QLatin1String("_bit"));

    // A key within the limit is its own piece. A longer one is cut; its range is
    // bounded like every range of a call, which bounds the work of one call.
    int pieceCount = 1;
    int length = key->length;
    if (length > limit) {
        length = boundedUnits(key->address, length);
        pieceCount = length / limit + (length % limit ? 1 : 0);
    }

    for (int i = 0; i < pieceCount; ++i) {
        int pieceAddress = key->address;
        int pieceLength = key->length;
        if (key->length > limit) {
            pieceAddress = int(qint64(key->address) + qint64(i) * limit);
            pieceLength = (i == pieceCount - 1 && length % limit) ? length % limit : limit;
        }
        VARIABLE job;
        job.id = id;
        job.station = key->station;
        if (bitInWord) {
            // Bits inside words: read the whole words that hold them.
            const int wb = w > 0 ? w : 16;
            job.regName = key->regName.left(key->regName.indexOf(QLatin1Char('_')));
            job.address = pieceAddress / wb;
            const qint64 bits = qint64(pieceLength) + pieceAddress % wb;
            job.length = int(bits / wb + (bits % wb ? 1 : 0));
        } else {
            job.regName = key->regName;
            job.address = pieceAddress;
            job.length = w > 0 ? int(pieceLength * (16.0 / w)) : pieceLength;
        }
        queueConditionRead(job);
        driver.lastCondition = job;
    }
    return 1;
}
