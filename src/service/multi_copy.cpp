// Address series for copied screen objects: each copy an interval further on,
// as a number and as text in the register's radix.
#include "kq71_protocol.h"
#include "protocol.h"
#include "register_table.h"

namespace {

// No editor copies an object this many times; the cap bounds the work and the
// memory a runaway count could ask for. Longer requests are cut and answer 2.
const int MAX_SERIES = 65536;

// Interval codes: one 16-bit word's and one double word's worth of addresses.
const int INTERVAL_WORD = -1;
const int INTERVAL_DWORD = -2;

bool mixesLetters(const QString &format)
{
    for (int i = 1; i < format.size(); ++i) {
        if (format.at(i) != format.at(0))
            return true;
    }
    return false;
}

int resolveInterval(const QString &regName, int interval)
{
    if (interval == INTERVAL_WORD || interval == INTERVAL_DWORD) {
        const int row = getIndexFromRegName(regName);
        const int width = row < 0 ? 0 : rowWidth(row);
        if (width > 0) {
            const float bits = interval == INTERVAL_WORD ? 16.0f : 32.0f;
            interval = int(bits / float(width));
        }
    }
    return interval < 1 ? 1 : interval;
}

// Radix of the text from the first letter of a one-letter format; 0 when the
// letter names none (the text then stays as it was).
int textBase(const QString &format)
{
    if (format.isEmpty())
        return 0;
    const QChar first = format.at(0);
    if (first == QLatin1Char('D'))
        return 10;
    if (first == QLatin1Char('H'))
        return 16;
    if (first == QLatin1Char('O'))
        return 8;
    return 0;
}

} // namespace

int multiCp(const QString &regName, const QString &format, int start, int count, int interval,
            QVector<QString> &texts, QVector<int> &addresses, int maxAddress, const QString &maxText)
{
    const bool mixing = mixesLetters(format);
    if (count <= 0)
        return 1;

    int result = 1;
    if (count > MAX_SERIES) {
        count = MAX_SERIES;
        result = 2;
    }
    const qint64 step = resolveInterval(regName, interval);
    const int base = textBase(format);
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
