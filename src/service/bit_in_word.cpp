// Bits inside 16-bit words: watched, read and written as bits, cached in the
// records of the words that hold them.
#include "bit_in_word.h"
#include "byte_order.h"
#include "change_notify.h"
#include "data_area.h"
#include "job_queue.h"
#include "register_traits.h"
#include "set_data.h"

#include <algorithm>
#include <vector>

namespace {

const int K = kq71::BITS_PER_WORD;

void storeWord(quint16 value, quint8 *stored)
{
    stored[0] = quint8(value >> 8);
    stored[1] = quint8(value & 0xFF);
}

// The packed form the change routines take (first stored byte least significant).
int packed(quint16 value)
{
    quint8 b[2];
    storeWord(value, b);
    return uchar2int16(b[0], b[1]);
}

quint16 pendingMask(const _DATA_ &unit)
{
    return quint16(unit.bitWritePending & 0xFFFF);
}

quint16 pendingValues(const _DATA_ &unit)
{
    return quint16((unsigned(unit.bitWritePending) >> K) & 0xFFFF);
}

// The bits of one word that a call names: mask over the word, and the first
// bit of the call that falls in it.
struct WordBits {
    int word;
    quint16 mask;
    qint64 firstBit; // index into the call's values
};

std::vector<WordBits> wordsOf(const BitRange &r)
{
    std::vector<WordBits> out;
    qint64 bit = r.address;
    const qint64 end = qint64(r.address) + r.bits;
    while (bit < end) {
        WordBits w;
        w.word = int(bit / K);
        w.firstBit = bit - r.address;
        const int from = int(bit % K);
        const qint64 to = qMin<qint64>(end - qint64(w.word) * K, K); // one past the last bit in this word
        w.mask = 0;
        for (int b = from; b < to; ++b)
            w.mask = quint16(w.mask | (1u << b));
        out.push_back(w);
        bit = qint64(w.word + 1) * K;
    }
    return out;
}

// Bits of a word, one byte each, from the call's values.
quint16 valuesInWord(const WordBits &w, const unsigned char *values)
{
    quint16 v = 0;
    qint64 i = w.firstBit;
    for (int b = 0; b < K; ++b) {
        if (!(w.mask & (1u << b)))
            continue;
        if (values[i++])
            v = quint16(v | (1u << b));
    }
    return v;
}

void reportBits(int station, const QString &name, int word, quint16 bits)
{
    for (int b = 0; b < K; ++b) {
        if (bits & (1u << b))
            reportValueChange(driver.deviceId, station, name, word * K + b);
    }
}

// The bits of `carried` settle: success (the PLC holds `sent`) or given up
// (they fall back to the read value and report as given-up bits do). Bits
// still pending outside `carried` belong to a later write and stay.
void settleBits(int index, quint16 carried, bool success, const quint16 *sent)
{
    _DATA_ &unit = driver.dataAreas[index];
    const quint16 before = shownWord(unit);
    if (success) {
        storeWord(sent ? *sent : storedWord(unit.writtenValue), unit.readValue);
        unit.spareFlag |= WORD_SEEN;
    }
    const quint16 remaining = quint16(pendingMask(unit) & ~carried);
    unit.bitWritePending = qint32((quint32(pendingValues(unit) & remaining) << K) | remaining);
    if (remaining) {
        keepPendingBits(unit);
    } else {
        unit.writePending = 0;
        // Nothing of the written value stands any more.
        unit.writtenValue[0] = unit.readValue[0];
        unit.writtenValue[1] = unit.readValue[1];
    }
    if (remaining == 0 && (unit.spareFlag & WORD_BITS_HELD)) {
        unit.spareFlag = quint8(unit.spareFlag & ~WORD_BITS_HELD);
        driver.heldBitWriteIds.remove(index);
    }
    const int old = packed(before), now = packed(shownWord(unit));
    const int station = unit.station;
    const int word = unit.address;
    const QString name = kq71::bitInWordName(unit.regName);
    if (success) {
        // What the PLC holds now may differ from what was shown in bits the
        // write carried from an older read: the read-modify-write window.
        if (old != now)
            _wordDataChange(&old, &now, index, REPORT_WORD_AND_BITS);
        return;
    }
    if (old != now)
        _wordDataChange(&old, &now, index, REPORT_WORD_ONLY);
    reportBits(station, name, word, carried);
}

// The value the write job now ending sent for this word: the head of the
// write queue until the cycle removes it.
bool sentWord(const _DATA_ &unit, quint16 *value)
{
    if (driver.writeJobs.isEmpty())
        return false;
    const VARIABLE &job = driver.writeJobs.first();
    const qint64 offset = qint64(unit.address) - job.address;
    if (job.station != unit.station || offset < 0 || offset >= job.length || 2 * offset + 1 >= KQ71_DATA_BYTES ||
        job.regName != unit.regName)
        return false;
    *value = quint16(job.data[2 * offset] | job.data[2 * offset + 1] << 8);
    return true;
}

// Consecutive words that a write queues together.
class WordRun {
public:
    WordRun() : first_(0) {}
    bool continues(int word) const { return !bytes_.empty() && word == first_ + int(bytes_.size() / 2); }
    bool empty() const { return bytes_.empty(); }
    void start(int word)
    {
        bytes_.clear();
        first_ = word;
    }
    void add(quint16 value)
    {
        // The runtime's order: low byte first.
        bytes_.push_back((unsigned char)(value & 0xFF));
        bytes_.push_back((unsigned char)(value >> 8));
    }
    int first() const { return first_; }
    int words() const { return int(bytes_.size() / 2); }
    const unsigned char *bytes() const { return &bytes_[0]; }

private:
    int first_;
    std::vector<unsigned char> bytes_;
};

void queueWordsRead(int station, const QString &area, int first, int words, int id)
{
    for (int done = 0; done < words; done += MAX_BLOCK_UNITS) {
        VARIABLE job;
        job.id = id;
        job.station = station;
        job.regName = area;
        job.address = first + done;
        job.length = qMin(int(MAX_BLOCK_UNITS), words - done);
        queueReplacingSameRange(driver.conditionReads, job, 0);
    }
}

} // namespace

BitNameKind bitsInWordRange(const QString &regName, int address, qint64 length, BitRange *out)
{
    if (!kq71::splitBitInWord(regName, 0))
        return NOT_BITS_IN_WORD;
    QString word;
    if (!kq71::takesBitsInWords(regName, &word) || address < 0)
        return REFUSED_BITS_IN_WORD;
    out->area = word;
    out->address = address;
    out->bits = boundedUnits(address, length);
    return BITS_IN_WORD;
}

quint16 storedWord(const quint8 *stored)
{
    return quint16((stored[0] << 8) | stored[1]);
}

quint16 shownWord(const _DATA_ &unit)
{
    return storedWord(unit.writePending == 1 ? unit.writtenValue : unit.readValue);
}

void markWatchedBits(int station, const BitRange &bits)
{
    AreaKey area(bits.area);
    const std::vector<WordBits> words = wordsOf(bits);
    for (size_t i = 0; i < words.size(); ++i) {
        const int idx = getIndexOfDataArea(station, area, words[i].word);
        driver.dataAreas[idx].bitMonitorMask |= words[i].mask;
    }
}

void readBitsInWords(int station, const BitRange &bits, unsigned char *values)
{
    AreaKey area(bits.area);
    const std::vector<WordBits> words = wordsOf(bits);
    for (size_t i = 0; i < words.size(); ++i) {
        const WordBits &w = words[i];
        const quint16 v = shownWord(driver.dataAreas.at(getIndexOfDataArea(station, area, w.word)));
        qint64 out = w.firstBit;
        for (int b = 0; b < K; ++b) {
            if (w.mask & (1u << b))
                values[out++] = (v >> b) & 1;
        }
    }
}

void writeBitsInWords(int station, const QString &regName, const BitRange &bits, const unsigned char *values, int id)
{
    AreaKey area(bits.area);
    const std::vector<WordBits> words = wordsOf(bits);
    // Records first, then jobs, then reports: a report may re-enter the driver.
    struct Change {
        int index;
        int word;
        quint16 before, after;
    };
    std::vector<Change> changes;
    WordRun writes, reads;
    for (size_t i = 0; i < words.size(); ++i) {
        const WordBits &w = words[i];
        const int idx = getIndexOfDataArea(station, area, w.word);
        _DATA_ &unit = driver.dataAreas[idx];
        const quint16 before = shownWord(unit);
        const quint16 set = valuesInWord(w, values);
        const quint16 after = quint16((before & ~w.mask) | set);
        storeWord(after, unit.writtenValue);
        unit.writePending = 1;
        if (!driver.cacheOnlyWrites) {
            const quint16 mask = quint16(pendingMask(unit) | w.mask);
            const quint16 held = quint16((pendingValues(unit) & ~w.mask) | set);
            unit.bitWritePending = qint32((quint32(held) << K) | mask);
            if (unit.spareFlag & WORD_SEEN) {
                if (!writes.continues(w.word)) {
                    if (!writes.empty())
                        queueWriteJobs(station, bits.area, writes.first(), writes.words(), writes.bytes(), id);
                    writes.start(w.word);
                }
                writes.add(after);
            } else if (!(unit.spareFlag & WORD_BITS_HELD)) {
                // Never read: the write waits for the word's value.
                unit.spareFlag |= WORD_BITS_HELD;
                driver.heldBitWriteIds.insert(idx, id);
                if (!reads.continues(w.word)) {
                    if (!reads.empty())
                        queueWordsRead(station, bits.area, reads.first(), reads.words(), id);
                    reads.start(w.word);
                }
                reads.add(0);
            }
        }
        if (before != after) {
            Change c = {idx, w.word, before, after};
            changes.push_back(c);
        }
    }
    if (!writes.empty())
        queueWriteJobs(station, bits.area, writes.first(), writes.words(), writes.bytes(), id);
    if (!reads.empty())
        queueWordsRead(station, bits.area, reads.first(), reads.words(), id);
    for (size_t i = 0; i < changes.size(); ++i) {
        const Change &c = changes[i];
        const int before = packed(c.before), after = packed(c.after);
        _wordDataChange(&before, &after, c.index, REPORT_WORD_ONLY);
        reportBits(station, regName, c.word, quint16(c.before ^ c.after));
    }
}

void keepPendingBits(_DATA_ &unit)
{
    const quint16 mask = pendingMask(unit);
    const quint16 merged = quint16((storedWord(unit.readValue) & ~mask) | (pendingValues(unit) & mask));
    storeWord(merged, unit.writtenValue);
    unit.writePending = 1;
}

void releaseHeldBitWrite(int index)
{
    _DATA_ &unit = driver.dataAreas[index];
    unit.spareFlag = quint8(unit.spareFlag & ~WORD_BITS_HELD);
    const int id = driver.heldBitWriteIds.take(index);
    if (unit.bitWritePending == 0)
        return; // settled meanwhile
    keepPendingBits(unit);
    WordRun one;
    one.start(unit.address);
    one.add(shownWord(unit));
    const QString area = unit.regName;
    queueWriteJobs(unit.station, area, unit.address, 1, one.bytes(), id);
}

bool settleBitWrite(int index, bool success)
{
    const _DATA_ &unit = driver.dataAreas.at(index);
    if (unit.bitWritePending == 0)
        return false;
    quint16 sent = 0;
    if (!sentWord(unit, &sent)) {
        // Not the queue's head (the lists were changed under the exchange):
        // settle every pending bit.
        settleBits(index, pendingMask(unit), success, 0);
        return true;
    }
    // The pending bits whose value this write sent; the others were written
    // after it was built and wait for their own write.
    const quint16 carried = quint16(pendingMask(unit) & ~(pendingValues(unit) ^ sent));
    settleBits(index, carried, success, &sent);
    return true;
}

void giveUpHeldBitWrites()
{
    QList<int> held = driver.heldBitWriteIds.keys();
    std::sort(held.begin(), held.end());
    for (int k = 0; k < held.size(); ++k) {
        const int i = held.at(k);
        // An earlier report may have re-entered and cleared or settled it.
        if (i < driver.dataAreas.size() && (driver.dataAreas.at(i).spareFlag & WORD_BITS_HELD))
            settleBits(i, pendingMask(driver.dataAreas.at(i)), false, 0);
    }
}
