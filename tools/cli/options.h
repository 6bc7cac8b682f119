// Command line of kq71.
#ifndef KQ71_CLI_OPTIONS_H
#define KQ71_CLI_OPTIONS_H

#include "bridge_options.h"

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace kq71cli {

enum ExitCode {
    EXIT_OK = 0,
    EXIT_FAILED = 1,     // refused by the PLC, a job given up, values not transferred
    EXIT_LINK = 2,       // port or connection cannot be opened
    EXIT_DRIVER = 3,     // driver library cannot be loaded
    EXIT_USAGE = 64,     // command, option, value or address text wrong
};

struct Options {
    QString command;
    QStringList args;

    QString driverPath;
    bool json = false;
    bool debug = false;

    int station = 1;
    int retries = 3;
    int gap = 16;
    int timeoutMs = 200;
    int deviceId = 1;

    // Link: the simulator unless a port or a TCP address is named. Serial
    // settings of -1 / empty take the driver's defaults.
    QString port;
    QString tcp;
    int baud = -1;
    int dataBits = -1;
    QString parity;
    int stopBits = -1;

    bool simMove = false;
    QString simFaults;
    int simStation = -1;
    unsigned simSeed = 1;
    bool simStrict = false;
    bool simFast = false;
    QString simState;

    bool showVersion = false;

    // watch
    int intervalMs = 500;
    int count = -1;
    double seconds = -1;
    // recipe read
    QString output;
    // check
    bool forWrite = false;
    // bridge
    kq71bridge::BridgeSettings bridge;

    bool useSim() const { return port.isEmpty() && tcp.isEmpty(); }
};

// Fills options from argv. On error, or for help, prints to stderr/stdout and
// returns false with the exit code to use.
bool parseOptions(const QStringList &argv, Options *options, int *exitCode);

} // namespace kq71cli

#endif
