// The kq71 program as a script would use it: exit status and output.
#include "system_support.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct Outcome {
    int status = -1;
    QString out, err;
    QList<QJsonObject> objects() const
    {
        QList<QJsonObject> list;
        for (const QString &line : out.split('\n', Qt::SkipEmptyParts))
            list << QJsonDocument::fromJson(line.toUtf8()).object();
        return list;
    }
};

Outcome kq71(const QStringList &args)
{
    QProcess p;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
    p.setProcessEnvironment(env);
    p.start(KQ71_CLI_FILE, args);
    Outcome r;
    if (!p.waitForFinished(20000)) {
        p.kill();
        p.waitForFinished();
        r.err = "kq71 did not finish";
        return r;
    }
    r.status = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

class CommandLine : public ::testing::Test {
protected:
    QString state() const { return dir_.filePath("plc.state"); }
    QStringList sim() const { return {"--sim-fast", "--sim-state", state()}; }
    QTemporaryDir dir_;
};

TEST_F(CommandLine, WriteThenReadRoundTripsThroughOneSimulatedPlc)
{
    const Outcome w = kq71(QStringList{"write", "D100=5", "200CC201=70000", "--json"} + sim());
    ASSERT_EQ(w.status, 0) << w.err.toStdString();
    const QList<QJsonObject> acks = w.objects();
    ASSERT_EQ(acks.size(), 2) << w.out.toStdString();
    EXPECT_EQ(acks[0]["type"].toString(), "write");
    EXPECT_TRUE(acks[0]["ok"].toBool());
    EXPECT_TRUE(acks[1]["ok"].toBool());

    const Outcome r = kq71(QStringList{"read", "D100", "200CC201"} + sim());
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("D100 = 5  (0x0005, signed 5)")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("200CC201 = 70000  (0x00011170")) << r.out.toStdString();
}

TEST_F(CommandLine, CheckRefusesAnEightInAnOctalAddress)
{
    const Outcome r = kq71({"check", "X8"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("X8: \"8\" is not an octal number")) << r.err.toStdString();
    const Outcome ok = kq71({"check", "X20:8", "200CC200:2", "M8000"});
    EXPECT_EQ(ok.status, 0) << ok.err.toStdString();
}

TEST_F(CommandLine, BadAddressesAreRefusedWithTheReasonBeforeAnythingIsSent)
{
    const Outcome r = kq71(QStringList{"write", "D9999:2=1", "W5=1", "200CC256=1"} + sim());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("D9999:2: address out of range")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("W5: unknown register \"W\"")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("200CC256: address out of range")) << r.err.toStdString();
}

TEST_F(CommandLine, PlcThatNeverAnswersFailsTheReadWithTheJobAndTheErrorText)
{
    const Outcome r = kq71(QStringList{"read", "D100:3", "--sim-faults", "drop=1", "--timeout", "20"} + sim());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.contains("read failed after 3 tries: 1#D100(3): no reply within 20 ms")) << r.err.toStdString();
}

TEST_F(CommandLine, PortThatCannotBeOpenedExitsWithStatusTwo)
{
    const Outcome r = kq71({"watch", "D100", "--port", "/nonexistent/ttyKQ71"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.contains("cannot open /nonexistent/ttyKQ71")) << r.err.toStdString();
}

TEST_F(CommandLine, WatchReportsMovingValuesAndStopsByItself)
{
    const Outcome r = kq71({"watch", "D0:2", "X0:2", "--sim-move", "--sim-fast", "--count", "40", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    int values = 0, changes = 0, stats = 0;
    for (const QJsonObject &o : r.objects()) {
        const QString type = o["type"].toString();
        values += type == "value";
        changes += type == "change";
        if (type == "stats") {
            ++stats;
            EXPECT_EQ(o["givenUp"].toInt(), 0);
            EXPECT_GT(o["framesPerSecond"].toDouble(), 0);
        }
    }
    EXPECT_EQ(values, 4);
    EXPECT_GT(changes, 0);
    EXPECT_EQ(stats, 1);
}

TEST_F(CommandLine, RecipeWrittenFromCsvReadsBackIntoTheCsv)
{
    const QString csv = dir_.filePath("recipe.csv");
    QFile f(csv);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("# reg,address,length,bufOffset,values\nD,100,3,,11,-2,0x33\n256CC,300,2,,123456\nV,7,1,,9\n");
    f.close();
    const Outcome w = kq71(QStringList{"recipe", "write", csv} + sim());
    ASSERT_EQ(w.status, 0) << w.err.toStdString();

    const Outcome r = kq71(QStringList{"recipe", "read", csv, "-o", "-"} + sim());
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("D,100,3,0,11,65534,51")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("V,7,1,3,9")) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains("256CC,300,2,4,123456")) << r.out.toStdString();
}

} // namespace
