// The kq71-sim executable, run as a client would use it: over its pty and TCP.
#include "sim_process.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

namespace {

QByteArray hex(const char *text) { return QByteArray::fromHex(QByteArray(text)); }
std::string show(const QByteArray &b) { return b.toHex(' ').toUpper().toStdString(); }

// Reads until `count` bytes came or nothing came for timeoutMs.
QByteArray readBytes(int fd, int count, int timeoutMs = 3000)
{
    QByteArray got;
    char buf[512];
    for (pollfd p{fd, POLLIN, 0}; got.size() < count && poll(&p, 1, timeoutMs) > 0;) {
        const ssize_t n = read(fd, buf, std::min<size_t>(sizeof buf, size_t(count - got.size())));
        if (n <= 0)
            break;
        got.append(buf, int(n));
    }
    return got;
}

TEST(SimulatorServer, AnswersOverThePseudoTerminalAndStopsOnSigterm)
{
    SimProcess sim({"--pty", "--quiet"});
    ASSERT_TRUE(sim.first.startsWith("PTY /dev/")) << sim.first.toStdString();
    const int fd = open(sim.first.mid(4).toLocal8Bit().constData(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    termios t;
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    cfmakeraw(&t);
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &t), 0);

    const QByteArray write06 = hex("01 06 43 9C 12 34 51 17");
    ASSERT_EQ(write(fd, write06.constData(), 8), 8);
    EXPECT_EQ(show(readBytes(fd, 8)), show(write06));
    // Garbage is dropped at the silence; the next request is answered.
    ASSERT_EQ(write(fd, "\xFF\xFF", 2), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    ASSERT_EQ(write(fd, hex("01 03 43 9C 00 01 51 A0").constData(), 8), 8);
    EXPECT_EQ(show(readBytes(fd, 7)), "01 03 02 12 34 B5 33");
    // A request for another station gets nothing back.
    ASSERT_EQ(write(fd, hex("02 03 43 9C 00 01 51 93").constData(), 8), 8);
    EXPECT_TRUE(readBytes(fd, 1, 200).isEmpty());
    close(fd);

    ASSERT_TRUE(sim.stop());
    EXPECT_EQ(sim.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(sim.exitCode(), 0);
    EXPECT_TRUE(sim.readAllStandardOutput().contains("replies=2 "));
}

TEST(SimulatorServer, ServesRawRtuFramesToTcpClientsSharingOneMemory)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--duration", "20"});
    ASSERT_TRUE(sim.first.startsWith("TCP 127.0.0.1:")) << sim.first.toStdString();
    auto connectTo = [port = sim.first.mid(14).toInt()] {
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
    const QByteArray two = hex("01 10 43 9C 00 02 04 00 01 00 02 0F A4 01 03 43 9C 00 03 D0 61");
    ASSERT_EQ(write(a, two.constData(), size_t(two.size())), two.size());
    EXPECT_EQ(show(readBytes(a, 8 + 11)), "01 10 43 9C 00 02 94 62 01 03 06 00 01 00 02 00 00 BD 75");
    ASSERT_EQ(write(b, hex("01 03 43 9C 00 01 51 A0").constData(), 8), 8);
    EXPECT_EQ(show(readBytes(b, 7)), "01 03 02 00 01 79 84");
    close(a);
    close(b);
    ASSERT_TRUE(sim.stop());
    EXPECT_EQ(sim.exitCode(), 0);
}

TEST(SimulatorServer, EndsByItselfAfterItsDuration)
{
    SimProcess sim({"--tcp", "0", "--quiet", "--move", "--duration", "0.3"});
    ASSERT_TRUE(sim.waitForFinished(5000));
    EXPECT_EQ(sim.exitCode(), 0);
    const std::string out = sim.readAllStandardOutput().toStdString();
    EXPECT_NE(out.find("MOVE counters D0..D3"), std::string::npos) << out;
    EXPECT_NE(out.find("stats: requests=0"), std::string::npos) << out;
}

// Wrong options exit 64 naming the option; a refusal of the system names
// the option and the system's reason; --help describes every option.
TEST(SimulatorServer, OptionsAreDescribedAndTheirErrorsNamed)
{
    struct Case {
        QStringList args;
        int status;
        const char *text;
    };
    const Case cases[] = {
        {{"--tcp", "99999"}, 64, "--tcp takes a port from 0 to 65535, not \"99999\""},
        {{"--bind", "300.1.1.1"}, 64, "--bind takes an IPv4 address such as 127.0.0.1, not \"300.1.1.1\""},
        {{"--station", "0"}, 64, "--station needs a number from 1 to 255, not \"0\""},
        {{"--drop", "2"}, 64, "--drop needs a number from 0 to 1"},
        {{"--frobnicate"}, 64, "unknown option --frobnicate"},
        // 192.0.2.1 is a documentation address: never one of this machine's.
        {{"--tcp", "0", "--bind", "192.0.2.1"}, 1, "--tcp 0 --bind 192.0.2.1: cannot listen: Cannot assign requested address"},
    };
    for (const Case &c : cases) {
        QProcess p;
        p.start(KQ71_SIM_EXE, c.args);
        ASSERT_TRUE(p.waitForFinished(5000)) << c.args.join(' ').toStdString();
        EXPECT_EQ(p.exitCode(), c.status) << c.args.join(' ').toStdString();
        const std::string err = p.readAllStandardError().toStdString();
        EXPECT_NE(err.find(c.text), std::string::npos) << err;
    }
    QProcess help;
    help.start(KQ71_SIM_EXE, {"--help"});
    ASSERT_TRUE(help.waitForFinished(5000));
    EXPECT_EQ(help.exitCode(), 0);
    const std::string text = help.readAllStandardOutput().toStdString();
    for (const char *option : {"--pty", "--link PATH", "--tcp [PORT]", "--bind ADDR", "--station N", "--strict",
                               "--move", "--baud N", "--duration SEC", "--quiet", "--drop P", "--cut P",
                               "--bad-crc P", "--wrong-station P", "--wrong-function P", "--exception P",
                               "--noise P", "--echo P", "--delay P", "--delay-ms MS", "--seed N"})
        EXPECT_NE(text.find(option), std::string::npos) << option;
}

} // namespace
