// Where the units of each register live in the PLC's memory, as the
// simulator and a Modbus peer see it: bit space or register space, and the
// wire address of the unit's first register.
#ifndef KQ71_RUNTIME_PLC_MAP_H
#define KQ71_RUNTIME_PLC_MAP_H

#include <QtCore/QString>

namespace kq71rt {

enum class UnitKind { Unknown, Bit, Word, DoubleWord };

struct UnitPlace {
    UnitKind kind = UnitKind::Unknown;
    int wire = -1;  // bit address, or the register holding the low word
};

// The driver's names for bits inside 16-bit words: "D_bit" 1605 is bit 5 of
// D100, written "D100.5".
const int BITS_IN_WORD = 16;
QString bitInWordRegister(const QString &wordRegister);
// The word register of a bit-in-word name, or an empty text.
QString wordRegisterOfBits(const QString &regName);

// Bit-in-word names are bits.
UnitKind unitKindOf(const QString &regName);
UnitPlace placeOf(const QString &regName, int address);

// Addresses of X and Y are octal, all others decimal.
int addressRadix(const QString &regName);
// "D100", "X17", and "D100.5" for bit-in-word names.
QString unitName(const QString &regName, int address);

} // namespace kq71rt

#endif
