#include "register_table.h"

const char *const REG_NAME_TEXT[REG_COUNT] = {
    "X", "Y", "S", "M", "T", "C", "200C", "256C", "D", "V", "Z", "TC", "TP", "CC", "CP", "200CC", "200CP", "256CC", "256CP",
};

#define NAME(i) QLatin1String(REG_NAME_TEXT[i])
const QString REG_LIST[REG_COUNT] = {
    NAME(0),  NAME(1),  NAME(2),  NAME(3),  NAME(4),  NAME(5),  NAME(6),  NAME(7),  NAME(8),  NAME(9),
    NAME(10), NAME(11), NAME(12), NAME(13), NAME(14), NAME(15), NAME(16), NAME(17), NAME(18),
};
#undef NAME

#define ROW(f, lo, hi, kind, acc, w)                                                                     \
    {                                                                                                    \
        QLatin1String(f), QLatin1String(lo), QLatin1String(hi), QLatin1String(kind), QLatin1String(acc), \
            QLatin1String(w)                                                                             \
    }

// format, min, max (in the register's radix), kind, access, width
const QString ADDRESS_RANGE_PRO[REG_COUNT + 1][RANGE_COLUMNS] = {
    ROW("OOO", "0", "377", "1", "RW", "1"),         // X
    ROW("OOO", "0", "377", "1", "RW", "1"),         // Y
    ROW("DDDD", "0", "9999", "1", "RW", "1"),       // S
    ROW("DDDD", "0", "9999", "1", "RW", "1"),       // M
    ROW("DDD", "0", "9999", "1", "RW", "1"),        // T
    ROW("DDD", "0", "199", "1", "RW", "1"),         // C
    ROW("DDD", "200", "255", "1", "RW", "1"),       // 200C
    ROW("DDDD", "256", "9999", "1", "RW", "1"),     // 256C
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // D
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // V
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // Z
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // TC
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // TP
    ROW("DDD", "0", "199", "16", "RW", "16"),       // CC
    ROW("DDD", "0", "199", "16", "RW", "16"),       // CP
    ROW("DDD", "200", "255", "32", "RW", "32"),     // 200CC
    ROW("DDD", "200", "255", "32", "RW", "32"),     // 200CP
    ROW("DDD", "256", "9999", "32", "RW", "32"),    // 256CC
    ROW("DDD", "256", "9999", "32", "RW", "32"),    // 256CP
    ROW("DDDD", "0", "9999", "16", "RW", "16"),     // fallback for other names
};
#undef ROW

// Z k sits at 0x6478 + 2k and V k at 0x6479 + 2k: the two families interleave.
const int ADDRESS_REG_OFFSET[REG_COUNT] = {
    0x0000, 0x0100, 0x0800, 0x0200, 0x0C00, 0x0E00, 0x0E00, 0x3500, 0x4338, 0x6479,
    0x6478, 0x4000, 0x6498, 0x4200, 0x6698, 0x4200, 0x6698, 0x66D0, 0x68D0,
};

const QString PROCOTOL_DEFALT_COM_PAR = QLatin1String("19200,8,NONE,2");
const QString PROCOTOL_DEFALT_IP_PAR = QLatin1String("192.168.1.10,8000");
const QString PROCOTOL_NAME = QLatin1String("vorn_kq71_ap");
const QString PROCOTOL_VERSION = QLatin1String("2.0.0.0");
const QString PROCOTOL_PAR_HMI_SET_MODE = QLatin1String("0_0");

namespace {
// A short Latin-1 name packed into one integer (0 for anything longer than 7
// characters or outside Latin-1, which no register name is).
quint64 packName(const QChar *c, int size)
{
    if (size <= 0 || size > 7)
        return 0;
    quint64 v = quint64(size);
    for (int i = 0; i < size; ++i) {
        const ushort u = c[i].unicode();
        if (u == 0 || u > 0xFF)
            return 0;
        v = (v << 8) | u;
    }
    return v;
}
struct PackedNames {
    quint64 packed[REG_COUNT];
    PackedNames()
    {
        for (int i = 0; i < REG_COUNT; ++i) {
            const QString n = QString::fromLatin1(REG_NAME_TEXT[i]);
            packed[i] = packName(n.constData(), n.size());
        }
    }
};
}

int getIndexFromRegName(const QString &name)
{
    static const PackedNames names;
    const quint64 v = packName(name.constData(), name.size());
    if (v == 0)
        return -1;
    for (int i = 0; i < REG_COUNT; ++i) {
        if (names.packed[i] == v)
            return i;
    }
    return -1;
}

int getRegAddressWeight(int station, const QString &regName, int address, int /*length*/)
{
    const int idx = getIndexFromRegName(regName);
    // The key is defined to wrap at 32 bits; unsigned arithmetic wraps without
    // undefined behaviour, and merging compares the result as unsigned anyway.
    const quint32 row = quint32(station) * quint32(REG_COUNT) + quint32(idx);
    const quint32 weight = row * 65535u + quint32(address);
    return static_cast<int>(weight);
}

int rangeRowFor(const QString &name)
{
    const int idx = getIndexFromRegName(name);
    return idx < 0 ? int(FALLBACK_ROW) : idx;
}

namespace {
// The numeric columns read as integers once: every cache operation asks for them.
struct NumericColumns {
    int kind[REG_COUNT + 1];
    int width[REG_COUNT + 1];
    NumericColumns()
    {
        for (int row = 0; row <= REG_COUNT; ++row) {
            kind[row] = ADDRESS_RANGE_PRO[row][COL_KIND].toInt(0, 10);
            width[row] = ADDRESS_RANGE_PRO[row][COL_WIDTH].toInt(0, 10);
        }
    }
};

const NumericColumns &numericColumns()
{
    static const NumericColumns columns;
    return columns;
}
} // namespace

int rowKind(int row)
{
    return row >= 0 && row <= REG_COUNT ? numericColumns().kind[row] : 0;
}

int rowWidth(int row)
{
    return row >= 0 && row <= REG_COUNT ? numericColumns().width[row] : 0;
}
