#include "register_traits.h"

namespace kq71 {

namespace {
int tableIndex(const char *name)
{
    return getIndexFromRegName(QString::fromLatin1(name));
}
} // namespace

RegisterTraits rowTraits(int row)
{
    static const int V = tableIndex("V"), Z = tableIndex("Z"), M = tableIndex("M");
    if (row < 0 || row > REG_COUNT)
        row = FALLBACK_ROW;
    RegisterTraits t;
    t.row = row;
    t.unitBits = rowWidth(row);
    t.interleaved = row == V || row == Z;
    t.relaySplit = row == M;
    return t;
}

RegisterTraits registerTraits(const QString &regName)
{
    return rowTraits(rangeRowFor(regName));
}

QString cacheAreaName(const QString &regName, const RegisterTraits &traits)
{
    if (traits.isBit())
        return regName;
    const int cut = regName.indexOf(QLatin1Char('_'));
    return cut < 0 ? regName : regName.left(cut);
}

bool splitBitInWord(const QString &regName, QString *wordRegister)
{
    static const QString suffix = QString::fromLatin1("_bit");
    if (regName.size() <= suffix.size() || !regName.endsWith(suffix))
        return false;
    if (wordRegister)
        *wordRegister = regName.left(regName.indexOf(QLatin1Char('_')));
    return true;
}

bool takesBitsInWords(const QString &regName, QString *wordRegister)
{
    QString word;
    // The word register's name is all that comes before the suffix.
    if (!splitBitInWord(regName, &word) || word.isEmpty() || word.size() + 4 != regName.size() ||
        registerTraits(word).unitBits != UNIT_WORD)
        return false;
    if (wordRegister)
        *wordRegister = word;
    return true;
}

QString bitInWordName(const QString &wordRegister)
{
    return wordRegister + QString::fromLatin1("_bit");
}

WordSpan wordsHoldingBits(int bitAddress, qint64 bits)
{
    const int k = BITS_PER_WORD;
    const qint64 spanned = bits + bitAddress % k;
    WordSpan w;
    w.address = bitAddress / k;
    w.length = int(spanned / k + (spanned % k != 0 ? 1 : 0));
    return w;
}

int formatRadix(const QString &format)
{
    if (format.isEmpty())
        return 0;
    switch (format.at(0).unicode()) {
    case 'O':
        return 8;
    case 'D':
        return 10;
    case 'H':
        return 16;
    default:
        return 0;
    }
}

bool formatMixesLetters(const QString &format)
{
    for (int i = 1; i < format.size(); ++i) {
        if (format.at(i) != format.at(0))
            return true;
    }
    return false;
}

QString unitText(const QString &regName, int address)
{
    // Z k and V k share one interleaved area, so a Z job at an odd address is
    // really a V register; name it as the user knows it.
    if (regName == QLatin1String("Z")) {
        if (address % 2 == 1)
            return QString::fromLatin1("V%1").arg((address - 1) / 2);
        return QString::fromLatin1("Z%1").arg(address / 2);
    }
    return QString::fromLatin1("%1%2").arg(regName, QString::number(address));
}

} // namespace kq71
