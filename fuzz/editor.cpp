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
#include "fuzz_targets.h"

#include "driver_internals.h"

#include <QtCore/QList>
#include <QtCore/QVector>

using namespace kq71fuzz;

namespace {

std::string latin(const QString &s)
{
    const QByteArray b = s.toLocal8Bit();
    return std::string(b.constData(), size_t(b.size()));
}

// The address text as a number in the register's radix, or false.
bool parse(const QString &text, const RegisterInfo &r, int &value)
{
    bool ok = false;
    value = text.toInt(&ok, r.radix);
    return ok;
}

// The checks both entry points share: text, then range. Code 0, 2 or 4.
int expectedRange(const RegisterInfo &r, const QString &text, int count, bool bitObject, int &address)
{
    if (!parse(text, r, address)) {
        address = 0;
        return 4;
    }
    if (address < r.lowest)
        return 2;
    // count is in bits for a bit object, else in 16-bit words (two per
    // 32-bit address); an object ending past the highest address is refused.
    const double perAddress = bitObject ? 1.0 : r.width / 16.0;
    return double(address) + double(count) / perAddress > double(r.highest) + 1.0 ? 2 : 0;
}

void checkAddressResult(const char *what, const QString &name, const QString &text, int count, int result,
                        int expected, int address, int expectedAddress)
{
    if (result != expected || address != expectedAddress)
        fail("%s(\"%s\", \"%s\"): %d with address %d, expected %d with address %d", what, latin(name).c_str(),
             latin(text).c_str(), result, address, expected, expectedAddress);
    // An object of no units passes the end test wherever it starts.
    if (result == 0 && count >= 1) {
        const RegisterInfo *r = findRegister(name);
        if (!r || address < r->lowest || address > r->highest)
            fail("%s(\"%s\", \"%s\"): valid address %d outside the register", what, latin(name).c_str(),
                 latin(text).c_str(), address);
    }
}

void checkAddr(Input &in)
{
    QString name = in.regName();
    QString text = in.text();
    const int initial = in.number();
    const int dataType = in.number(), count = in.number(), access = in.number();
    const uint8_t missing = in.byte() % 16;
    int address = initial;
    const int result = intf_checkAddr(missing == 1 ? 0 : &name, missing == 2 ? 0 : &text,
                                      missing == 3 ? 0 : &address, dataType, count, access);

    const RegisterInfo *r = findRegister(name);
    int expectedAddress = initial;
    int expected;
    if (missing >= 1 && missing <= 3)
        expected = 3;
    else if (!r)
        expected = 3;
    else if ((r->width == 1) != (dataType == -1))
        expected = 1;
    else if (r->width == 32 && dataType != 1 && dataType != 3 && dataType != 5 && dataType != 6 && dataType != 9)
        expected = 5;
    else
        expected = expectedRange(*r, text, count, dataType == -1, expectedAddress);
    checkAddressResult("intf_checkAddr", name, text, count, result, expected, address, expectedAddress);
}

void checkAddrValidity(Input &in)
{
    QString name = in.regName();
    QString text = in.text();
    const int initial = in.number();
    const int count = in.number(), wordFlag = in.number();
    const uint8_t missing = in.byte() % 16;
    int address = initial;
    const int result = intf_checkAddrValidity(missing == 1 ? 0 : &name, missing == 2 ? 0 : &text,
                                              missing == 3 ? 0 : &address, count, wordFlag);

    const RegisterInfo *r = findRegister(name);
    int expectedAddress = initial;
    int expected;
    if ((missing >= 1 && missing <= 3) || !r)
        expected = 3;
    else if ((r->width == 1) != (wordFlag == 0))
        expected = 1;
    else
        expected = expectedRange(*r, text, count, wordFlag == 0, expectedAddress);
    checkAddressResult("intf_checkAddrValidity", name, text, count, result, expected, address, expectedAddress);
}

// Addresses an interval apart; -1 and -2 are a word's and a double word's
// worth of the register's units, other intervals below 1 count as 1.
qint64 step(const RegisterInfo &r, int interval)
{
    if (interval == -1)
        return r.width == 1 ? 16 : 1;
    if (interval == -2)
        return r.width == 1 ? 32 : r.width == 16 ? 2 : 1;
    return interval < 1 ? 1 : interval;
}

void multiCopy(Input &in, qint64 &entries)
{
    QString name = in.regName();
    const int start = in.number(), count = in.number(), interval = in.number();
    const qint64 n = count <= 0 ? 0 : qMin(count, 65536);
    if (entries + n > 70000)
        return;
    entries += n;
    // Lists are appended to: what they held stays.
    QVector<QString> texts(in.below(3), QString::fromLatin1("kept"));
    QVector<int> addresses(texts.size(), -7);
    const int held = texts.size();
    const uint8_t missing = in.byte() % 16;
    const int result = intf_multiCopy(missing == 1 ? 0 : &name, start, count, interval, missing == 2 ? 0 : &texts,
                                      missing == 3 ? 0 : &addresses);

    const RegisterInfo *r = findRegister(name);
    if ((missing >= 1 && missing <= 3) || !r) {
        if (result != 0 || texts.size() != held || addresses.size() != held)
            fail("intf_multiCopy(\"%s\") without a register: %d, %d texts", latin(name).c_str(), result,
                 texts.size());
        return;
    }
    if (texts.size() != held + n || addresses.size() != held + n)
        fail("intf_multiCopy(%s, %d, %d, %d): %d texts and %d addresses appended", r->name, start, count, interval,
             texts.size() - held, addresses.size() - held);
    bool clamped = count > 65536;
    const qint64 s = step(*r, interval);
    for (int i = 0; i < n; ++i) {
        const qint64 want = qint64(start) + qint64(i) * s;
        const int got = addresses.at(held + i);
        const QString &text = texts.at(held + i);
        if (want > r->highest) {
            clamped = true;
            if (got != r->highest || text != QString::number(r->highest, r->radix))
                fail("intf_multiCopy(%s, %d, %d, %d): entry %d is %d \"%s\", expected the highest address",
                     r->name, start, count, interval, i, got, latin(text).c_str());
        } else if (got != want || text != QString::number(uint(got), r->radix)) { // %u / %o: unsigned
            fail("intf_multiCopy(%s, %d, %d, %d): entry %d is %d \"%s\", expected %lld", r->name, start, count,
                 interval, i, got, latin(text).c_str(), want);
        }
    }
    if (result != (clamped ? 2 : 1))
        fail("intf_multiCopy(%s, %d, %d, %d) returned %d", r->name, start, count, interval, result);
}

void description(Input &in)
{
    QString name = in.regName();
    QList<QString> items;
    items.append(QString::fromLatin1("kept"));
    const int result = intf_getRegDiscription(&name, &items);
    const RegisterInfo *r = findRegister(name);
    if (result != 0 || items.size() != (r ? 6 : 1) || items.first() != QLatin1String("kept"))
        fail("intf_getRegDiscription(\"%s\"): %d, %d items", latin(name).c_str(), result, items.size());
    if (!r)
        return;
    const QString low = QString::number(r->lowest, r->radix), high = QString::number(r->highest, r->radix);
    const QString kind = QString::number(r->width == 1 ? 0 : r->width == 16 ? 1 : 2);
    const bool octal = r->radix == 8;
    if ((octal ? items.at(1) != QLatin1String("OOO") : !items.at(1).startsWith(QLatin1String("DDD"))) ||
        items.at(2) != low || items.at(3) != high || items.at(4) != kind || items.at(5) != QLatin1String("1"))
        fail("intf_getRegDiscription(%s): %s %s %s %s %s", r->name, latin(items.at(1)).c_str(),
             latin(items.at(2)).c_str(), latin(items.at(3)).c_str(), latin(items.at(4)).c_str(),
             latin(items.at(5)).c_str());
}

} // namespace

int runEditorInput(const uint8_t *data, size_t size)
{
    QuietMessages quiet;
    Input in(data, size);
    qint64 entries = 0;
    const int cache = driver.dataAreas.size(), writes = driver.writeJobs.size();
    for (int calls = 0; calls < 64 && !in.atEnd(); ++calls) {
        CallCheck check("editor call", 0);
        switch (in.byte() % 4) {
        case 0:
            checkAddr(in);
            break;
        case 1:
            checkAddrValidity(in);
            break;
        case 2:
            multiCopy(in, entries);
            break;
        default:
            description(in);
            break;
        }
    }
    if (driver.dataAreas.size() != cache || driver.writeJobs.size() != writes)
        fail("an editor call changed the cache or the write queue");
    return 0;
}
