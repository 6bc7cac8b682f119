// One-off reads the runtime asks for, served between cyclic reads.
#include "vorn_kq71_ap.h"
#include "addr_merge.h"
#include "data_area.h"
#include "bit_in_word.h"
#include "job_queue.h"

// Pieces longer than this would ask for more units than a request's 16-bit
// count can say (a bit piece is read as sixteen times its bits).
enum { MAX_CONDITION_PIECE = 4095 };

int intf_addConditionRead(KEY_ADDRESS *key, int id)
{
    if (!key)
        return 0;
    ServiceLock lock;
    const int limit = qMin(configuredPieceLimit(key->dataType == -1), int(MAX_CONDITION_PIECE));
    BitRange bits;
    const BitNameKind kind = bitsInWordRange(key->regName, key->address, key->length, &bits);
    if (kind == REFUSED_BITS_IN_WORD) {
        // Nothing to read; the batch still ends, as failed.
        driver.conditionBatchOpen = 2;
        return 1;
    }
    const bool bitInWord = kind == BITS_IN_WORD;
    const kq71::RegisterTraits traits = kq71::registerTraits(key->regName);

    // A key that names no unit reads nothing; a longer one is cut into pieces,
    // its range bounded like every range of a call.
    const int length = boundedUnits(key->address, key->length);
    const int pieceCount = length <= limit ? 1 : length / limit + (length % limit ? 1 : 0);
    for (int i = 0; i < pieceCount && length > 0; ++i) {
        const int pieceAddress = int(qint64(key->address) + qint64(i) * limit);
        const int pieceLength = (i == pieceCount - 1 && length % limit) ? length % limit : qMin(length, limit);
        VARIABLE job;
        job.id = id;
        job.station = key->station;
        if (bitInWord) {
            // Bits inside words: read the whole words that hold them.
            const kq71::WordSpan words = kq71::wordsHoldingBits(pieceAddress, pieceLength);
            job.regName = bits.area;
            job.address = words.address;
            job.length = words.length;
        } else {
            job.regName = key->regName;
            job.address = pieceAddress;
            job.length = int(traits.unitsOfWords(pieceLength));
        }
        if (job.length <= 0)
            continue; // a single word of a double-word register reads nothing
        // M relays are read on each side of their boundary.
        VARIABLE parts[2];
        const int n = splitAtRelayBoundary(job, parts);
        for (int p = 0; p < n; ++p) {
            queueReplacingSameRange(driver.conditionReads, parts[p], 0);
            driver.lastCondition = parts[p];
        }
    }
    // Every call opens (or extends) a batch that ends with one report, also
    // when its keys name no unit.
    driver.conditionBatchOpen = qMax(driver.conditionBatchOpen, 1);
    return 1;
}
