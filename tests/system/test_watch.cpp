// kq71 watch as a commissioning engineer leans on it: paced polling, the
// quality of each value, the station's and the link's state over a real
// pseudo-terminal and TCP, and a dead peer that costs next to nothing.
#include "support.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <gtest/gtest.h>

#include <memory>
#include <unistd.h>

using namespace kq71test;

namespace {

// CPU seconds a process has used: utime and stime, the 14th and 15th fields
// of its stat, counted after the command name, which may hold spaces.
double cpuSeconds(qint64 pid)
{
    QFile f(QString("/proc/%1/stat").arg(pid));
    const QString stat = f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll()) : QString();
    const QStringList rest = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return (rest.value(11).toLongLong() + rest.value(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

// A field of the printed objects of the given types (all when none are
// given), in order; "" where it is null or missing.
QStringList pick(const Outcome &r, const QStringList &types, const char *field)
{
    QStringList list;
    for (const QJsonObject &o : r.objects())
        if (types.isEmpty() || types.contains(o["type"].toString()))
            list << o[field].toVariant().toString();
    return list;
}

// A watch started in the background, and what it printed so far.
struct Watch {
    explicit Watch(const QStringList &args) { start(process, KQ71_CLI_FILE, QStringList("watch") + args << "--json"); }
    bool waitFor(const char *text)
    {
        return waitUntil([&] { return seen.contains(text); }, [&] {
            process.waitForReadyRead(50);
            seen += process.readAllStandardOutput();
        });
    }
    Outcome end()
    {
        Outcome r = finish(process);
        r.out.prepend(QString::fromUtf8(seen));
        return r;
    }
    QProcess process;
    QByteArray seen;
};

// On the simulator's virtual clock a round of reads starts once per
// interval: how many frames a stretch of time costs is a count, not a speed.
TEST(Watch, PollsOnceAnIntervalOrAsFastAsTheLinePrintingTimeQualityAndStateOfEachValue)
{
    const QRegularExpression iso("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z$");
    const struct {
        const char *interval;
        int minFrames, maxFrames;
    } cases[] = {{"1s", 8, 10}, {"250ms", 32, 34}, {"0", 200, 1 << 30}};
    for (const auto &c : cases) {
        // Two read jobs a round, for 4 s.
        const Outcome r = runKq71({"watch", "D0:2", "M0:3", "--sim-move", "--sim-fast", "--seconds", "4", "--interval",
                                   c.interval, "--json"});
        ASSERT_EQ(r.status, 0) << r.err.toStdString();
        for (const QJsonObject &o : r.objects()) {
            EXPECT_TRUE(iso.match(o["time"].toString()).hasMatch()) << QJsonDocument(o).toJson().toStdString();
            if (o["type"] == "value" || o["type"] == "change")
                EXPECT_TRUE(o["quality"] == "good" && o["stationState"] == "online" &&
                            iso.match(o["readAt"].toString()).hasMatch());
        }
        const QStringList types = pick(r, {}, "type");
        EXPECT_TRUE(types.count("value") == 5 && types.count("change") > 0 && types.count("stats") == 1 &&
                    types.count("change") == types.size() - 6) << r.out.toStdString();
        const QJsonObject stats = r.objects().last();
        EXPECT_TRUE(stats["givenUp"].toInt() == 0 && stats["framesPerSecond"].toDouble() > 0);
        EXPECT_TRUE(stats["frames"].toInt() >= c.minFrames && stats["frames"].toInt() <= c.maxFrames) << c.interval;
    }
}

TEST(Watch, AStationThatNeverAnswersIsMarkedStaleAndOfflineAndFailsTheRun)
{
    const Outcome json = runKq71({"watch", "D100:2", "--json", "--sim-fast", "--sim-faults", "drop=1", "--timeout",
                                  "20", "--interval", "100ms", "--seconds", "2"});
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(pick(json, {"value"}, "quality"), QStringList({"stale", "stale"})) << json.out.toStdString();
    EXPECT_EQ(pick(json, {"value"}, "value"), QStringList({"", ""}));  // never read: null, no made-up 0
    EXPECT_EQ(pick(json, {"link", "station"}, "state"), QStringList{"offline"});  // once, never back
    expectIn(json.out, {R"("message":"1#D100(2): no reply within 20 ms","state":"offline")",
                        R"({"message":"no good reply from the PLC while watching","type":"error"})"});
}

TEST(Watch, ALostTcpPeerCostsNextToNothingAndItsValuesComeBackWhenItDoes)
{
    std::unique_ptr<SimProcess> sim(new SimProcess({"--tcp", "0", "--quiet"}));
    ASSERT_TRUE(sim->first.startsWith("TCP 127.0.0.1:")) << sim->first.toStdString();
    const QString port = sim->first.mid(14), peer = "127.0.0.1:" + port;
    ASSERT_EQ(runKq71({"write", "D5=7", "--tcp", peer}).status, 0);
    // One send per job: every failed exchange of the outage gives a job up.
    Watch watch({"D5", "--tcp", peer, "--interval", "100ms", "--timeout", "50", "--retries", "1", "--seconds", "12"});
    ASSERT_TRUE(watch.waitFor("\"type\":\"value\"")) << watch.seen.toStdString();

    // The peer dies: what the outage costs is CPU time over two seconds of it.
    sim.reset();
    ASSERT_TRUE(watch.waitFor("\"state\":\"down\"")) << watch.seen.toStdString();
    const double cpu0 = cpuSeconds(watch.process.processId());
    QThread::msleep(2000);
    EXPECT_LT(cpuSeconds(watch.process.processId()) - cpu0, 0.1) << "CPU seconds in 2 s of outage";
    ASSERT_TRUE(watch.waitFor("\"state\":\"offline\"")) << watch.seen.toStdString();

    sim.reset(new SimProcess({"--tcp", port, "--quiet"}));
    ASSERT_TRUE(watch.waitFor("\"state\":\"online\"")) << watch.seen.toStdString();
    watch.process.terminate();
    const Outcome r = watch.end();
    EXPECT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_EQ(pick(r, {"link", "station"}, "state"), (QStringList{"down", "offline", "up", "online"}))
        << r.out.toStdString();
    EXPECT_EQ(pick(r, {"value", "quality", "change"}, "quality").mid(0, 3), (QStringList{"good", "stale", "good"}));
    EXPECT_EQ(pick(r, {"value"}, "value"), QStringList{"7"});
}

TEST(Watch, APseudoTerminalClosedAtTheOtherEndIsReportedAsTheLinkClosing)
{
    // Through the simulator's link: pseudo-terminal numbers are reused at
    // once, and a reconnection must not reach another test's terminal.
    QTemporaryDir dir;
    const QString path = dir.filePath("ttyKQ71");
    std::unique_ptr<SimProcess> sim(new SimProcess({"--link", path, "--quiet"}));
    // The link is made after the first line.
    ASSERT_TRUE(waitUntil([&] { return QFile::exists(path); }, [] {}, 5000)) << sim->first.toStdString();
    ASSERT_EQ(runKq71({"write", "D0=9", "--port", path}).status, 0);
    Watch watch({"D0", "--port", path, "--interval", "100ms", "--seconds", "3"});
    ASSERT_TRUE(watch.waitFor("\"type\":\"value\"")) << watch.seen.toStdString();
    sim.reset();
    const Outcome r = watch.end();
    EXPECT_EQ(pick(r, {"value"}, "value"), QStringList{"9"});
    EXPECT_EQ(pick(r, {"link"}, "state"), QStringList{"down"}) << r.out.toStdString();
    expectIn(r.out, {"\"message\":\"link closed: " + path});
    EXPECT_FALSE(r.out.contains("write timed out")) << r.out.toStdString();
}

} // namespace
