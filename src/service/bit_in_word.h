// Bits inside 16-bit words ("D_bit": the address counts bits from bit 0 of
// word 0). They live in the word records of their register:
//   bitMonitorMask   bit n: bit n of the word is watched on its own;
//   bitWritePending  two marks per bit position: bit n says bit n was written
//                    and its write has not settled, bit 16 + n holds its value;
//   spareFlag        WORD_SEEN once the word's value came from the PLC,
//                    WORD_BITS_HELD while a bit write waits for the word's
//                    first read.
#ifndef SERVICE_BIT_IN_WORD_H
#define SERVICE_BIT_IN_WORD_H

#include "driver_state.h"

enum {
    WORD_SEEN = 1,
    WORD_BITS_HELD = 2
};

// Bits of a call: the word register the cache keeps them under, the first bit
// number and the count, bounded like every range of a call.
struct BitRange {
    QString area;
    int address;
    int bits;
};
enum BitNameKind {
    NOT_BITS_IN_WORD, // an ordinary register name
    BITS_IN_WORD,     // bits of 16-bit words: `out` holds them
    REFUSED_BITS_IN_WORD // a bit-in-word name of a register without 16-bit words, or a negative bit number
};
BitNameKind bitsInWordRange(const QString &regName, int address, qint64 length, BitRange *out);

// The register value of a word's stored bytes (high byte first), and the value
// a word shows the runtime (its written value while that is pending).
quint16 storedWord(const quint8 *stored);
quint16 shownWord(const _DATA_ &unit);

void markWatchedBits(int station, const BitRange &bits);
// n bytes, one per bit, 0 or 1.
void readBitsInWords(int station, const BitRange &bits, unsigned char *values);
// Queues word writes built from each word's freshest cached value with only the
// named bits changed, shows the bits at once and reports those that changed.
void writeBitsInWords(int station, const QString &regName, const BitRange &bits, const unsigned char *values,
                      int id);

// A read reply stored a new readValue in a word whose bits are pending: its
// written value takes the reply's other bits and keeps the pending ones.
void keepPendingBits(_DATA_ &unit);
// A read reply reached a word whose bit write waited for it: queue the write,
// tagged with the id of the bit write.
void releaseHeldBitWrite(int index);
// A write of the word at this position ended. Returns false when no bits of
// the word were pending (the caller settles it as a word). Otherwise the word
// takes the value the write sent (on success), and the pending bits whose
// value it sent settle; bits written after the write was built stay pending
// for their own write.
bool settleBitWrite(int index, bool success);
// The reads that held bit writes waited for were dropped: give those writes up.
void giveUpHeldBitWrites();

#endif
