#include "address_text.h"

#include <QtCore/QHash>

namespace kq71rt {

QList<RegisterInfo> registerCatalogue(const DriverLibrary &lib)
{
    QList<QString> names;
    lib.getRegListByType(0, &names);
    lib.getRegListByType(1, &names);
    QList<RegisterInfo> out;
    for (const QString &name : names) {
        QString n = name;
        QList<QString> d;
        lib.getRegDiscription(&n, &d);
        RegisterInfo r;
        r.name = name;
        if (d.size() >= 5) {
            r.format = d[0];
            r.min = d[1];
            r.max = d[2];
            r.kind = d[3] == "0" ? UnitKind::Bit : d[3] == "2" ? UnitKind::DoubleWord : UnitKind::Word;
            r.access = d[4] == "0" ? "R" : d[4] == "2" ? "W" : "RW";
        }
        out << r;
    }
    return out;
}

const RegisterInfo *findRegister(const QList<RegisterInfo> &catalogue, const QString &name)
{
    for (const RegisterInfo &r : catalogue)
        if (r.name == name)
            return &r;
    return nullptr;
}

int driverDataType(UnitKind kind)
{
    switch (kind) {
    case UnitKind::Bit:
        return -1;
    case UnitKind::DoubleWord:
        return 1;
    default:
        return 0;
    }
}

int driverLength(UnitKind kind, int units) { return kind == UnitKind::DoubleWord ? 2 * units : units; }

QString TypedAddress::unitName(int i) const { return kq71rt::unitName(regName, address + i); }

bool parseAddress(const QString &text, const QList<RegisterInfo> &catalogue, TypedAddress *target, QString *error)
{
    *target = TypedAddress();
    target->text = text.trimmed();
    QString body = target->text.toUpper();
    const int colon = body.indexOf(':');
    if (colon >= 0) {
        bool ok = false;
        target->count = body.mid(colon + 1).toInt(&ok);
        if (!ok || target->count < 1) {
            *error = QString("%1: the count after ':' must be a whole number of at least 1").arg(target->text);
            return false;
        }
        body = body.left(colon);
    }
    const int dot = body.indexOf('.');
    if (dot >= 0) {
        bool ok = false;
        target->bitInWord = body.mid(dot + 1).toInt(&ok);
        if (!ok || target->bitInWord < 0 || target->bitInWord >= BITS_IN_WORD) {
            *error = QString("%1: the bit after '.' must be a number from 0 to 15").arg(target->text);
            return false;
        }
        body = body.left(dot);
    }
    // The longest name wins: "200CC200" is 200CC 200, not 200C "C200".
    int best = -1;
    for (int i = 0; i < catalogue.size(); ++i) {
        const QString &n = catalogue[i].name;
        if (body.startsWith(n) && body.size() > n.size() && (best < 0 || n.size() > catalogue[best].name.size()))
            best = i;
    }
    if (best >= 0) {
        target->regName = catalogue[best].name;
        target->kind = catalogue[best].kind;
    } else {
        // Not a register we know: let the driver say so, split where digits start.
        int digits = 0;
        while (digits < body.size() && !body[digits].isDigit())
            ++digits;
        if (digits == 0 && body.size() > 0) {
            for (const RegisterInfo &r : catalogue)
                if (body == r.name) {
                    *error = QString("%1: the address is missing after %2").arg(target->text, r.name);
                    return false;
                }
        }
        target->regName = body.left(digits);
        if (target->regName.isEmpty()) {
            *error = QString("%1: no register name").arg(target->text);
            return false;
        }
    }
    target->addrText = body.mid(target->regName.size());
    if (target->addrText.isEmpty()) {
        *error = QString("%1: the address is missing after %2").arg(target->text, target->regName);
        return false;
    }
    if (target->bitInWord >= 0) {
        if (target->kind != UnitKind::Word) {
            *error = QString("%1: bits in words are only on 16-bit registers (D, V, Z, TC, TP, CC, CP)")
                         .arg(target->text);
            return false;
        }
        target->kind = UnitKind::Bit;
    }
    return true;
}

int checkAddress(const DriverLibrary &lib, TypedAddress *target, int access)
{
    QString reg = target->regName, addr = target->addrText;
    int number = -1;
    if (target->bitInWord >= 0) {
        const int words = (target->bitInWord + target->count + BITS_IN_WORD - 1) / BITS_IN_WORD;
        const int code = lib.checkAddr(&reg, &addr, &number, 0, words, access);
        if (code == 0) {
            target->regName = bitInWordRegister(target->regName);
            target->address = number * BITS_IN_WORD + target->bitInWord;
        }
        return code;
    }
    const int code = lib.checkAddr(&reg, &addr, &number, target->dataType(), target->driverLength(), access);
    if (code == 0)
        target->address = number;
    return code;
}

QString checkFailureText(int code, const TypedAddress &target, const QList<RegisterInfo> &catalogue)
{
    const RegisterInfo *r = findRegister(catalogue, target.regName);
    const QString radix = addressRadix(target.regName) == 8 ? "octal" : "decimal";
    switch (code) {
    case 1:
        return target.kind == UnitKind::Bit
                   ? QString("%1 is a bit register and cannot hold a word").arg(target.regName)
                   : QString("%1 is a word register and cannot hold a bit").arg(target.regName);
    case 2: {
        const QString range = r ? QString("%1%2..%1%3").arg(target.regName, r->min, r->max) : QString();
        if (target.count > 1)
            return QString("address out of range: %1 values from %2%3 do not fit in %4")
                .arg(target.count)
                .arg(target.regName, target.addrText, range);
        return QString("address out of range: %1%2 is not in %3").arg(target.regName, target.addrText, range);
    }
    case 3: {
        QStringList names;
        for (const RegisterInfo &i : catalogue)
            names << i.name;
        return QString("unknown register \"%1\" (known: %2)").arg(target.regName, names.join(' '));
    }
    case 4:
        return QString("\"%1\" is not %2 %3 number (%4 addresses are %3)")
            .arg(target.addrText, radix == "octal" ? "an" : "a", radix, target.regName);
    case 5:
        return QString("this data type is not allowed on the 32-bit register %1").arg(target.regName);
    case 6:
        return QString("%1 is read-only").arg(target.regName);
    default:
        return QString("refused by the driver (code %1)").arg(code);
    }
}

namespace {

// The PLC memory units a register's unit covers: one bit, one register, or
// two for a 32-bit value. Bits and registers are separate spaces.
QVector<qint64> wiresOf(const QString &reg, int address)
{
    const UnitPlace p = placeOf(reg, address);
    if (p.wire < 0)
        return {};
    const qint64 space = p.kind == UnitKind::Bit ? 0 : qint64(1) << 32;
    if (p.kind == UnitKind::DoubleWord)
        return {space + p.wire, space + p.wire + 1};
    return {space + p.wire};
}

bool rangeOf(const RegisterInfo &r, int *lo, int *hi)
{
    bool ok1 = false, ok2 = false;
    *lo = r.min.toInt(&ok1, addressRadix(r.name));
    *hi = r.max.toInt(&ok2, addressRadix(r.name));
    return ok1 && ok2 && *lo <= *hi;
}

} // namespace

MemoryMap::MemoryMap(const QList<RegisterInfo> &catalogue)
{
    for (const RegisterInfo &r : catalogue) {
        int lo = 0, hi = -1;
        if (!rangeOf(r, &lo, &hi))
            continue;
        QHash<qint64, int> &units = units_[r.name];
        for (int a = lo; a <= hi; ++a)
            for (qint64 w : wiresOf(r.name, a))
                units.insert(w, a);
        names_ << r.name;
    }
}

QVector<SharedMemory> MemoryMap::shared(const QString &reg, int first, int last) const
{
    QVector<SharedMemory> out;
    for (const QString &other : names_) {
        if (other == reg)
            continue;
        const QHash<qint64, int> &units = units_[other];
        SharedMemory run;
        bool open = false;
        int lastOther = 0;
        bool otherEvery2nd = true;
        const auto close = [&] {
            if (run.first == run.last)
                run.step = 1;
            if (otherEvery2nd && run.otherFirst != run.otherLast)
                run.otherStep = 2;
            out << run;
        };
        for (int a = first; a <= last; ++a) {
            int b = -1;
            for (qint64 w : wiresOf(reg, a)) {
                const auto it = units.constFind(w);
                if (it != units.constEnd()) {
                    b = *it;
                    break;
                }
            }
            if (b < 0)
                continue;
            // One run while both sides move on by at most two units (V and Z
            // interleave, a 32-bit value covers two words).
            const int da = a - run.last, db = b - lastOther;
            if (open && da <= 2 && db >= 0 && db <= 2 && (run.first == run.last || da == run.step)) {
                run.step = da;
                otherEvery2nd = otherEvery2nd && db == 2;
                run.last = a;
                lastOther = b;
                run.otherFirst = qMin(run.otherFirst, b);
                run.otherLast = qMax(run.otherLast, b);
                continue;
            }
            if (open)
                close();
            open = true;
            run = SharedMemory{reg, a, a, 1, other, b, b, 1};
            lastOther = b;
            otherEvery2nd = true;
        }
        if (open)
            close();
    }
    return out;
}

QString sharedMemoryText(const SharedMemory &m)
{
    const auto span = [](const QString &reg, int first, int last) {
        return first == last ? unitName(reg, first) : unitName(reg, first) + ".." + unitName(reg, last);
    };
    QString mine = span(m.reg, m.first, m.last);
    if (m.step == 2)
        mine += " (every 2nd)";
    QString other = span(m.otherReg, m.otherFirst, m.otherLast);
    if (m.otherStep == 2)
        other += " (every 2nd)";
    return mine + " = " + other;
}

bool resolveAddress(const DriverLibrary &lib, const QList<RegisterInfo> &catalogue, const QString &text, int access,
                    TypedAddress *target, QString *error)
{
    if (!parseAddress(text, catalogue, target, error))
        return false;
    const int code = checkAddress(lib, target, access);
    if (code != 0) {
        *error = QString("%1: %2").arg(target->text, checkFailureText(code, *target, catalogue));
        return false;
    }
    return true;
}

} // namespace kq71rt
