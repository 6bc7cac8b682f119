// Fuzz target "editor": the panel editor's address checks, address series and
// register descriptions with any texts, names and numbers.
//
// The input is a list of calls, one opcode byte each (% 4), then arguments:
//   0 intf_checkAddr: name, address text, initial *address, data type,
//     count, access; argument pointers missing now and then
//   1 intf_checkAddrValidity: name, address text, initial *address, count,
//     word flag
//   2 intf_multiCopy: name, start, count, interval
//   3 intf_getRegDiscription: name
// Each result is checked against the runtime contract's tables: the result
// codes and what each leaves in *address, the series' length, values, texts
// and result, the five-item description. Editor calls leave the driver's
// cache and jobs alone. At most 64 calls and 70000 series entries per input.
#include "fuzz_support.h"

using namespace kq71fuzz;

namespace {

// Result codes: 3 no such register (or an argument missing), 1 bits asked of
// a word register or the other way round, 5 a data type a 32-bit register
// cannot hold, 4 an address text that does not parse in the register's
// radix (leaving 0), 2 an address below the register or an object ending
// past its last address, 0 valid.
void checkAddress(Input &in, bool validity)
{
    // Declarators are initialised in order: the input means the same to every compiler.
    QString name = in.regName(), text = in.text();
    const int initial = in.number(), dataType = validity ? 0 : in.number(), count = in.number();
    const int flag = in.number(), missing = in.byte() % 16; // access, or the word flag
    int address = initial;
    QString *n = missing == 1 ? 0 : &name, *t = missing == 2 ? 0 : &text;
    int *a = missing == 3 ? 0 : &address;
    const int result = validity ? intf_checkAddrValidity(n, t, a, count, flag)
                                : intf_checkAddr(n, t, a, dataType, count, flag);

    const RegisterInfo *r = findRegister(name);
    const bool bits = validity ? flag == 0 : dataType == -1;
    int expected = 3, expectedAddress = initial;
    if (r && (missing < 1 || missing > 3)) {
        bool parsed = false;
        const int value = text.toInt(&parsed, r->radix); // 0 when it does not parse
        // count is in bits for a bit object, else in 16-bit words (two per
        // 32-bit address).
        const bool outside =
            value < r->lowest || double(value) + double(count) / (bits ? 1.0 : r->width / 16.0) > r->highest + 1.0;
        const bool typeFits = validity || r->width != 32 || dataType == 1 || dataType == 3 || dataType == 5 ||
                              dataType == 6 || dataType == 9;
        expected = (r->width == 1) != bits ? 1 : !typeFits ? 5 : !parsed ? 4 : outside ? 2 : 0;
        if (expected != 1 && expected != 5)
            expectedAddress = value;
    }
    FUZZ_CHECK(result == expected && address == expectedAddress, "%s \"%s\": %d at %d, expected %d at %d",
               qPrintable(name), qPrintable(text), result, address, expected, expectedAddress);
}

// Entries min(start + i * interval, highest) as numbers and as texts in the
// register's radix; intervals -1 and -2 are a word's and a double word's
// worth of the register's units, others below 1 count as 1. Lists are
// appended to: what they held stays.
void multiCopy(Input &in, qint64 &entries)
{
    QString name = in.regName();
    const int start = in.number(), count = in.number(), interval = in.number();
    const qint64 n = count <= 0 ? 0 : qMin(count, 65536);
    if (entries + n > 70000)
        return;
    entries += n;
    const int held = in.below(3), missing = in.byte() % 16;
    QVector<QString> texts(held, QString::fromLatin1("kept"));
    QVector<int> addresses(held, -7);
    const int result = intf_multiCopy(missing == 1 ? 0 : &name, start, count, interval, missing == 2 ? 0 : &texts,
                                      missing == 3 ? 0 : &addresses);

    const RegisterInfo *r = findRegister(name);
    const bool refused = (missing >= 1 && missing <= 3) || !r;
    FUZZ_CHECK(texts.size() == held + (refused ? 0 : n) && addresses.size() == texts.size() && (!refused || !result),
               "%s: %d with %d texts appended", qPrintable(name), result, texts.size() - held);
    if (refused)
        return;
    const qint64 step = interval == -1   ? (r->width == 1 ? 16 : 1)
                        : interval == -2 ? (r->width == 1 ? 32 : r->width == 16 ? 2 : 1)
                                         : qMax(interval, 1);
    bool clamped = count > 65536;
    for (int i = 0; i < n; ++i) {
        const qint64 want = qint64(start) + qint64(i) * step;
        clamped = clamped || want > r->highest;
        const int got = addresses.at(held + i);
        // %u / %o: negative addresses as unsigned texts.
        FUZZ_CHECK(got == qMin<qint64>(want, r->highest) && texts.at(held + i) == QString::number(uint(got), r->radix),
                   "%s: entry %d is %d \"%s\"", r->name, i, got, qPrintable(texts.at(held + i)));
    }
    FUZZ_CHECK(result == (clamped ? 2 : 1), "(%s, %d, %d, %d): %d", r->name, start, count, interval, result);
}

// Five items (format, lowest and highest address, unit, "1") appended for a
// register of the family, none for another name; their contents per register
// are the unit tests' business.
void description(Input &in)
{
    QString name = in.regName();
    QList<QString> items = QList<QString>() << QString::fromLatin1("kept");
    const int result = intf_getRegDiscription(&name, &items);
    FUZZ_CHECK(result == 0 && items.size() == (findRegister(name) ? 6 : 1) && items.first() == QLatin1String("kept"),
               "(\"%s\"): %d, %d items", qPrintable(name), result, items.size());
}

} // namespace

int runEditorInput(const uint8_t *data, size_t size)
{
    Runtime runtime;
    Input in{data, size};
    qint64 entries = 0;
    for (int calls = 0; calls < 64 && !in.atEnd(); ++calls) {
        const int op = in.byte() % 4;
        checked("editor call", 0, [&] {
            op < 2 ? checkAddress(in, op == 1) : op == 2 ? multiCopy(in, entries) : description(in);
            return 0;
        });
    }
    FUZZ_CHECK(driver.dataAreas.isEmpty() && driver.writeJobs.isEmpty(), "an editor call changed the driver");
    return 0;
}
