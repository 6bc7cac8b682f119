#include "sim_link.h"

#include "plc_map.h"

#include <QtCore/QFile>
#include <QtCore/QSaveFile>
#include <QtCore/QTextStream>
#include <QtCore/QThread>

namespace kq71rt {

SimLink::SimLink(kq71sim::PlcSimulator &sim, const SimLinkOptions &options) : sim_(sim), options_(options) {}

bool SimLink::open(QString *)
{
    real_.start();
    return true;
}

QString SimLink::describe() const
{
    return QString("simulated PLC, station %1, %2 baud%3")
        .arg(sim_.options().station)
        .arg(options_.baud)
        .arg(options_.pace ? "" : " (virtual time)");
}

void SimLink::pass(qint64 us)
{
    clockUs_ += us;
    const qint64 ms = clockUs_ / 1000;
    if (ms > advancedMs_) {
        sim_.advance(int(qMin<qint64>(ms - advancedMs_, 1 << 30)));
        advancedMs_ = ms;
    }
    if (options_.pace && real_.isValid()) {
        const qint64 ahead = clockUs_ - real_.nsecsElapsed() / 1000;
        if (ahead > 0)
            QThread::usleep(static_cast<unsigned long>(ahead));
    }
}

void SimLink::idle(qint64 us)
{
    if (us > 0)
        pass(us);
}

QByteArray SimLink::exchange(const QByteArray &request, int expected, int timeoutMs)
{
    linkError_.clear();
    if (request.isEmpty())
        return QByteArray();
    const qint64 charUs = charTimeUs(options_.baud);
    const qint64 gapUs = frameGapUs(options_.baud);
    // Same budget as a real line: the timeout plus the reply's own time.
    const qint64 budgetUs = timeoutMs * 1000LL + charUs * qMax(expected, 0);
    qint64 us = gapUs + charUs * request.size();

    const kq71sim::SimReply r = sim_.answer(request);
    QByteArray got;
    const qint64 delayUs = r.delayMs * 1000LL;
    if (!r.bytes.isEmpty() && delayUs < budgetUs) {
        // The bytes arrive one character time apart after the delay; the
        // runtime stops reading once the reply is complete or time runs out.
        int taken = 0;
        for (int n = 1; n <= r.bytes.size(); ++n) {
            if (delayUs + charUs * n > budgetUs)
                break;
            taken = n;
            if (completeReplyLength(r.bytes.left(n), expected) > 0)
                break;
        }
        got = r.bytes.left(taken);
        const qint64 waited = completeReplyLength(got, expected) > 0 ? delayUs + charUs * taken : budgetUs;
        // Bytes the PLC still sends keep the line busy before the next frame.
        us += qMax(waited, delayUs + charUs * r.bytes.size());
    } else {
        us += budgetUs;
    }
    us += gapUs;
    wireUs_ += us;
    pass(us);
    return got;
}

void addMovers(kq71sim::PlcSimulator &sim, const QString &regName, int address, int units)
{
    const QString word = wordRegisterOfBits(regName);
    if (!word.isEmpty()) {
        // Bits inside words move with counters on the words holding them.
        if (unitKindOf(regName) != UnitKind::Bit || address < 0 || units <= 0)
            return;
        const int first = address / BITS_IN_WORD, last = (address + units - 1) / BITS_IN_WORD;
        for (int w = first; w <= last; ++w)
            sim.addCounter(placeOf(word, w).wire);
        return;
    }
    for (int i = 0; i < units; ++i) {
        const UnitPlace p = placeOf(regName, address + i);
        switch (p.kind) {
        case UnitKind::Bit:
            sim.addToggle(p.wire);
            break;
        case UnitKind::Word:
            if (i % 2)
                sim.addWave(p.wire);
            else
                sim.addCounter(p.wire);
            break;
        case UnitKind::DoubleWord:
            sim.addCounter(p.wire);
            break;
        case UnitKind::Unknown:
            break;
        }
    }
}

bool saveSimState(const kq71sim::PlcSimulator &sim, const QString &path, QString *error)
{
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Text)) {
        *error = QString("cannot write %1: %2").arg(path, f.errorString());
        return false;
    }
    QTextStream out(&f);
    out << "# simulated PLC memory: bit|reg WIRE-ADDRESS VALUE\n";
    for (int a = 0; a < kq71sim::PlcSimulator::BIT_SPACE; ++a)
        if (sim.bit(a))
            out << "bit " << a << " 1\n";
    for (int a = 0; a < kq71sim::PlcSimulator::REGISTER_SPACE; ++a)
        if (sim.reg(a))
            out << "reg " << a << ' ' << sim.reg(a) << '\n';
    out.flush();
    if (!f.commit()) {
        *error = QString("cannot write %1: %2").arg(path, f.errorString());
        return false;
    }
    return true;
}

bool loadSimState(kq71sim::PlcSimulator &sim, const QString &path, QString *error)
{
    QFile f(path);
    if (!f.exists())
        return true;  // a first run starts from a cleared PLC
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) {
        *error = QString("cannot read %1: %2").arg(path, f.errorString());
        return false;
    }
    int lineNo = 0;
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        ++lineNo;
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QStringList p = line.split(' ', Qt::SkipEmptyParts);
        bool okA = false, okV = false;
        const int a = p.size() == 3 ? p[1].toInt(&okA) : -1;
        const int v = p.size() == 3 ? p[2].toInt(&okV) : -1;
        if (!okA || !okV || (p[0] != "bit" && p[0] != "reg")) {
            *error = QString("%1:%2: expected 'bit|reg ADDRESS VALUE'").arg(path).arg(lineNo);
            return false;
        }
        if (p[0] == "bit")
            sim.setBit(a, v != 0);
        else
            sim.setReg(a, quint16(v));
    }
    return true;
}

} // namespace kq71rt
