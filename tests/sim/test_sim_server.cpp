// The kq71-sim executable, run as a client would use it: over its pty and TCP.
#include <gtest/gtest.h>

#include <QtCore/QByteArray>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

QByteArray hex(const char *text) { return QByteArray::fromHex(QByteArray(text)); }
std::string show(const QByteArray &b) { return b.toHex(' ').toUpper().toStdString(); }

int msLeft(Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? int(left) : 0;
}

// Reads until `count` bytes came or the time is up.
QByteArray readBytes(int fd, int count, int timeoutMs = 3000)
{
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    QByteArray got;
    while (got.size() < count) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, msLeft(deadline)) <= 0)
            break;
        char buf[512];
        const ssize_t n = read(fd, buf, std::min<size_t>(sizeof buf, size_t(count - got.size())));
        if (n <= 0)
            break;
        got.append(buf, int(n));
    }
    return got;
}

std::string readLine(int fd, int timeoutMs = 5000)
{
    std::string line;
    for (;;) {
        const QByteArray c = readBytes(fd, 1, timeoutMs);
        if (c.isEmpty() || c[0] == '\n')
            return line;
        line += c[0];
    }
}

void writeAll(int fd, const QByteArray &b)
{
    ASSERT_EQ(write(fd, b.constData(), size_t(b.size())), ssize_t(b.size()));
}

// The simulator as a child process, its stdout on a pipe; stopped at the end.
class SimProcess {
public:
    explicit SimProcess(std::vector<std::string> args)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], 1);
            const int devnull = open("/dev/null", O_WRONLY);
            dup2(devnull, 2);
            close(fds[0]);
            std::vector<char *> argv{const_cast<char *>(KQ71_SIM_EXE)};
            for (auto &a : args)
                argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execv(KQ71_SIM_EXE, argv.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~SimProcess()
    {
        // pid_ stays > 0 only while the child is unreaped: never kill(-1).
        if (pid_ > 0 && stop(2000) < 0 && pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (out_ >= 0)
            close(out_);
    }
    int out() const { return out_; }

    // SIGTERM and wait: the exit code, or -1 when it did not end in time.
    int stop(int timeoutMs = 3000)
    {
        if (pid_ <= 0)
            return -1;
        kill(pid_, SIGTERM);
        return wait(timeoutMs);
    }
    int wait(int timeoutMs)
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        int status = 0;
        while (Clock::now() < deadline) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
    std::string restOfOutput()
    {
        std::string all;
        for (std::string l = readLine(out_, 1000); !l.empty(); l = readLine(out_, 1000))
            all += l + "\n";
        return all;
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

TEST(SimulatorServer, AnswersOverThePseudoTerminalAndStopsOnSigterm)
{
    SimProcess sim({"--pty", "--quiet"});
    const std::string first = readLine(sim.out());
    ASSERT_EQ(first.rfind("PTY /dev/", 0), 0u) << first;

    const int fd = open(first.substr(4).c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    termios t;
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    cfmakeraw(&t);
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &t), 0);

    const QByteArray write06 = hex("01 06 43 9C 12 34 51 17");
    writeAll(fd, write06);
    EXPECT_EQ(show(readBytes(fd, 8)), show(write06));

    // Garbage is dropped at the silence; the next request is answered.
    writeAll(fd, hex("FF FF"));
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    writeAll(fd, hex("01 03 43 9C 00 01 51 A0"));
    EXPECT_EQ(show(readBytes(fd, 7)), "01 03 02 12 34 B5 33");

    // A request for another station gets nothing back.
    writeAll(fd, hex("02 03 43 9C 00 01 51 93"));
    EXPECT_TRUE(readBytes(fd, 1, 200).isEmpty());
    close(fd);

    EXPECT_EQ(sim.stop(), 0);
    EXPECT_NE(sim.restOfOutput().find("replies=2 "), std::string::npos);
}

TEST(SimulatorServer, ServesRawRtuFramesToTcpClientsSharingOneMemory)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--duration", "20"});
    const std::string first = readLine(sim.out());
    ASSERT_EQ(first.rfind("TCP 127.0.0.1:", 0), 0u) << first;
    const int port = std::stoi(first.substr(14));

    auto connectTo = [port] {
        const int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(std::uint16_t(port));
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return connect(s, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 ? s : -1;
    };
    const int a = connectTo(), b = connectTo();
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);

    // Two requests in one write come back as two replies.
    writeAll(a, hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4") + hex("01 03 43 9C 00 03 D0 61"));
    EXPECT_EQ(show(readBytes(a, 8 + 11)), "01 10 43 9C 00 02 94 62 01 03 06 00 01 00 02 00 00 BD 75");

    writeAll(b, hex("01 03 43 9C 00 01 51 A0"));
    EXPECT_EQ(show(readBytes(b, 7)), "01 03 02 00 01 79 84");
    close(a);
    close(b);
    EXPECT_EQ(sim.stop(), 0);
}

TEST(SimulatorServer, EndsByItselfAfterItsDuration)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--move", "--duration", "0.3"});
    EXPECT_EQ(sim.wait(5000), 0);
    const std::string out = sim.restOfOutput();
    EXPECT_NE(out.find("MOVE counters D0..D3"), std::string::npos) << out;
    EXPECT_NE(out.find("stats: requests=0"), std::string::npos) << out;
}

} // namespace
