// kq71 watch as a commissioning engineer leans on it: paced polling, the
// quality of each value, the station's and the link's state, a dead peer
// that costs next to nothing, and progress of long one-off work.
#include "cli_process.h"
#include "sim_process.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <gtest/gtest.h>

#include <map>
#include <unistd.h>

using namespace kq71test;

namespace {

void expectIn(const QString &stream, std::initializer_list<const char *> texts)
{
    for (const char *t : texts)
        EXPECT_TRUE(stream.contains(t)) << "no \"" << t << "\" in:\n" << stream.toStdString();
}

std::map<QString, int> countTypes(const QList<QJsonObject> &objects)
{
    std::map<QString, int> seen;
    for (const QJsonObject &o : objects)
        ++seen[o["type"].toString()];
    return seen;
}

// CPU seconds a process has used, from /proc.
double cpuSeconds(qint64 pid)
{
    QFile f(QString("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QString stat = QString::fromLatin1(f.readAll());
    // Fields after the command name, which may hold spaces: state is field 3,
    // utime and stime fields 14 and 15.
    const QStringList rest = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return (rest.value(11).toLongLong() + rest.value(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

// Waits until the process has printed a line containing text.
bool waitForOutput(QProcess &p, QByteArray *seen, const char *text, int timeoutMs = 10000)
{
    for (int waited = 0; waited < timeoutMs; waited += 50) {
        p.waitForReadyRead(50);
        *seen += p.readAllStandardOutput();
        if (seen->contains(text))
            return true;
    }
    return false;
}

TEST(Watch, JsonLinesCarryTimeQualityAndTheStationState)
{
    const Outcome r = runKq71({"watch", "D0:2", "M0:3", "--sim-move", "--sim-fast", "--seconds", "3", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QRegularExpression iso("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$");
    std::map<QString, int> seen;
    for (const QJsonObject &o : r.objects()) {
        ++seen[o["type"].toString()];
        EXPECT_TRUE(iso.match(o["time"].toString()).hasMatch()) << QJsonDocument(o).toJson().toStdString();
        if (o["type"] == "value" || o["type"] == "change") {
            EXPECT_EQ(o["quality"].toString(), "good");
            EXPECT_EQ(o["stationState"].toString(), "online");
            EXPECT_TRUE(iso.match(o["readAt"].toString()).hasMatch());
        }
    }
    EXPECT_EQ(seen["value"], 5);
    EXPECT_GT(seen["change"], 0);
    EXPECT_EQ(seen["stats"], 1);
    EXPECT_EQ(seen.size(), 3u) << r.out.toStdString();
}

// On the simulator's virtual clock a round of reads starts once per
// interval: how many frames a stretch of time costs is a count, not a speed.
TEST(Watch, PollsOnceAnIntervalOrAsFastAsTheLineAllows)
{
    struct Case {
        const char *interval;
        int minFrames, maxFrames;
    };
    // Two addresses far apart: two read jobs a round, for 4 s.
    for (const Case c : {Case{"1s", 8, 10}, Case{"250ms", 32, 34}, Case{"0", 200, 1 << 30}}) {
        const Outcome r = runKq71({"watch", "D0", "D1000", "--sim-fast", "--seconds", "4", "--interval", c.interval,
                                   "--json"});
        ASSERT_EQ(r.status, 0) << r.err.toStdString();
        const int frames = r.objects().last()["frames"].toInt();
        EXPECT_GE(frames, c.minFrames) << c.interval;
        EXPECT_LE(frames, c.maxFrames) << c.interval;
    }
}

TEST(Watch, AStationThatNeverAnswersIsMarkedStaleAndOfflineAndFailsTheRun)
{
    const Outcome json = runKq71({"watch", "D100:2", "--sim-fast", "--sim-faults", "drop=1", "--timeout", "20",
                                  "--interval", "100ms", "--seconds", "2", "--json"});
    EXPECT_EQ(json.status, 1);
    const QList<QJsonObject> objects = json.objects();
    const auto seen = countTypes(objects);
    EXPECT_EQ(seen.at("value"), 2) << json.out.toStdString();
    EXPECT_EQ(seen.at("station"), 1) << json.out.toStdString();  // offline once, never back
    for (const QJsonObject &o : objects) {
        if (o["type"] == "value") {
            EXPECT_EQ(o["quality"].toString(), "stale");
            EXPECT_TRUE(o["value"].isNull());  // never read: no made-up 0
        }
        if (o["type"] == "station")
            EXPECT_EQ(o["state"].toString(), "offline");
    }
    EXPECT_EQ(objects.last()["type"].toString(), "error");

    const Outcome text = runKq71({"watch", "D100", "--sim-fast", "--sim-faults", "drop=1", "--timeout", "20",
                                  "--interval", "100ms", "--seconds", "2"});
    EXPECT_EQ(text.status, 1);
    const QRegularExpression line("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} D100 = \\?  \\[STALE: no reply, never read\\]$",
                                  QRegularExpression::MultilineOption);
    EXPECT_TRUE(line.match(text.out).hasMatch()) << text.out.toStdString();
    expectIn(text.out, {"station 1 offline: 3 jobs in a row given up"});
    expectIn(text.err, {"no good reply from the PLC while watching"});
}

TEST(Watch, AValueWhoseReadsStopAnsweringTurnsStaleAndTheStationComesBack)
{
    QTemporaryDir dir;
    std::unique_ptr<SimProcess> sim(new SimProcess({"--tcp", "0", "--quiet"}));
    ASSERT_TRUE(sim->first.startsWith("TCP 127.0.0.1:")) << sim->first.toStdString();
    const QString port = sim->first.mid(14);
    QProcess kq71;
    // One send per job: every failed exchange of the outage gives a job up.
    startKq71(kq71, {"watch", "D5", "--tcp", "127.0.0.1:" + port, "--interval", "100ms", "--timeout", "50",
                     "--retries", "1", "--seconds", "12", "--json"});
    QByteArray seen;
    ASSERT_TRUE(waitForOutput(kq71, &seen, "\"type\":\"value\"")) << seen.toStdString();

    // The peer dies: the link is reported down once, and what it costs is
    // measured as CPU time over two seconds of the outage.
    sim.reset();
    ASSERT_TRUE(waitForOutput(kq71, &seen, "\"state\":\"down\"")) << seen.toStdString();
    const double cpu0 = cpuSeconds(kq71.processId());
    QThread::msleep(2000);
    const double cpu = cpuSeconds(kq71.processId()) - cpu0;
    EXPECT_LT(cpu, 0.05 * 2.0) << "CPU seconds in 2 s of outage";
    ASSERT_TRUE(waitForOutput(kq71, &seen, "\"state\":\"offline\"")) << seen.toStdString();

    sim.reset(new SimProcess({"--tcp", port, "--quiet"}));
    ASSERT_TRUE(waitForOutput(kq71, &seen, "\"state\":\"online\"")) << seen.toStdString();
    kq71.terminate();
    Outcome r = finish(kq71);
    r.out.prepend(QString::fromUtf8(seen));
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    std::map<QString, int> links;
    QStringList qualities;
    for (const QJsonObject &o : r.objects()) {
        if (o["type"] == "link" || o["type"] == "station")
            ++links[o["state"].toString()];
        if (o["type"] == "value" || o["type"] == "quality")
            qualities << o["quality"].toString();
    }
    EXPECT_EQ(links["down"], 1) << r.out.toStdString();
    EXPECT_EQ(links["up"], 1) << r.out.toStdString();
    EXPECT_EQ(links["offline"], 1) << r.out.toStdString();
    EXPECT_EQ(links["online"], 1) << r.out.toStdString();
    EXPECT_EQ(qualities.mid(0, 3), (QStringList{"good", "stale", "good"})) << r.out.toStdString();
}

TEST(Watch, APseudoTerminalClosedAtTheOtherEndIsReportedAsTheLinkClosing)
{
    // Through the simulator's link: pseudo-terminal numbers are reused at
    // once, and a reconnection must not reach another test's terminal.
    QTemporaryDir dir;
    const QString path = dir.filePath("ttyKQ71");
    std::unique_ptr<SimProcess> sim(new SimProcess({"--link", path, "--quiet"}));
    ASSERT_TRUE(sim->first.startsWith("PTY /dev/")) << sim->first.toStdString();
    QProcess kq71;
    startKq71(kq71, {"watch", "D0", "--port", path, "--interval", "100ms", "--seconds", "3", "--json"});
    QByteArray seen;
    ASSERT_TRUE(waitForOutput(kq71, &seen, "\"type\":\"value\"")) << seen.toStdString();
    sim.reset();
    Outcome r = finish(kq71);
    r.out.prepend(QString::fromUtf8(seen));
    int down = 0;
    for (const QJsonObject &o : r.objects())
        if (o["type"] == "link" && o["state"] == "down") {
            ++down;
            EXPECT_TRUE(o["message"].toString().startsWith("link closed: " + path)) << r.out.toStdString();
        }
    EXPECT_EQ(down, 1) << r.out.toStdString();
    EXPECT_FALSE(r.out.contains("write timed out")) << r.out.toStdString();
}

// Progress goes to a terminal's stderr only: `script` gives the child one.
TEST(OneOffWork, ShowsProgressOnATerminalAndNothingInAPipe)
{
    // 300 condition reads on a line paced in real time: about 2 s.
    const QStringList args{"read", "D0:600", "--gap", "2", "--baud", "115200"};
    QProcess tty;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
    tty.setProcessEnvironment(env);
    QString command = QString(KQ71_CLI_FILE) + ' ' + args.join(' ') + " >/dev/null";
    tty.start("script", {"-qec", command, "/dev/null"});
    const Outcome onTty = finish(tty, 60000);
    ASSERT_EQ(onTty.status, 0) << onTty.err.toStdString();
    EXPECT_TRUE(QRegularExpression("\\rread: \\d+ of 300, \\d+ s").match(onTty.out).hasMatch())
        << onTty.out.toStdString();

    const Outcome piped = runKq71(QStringList(args) << "--sim-fast");
    ASSERT_EQ(piped.status, 0) << piped.err.toStdString();
    EXPECT_EQ(piped.err, QString());
}

} // namespace
