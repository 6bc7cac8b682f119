#include "protocol.h"
#include "register_table.h"

int getRegAddressWeight(int station, const QString &regName, int address, int /*length*/)
{
    const int n = driver.regNames.size();
    // regNames is REG_LIST copied in order and never changed.
    const int idx = getIndexFromRegName(regName);
    // The key is defined to wrap at 32 bits; unsigned arithmetic wraps without
    // undefined behaviour, and merging compares the result as unsigned anyway.
    const quint32 row = quint32(station) * quint32(n) + quint32(idx);
    const quint32 weight = row * 65535u + quint32(address);
    return static_cast<int>(weight);
}

QString areaName(const QString &regName)
{
    const int cut = regName.indexOf(QLatin1Char('_'));
    return cut < 0 ? regName : regName.left(cut);
}
