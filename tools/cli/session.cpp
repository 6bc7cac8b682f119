#include "session.h"

#include "output.h"

#include <csignal>

namespace kq71cli {

using namespace kq71rt;

namespace {

volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int) { stopRequested = 1; }

bool parseFaults(const QString &list, kq71sim::FaultRates *rates, QString *error)
{
    struct Rate {
        const char *name;
        double *field;
    };
    const Rate table[] = {{"drop", &rates->drop},
                          {"cut", &rates->cut},
                          {"bad-crc", &rates->badCrc},
                          {"wrong-station", &rates->wrongStation},
                          {"wrong-function", &rates->wrongFunction},
                          {"exception", &rates->exception},
                          {"noise", &rates->noise},
                          {"echo", &rates->echo},
                          {"delay", &rates->delay}};
    for (const QString &item : list.split(',', Qt::SkipEmptyParts)) {
        const int eq = item.indexOf('=');
        const QString name = item.left(eq).trimmed();
        const QString value = eq < 0 ? QString() : item.mid(eq + 1).trimmed();
        bool ok = false;
        if (name == "delay-ms") {
            const int ms = value.toInt(&ok);
            if (!ok || ms < 0) {
                *error = "delay-ms needs milliseconds";
                return false;
            }
            rates->delayMs = ms;
            continue;
        }
        const double p = value.toDouble(&ok);
        if (!ok || p < 0 || p > 1) {
            *error = QString("fault rate \"%1\" needs a probability from 0 to 1").arg(item);
            return false;
        }
        bool known = false;
        for (const Rate &r : table) {
            if (name == r.name || name == "all") {
                *r.field = p;
                known = true;
            }
        }
        if (!known) {
            *error = QString("unknown fault \"%1\"").arg(name);
            return false;
        }
    }
    return true;
}

} // namespace

bool interrupted() { return stopRequested != 0; }

KEY_ADDRESS watchKey(int station, const TypedAddress &target)
{
    KEY_ADDRESS key;
    key.station = station;
    key.regName = target.regName;
    key.address = target.address;
    key.dataType = target.dataType();
    key.length = target.driverLength();
    return key;
}

void installSignalHandlers()
{
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

Session::~Session() { runtime.reset(); }

int Session::finish()
{
    runtime.reset();
    if (!sim || options.simState.isEmpty())
        return EXIT_OK;
    QString error;
    if (saveSimState(*sim, options.simState, &error))
        return EXIT_OK;
    printError(options.json, error);
    return EXIT_FAILED;
}

int Session::loadDriver()
{
    QString error;
    if (!driver.load(DriverLibrary::locate(options.driverPath), &error)) {
        printError(options.json, error);
        return EXIT_DRIVER;
    }
    catalogue = registerCatalogue(driver);
    return EXIT_OK;
}

int Session::connect()
{
    const DriverDefaults d = driver.defaults();
    const int baud = options.baud > 0 ? options.baud : d.baud;
    QString error;
    if (options.useSim()) {
        kq71sim::SimOptions so;
        so.station = options.simStation >= 0 ? options.simStation : options.station;
        so.strict = options.simStrict;
        so.seed = options.simSeed;
        if (!parseFaults(options.simFaults, &so.faults, &error)) {
            printError(options.json, "--sim-faults: " + error);
            return EXIT_USAGE;
        }
        sim.reset(new kq71sim::PlcSimulator(so));
        if (!options.simState.isEmpty() && !loadSimState(*sim, options.simState, &error)) {
            printError(options.json, error);
            return EXIT_FAILED;
        }
        SimLinkOptions lo;
        lo.baud = baud;
        lo.pace = !options.simFast;
        link.reset(new SimLink(*sim, lo));
    } else if (!options.port.isEmpty()) {
        SerialSettings s;
        s.device = options.port;
        s.baud = baud;
        s.dataBits = options.dataBits > 0 ? options.dataBits : d.dataBits;
        s.parity = options.parity.isEmpty() ? d.parity : options.parity;
        s.stopBits = options.stopBits > 0 ? options.stopBits : d.stopBits;
        link.reset(new SerialLink(s));
    } else {
        QString host = options.tcp;
        int port = d.port;
        const int colon = host.lastIndexOf(':');
        if (colon >= 0) {
            bool ok = false;
            port = host.mid(colon + 1).toInt(&ok);
            if (!ok) {
                printError(options.json, QString("--tcp %1: the port must be a number").arg(options.tcp));
                return EXIT_USAGE;
            }
            host = host.left(colon);
        }
        if (host.isEmpty())
            host = d.host;
        link.reset(new TcpLink(host, port));
    }
    if (!link->open(&error)) {
        printError(options.json, error);
        return EXIT_LINK;
    }
    RuntimeOptions ro;
    ro.deviceId = options.deviceId;
    ro.retries = options.retries;
    ro.gap = options.gap;
    ro.timeoutMs = options.timeoutMs;
    runtime.reset(new Runtime(driver, *link, ro));
    runtime->start();
    return EXIT_OK;
}

bool Session::resolve(const QStringList &texts, int access, QVector<TypedAddress> *targets)
{
    bool all = true;
    for (const QString &t : texts) {
        TypedAddress target;
        QString error;
        if (resolveAddress(driver, catalogue, t, access, &target, &error))
            targets->append(target);
        else {
            printError(options.json, error);
            all = false;
        }
    }
    return all;
}

qint64 Session::worstCaseMs(int jobs) const
{
    // Every send of every job waits out the timeout, plus line time for long frames.
    return qint64(qMax(jobs, 1)) * options.retries * (options.timeoutMs + 700) + 2000;
}

bool Session::run(const std::function<bool()> &done, qint64 budgetMs,
                  const std::function<void(const Exchange &)> &onExchange)
{
    const qint64 endUs = link->clockUs() + budgetMs * 1000;
    while (!done()) {
        if (interrupted() || link->clockUs() > endUs)
            return false;
        const Exchange ex = runtime->step();
        if (!ex.sent)
            link->idle(2000);
        else if (onExchange)
            onExchange(ex);
    }
    return true;
}

} // namespace kq71cli
