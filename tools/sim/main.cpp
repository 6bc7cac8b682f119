// kq71-sim: serves the simulated PLC on a pseudo-terminal and/or a TCP port
// (raw RTU frames, no MBAP header). One poll() loop, no threads.

#include "plc_simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

using namespace kq71sim;

namespace {

// A request that stops arriving for this long is over (RTU's inter-frame
// silence, with room for a scheduler's hiccups).
const std::int64_t SILENCE_US = 20000;

struct Config {
    SimOptions sim;
    bool pty = false;
    std::string link;
    bool tcp = false;
    int port = 8000;
    std::string bind = "127.0.0.1";
    bool move = false;
    int baud = 0;
    bool quiet = false;
    double durationSec = 0;
};

struct Outgoing {
    std::int64_t dueUs;
    QByteArray bytes;
};

struct Peer {
    int fd = -1;
    std::string name;
    bool stays = false;  // the pty: one line for the whole run
    RtuFramer framer;
    std::int64_t lastRxUs = 0;
    std::int64_t lineFreeUs = 0;  // when the last scheduled reply has gone out
    std::deque<Outgoing> out;
};

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char c = 0;
    ssize_t ignored = write(signalPipe[1], &c, 1);
    (void)ignored;
}

std::int64_t nowUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string hex(const QByteArray &b)
{
    return b.toHex(' ').toUpper().toStdString();
}

void usage(FILE *to)
{
    std::fputs(
        "usage: kq71-sim [OPTIONS]\n"
        "\n"
        "Serves a simulated KQ71 PLC that speaks Modbus RTU, on a pseudo-terminal and/or as raw\n"
        "RTU frames over TCP (no MBAP header). With neither --pty nor --tcp: TCP port 8000 on\n"
        "127.0.0.1. Prints where it listens (\"PTY /dev/pts/N\", \"TCP ADDR:PORT\") on its first lines,\n"
        "each request and reply on stderr (unless --quiet), and its statistics when it stops.\n"
        "\n"
        "Where:\n"
        "  --pty                 serve on a new pseudo-terminal; use its path as the serial port\n"
        "  --link PATH           also make PATH a symbolic link to that pseudo-terminal (implies --pty)\n"
        "  --tcp [PORT]          serve RTU over TCP on PORT (0..65535, 0: any free port; default 8000)\n"
        "  --bind ADDR           the IPv4 address to listen on (default 127.0.0.1)\n"
        "\n"
        "The PLC:\n"
        "  --station N           the station it answers, 1..255 (default 1)\n"
        "  --strict              refuse requests beyond the standard Modbus limits (2000 bits,\n"
        "                        125 registers read; 1968 bits, 123 registers written)\n"
        "  --move                let values move: D0..D3 count, M0..M7 toggle, D10 waves\n"
        "  --baud N              pace replies as a line of N baud would (50..4000000; default: at once)\n"
        "  --duration SEC        stop by itself after SEC seconds (default: on SIGINT or SIGTERM)\n"
        "  --quiet               do not log requests and replies\n"
        "\n"
        "Line faults, each a probability P from 0 to 1 per request:\n"
        "  --drop P              no reply\n"
        "  --cut P               a reply cut short\n"
        "  --bad-crc P           a reply with a wrong checksum\n"
        "  --wrong-station P     a reply from another station\n"
        "  --wrong-function P    a reply with another function code\n"
        "  --exception P         an exception reply\n"
        "  --noise P             a reply with noise bytes around it\n"
        "  --echo P              the request echoed back\n"
        "  --delay P             a late reply (see --delay-ms)\n"
        "  --delay-ms MS         how late a delayed reply is, 0..60000 (default 300)\n"
        "  --seed N              seed of the faults (default 1)\n"
        "\n"
        "  -h, --help            this text\n"
        "\n"
        "Exit status: 0 stopped, 1 cannot serve (the system's reason is printed), 64 wrong options.\n",
        to);
}

bool toNumber(const char *text, double lo, double hi, double &out)
{
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (errno || end == text || *end || !(v >= lo && v <= hi))
        return false;
    out = v;
    return true;
}

bool parse(int argc, char **argv, Config &c)
{
    struct Rate { const char *name; double *field; };
    FaultRates &f = c.sim.faults;
    const Rate rates[] = {{"--drop", &f.drop}, {"--cut", &f.cut}, {"--bad-crc", &f.badCrc},
                          {"--wrong-station", &f.wrongStation}, {"--wrong-function", &f.wrongFunction},
                          {"--exception", &f.exception}, {"--noise", &f.noise}, {"--echo", &f.echo},
                          {"--delay", &f.delay}};
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char *next = i + 1 < argc ? argv[i + 1] : nullptr;
        double v = 0;
        auto number = [&](double lo, double hi) {
            if (!next || !toNumber(next, lo, hi, v)) {
                std::fprintf(stderr, "kq71-sim: %s needs a number from %g to %g, not \"%s\"\n", a.c_str(), lo, hi,
                             next ? next : "");
                return false;
            }
            ++i;
            return true;
        };
        const Rate *rate = nullptr;
        for (const Rate &r : rates)
            if (a == r.name)
                rate = &r;
        if (rate) {
            if (!number(0, 1))
                return false;
            *rate->field = v;
        } else if (a == "--pty") {
            c.pty = true;
        } else if (a == "--link") {
            if (!next) {
                std::fprintf(stderr, "kq71-sim: --link needs a path\n");
                return false;
            }
            c.pty = true;
            c.link = argv[++i];
        } else if (a == "--tcp") {
            c.tcp = true;
            // The port is optional: a following option is not one.
            if (next && next[0] != '-') {
                if (!toNumber(next, 0, 65535, v) || v != double(int(v))) {
                    std::fprintf(stderr, "kq71-sim: --tcp takes a port from 0 to 65535, not \"%s\"\n", next);
                    return false;
                }
                c.port = int(v);
                ++i;
            }
        } else if (a == "--bind") {
            in_addr probe;
            if (!next || inet_pton(AF_INET, next, &probe) != 1) {
                std::fprintf(stderr, "kq71-sim: --bind takes an IPv4 address such as 127.0.0.1, not \"%s\"\n",
                             next ? next : "");
                return false;
            }
            c.bind = argv[++i];
        } else if (a == "--station") {
            if (!number(1, 255))
                return false;
            c.sim.station = int(v);
        } else if (a == "--seed") {
            if (!number(0, 4294967295.0))
                return false;
            c.sim.seed = std::uint32_t(v);
        } else if (a == "--delay-ms") {
            if (!number(0, 60000))
                return false;
            f.delayMs = int(v);
        } else if (a == "--baud") {
            if (!number(50, 4000000))
                return false;
            c.baud = int(v);
        } else if (a == "--duration") {
            if (!number(0, 1e7))
                return false;
            c.durationSec = v;
        } else if (a == "--strict") {
            c.sim.strict = true;
        } else if (a == "--move") {
            c.move = true;
        } else if (a == "--quiet") {
            c.quiet = true;
        } else if (a == "--help" || a == "-h") {
            usage(stdout);
            std::exit(0);
        } else {
            std::fprintf(stderr, "kq71-sim: unknown option %s\n", a.c_str());
            return false;
        }
    }
    if (!c.pty && !c.tcp)
        c.tcp = true;
    return true;
}

void setNonBlocking(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// Opens a pty pair in raw mode. The slave stays open here too, so the master
// does not hang up while no client has it open.
bool openPty(int &master, int &slaveKeep, std::string &path)
{
    master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        return false;
    const char *name = ptsname(master);
    if (!name)
        return false;
    path = name;
    slaveKeep = open(name, O_RDWR | O_NOCTTY);
    if (slaveKeep < 0)
        return false;
    termios t;
    if (tcgetattr(slaveKeep, &t) != 0)
        return false;
    cfmakeraw(&t);
    if (tcsetattr(slaveKeep, TCSANOW, &t) != 0)
        return false;
    setNonBlocking(master);
    fcntl(slaveKeep, F_SETFD, FD_CLOEXEC);
    return true;
}

// The listening socket, or -1 with errno kept from the call that failed.
int openListener(const Config &c, int &port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(std::uint16_t(c.port));
    if (inet_pton(AF_INET, c.bind.c_str(), &sa.sin_addr) != 1) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0) {
        const int why = errno;
        close(fd);
        errno = why;
        return -1;
    }
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
    port = ntohs(sa.sin_port);
    setNonBlocking(fd);
    return fd;
}

std::string linkedTo(const std::string &link)
{
    char target[4096];
    const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, size_t(n)) : std::string();
}

class Server {
public:
    explicit Server(const Config &c) : cfg_(c), sim_(c.sim) {}

    void addPeer(int fd, const std::string &name, bool stays)
    {
        auto p = std::make_unique<Peer>();
        p->fd = fd;
        p->name = name;
        p->stays = stays;
        peers_.push_back(std::move(p));
    }

    PlcSimulator &sim() { return sim_; }
    int run(int listener);

private:
    void handle(Peer &p, const QByteArray &frame);
    void sendDue(Peer &p, std::int64_t now);
    void dropPeer(size_t i);

    const Config &cfg_;
    PlcSimulator sim_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::int64_t clockUs_ = 0;
};

void Server::handle(Peer &p, const QByteArray &frame)
{
    const SimReply r = sim_.answer(frame);
    if (!cfg_.quiet) {
        std::fprintf(stderr, "%s rx %s\n", p.name.c_str(), hex(frame).c_str());
        std::fprintf(stderr, "%s tx %s%s%s\n", p.name.c_str(), r.bytes.isEmpty() ? "(none)" : hex(r.bytes).c_str(),
                     r.faulted ? "  fault: " : "", r.faulted ? faultName(r.fault) : "");
    }
    if (r.bytes.isEmpty())
        return;
    const std::int64_t now = nowUs();
    std::int64_t due = std::max(now, p.lineFreeUs) + std::int64_t(r.delayMs) * 1000;
    if (cfg_.baud > 0) {
        const double charUs = 11e6 / cfg_.baud;
        due += std::int64_t((r.bytes.size() + 3.5) * charUs);
    }
    p.lineFreeUs = due;
    p.out.push_back(Outgoing{due, r.bytes});
}

void Server::sendDue(Peer &p, std::int64_t now)
{
    while (!p.out.empty() && p.out.front().dueUs <= now) {
        const QByteArray &b = p.out.front().bytes;
        const ssize_t n = write(p.fd, b.constData(), size_t(b.size()));
        if (n != ssize_t(b.size()) && !cfg_.quiet)
            std::fprintf(stderr, "%s: reply not sent whole (%s)\n", p.name.c_str(),
                         n < 0 ? std::strerror(errno) : "line full");
        p.out.pop_front();
    }
}

void Server::dropPeer(size_t i)
{
    if (!cfg_.quiet)
        std::fprintf(stderr, "%s closed\n", peers_[i]->name.c_str());
    close(peers_[i]->fd);
    peers_.erase(peers_.begin() + long(i));
}

int Server::run(int listener)
{
    const std::int64_t start = nowUs();
    const std::int64_t endUs = cfg_.durationSec > 0 ? start + std::int64_t(cfg_.durationSec * 1e6) : 0;
    clockUs_ = start;
    int clients = 0;
    for (;;) {
        const std::int64_t now = nowUs();
        if (endUs && now >= endUs)
            return 0;
        // The memory's clock runs in whole milliseconds of the monotonic clock.
        const std::int64_t stepMs = (now - clockUs_) / 1000;
        if (stepMs > 0) {
            sim_.advance(int(std::min<std::int64_t>(stepMs, 1 << 30)));
            clockUs_ += stepMs * 1000;
        }

        std::int64_t wakeUs = now + 200000;
        if (endUs)
            wakeUs = std::min(wakeUs, endUs);
        for (auto &p : peers_) {
            if (!p->out.empty())
                wakeUs = std::min(wakeUs, p->out.front().dueUs);
            if (p->framer.pending())
                wakeUs = std::min(wakeUs, p->lastRxUs + SILENCE_US);
        }

        std::vector<pollfd> fds;
        fds.push_back({signalPipe[0], POLLIN, 0});
        if (listener >= 0)
            fds.push_back({listener, POLLIN, 0});
        const size_t firstPeer = fds.size();
        for (auto &p : peers_)
            fds.push_back({p->fd, POLLIN, 0});
        const int timeoutMs = int(std::max<std::int64_t>(0, (wakeUs - now + 999) / 1000));
        if (poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) {
            std::perror("kq71-sim: poll");
            return 1;
        }
        if (fds[0].revents)
            return 0;

        if (listener >= 0 && (fds[1].revents & POLLIN)) {
            sockaddr_in sa{};
            socklen_t len = sizeof sa;
            const int fd = accept(listener, reinterpret_cast<sockaddr *>(&sa), &len);
            if (fd >= 0) {
                setNonBlocking(fd);
                char addr[INET_ADDRSTRLEN] = "?";
                inet_ntop(AF_INET, &sa.sin_addr, addr, sizeof addr);
                addPeer(fd, "tcp#" + std::to_string(++clients) + "(" + addr + ":" +
                                std::to_string(ntohs(sa.sin_port)) + ")", false);
                if (!cfg_.quiet)
                    std::fprintf(stderr, "%s connected\n", peers_.back()->name.c_str());
            }
        }

        // Peers added by accept() above have no entry in fds this round.
        const size_t polled = fds.size() - firstPeer;
        for (size_t i = polled; i-- > 0;) {
            Peer &p = *peers_[i];
            const short ev = fds[firstPeer + i].revents;
            if (ev & (POLLIN | POLLHUP | POLLERR)) {
                char buf[4096];
                const ssize_t n = read(p.fd, buf, sizeof buf);
                if (n > 0) {
                    p.lastRxUs = nowUs();
                    for (const QByteArray &frame : p.framer.feed(QByteArray(buf, int(n))))
                        handle(p, frame);
                } else if (!p.stays && (n == 0 || (errno != EAGAIN && errno != EINTR))) {
                    dropPeer(i);
                    continue;
                }
            }
        }

        const std::int64_t after = nowUs();
        for (auto &p : peers_) {
            if (p->framer.pending() && after - p->lastRxUs >= SILENCE_US)
                handle(*p, p->framer.flush());
            sendDue(*p, after);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    Config cfg;
    if (!parse(argc, argv, cfg)) {
        std::fputs("(kq71-sim --help describes the options)\n", stderr);
        return 64;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    if (pipe(signalPipe) != 0)
        return 1;
    setNonBlocking(signalPipe[0]);
    setNonBlocking(signalPipe[1]);
    struct sigaction sa{};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Server server(cfg);
    int master = -1, slaveKeep = -1, listener = -1;
    std::string ptyPath;
    if (cfg.pty) {
        std::string &path = ptyPath;
        if (!openPty(master, slaveKeep, path)) {
            std::fprintf(stderr, "kq71-sim: --pty: cannot open a pseudo-terminal: %s\n", std::strerror(errno));
            return 1;
        }
        std::printf("PTY %s\n", path.c_str());
        std::fflush(stdout);
        if (!cfg.link.empty()) {
            struct stat st;
            if (lstat(cfg.link.c_str(), &st) == 0 && S_ISLNK(st.st_mode))
                unlink(cfg.link.c_str());  // a stale link of an earlier run; never a file
            if (symlink(path.c_str(), cfg.link.c_str()) != 0) {
                std::fprintf(stderr, "kq71-sim: --link %s: %s\n", cfg.link.c_str(), std::strerror(errno));
                return 1;
            }
            std::printf("LINK %s\n", cfg.link.c_str());
        }
        server.addPeer(master, "pty", true);
    }
    if (cfg.tcp) {
        int port = 0;
        listener = openListener(cfg, port);
        if (listener < 0) {
            std::fprintf(stderr, "kq71-sim: --tcp %d --bind %s: cannot listen: %s\n", cfg.port, cfg.bind.c_str(),
                         std::strerror(errno));
            return 1;
        }
        std::printf("TCP %s:%d\n", cfg.bind.c_str(), port);
    }
    if (cfg.move) {
        // D0..D3 count, M0..M7 toggle, D10 waves (wire addresses).
        const int D = 0x4338, M = 0x0200;
        for (int i = 0; i < 4; ++i)
            server.sim().addCounter(D + i);
        for (int i = 0; i < 8; ++i)
            server.sim().addToggle(M + i);
        server.sim().addWave(D + 10);
        std::printf("MOVE counters D0..D3 (0x%04X..0x%04X) +1/100ms, toggles M0..M7 (0x%04X..0x%04X) /500ms, "
                    "wave D10 (0x%04X) 0..1000/10s\n", D, D + 3, M, M + 7, D + 10);
    }
    std::printf("station %d, %s limits, seed %u\n", cfg.sim.station, cfg.sim.strict ? "standard" : "long",
                unsigned(cfg.sim.seed));
    std::fflush(stdout);

    const int rc = server.run(listener);

    const SimStats &s = server.sim().stats();
    std::string byFault;
    for (int f = FaultDrop; f < FaultKinds; ++f)
        if (s.byFault[f])
            byFault += std::string(" ") + faultName(Fault(f)) + "=" + std::to_string(s.byFault[f]);
    std::printf("stats: requests=%llu replies=%llu exceptions=%llu ignored=%llu broadcasts=%llu faults=%llu%s\n",
                (unsigned long long)s.requests, (unsigned long long)s.replies,
                (unsigned long long)s.exceptions, (unsigned long long)s.ignored,
                (unsigned long long)s.broadcasts, (unsigned long long)s.faults, byFault.c_str());
    std::fflush(stdout);
    if (!cfg.link.empty() && linkedTo(cfg.link) == ptyPath)
        unlink(cfg.link.c_str());
    if (listener >= 0)
        close(listener);
    if (slaveKeep >= 0)
        close(slaveKeep);
    return rc;
}
