// Register pickers of the editor: which registers hold bits or words, and the
// five-item description of one register.
#include "register_table.h"
#include "vorn_kq71_ap.h"

namespace {

QString valueKindCode(int kind)
{
    if (kind == 1)
        return QString::fromLatin1("0");
    if (kind == 32)
        return QString::fromLatin1("2");
    return QString::fromLatin1("1"); // 8, 16 and anything unforeseen
}

QString accessCode(const QString &access)
{
    if (access == QLatin1String("R"))
        return QString::fromLatin1("0");
    if (access == QLatin1String("W"))
        return QString::fromLatin1("2");
    return QString::fromLatin1("1"); // "RW" and anything unforeseen
}

} // namespace

extern "C" {

// Types other than 0 and 1 still list the word registers but answer 0.
// Without a list there is nothing to fill: 0.
int intf_getRegListByType(int type, QList<QString> *names)
{
    if (!names)
        return 0;
    for (int row = 0; row < REG_COUNT; ++row) {
        const int kind = rowKind(row);
        if (type == 0 ? kind == 1 : kind > 1)
            names->append(REG_LIST[row]);
    }
    return (type == 0 || type == 1) ? 1 : 0;
}

int intf_getRegDiscription(QString *regName, QList<QString> *description)
{
    if (!regName || !description)
        return 0;
    const int row = getIndexFromRegName(*regName);
    if (row < 0)
        return 0;
    description->append(ADDRESS_RANGE_PRO[row][COL_FORMAT]);
    description->append(ADDRESS_RANGE_PRO[row][COL_MIN]);
    description->append(ADDRESS_RANGE_PRO[row][COL_MAX]);
    description->append(valueKindCode(rowKind(row)));
    description->append(accessCode(ADDRESS_RANGE_PRO[row][COL_ACCESS]));
    return 0;
}

} // extern "C"
