// One-off reads the runtime asks for, served between cyclic reads.
#include "protocol.h"
#include "register_table.h"

// Pieces longer than this would ask for more units than a request's 16-bit
// count can say (a bit piece is read as sixteen times its bits).
enum { MAX_CONDITION_PIECE = 4095 };

int intf_addConditionRead(KEY_ADDRESS *key, int id)
{
    if (!key)
        return 0;
    ServiceLock lock;
    const int w = rowWidth(rangeRowFor(key->regName));
    int limit = key->dataType == -1 ? driver.maxBitsPerPiece : driver.maxWordsPerPiece;
    if (limit < 1)
        limit = MAX_BLOCK_UNITS;
    limit = qMin(limit, int(MAX_CONDITION_PIECE));
    const bool bitInWord = key->regName.contains(QLatin1String("_bit"));

    // A key that names no unit reads nothing; a longer one is cut into pieces,
    // its range bounded like every range of a call.
    const int length = boundedUnits(key->address, key->length);
    const int pieceCount = length <= limit ? 1 : length / limit + (length % limit ? 1 : 0);
    bool queued = false;
    for (int i = 0; i < pieceCount && length > 0; ++i) {
        const int pieceAddress = int(qint64(key->address) + qint64(i) * limit);
        const int pieceLength = (i == pieceCount - 1 && length % limit) ? length % limit : qMin(length, limit);
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
        if (job.length <= 0)
            continue; // a single word of a double-word register reads nothing
        queueReplacingSameRange(driver.conditionReads, job);
        driver.lastCondition = job;
        queued = true;
    }
    return queued ? 1 : 0;
}
