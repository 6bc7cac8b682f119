#include "plc_map.h"

namespace kq71rt {

namespace {

struct Area {
    const char *name;
    UnitKind kind;
    int base;
};

// The PLC's memory map of this family.
const Area AREAS[] = {
    {"X", UnitKind::Bit, 0x0000},          {"Y", UnitKind::Bit, 0x0100},
    {"S", UnitKind::Bit, 0x0800},          {"M", UnitKind::Bit, 0x0200},
    {"T", UnitKind::Bit, 0x0C00},          {"C", UnitKind::Bit, 0x0E00},
    {"200C", UnitKind::Bit, 0x0E00},       {"256C", UnitKind::Bit, 0x3500},
    {"D", UnitKind::Word, 0x4338},         {"V", UnitKind::Word, 0x6479},
    {"Z", UnitKind::Word, 0x6478},         {"TC", UnitKind::Word, 0x4000},
    {"TP", UnitKind::Word, 0x6498},        {"CC", UnitKind::Word, 0x4200},
    {"CP", UnitKind::Word, 0x6698},        {"200CC", UnitKind::DoubleWord, 0x4200},
    {"200CP", UnitKind::DoubleWord, 0x6698}, {"256CC", UnitKind::DoubleWord, 0x66D0},
    {"256CP", UnitKind::DoubleWord, 0x68D0},
};

const Area *areaOf(const QString &regName)
{
    for (const Area &a : AREAS)
        if (regName == QLatin1String(a.name))
            return &a;
    return nullptr;
}

} // namespace

QString bitInWordRegister(const QString &wordRegister) { return wordRegister + "_bit"; }

QString wordRegisterOfBits(const QString &regName)
{
    return regName.endsWith("_bit") ? regName.left(regName.size() - 4) : QString();
}

UnitKind unitKindOf(const QString &regName)
{
    const QString word = wordRegisterOfBits(regName);
    if (!word.isEmpty())
        return unitKindOf(word) == UnitKind::Word ? UnitKind::Bit : UnitKind::Unknown;
    const Area *a = areaOf(regName);
    return a ? a->kind : UnitKind::Unknown;
}

UnitPlace placeOf(const QString &regName, int address)
{
    UnitPlace p;
    const Area *a = areaOf(regName);
    if (!a)
        return p;
    p.kind = a->kind;
    if (regName == "M" && address >= 8000)
        p.wire = address - 4160;  // relays from 8000 on have a block of their own
    else if (regName == "V" || regName == "Z")
        p.wire = a->base + 2 * address;  // V and Z alternate register by register
    else if (a->kind == UnitKind::DoubleWord)
        p.wire = a->base + 2 * (address - (regName.startsWith("200") ? 100 : 128));
    else
        p.wire = a->base + address;
    return p;
}

int addressRadix(const QString &regName) { return regName == "X" || regName == "Y" ? 8 : 10; }

QString unitName(const QString &regName, int address)
{
    const QString word = wordRegisterOfBits(regName);
    if (!word.isEmpty() && address >= 0)
        return QString("%1%2.%3").arg(word).arg(address / BITS_IN_WORD).arg(address % BITS_IN_WORD);
    return regName + QString::number(address, addressRadix(regName));
}

} // namespace kq71rt
