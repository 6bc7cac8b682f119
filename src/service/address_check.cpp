// Address text of the editor: parsing in a register's radix and the two
// validating entry points. Only the constant register table is read.
#include "vorn_kq71_ap.h"
#include "address_check.h"
#include "address_hooks.h"
#include "register_traits.h"

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
    const qint64 w = bitObject ? int(kq71::BITS_PER_WORD) : kq71::rowTraits(row).unitBits;

    if (address < minAddress)
        return ADDR_OUT_OF_RANGE;
    // A count is in 16-bit words, so a 32-bit register takes two per address
    // and an odd count ends half-way into the next address: compared in
    // sixteenths of a word, the end may not pass the last address.
    if ((qint64(address) - maxAddress - 1) * w + qint64(count) * kq71::UNIT_WORD > 0)
        return ADDR_OUT_OF_RANGE;

    address = addrOffset(regName, address);
    return ADDR_OK;
}

} // namespace

int a2i(const QString &text, int &value, const QString &format, const QString &regName)
{
    if (kq71::formatMixesLetters(format)) {
        const int parsed = addr_str2int(text, regName);
        if (parsed == -1)
            return -1;
        value = parsed;
        return 1;
    }
    bool ok = false;
    const int radix = kq71::formatRadix(format);
    value = text.toInt(&ok, radix != 0 ? radix : 10);
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

    const kq71::RegisterTraits traits = kq71::rowTraits(row);
    const bool bitRegister = traits.isBit();
    const bool bitObject = dataType == BIT_OBJECT;
    if (bitRegister != bitObject)
        return ADDR_WRONG_KIND;
    if (ADDRESS_RANGE_PRO[row][COL_ACCESS] == QLatin1String("R") && (access == 1 || access == 2))
        return ADDR_READ_ONLY;
    if (traits.unitBits == kq71::UNIT_DWORD && !dwordTypeAllowed(dataType))
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

    const bool bitRegister = kq71::rowTraits(row).isBit();
    const bool bitObject = wordFlag == 0;
    if (bitRegister != bitObject)
        return ADDR_WRONG_KIND;

    return checkRange(row, *regName, *addrText, *address, count, bitObject);
}

} // extern "C"
