// kq71_soak: the fault soak as a program. Prints one summary line and exits
// non-zero when a check failed.
#include "fault_soak.h"

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Built with AddressSanitizer the allocator keeps freed memory in
// quarantine, so resident memory says nothing about leaks.
#if defined(__SANITIZE_ADDRESS__)
const bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
const bool SANITIZED = true;
#else
const bool SANITIZED = false;
#endif
#else
const bool SANITIZED = false;
#endif

const std::uint64_t QUICK_EXCHANGES = 100000;

void usage(FILE *to)
{
    fprintf(to,
            "usage: kq71_soak [options]\n"
            "  --exchanges N       frames sent with faults on (default 1000000)\n"
            "  --quick             the CI run: %llu exchanges, lists switched every 2000\n"
            "  --seed N            seed of the faults and of the work (default 1)\n"
            "  --fault-rate R      share of replies spoiled, spread over the nine kinds (default 0.18)\n"
            "  --drop R, --cut R, --bad-crc R, --wrong-station R, --wrong-function R,\n"
            "  --exception R, --noise R, --echo R, --delay R\n"
            "                      the rate of one kind, after --fault-rate\n"
            "  --retries N         the driver's retry limit (default 3)\n"
            "  --switch-every N    exchanges between watch-list changes (default 5000)\n"
            "  --driver PATH       the driver library (default: the one this build made)\n"
            "  --no-memory-check   leave resident memory unchecked (under Valgrind, whose own\n"
            "                      memory grows with the program's)\n"
            "  --progress          a line on stderr every tenth of the run\n",
            (unsigned long long)QUICK_EXCHANGES);
}

// Debug lines of the driver's planning and write queue would swamp the run.
void quiet(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type != QtDebugMsg)
        fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

bool number(const char *text, double lo, double hi, double &out)
{
    char *end = nullptr;
    const double v = strtod(text, &end);
    if (!end || *end || end == text || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quiet);

    kq71soak::SoakConfig config;
    config.faults = kq71soak::evenFaults(0.18, config.timeoutMs);
    config.checkMemory = !SANITIZED;
    QString driverPath;
    bool exchangesGiven = false, quick = false, switchGiven = false;

    struct Rate {
        const char *option;
        double kq71sim::FaultRates::*field;
    };
    const Rate rates[] = {{"--drop", &kq71sim::FaultRates::drop},
                          {"--cut", &kq71sim::FaultRates::cut},
                          {"--bad-crc", &kq71sim::FaultRates::badCrc},
                          {"--wrong-station", &kq71sim::FaultRates::wrongStation},
                          {"--wrong-function", &kq71sim::FaultRates::wrongFunction},
                          {"--exception", &kq71sim::FaultRates::exception},
                          {"--noise", &kq71sim::FaultRates::noise},
                          {"--echo", &kq71sim::FaultRates::echo},
                          {"--delay", &kq71sim::FaultRates::delay}};

    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        double v = 0;
        auto need = [&](double lo, double hi) {
            if (!value || !number(value, lo, hi, v)) {
                fprintf(stderr, "kq71_soak: %s needs a number from %g to %g\n", a.c_str(), lo, hi);
                exit(2);
            }
            ++i;
        };
        const Rate *rate = nullptr;
        for (const Rate &r : rates)
            if (a == r.option)
                rate = &r;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--quick") {
            quick = true;
        } else if (a == "--progress") {
            config.progress = true;
        } else if (a == "--no-memory-check") {
            config.checkMemory = false;
        } else if (a == "--exchanges") {
            need(1, 1e12);
            config.exchanges = std::uint64_t(v);
            exchangesGiven = true;
        } else if (a == "--seed") {
            need(0, 4294967295.0);
            config.seed = std::uint32_t(v);
        } else if (a == "--fault-rate") {
            need(0, 1);
            config.faults = kq71soak::evenFaults(v, config.timeoutMs);
        } else if (rate) {
            need(0, 1);
            config.faults.*(rate->field) = v;
        } else if (a == "--retries") {
            need(1, 100);
            config.retries = int(v);
        } else if (a == "--switch-every") {
            need(1, 1e9);
            config.switchEvery = int(v);
            switchGiven = true;
        } else if (a == "--driver" && value) {
            driverPath = QString::fromLocal8Bit(value);
            ++i;
        } else {
            fprintf(stderr, "kq71_soak: unknown argument %s\n", a.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (quick && !exchangesGiven)
        config.exchanges = QUICK_EXCHANGES;
    if (quick && !switchGiven)
        config.switchEvery = 2000;

    kq71rt::DriverLibrary driver;
    QString error;
    if (!driver.load(driverPath.isEmpty() ? QString(KQ71_DRIVER_FILE) : driverPath, &error)) {
        fprintf(stderr, "kq71_soak: %s\n", error.toLocal8Bit().constData());
        return 2;
    }
    fprintf(stderr, "kq71_soak: %s, %llu exchanges, seed %u\n", driver.path().toLocal8Bit().constData(),
            (unsigned long long)config.exchanges, config.seed);

    const kq71soak::SoakResult result = kq71soak::runFaultSoak(driver, config);
    for (const QString &f : result.failures)
        fprintf(stderr, "FAILED: %s\n", f.toLocal8Bit().constData());
    printf("%s\n", kq71soak::summaryLine(result, config.checkMemory).toLocal8Bit().constData());
    return result.passed() ? 0 : 1;
}
