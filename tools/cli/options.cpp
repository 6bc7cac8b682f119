#include "options.h"

#include "help.h"

#include <QtCore/QCommandLineParser>

#include <cstdio>

namespace kq71cli {

namespace {

bool toInt(const QString &text, int lo, int hi, int *out)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    if (!ok || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// "500ms", "2s", "1.5" (seconds), "1m", "0".
bool toDurationMs(const QString &text, int *out)
{
    QString t = text.trimmed().toLower();
    double scale = 1000;
    if (t.endsWith("ms")) {
        scale = 1;
        t.chop(2);
    } else if (t.endsWith('s')) {
        t.chop(1);
    } else if (t.endsWith('m')) {
        scale = 60000;
        t.chop(1);
    }
    bool ok = false;
    const double v = t.toDouble(&ok) * scale;
    if (!ok || !(v >= 0) || v > 86400000.0)
        return false;
    *out = int(v + 0.5);
    return true;
}

} // namespace

bool parseOptions(const QStringList &argv, Options *o, int *exitCode)
{
    QCommandLineParser p;
    p.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help(QStringList{"h", "help"});
    const QCommandLineOption sim("sim"), simMove("sim-move"), simStrict("sim-strict"), simFast("sim-fast");
    const QCommandLineOption simFaults("sim-faults", "", "LIST"), simSeed("sim-seed", "", "N"),
        simStation("sim-station", "", "N"), simState("sim-state", "", "FILE");
    const QCommandLineOption port("port", "", "DEV"), baud("baud", "", "N"), data("data", "", "N"),
        parity("parity", "", "P"), stop("stop", "", "N"), tcp("tcp", "", "HOST:PORT");
    const QCommandLineOption driver("driver", "", "FILE"), station("station", "", "N"), retries("retries", "", "N"),
        gap("gap", "", "N"), timeout("timeout", "", "MS"), deviceId("device-id", "", "N");
    const QCommandLineOption debug("debug");
    const QCommandLineOption json("json"), count("count", "", "N"), seconds("seconds", "", "S"),
        interval("interval", "", "DURATION"), output(QStringList{"o", "output"}, "", "FILE"), forWrite("write"),
        version("version");
    p.addOptions({help, sim, simMove, simStrict, simFast, simFaults, simSeed, simStation, simState, port, baud, data,
                  parity, stop, tcp, driver, station, retries, gap, timeout, deviceId, json, count, seconds, interval,
                  output, forWrite, debug, version});
    p.addPositionalArgument("command", "");
    const kq71bridge::BridgeCommandLine bridge;
    bridge.add(p);

    auto fail = [&](const QString &why) {
        std::fprintf(stderr, "kq71: %s\n(kq71 --help lists the commands and options)\n", qPrintable(why));
        *exitCode = EXIT_USAGE;
        return false;
    };
    if (!p.parse(argv))
        return fail(p.errorText());
    const QStringList pos = p.positionalArguments();
    auto show = [&](const QString &text) {
        std::fputs(qPrintable(text), stdout);
        *exitCode = EXIT_OK;
        return false;
    };
    // "COMMAND --help" gives the command's own page; a command without one
    // gets the overview. "help COMMAND" is answered by main(), which knows
    // the commands.
    if (p.isSet(help)) {
        const QString page = pos.isEmpty() ? QString() : commandHelp(pos.first());
        return show(page.isEmpty() ? overviewHelp() : page);
    }
    o->showVersion = p.isSet(version);
    if (pos.isEmpty() && !o->showVersion)
        return fail("no command given");
    o->command = pos.value(0);
    o->args = pos.mid(1);

    struct IntOption {
        const QCommandLineOption &option;
        int *field;
        int lo, hi;
    };
    const IntOption ints[] = {
        {station, &o->station, 0, 255},      {retries, &o->retries, 1, 100},    {gap, &o->gap, 1, 128},
        {timeout, &o->timeoutMs, 1, 60000},  {deviceId, &o->deviceId, 0, 1 << 30},
        {baud, &o->baud, 50, 4000000},       {data, &o->dataBits, 5, 8},         {stop, &o->stopBits, 1, 2},
        {simStation, &o->simStation, 0, 255}, {count, &o->count, 1, 1 << 30},
    };
    for (const IntOption &i : ints) {
        if (p.isSet(i.option) && !toInt(p.value(i.option), i.lo, i.hi, i.field))
            return fail(QString("--%1 needs a whole number from %2 to %3, not \"%4\"")
                            .arg(i.option.names().first())
                            .arg(i.lo)
                            .arg(i.hi)
                            .arg(p.value(i.option)));
    }
    if (p.isSet(simSeed)) {
        bool ok = false;
        o->simSeed = p.value(simSeed).toUInt(&ok);
        if (!ok)
            return fail("--sim-seed needs a whole number");
    }
    QString why;
    if (!bridge.read(p, &o->bridge, &why))
        return fail(why);
    if (p.isSet(interval) && !toDurationMs(p.value(interval), &o->intervalMs))
        return fail(QString("--interval needs a duration such as 500ms, 2s or 0, not \"%1\"").arg(p.value(interval)));
    if (p.isSet(seconds)) {
        bool ok = false;
        o->seconds = p.value(seconds).toDouble(&ok);
        if (!ok || o->seconds <= 0)
            return fail("--seconds needs a positive number");
    }
    o->driverPath = p.value(driver);
    o->json = p.isSet(json);
    o->debug = p.isSet(debug);
    o->port = p.value(port);
    o->tcp = p.value(tcp);
    o->parity = p.value(parity).toUpper();
    if (!o->parity.isEmpty() && o->parity != "NONE" && o->parity != "EVEN" && o->parity != "ODD")
        return fail(QString("--parity takes NONE, EVEN or ODD, not \"%1\"").arg(p.value(parity)));
    o->simMove = p.isSet(simMove);
    o->simStrict = p.isSet(simStrict);
    o->simFast = p.isSet(simFast);
    o->simFaults = p.value(simFaults);
    o->simState = p.value(simState);
    o->output = p.value(output);
    o->forWrite = p.isSet(forWrite);

    if (!o->tcp.isEmpty()) {
        const int colon = o->tcp.lastIndexOf(':');
        int tcpPort = 0;
        if (colon >= 0 && !toInt(o->tcp.mid(colon + 1), 1, 65535, &tcpPort))
            return fail(QString("--tcp %1: the port must be a number from 1 to 65535").arg(o->tcp));
    }
    if (!o->port.isEmpty() && !o->tcp.isEmpty())
        return fail("name one link: --port or --tcp");
    if (p.isSet(sim) && !o->useSim())
        return fail("--sim cannot go with --port or --tcp");
    return true;
}

} // namespace kq71cli
