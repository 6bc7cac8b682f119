// What a register name means for the cache, the planner and the frame
// builders: the unit it holds, how the runtime's lengths count those units,
// how its units lie on the wire, and how its address text is written.
// Every rule of this kind lives here; the driver service asks, never spells
// out a register name itself.
#ifndef KQ71_REGISTER_TRAITS_H
#define KQ71_REGISTER_TRAITS_H

#include "register_table.h"

#include <QtCore/QString>

namespace kq71 {

enum UnitBits { UNIT_BIT = 1, UNIT_WORD = 16, UNIT_DWORD = 32 };

enum {
    // M relays from this address on live in a second area of the wire map, so
    // no request may span it.
    RELAY_BOUNDARY = 8000,
    RELAY_HIGH_SHIFT = 4160,
    // A bit-in-word name counts bits of 16-bit words.
    BITS_PER_WORD = 16
};

struct RegisterTraits {
    int row;          // register table row; FALLBACK_ROW for a name outside the table
    int unitBits;     // 1, 16 or 32
    bool interleaved; // V and Z share one area: written a word per frame, read with a stride of two
    bool relaySplit;  // its units change wire area at RELAY_BOUNDARY

    bool known() const { return row != FALLBACK_ROW; }
    bool isBit() const { return unitBits == UNIT_BIT; }
    // Bytes one unit takes in the cache and in job values: one per bit.
    int bytesPerUnit() const { return unitBits == UNIT_BIT ? 1 : unitBits / 8; }
    // Wire registers a unit of a register read takes (bit reads: 0).
    int registersPerUnit() const { return unitBits / UNIT_WORD; }
    // Units in a count of 16-bit words (a bit counts as a sixteenth), cut
    // toward zero: a double-word register takes two words a unit.
    qint64 unitsOfWords(qint64 words) const { return words * UNIT_WORD / unitBits; }
    // Units of a length as the runtime's value calls and watch list count it:
    // bits for bit registers, 16-bit words for the others.
    qint64 unitsOfLength(qint64 length) const { return isBit() ? length : unitsOfWords(length); }
    // Whether a range crosses the relay boundary, and where to cut it.
    bool crossesRelayBoundary(qint64 address, qint64 units) const
    {
        return relaySplit && address < RELAY_BOUNDARY && address + units > RELAY_BOUNDARY;
    }
};

// Traits of a register name; a name outside the table gets the fallback row's
// (16-bit words, no interleave).
RegisterTraits registerTraits(const QString &regName);
RegisterTraits rowTraits(int row);

// The name under which the cache keeps a register's units: bit registers by
// their own name, others by the part before a '_' (so "D_xyz" lives in D).
QString cacheAreaName(const QString &regName, const RegisterTraits &traits);

// A bit-in-word name is a register name followed by "_bit" ("D_bit": bits of
// D's words, the address counting bits from bit 0 of word 0). Gives the word
// register's name.
bool splitBitInWord(const QString &regName, QString *wordRegister);
// Whether a bit-in-word name names bits the cache keeps: a 16-bit word
// register's name (a name outside the table counts as one) and the suffix,
// nothing between. Double-word and bit registers refuse the suffix, and so do
// names like "D_x_bit" or "_bit". Gives the word register's name.
bool takesBitsInWords(const QString &regName, QString *wordRegister);
// The bit-in-word name of a word register ("D" -> "D_bit").
QString bitInWordName(const QString &wordRegister);

// The whole words that hold `bits` bits from bit number bitAddress on.
struct WordSpan {
    int address;
    int length;
};
WordSpan wordsHoldingBits(int bitAddress, qint64 bits);

// Radix of an address format made of one letter repeated ("OOO" 8, "DDDD" 10,
// "HHHH" 16); 0 for a letter that names none. A format that mixes letters
// belongs to the address hooks.
int formatRadix(const QString &format);
bool formatMixesLetters(const QString &format);

// A unit as a user reads it in an error text: the interleaved area's odd
// places are the V registers.
QString unitText(const QString &regName, int address);

} // namespace kq71

#endif
