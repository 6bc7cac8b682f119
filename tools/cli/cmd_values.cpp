// read and write: one-off transfers through the driver's queues.
#include "commands.h"
#include "output.h"

#include <QtCore/QJsonArray>

#include <cstring>

namespace kq71cli {

using namespace kq71rt;

namespace {

bool parseValue(const QString &text, UnitKind kind, quint32 *raw, QString *error)
{
    const QString t = text.trimmed().toLower();
    bool ok = false;
    if (kind == UnitKind::Bit) {
        if (t == "1" || t == "on" || t == "true")
            *raw = 1;
        else if (t == "0" || t == "off" || t == "false")
            *raw = 0;
        else {
            *error = QString("\"%1\" is not a bit value (0 or 1)").arg(text);
            return false;
        }
        return true;
    }
    const bool dword = kind == UnitKind::DoubleWord;
    if (dword && (t.contains('.') || t.contains('e')) && !t.startsWith("0x")) {
        const float f = t.toFloat(&ok);
        if (ok) {
            std::memcpy(raw, &f, sizeof f);
            return true;
        }
    }
    const qlonglong v = t.startsWith("0x") ? qlonglong(t.mid(2).toULongLong(&ok, 16))
                        : t.startsWith("-0x") ? -qlonglong(t.mid(3).toULongLong(&ok, 16))
                                               : t.toLongLong(&ok, 10);
    const qlonglong lo = dword ? -2147483648LL : -32768, hi = dword ? 4294967295LL : 65535;
    if (!ok || v < lo || v > hi) {
        *error = QString("\"%1\" is not a %2 value (%3..%4%5)")
                     .arg(text, dword ? "32-bit" : "16-bit")
                     .arg(lo)
                     .arg(hi)
                     .arg(dword ? ", or a float such as 1.5" : "");
        return false;
    }
    *raw = quint32(v);
    return true;
}

void appendValue(QByteArray &bytes, UnitKind kind, quint32 raw)
{
    const int n = kind == UnitKind::Bit ? 1 : kind == UnitKind::DoubleWord ? 4 : 2;
    for (int i = 0; i < n; ++i)
        bytes.append(char(raw >> (8 * i) & 0xFF));
}

struct WriteItem {
    TypedAddress target;
    QByteArray bytes;
    QVector<quint32> values;
    QString failure;
};

// Whether a job of the driver covers part of the target (both in units of the register).
bool overlaps(const Exchange &ex, int station, const TypedAddress &target)
{
    return ex.station == station && ex.regName == target.regName && ex.address < target.address + target.count &&
           target.address < ex.address + qMax(ex.length, 1);
}

} // namespace

int cmdRead(Session &s)
{
    if (s.options.args.isEmpty()) {
        printError(s.options.json, "read: name at least one address, e.g. kq71 read D100:4");
        return EXIT_USAGE;
    }
    QVector<TypedAddress> targets;
    if (!s.resolve(s.options.args, ACCESS_READ, &targets))
        return EXIT_USAGE;
    Runtime &rt = *s.runtime;
    // Condition reads count bit keys in 16-bit words (a key of length n asks
    // for 16 n bits), so they cannot ask for 20 bits. Bits are read through a
    // plan of their own instead, whose keys count bits: each planned block is
    // read once, asking for exactly the bits named.
    QList<KEY_ADDRESS> bitKeys;
    int conditionJobs = 0;
    for (const TypedAddress &target : targets) {
        const KEY_ADDRESS key = watchKey(s.options.station, target);
        if (target.kind == UnitKind::Bit) {
            bitKeys << key;
        } else {
            KEY_ADDRESS copy = key;
            rt.conditionRead(copy, READ_JOB_ID);
            conditionJobs += (key.length + s.options.gap - 1) / s.options.gap;
        }
    }
    const int planJobs = bitKeys.isEmpty() ? 0 : rt.watch(bitKeys);

    int batchEnd = conditionJobs > 0 ? 1 : 0;  // 1 waiting, 0 read, -1 given up
    int planDone = 0, jobsDone = 0;
    QString failure;
    Progress progress(s.options.json, "read", conditionJobs + planJobs);
    const auto done = [&] {
        for (int end : rt.takeBatchEnds())
            batchEnd = end;
        return (batchEnd != 1 && planDone >= planJobs) || batchEnd == -1 || !failure.isEmpty();
    };
    // A read given up before the last one drops the batch without an end signal.
    const auto watchJobs = [&](const Exchange &ex) {
        if (ex.write || (ex.result != 1 && ex.result != 2))
            return;
        progress.update(++jobsDone);
        if (ex.jobId == CYCLIC_READ_ID)
            ++planDone;
        if (ex.result == 2 && failure.isEmpty())
            failure = ex.describe();
    };
    const bool finished = s.run(done, s.worstCaseMs(conditionJobs + planJobs + 8), watchJobs);
    progress.finish();
    if (!finished || batchEnd == -1 || !failure.isEmpty()) {
        if (failure.isEmpty())
            failure = interrupted() ? "interrupted" : batchEnd == -1 ? rt.stats().lastError : "no answer in time";
        printError(s.options.json, QString("read failed after %1 tries: %2").arg(s.options.retries).arg(failure));
        return EXIT_FAILED;
    }
    const QString time = isoTime(QDateTime::currentDateTimeUtc());
    for (const TypedAddress &target : targets) {
        const QByteArray bytes = rt.read(s.options.station, target.regName, target.address, target.driverLength());
        for (const UnitValue &v : decodeValues(target, bytes)) {
            if (s.options.json) {
                QJsonObject o = valueJson(v);
                o["type"] = "value";
                o["time"] = time;
                o["quality"] = "good";
                printJson(o);
            } else {
                printLine(QString("%1 = %2").arg(v.name, valueText(v)));
            }
        }
    }
    return EXIT_OK;
}

int cmdWrite(Session &s)
{
    if (s.options.args.isEmpty()) {
        printError(s.options.json, "write: name at least one ADDR=VALUE, e.g. kq71 write D100=5");
        return EXIT_USAGE;
    }
    QVector<WriteItem> items;
    bool valid = true;
    for (const QString &arg : s.options.args) {
        const int eq = arg.indexOf('=');
        WriteItem item;
        QString error;
        if (eq <= 0 || eq == arg.size() - 1) {
            printError(s.options.json, QString("%1: write takes ADDR=VALUE, e.g. D100=5 or D100=1,2,3").arg(arg));
            valid = false;
            continue;
        }
        const QString addrText = arg.left(eq);
        const QStringList values = arg.mid(eq + 1).split(',');
        if (!parseAddress(addrText, s.catalogue, &item.target, &error)) {
            printError(s.options.json, error);
            valid = false;
            continue;
        }
        if (!addrText.contains(':'))
            item.target.count = values.size();
        else if (values.size() != 1 && values.size() != item.target.count) {
            printError(s.options.json, QString("%1: %2 values given for %3 addresses")
                                           .arg(arg)
                                           .arg(values.size())
                                           .arg(item.target.count));
            valid = false;
            continue;
        }
        // The driver carries at most 1024 value bytes per request.
        const int bytes = item.target.kind == UnitKind::Bit ? item.target.count : 2 * item.target.driverLength();
        if (bytes > KQ71_DATA_BYTES) {
            printError(s.options.json, QString("%1: at most 1024 bits or 512 words in one write").arg(arg));
            valid = false;
            continue;
        }
        const int code = checkAddress(s.driver, &item.target, ACCESS_WRITE);
        if (code != 0) {
            printError(s.options.json,
                       QString("%1: %2").arg(item.target.text, checkFailureText(code, item.target, s.catalogue)));
            valid = false;
            continue;
        }
        for (int i = 0; i < item.target.count; ++i) {
            quint32 raw = 0;
            if (!parseValue(values[values.size() == 1 ? 0 : i], item.target.kind, &raw, &error)) {
                printError(s.options.json, QString("%1: %2").arg(arg, error));
                valid = false;
                break;
            }
            item.values << raw;
            appendValue(item.bytes, item.target.kind, raw);
        }
        items << item;
    }
    if (!valid)
        return EXIT_USAGE;

    Runtime &rt = *s.runtime;
    for (const WriteItem &item : items)
        rt.write(s.options.station, item.target.regName, item.target.address, item.target.driverLength(), item.bytes,
                 WRITE_JOB_ID);
    rt.takeReports();  // the cache's own echo of the values just written

    // The driver has nothing to send once every write job is settled.
    bool drained = false;
    const qint64 budget = s.worstCaseMs(4 * items.size() + 4);
    const qint64 endUs = s.link->clockUs() + budget * 1000;
    Progress progress(s.options.json, "write, requests", 0);
    int requests = 0;
    while (!drained && !interrupted() && s.link->clockUs() <= endUs) {
        const Exchange ex = rt.step();
        if (ex.result == 1 || ex.result == 2)
            progress.update(++requests);
        if (rt.drained()) {
            drained = true;
            break;
        }
        if (!ex.write || ex.jobId != WRITE_JOB_ID || ex.result != 2)
            continue;
        for (WriteItem &item : items)
            if (overlaps(ex, s.options.station, item.target) && item.failure.isEmpty())
                item.failure = ex.describe();
    }

    progress.finish();
    int status = EXIT_OK;
    for (const WriteItem &item : items) {
        QString failure = item.failure;
        if (!drained && failure.isEmpty())
            failure = interrupted() ? "interrupted" : "not acknowledged in time";
        if (!failure.isEmpty())
            status = EXIT_FAILED;
        QJsonArray values;
        QStringList texts;
        for (const UnitValue &v : decodeValues(item.target, item.bytes)) {
            values.append(double(v.raw));
            texts << QString::number(v.raw);
        }
        if (s.options.json) {
            QJsonObject o{{"type", "write"}, {"name", item.target.unitName(0)}, {"reg", item.target.regName},
                          {"address", item.target.address}, {"values", values}, {"ok", failure.isEmpty()}};
            if (!failure.isEmpty())
                o["error"] = failure;
            printJson(o);
        } else if (failure.isEmpty()) {
            QString shown = texts.mid(0, 8).join(',');
            if (texts.size() > 8)
                shown += QString(",... (%1 values)").arg(texts.size());
            printLine(QString("%1 = %2: written").arg(item.target.unitName(0), shown));
        } else {
            printError(false, QString("%1: write failed: %2").arg(item.target.unitName(0), failure));
        }
    }
    // A write given up lets the value fall back to what was last read.
    for (const ChangeReport &r : rt.takeReports()) {
        TypedAddress one;
        one.regName = r.regName;
        one.address = r.address;
        one.kind = unitKindOf(r.regName);
        const QByteArray b = rt.read(r.station, r.regName, r.address, one.driverLength());
        const UnitValue v = decodeValues(one, b).value(0);
        if (s.options.json) {
            QJsonObject o = valueJson(v);
            o["type"] = "fallback";
            printJson(o);
        } else {
            printLine(QString("%1 falls back to %2").arg(v.name, valueText(v)));
        }
    }
    return status;
}

} // namespace kq71cli
