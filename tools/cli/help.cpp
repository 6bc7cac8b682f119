#include "help.h"
#include "bridge_options.h"

namespace kq71cli {

namespace {

const char LINK_OPTIONS[] =
    "Link (default: the simulated PLC in process):\n"
    "  --port DEV                serial port; --baud N --data N --parity NONE|EVEN|ODD --stop N\n"
    "                            (default: the driver's, 19200,8,NONE,2)\n"
    "  --tcp HOST[:PORT]         RTU frames over TCP (port: the driver's default)\n"
    "  --sim                     the simulated PLC; its memory is lost at exit unless\n"
    "  --sim-state FILE          keeps it in FILE between runs\n"
    "  --sim-move                let the watched values move\n"
    "  --sim-faults LIST         a noisy line, e.g. drop=0.1,cut=0.05,bad-crc=0.05,exception=0.02,\n"
    "                            noise=0.05,echo=0.05,wrong-station=0.01,wrong-function=0.01,\n"
    "                            delay=0.05,delay-ms=300, or all=P\n"
    "  --sim-seed N              seed of the simulated faults (1)\n"
    "  --sim-station N           station the simulated PLC answers (--station)\n"
    "  --sim-strict              the simulated PLC keeps the standard Modbus request limits\n"
    "  --sim-fast                do not run the simulated line in real time\n"
    "A lost TCP connection or serial port is opened again, 100 ms after the loss and then\n"
    "at most every 2 s, reported once when it goes and once when it is back.\n";

const char DRIVER_OPTIONS[] =
    "Driver:\n"
    "  --driver FILE             the driver library (default: $KQ71_DRIVER, next to kq71, the build's, or the installed one)\n"
    "  --station N               PLC station (1)\n"
    "  --retries N               sends of one frame before its job is given up (3)\n"
    "  --gap N                   largest address gap bridged when merging reads (16)\n"
    "  --timeout MS              response timeout (200)\n"
    "  --device-id N             this driver instance's id (1)\n"
    "  --debug                   show the driver's debug lines\n";

const char ADDRESSES[] =
    "Addresses are typed as in the panel editor: D100:10 (ten words), X20:8 (eight bits from\n"
    "octal 20), 200CC200:2 (two 32-bit values), M8000.\n";

const char EXIT_STATUS[] =
    "Exit status: 0 done; 1 refused by the PLC, a job given up, values not transferred;\n"
    "2 the link cannot be opened; 3 the driver cannot be loaded; 64 a wrong command line\n"
    "(command, option, value or address text).\n";

struct Page {
    const char *command;
    const char *text;
    bool link;  // talks to the PLC: the link and driver options apply
};

const Page PAGES[] = {
    {"watch",
     "usage: kq71 watch ADDR... [--interval DURATION] [--count N] [--seconds S] [--json] [LINK] [DRIVER]\n"
     "\n"
     "Polls the addresses through the driver's cyclic plan, one round of reads per interval,\n"
     "and shows their values: a live table on a terminal; in a pipe, timed lines for the first\n"
     "round, each change, each change of quality, and the link's and the station's state.\n"
     "\n"
     "Each value is good, stale (its last read was given up, or it is older than three\n"
     "intervals) or never read (shown as ?, JSON null: the driver's 0 means nothing yet).\n"
     "The station is offline after 3 jobs in a row given up, online at its next good reply.\n"
     "\n"
     "Options:\n"
     "  --interval DURATION       start a round of reads this often: 500ms, 2s, 1.5 (seconds);\n"
     "                            0 polls as fast as the line allows (default 500ms)\n"
     "  --count N                 stop after N rounds\n"
     "  --seconds S               stop after S seconds\n"
     "  --json                    JSON lines: each with \"time\" (ISO 8601, UTC, ms); values with\n"
     "                            \"quality\", \"readAt\", \"station\" and \"stationState\"\n"
     "\n"
     "Exits 1 when no read at all succeeded, 2 when the link cannot be opened.\n"
     "\n"
     "Examples:\n"
     "  kq71 watch D100:4 X20:8 --sim-move --seconds 5\n"
     "  kq71 watch D0:4 M0:8 --tcp 127.0.0.1:8000 --interval 1s --json\n",
     true},
    {"read",
     "usage: kq71 read ADDR... [--json] [LINK] [DRIVER]\n"
     "\n"
     "Reads once and prints the values: word and 32-bit registers as condition reads, bits\n"
     "through a plan of their own so that the PLC is asked for exactly the bits named.\n"
     "Shows progress on a terminal when it takes more than a second.\n"
     "\n"
     "Examples:\n"
     "  kq71 read D100:2 --json\n"
     "  kq71 read M0:20 X20:8 --port /dev/ttyUSB0\n",
     true},
    {"write",
     "usage: kq71 write ADDR=VALUE... [--json] [LINK] [DRIVER]\n"
     "\n"
     "Writes values and waits for the PLC to acknowledge each. VALUE is a number (decimal,\n"
     "0x hex, negative), a bit (0, 1, on, off), a float for 32-bit registers (1.5), or a\n"
     "list: D100=1,2,3 writes three words, D100:3=7 writes 7 to each of three.\n"
     "A write the PLC refuses or never acknowledges exits 1, and the value falls back to the\n"
     "one last read.\n"
     "\n"
     "Examples:\n"
     "  kq71 write D100=1234 200CC200=70000\n"
     "  kq71 write Y0:4=1,0,1,1 --tcp 127.0.0.1:8000\n",
     true},
    {"recipe",
     "usage: kq71 recipe write FILE [LINK] [DRIVER]\n"
     "       kq71 recipe read FILE [-o OUT] [--json] [LINK] [DRIVER]\n"
     "\n"
     "A recipe transfer through the runtime's recipe buffer. FILE holds CSV lines\n"
     "reg,address,length,bufOffset,value... (length in 16-bit words, two per 32-bit value;\n"
     "bufOffset in words, empty for the next free place; one value per word or 32-bit value;\n"
     "# starts a comment). `read` takes the items of FILE, reads them from the PLC and prints\n"
     "the CSV with the values read; FILE itself is never written.\n"
     "\n"
     "Options:\n"
     "  -o, --output FILE         recipe read: write the CSV to FILE instead ('-': stdout)\n"
     "  --json                    recipe read: the items as JSON lines instead of CSV\n"
     "\n"
     "Examples:\n"
     "  kq71 recipe write recipe.csv --sim-state plc.state\n"
     "  kq71 recipe read recipe.csv -o now.csv --sim-state plc.state\n",
     true},
    {"registers",
     "usage: kq71 registers [--json] [--driver FILE]\n"
     "\n"
     "Lists the registers the driver knows: unit, radix, range, access, and which other\n"
     "registers share the same PLC memory (writing one changes the other).\n"
     "\n"
     "Example:\n"
     "  kq71 registers\n",
     false},
    {"check",
     "usage: kq71 check ADDR... [--write] [--json] [--driver FILE]\n"
     "\n"
     "Checks addresses as the panel editor does, and says where one shares PLC memory with\n"
     "another register. Exits 1 when the driver refuses any of them.\n"
     "\n"
     "Options:\n"
     "  --write                   check for writing\n"
     "  --json                    one JSON object per address\n"
     "\n"
     "Examples:\n"
     "  kq71 check D100:10 X20:8 X8\n"
     "  kq71 check TC900 --json\n",
     false},
    {"help",
     "usage: kq71 help [COMMAND]\n"
     "\n"
     "Shows the overview, or one command's own options and examples (as COMMAND --help).\n",
     false},
};

const Page *findPage(const QString &command)
{
    for (const Page &p : PAGES)
        if (command == QLatin1String(p.command))
            return &p;
    return nullptr;
}

} // namespace

QString overviewHelp()
{
    return QString("usage: kq71 COMMAND [ARGS] [OPTIONS]\n"
                   "       kq71 help COMMAND | COMMAND --help | --version\n"
                   "\n"
                   "Talks to a KQ71 PLC through the vorn_kq71_ap driver, loaded as the panel loads it.\n"
                   "\n"
                   "Commands:\n"
                   "  watch ADDR...             poll addresses once per interval and show their values live\n"
                   "  read ADDR...              read once and print the values\n"
                   "  write ADDR=VALUE...       write values; VALUE may be a list: D100=1,2,3\n"
                   "  recipe write FILE         write a recipe: CSV lines reg,address,length,bufOffset,value...\n"
                   "  recipe read FILE          read the recipe's items from the PLC and print the CSV\n"
                   "  registers                 list the registers and the PLC memory they share\n"
                   "  check ADDR...             check addresses as the panel editor does\n"
                   "  bridge --mqtt HOST:PORT --root ROOT --tags FILE   publish tags on an MQTT broker, take writes\n"
                   "  help [COMMAND]            this overview, or one command's options and examples\n"
                   "\n") +
           ADDRESSES + "\n" + LINK_OPTIONS + "\n" + DRIVER_OPTIONS +
           "\n"
           "Output:\n"
           "  --json                    JSON lines only on stdout, errors included\n"
           "  --version                 the versions of kq71 and of the driver\n"
           "\n" +
           EXIT_STATUS;
}

QString commandHelp(const QString &command)
{
    if (command == QLatin1String("bridge"))
        return QString(kq71bridge::BRIDGE_USAGE) + "\n" + LINK_OPTIONS + "\n" + DRIVER_OPTIONS + "\n" + EXIT_STATUS;
    const Page *p = findPage(command);
    if (!p)
        return QString();
    QString text = p->text;
    if (p->link)
        text += QString("\n") + LINK_OPTIONS + "\n" + DRIVER_OPTIONS;
    return text + "\n" + EXIT_STATUS;
}

} // namespace kq71cli
