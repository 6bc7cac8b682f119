// Address series for copied screen objects: each copy an interval further on,
// as a number and as text in the register's radix.
#include "vorn_kq71_ap.h"
#include "multi_copy.h"
#include "address_check.h"
#include "address_hooks.h"
#include "register_traits.h"

namespace {

// No editor copies an object this many times; the cap bounds the work and the
// memory a runaway count could ask for. Longer requests are cut and answer 2.
const int MAX_SERIES = 65536;

// Interval codes: one 16-bit word's and one double word's worth of addresses.
const int INTERVAL_WORD = -1;
const int INTERVAL_DWORD = -2;

int resolveInterval(const QString &regName, int interval)
{
    if (interval == INTERVAL_WORD || interval == INTERVAL_DWORD) {
        const kq71::RegisterTraits t = kq71::registerTraits(regName);
        if (t.known())
            interval = (interval == INTERVAL_WORD ? kq71::UNIT_WORD : kq71::UNIT_DWORD) / t.unitBits;
    }
    return interval < 1 ? 1 : interval;
}

} // namespace

int multiCp(const QString &regName, const QString &format, int start, int count, int interval,
            QVector<QString> &texts, QVector<int> &addresses, int maxAddress, const QString &maxText)
{
    const bool mixing = kq71::formatMixesLetters(format);
    if (count <= 0)
        return 1;

    int result = 1;
    if (count > MAX_SERIES) {
        count = MAX_SERIES;
        result = 2;
    }
    const qint64 step = resolveInterval(regName, interval);
    const int base = kq71::formatRadix(format);
    QString text; // carried over from one address to the next

    for (int i = 0; i < count; ++i) {
        const qint64 next = qint64(start) + qint64(i) * step;
        if (next > qint64(maxAddress)) {
            addresses.append(maxAddress);
            texts.append(maxText);
            result = 2;
            continue;
        }
        const int address = int(next); // between start and maxAddress
        if (mixing) {
            const QString mixed = addr_int2str(address, regName);
            if (mixed.isEmpty())
                return 2;
            text = mixed;
        } else if (base != 0) {
            text = QString::number(uint(address), base); // unsigned, lower case, no prefix
        }
        addresses.append(address);
        texts.append(text);
    }
    return result;
}

extern "C" {

// Missing lists or name: 0, as for an unknown register.
int intf_multiCopy(QString *regName, int start, int count, int interval, QVector<QString> *texts,
                   QVector<int> *addresses)
{
    if (!regName || !texts || !addresses)
        return 0;
    const int row = getIndexFromRegName(*regName);
    if (row < 0)
        return 0;
    const QString &format = ADDRESS_RANGE_PRO[row][COL_FORMAT];
    int maxAddress = 0;
    a2i(ADDRESS_RANGE_PRO[row][COL_MAX], maxAddress, format, *regName);
    return multiCp(*regName, format, start, count, interval, *texts, *addresses, maxAddress,
                   ADDRESS_RANGE_PRO[row][COL_MAX]);
}

} // extern "C"
