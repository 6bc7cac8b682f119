// registers and check: the editor side of the driver, no link needed.
#include "commands.h"
#include "output.h"

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

} // namespace

int cmdRegisters(Session &s)
{
    if (!s.options.json)
        printLine(QString("%1 %2 %3 %4 %5 %6").arg("REG", -6).arg("KIND", -7).arg("RADIX", -8).arg("MIN", -5)
                      .arg("MAX", -5).arg("ACCESS"));
    for (const RegisterInfo &r : s.catalogue) {
        if (s.options.json) {
            printJson(QJsonObject{{"type", "register"}, {"reg", r.name}, {"kind", kindText(r.kind)},
                                  {"radix", radixText(r.format)}, {"format", r.format}, {"min", r.min},
                                  {"max", r.max}, {"access", r.access}});
        } else {
            printLine(QString("%1 %2 %3 %4 %5 %6")
                          .arg(r.name, -6)
                          .arg(kindText(r.kind), -7)
                          .arg(radixText(r.format), -8)
                          .arg(r.min, -5)
                          .arg(r.max, -5)
                          .arg(r.access));
        }
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
        if (s.options.json) {
            QJsonObject o{{"type", "check"}, {"text", text}, {"valid", ok}};
            if (code >= 0)
                o["code"] = code;
            if (ok) {
                o["reg"] = target.regName;
                o["address"] = target.address;
                o["addressText"] = target.addrText;
                o["count"] = target.count;
            } else {
                o["message"] = error;
            }
            printJson(o);
        } else if (ok) {
            printLine(QString("%1: valid, %2 address %3 (%4), %5")
                          .arg(target.text, target.regName, target.addrText,
                               addressRadix(target.regName) == 8 ? "octal" : "decimal")
                          .arg(unitsText(target)));
        } else {
            printError(false, error);
        }
    }
    return status;
}

} // namespace kq71cli
