// registers and check: the editor side of the driver, no link needed.
#include "commands.h"
#include "output.h"

#include <QtCore/QJsonArray>

namespace kq71cli {

using namespace kq71rt;

namespace {

QString kindText(UnitKind k)
{
    switch (k) {
    case UnitKind::Bit:
        return "bit";
    case UnitKind::Word:
        return "16-bit";
    case UnitKind::DoubleWord:
        return "32-bit";
    default:
        return "?";
    }
}

QString radixText(const QString &format)
{
    const QChar c = format.isEmpty() ? QChar('D') : format.back();
    return c == 'O' ? "octal" : c == 'H' ? "hex" : "decimal";
}

QString unitsText(const TypedAddress &target)
{
    switch (target.kind) {
    case UnitKind::Bit:
        return QString("%1 bit%2").arg(target.count).arg(target.count == 1 ? "" : "s");
    case UnitKind::DoubleWord:
        return QString("%1 32-bit value%2").arg(target.count).arg(target.count == 1 ? "" : "s");
    default:
        return QString("%1 16-bit word%2").arg(target.count).arg(target.count == 1 ? "" : "s");
    }
}

QVector<SharedMemory> sharedOf(const MemoryMap &map, const RegisterInfo &r)
{
    const int radix = addressRadix(r.name);
    return map.shared(r.name, r.min.toInt(nullptr, radix), r.max.toInt(nullptr, radix));
}

QJsonArray sharedJson(const QVector<SharedMemory> &shared)
{
    QJsonArray a;
    for (const SharedMemory &m : shared)
        a.append(QJsonObject{{"first", m.first}, {"last", m.last}, {"step", m.step}, {"with", m.otherReg},
                             {"withFirst", m.otherFirst}, {"withLast", m.otherLast}, {"withStep", m.otherStep},
                             {"text", sharedMemoryText(m)}});
    return a;
}

} // namespace

int cmdRegisters(Session &s)
{
    if (!s.options.json)
        printLine(QString("%1 %2 %3 %4 %5 %6 %7").arg("REG", -6).arg("KIND", -7).arg("RADIX", -8).arg("MIN", -5)
                      .arg("MAX", -5).arg("ACCESS", -7).arg("SHARES PLC MEMORY WITH"));
    QStringList details;
    const MemoryMap map(s.catalogue);
    for (const RegisterInfo &r : s.catalogue) {
        const QVector<SharedMemory> shared = sharedOf(map, r);
        if (s.options.json) {
            printJson(QJsonObject{{"type", "register"}, {"reg", r.name}, {"kind", kindText(r.kind)},
                                  {"radix", radixText(r.format)}, {"format", r.format}, {"min", r.min},
                                  {"max", r.max}, {"access", r.access}, {"shared", sharedJson(shared)}});
            continue;
        }
        QStringList others;
        for (const SharedMemory &m : shared) {
            if (!others.contains(m.otherReg))
                others << m.otherReg;
            details << "  " + sharedMemoryText(m);
        }
        printLine(QString("%1 %2 %3 %4 %5 %6 %7")
                      .arg(r.name, -6)
                      .arg(kindText(r.kind), -7)
                      .arg(radixText(r.format), -8)
                      .arg(r.min, -5)
                      .arg(r.max, -5)
                      .arg(r.access, -7)
                      .arg(others.isEmpty() ? QString("-") : others.join(' ')));
    }
    if (!details.isEmpty()) {
        printLine("\nShared PLC memory (writing one changes the other):");
        for (const QString &d : details)
            printLine(d);
    }
    return EXIT_OK;
}

int cmdCheck(Session &s)
{
    if (s.options.args.isEmpty()) {
        printError(s.options.json, "check: name at least one address, e.g. kq71 check D100:10");
        return EXIT_USAGE;
    }
    int status = EXIT_OK;
    const MemoryMap map(s.catalogue);
    for (const QString &text : s.options.args) {
        TypedAddress target;
        QString error;
        int code = -1;
        bool ok = parseAddress(text, s.catalogue, &target, &error);
        if (ok) {
            code = checkAddress(s.driver, &target, s.options.forWrite ? ACCESS_WRITE : ACCESS_READ);
            ok = code == 0;
            if (!ok)
                error = QString("%1: %2").arg(target.text, checkFailureText(code, target, s.catalogue));
        }
        if (!ok)
            status = EXIT_FAILED;
        const QVector<SharedMemory> shared =
            ok ? map.shared(target.regName, target.address, target.address + target.count - 1)
               : QVector<SharedMemory>();
        if (s.options.json) {
            QJsonObject o{{"type", "check"}, {"text", text}, {"valid", ok}};
            if (code >= 0)
                o["code"] = code;
            if (ok) {
                o["reg"] = target.regName;
                o["address"] = target.address;
                o["addressText"] = target.addrText;
                o["count"] = target.count;
                o["shared"] = sharedJson(shared);
            } else {
                o["message"] = error;
            }
            printJson(o);
        } else if (ok) {
            printLine(QString("%1: valid, %2 address %3 (%4), %5")
                          .arg(target.text, target.regName, target.addrText,
                               addressRadix(target.regName) == 8 ? "octal" : "decimal")
                          .arg(unitsText(target)));
            for (const SharedMemory &m : shared)
                printLine("  shares PLC memory: " + sharedMemoryText(m));
        } else {
            printError(false, error);
        }
    }
    return status;
}

} // namespace kq71cli
