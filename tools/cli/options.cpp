#include "options.h"

#include <QtCore/QCommandLineParser>

#include <cstdio>

namespace kq71cli {

namespace {

const char USAGE[] =
    "usage: kq71 COMMAND [ARGS] [OPTIONS]\n"
    "\n"
    "Talks to a KQ71 PLC through the vorn_kq71_ap driver, loaded as the panel loads it.\n"
    "\n"
    "Commands:\n"
    "  watch ADDR...             poll addresses and show their values live\n"
    "  read ADDR...              read once (a condition read) and print the values\n"
    "  write ADDR=VALUE...       write values; VALUE may be a list: D100=1,2,3\n"
    "  recipe write FILE         write a recipe: CSV lines reg,address,length,bufOffset,value...\n"
    "  recipe read FILE          read the recipe's items from the PLC and write the CSV back\n"
    "  registers                 list the registers the driver knows\n"
    "  check ADDR...             check addresses as the panel editor does\n"
    "\n"
    "Addresses are typed as in the panel editor: D100:10 (ten words), X20:8 (octal X/Y),\n"
    "200CC200:2 (two 32-bit values), M8000.\n"
    "\n"
    "Link (default: the simulated PLC in process):\n"
    "  --sim                     use the simulated PLC\n"
    "  --sim-move                let the watched values move\n"
    "  --sim-faults LIST         e.g. drop=0.1,cut=0.05,bad-crc=0.05,exception=0.02,noise=0.05,\n"
    "                            echo=0.05,wrong-station=0.01,wrong-function=0.01,delay=0.05,\n"
    "                            delay-ms=300, or all=P\n"
    "  --sim-seed N              seed of the simulated faults (1)\n"
    "  --sim-station N           station the simulated PLC answers (--station)\n"
    "  --sim-strict              simulated PLC keeps the standard Modbus request limits\n"
    "  --sim-state FILE          keep the simulated PLC's memory in FILE between runs\n"
    "  --sim-fast                do not run the simulated line in real time\n"
    "  --port DEV                serial port\n"
    "  --baud N --data N --parity NONE|EVEN|ODD --stop N\n"
    "                            serial settings (default: the driver's, 19200,8,NONE,2)\n"
    "  --tcp HOST[:PORT]         RTU frames over TCP (port: the driver's default)\n"
    "\n"
    "Driver:\n"
    "  --driver FILE             the driver library (default: $KQ71_DRIVER, next to kq71, the build's, or the installed one)\n"
    "  --station N               PLC station (1)\n"
    "  --retries N               sends of one frame before its job is given up (3)\n"
    "  --gap N                   largest address gap bridged when merging reads (16)\n"
    "  --timeout MS              response timeout (200)\n"
    "  --device-id N             this driver instance's id (1)\n"
    "\n"
    "Output and ending:\n"
    "  --json                    one JSON object per line\n"
    "  --debug                   show the driver's debug lines\n"
    "  --count N                 watch: stop after N polls of every address\n"
    "  --seconds S               watch: stop after S seconds\n"
    "  -o, --output FILE         recipe read: write the CSV here ('-' for stdout)\n"
    "  --write                   check: check for writing\n"
    "\n"
    "Exit status: 0 done, 1 refused or failed, 2 link cannot be opened, 3 driver cannot be loaded,\n"
    "64 bad command line.\n";

bool toInt(const QString &text, int lo, int hi, int *out)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    if (!ok || v < lo || v > hi)
        return false;
    *out = v;
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
        output(QStringList{"o", "output"}, "", "FILE"), forWrite("write");
    p.addOptions({help, sim, simMove, simStrict, simFast, simFaults, simSeed, simStation, simState, port, baud, data,
                  parity, stop, tcp, driver, station, retries, gap, timeout, deviceId, json, count, seconds, output,
                  forWrite, debug});
    p.addPositionalArgument("command", "");

    auto fail = [&](const QString &why) {
        std::fprintf(stderr, "kq71: %s\n(kq71 --help lists the commands and options)\n", qPrintable(why));
        *exitCode = EXIT_USAGE;
        return false;
    };
    if (!p.parse(argv))
        return fail(p.errorText());
    if (p.isSet(help)) {
        std::fputs(USAGE, stdout);
        *exitCode = EXIT_OK;
        return false;
    }
    const QStringList pos = p.positionalArguments();
    if (pos.isEmpty())
        return fail("no command given");
    o->command = pos.first();
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
    o->simMove = p.isSet(simMove);
    o->simStrict = p.isSet(simStrict);
    o->simFast = p.isSet(simFast);
    o->simFaults = p.value(simFaults);
    o->simState = p.value(simState);
    o->output = p.value(output);
    o->forWrite = p.isSet(forWrite);

    if (!o->port.isEmpty() && !o->tcp.isEmpty())
        return fail("name one link: --port or --tcp");
    if (p.isSet(sim) && !o->useSim())
        return fail("--sim cannot go with --port or --tcp");
    return true;
}

} // namespace kq71cli
