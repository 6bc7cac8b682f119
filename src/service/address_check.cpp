// Address text of the editor: parsing in a register's radix and the two
// validating entry points. Only the constant register table is read.
#include "kq71_protocol.h"
#include "protocol.h"
#include "register_table.h"

namespace {

enum CheckResult {
    ADDR_OK = 0,
    ADDR_WRONG_KIND = 1,
    ADDR_OUT_OF_RANGE = 2,
    ADDR_UNKNOWN_REGISTER = 3,
    ADDR_BAD_TEXT = 4,
    ADDR_BAD_DWORD_TYPE = 5,
    ADDR_READ_ONLY = 6
};

const int BIT_OBJECT = -1;

// One letter repeated (or nothing) names a radix; anything else is a format
// that mixes letters and belongs to the address hooks.
bool mixesLetters(const QString &format)
{
    if (format.isEmpty())
        return false;
    const QChar first = format.at(0);
    for (int i = 1; i < format.size(); ++i) {
        if (format.at(i) != first)
            return true;
    }
    return false;
}

int radixOf(const QString &format)
{
    if (format.isEmpty())
        return 10;
    const QChar last = format.at(format.size() - 1);
    if (last == QLatin1Char('O'))
        return 8;
    if (last == QLatin1Char('H'))
        return 16;
    return 10;
}

bool dwordTypeAllowed(int dataType)
{
    return dataType == 1 || dataType == 3 || dataType == 5 || dataType == 6 || dataType == 9;
}

// The checks both entry points share once the name and the object kind have
// passed: parse, bounds, and the address handed back.
int checkRange(int row, const QString &regName, const QString &addrText, int &address, int count, bool bitObject)
{
    const QString &format = ADDRESS_RANGE_PRO[row][COL_FORMAT];
    if (a2i(addrText, address, format, regName) != 1)
        return ADDR_BAD_TEXT;

    int maxAddress = 0;
    int minAddress = 0;
    a2i(ADDRESS_RANGE_PRO[row][COL_MAX], maxAddress, format, regName);
    a2i(ADDRESS_RANGE_PRO[row][COL_MIN], minAddress, format, regName);
    const int w = bitObject ? 16 : rowWidth(row);

    if (address < minAddress)
        return ADDR_OUT_OF_RANGE;
    // A count is in 16-bit words, so a 32-bit register takes two per address
    // and an odd count ends half-way into the next address.
    const double wordsPerAddress = w > 0 ? double(w) / 16.0 : 1.0;
    if (double(address) + double(count) / wordsPerAddress > double(maxAddress) + 1.0)
        return ADDR_OUT_OF_RANGE;

    address = addrOffset(regName, address);
    return ADDR_OK;
}

} // namespace

int a2i(const QString &text, int &value, const QString &format, const QString &regName)
{
    if (mixesLetters(format)) {
        const int parsed = addr_str2int(text, regName);
        if (parsed == -1)
            return -1;
        value = parsed;
        return 1;
    }
    bool ok = false;
    value = text.toInt(&ok, radixOf(format));
    return ok ? 1 : -1;
}

extern "C" {

// A missing argument is answered like an unknown register (3): the runtime
// then refuses the address, and nothing is read or written.
int intf_checkAddr(QString *regName, QString *addrText, int *address, int dataType, int count, int access)
{
    if (!regName || !addrText || !address)
        return ADDR_UNKNOWN_REGISTER;
    const int row = getIndexFromRegName(*regName);
    if (row < 0)
        return ADDR_UNKNOWN_REGISTER;

    const QString &kind = ADDRESS_RANGE_PRO[row][COL_KIND];
    const bool bitRegister = kind == QLatin1String("1");
    const bool bitObject = dataType == BIT_OBJECT;
    if (bitRegister != bitObject)
        return ADDR_WRONG_KIND;
    if (ADDRESS_RANGE_PRO[row][COL_ACCESS] == QLatin1String("R") && (access == 1 || access == 2))
        return ADDR_READ_ONLY;
    if (kind == QLatin1String("32") && !dwordTypeAllowed(dataType))
        return ADDR_BAD_DWORD_TYPE;

    return checkRange(row, *regName, *addrText, *address, count, bitObject);
}

// Same as intf_checkAddr, without the access and data type tests; a missing
// argument gives 3 as there.
int intf_checkAddrValidity(QString *regName, QString *addrText, int *address, int count, int wordFlag)
{
    if (!regName || !addrText || !address)
        return ADDR_UNKNOWN_REGISTER;
    const int row = getIndexFromRegName(*regName);
    if (row < 0)
        return ADDR_UNKNOWN_REGISTER;

    const bool bitRegister = ADDRESS_RANGE_PRO[row][COL_KIND] == QLatin1String("1");
    const bool bitObject = wordFlag == 0;
    if (bitRegister != bitObject)
        return ADDR_WRONG_KIND;

    return checkRange(row, *regName, *addrText, *address, count, bitObject);
}

} // extern "C"
