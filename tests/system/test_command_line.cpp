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

class CommandLine : public ::testing::Test {
protected:
    // Runs kq71; with sim, on a simulated PLC whose memory lasts for the test.
    Outcome kq71(QStringList args, bool sim = true)
    {
        if (sim)
            args << "--sim-fast" << "--sim-state" << dir_.filePath("plc.state");
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("KQ71_DRIVER", KQ71_DRIVER_FILE);
        p.setProcessEnvironment(env);
        p.start(KQ71_CLI_FILE, args);
        Outcome r;
        if (!p.waitForFinished(20000)) {
            p.kill();
            p.waitForFinished();
        } else if (p.exitStatus() == QProcess::NormalExit) {
            r.status = p.exitCode();
        }
        r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
        r.err = QString::fromLocal8Bit(p.readAllStandardError());
        return r;
    }
    QTemporaryDir dir_;
};

// Every text must be in the stream.
void expectIn(const QString &stream, std::initializer_list<const char *> texts)
{
    for (const char *t : texts)
        EXPECT_TRUE(stream.contains(t)) << "no \"" << t << "\" in:\n" << stream.toStdString();
}

TEST_F(CommandLine, WriteThenReadRoundTripsThroughOneSimulatedPlc)
{
    const Outcome w = kq71({"write", "D100=5", "200CC201=70000", "--json"});
    ASSERT_EQ(w.status, 0) << w.err.toStdString();
    const QList<QJsonObject> acks = w.objects();
    ASSERT_EQ(acks.size(), 2) << w.out.toStdString();
    EXPECT_EQ(acks[0]["type"].toString(), "write");
    EXPECT_TRUE(acks[0]["ok"].toBool() && acks[1]["ok"].toBool());
    const Outcome r = kq71({"read", "D100", "200CC201"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    expectIn(r.out, {"D100 = 5  (0x0005, signed 5)", "200CC201 = 70000  (0x00011170"});
}

TEST_F(CommandLine, BitsInWordsAreTypedWithADotAndNamedSoInJson)
{
    ASSERT_EQ(kq71({"write", "D100=3840"}).status, 0);
    const Outcome w = kq71({"write", "D100.5=1", "--json"});
    ASSERT_EQ(w.status, 0) << w.err.toStdString();
    ASSERT_EQ(w.objects().size(), 1);
    EXPECT_EQ(w.objects()[0]["name"].toString(), "D100.5");
    EXPECT_EQ(w.objects()[0]["reg"].toString(), "D_bit");
    EXPECT_EQ(w.objects()[0]["address"].toInt(), 1605);
    const Outcome r = kq71({"read", "D100", "D100.4:3"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    expectIn(r.out, {"D100 = 3872  (0x0F20", "D100.4 = 0", "D100.5 = 1", "D100.6 = 0"});
    const Outcome bad = kq71({"check", "M100.5", "D100.16"}, false);
    EXPECT_EQ(bad.status, 1);
    expectIn(bad.err, {"M100.5: bits in words are only on 16-bit registers", "D100.16: the bit after '.'"});
}

TEST_F(CommandLine, BadAddressesAreRefusedWithTheReasonBeforeAnythingIsSent)
{
    const Outcome r = kq71({"write", "D9999:2=1", "W5=1", "200CC256=1"});
    EXPECT_EQ(r.status, 1);
    expectIn(r.err, {"D9999:2: address out of range", "W5: unknown register \"W\"", "200CC256: address out of range"});
    const Outcome octal = kq71({"check", "X8"}, false);
    EXPECT_EQ(octal.status, 1);
    expectIn(octal.err, {"X8: \"8\" is not an octal number"});
    const Outcome ok = kq71({"check", "X20:8", "200CC200:2", "M8000"}, false);
    EXPECT_EQ(ok.status, 0) << ok.err.toStdString();
}

TEST_F(CommandLine, FailuresSayWhatFailedAndSetTheStatus)
{
    const Outcome r = kq71({"read", "D100:3", "--sim-faults", "drop=1", "--timeout", "20"});
    EXPECT_EQ(r.status, 1);
    expectIn(r.err, {"read failed after 3 tries: 1#D100(3): no reply within 20 ms"});
    const Outcome port = kq71({"watch", "D100", "--port", "/nonexistent/ttyKQ71"}, false);
    EXPECT_EQ(port.status, 2);
    expectIn(port.err, {"cannot open /nonexistent/ttyKQ71"});
}

TEST_F(CommandLine, WatchReportsMovingValuesAndStopsByItself)
{
    const Outcome r = kq71({"watch", "D0:2", "X0:2", "--sim-move", "--sim-fast", "--count", "40", "--json"}, false);
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    std::map<QString, int> seen;
    for (const QJsonObject &o : r.objects()) {
        ++seen[o["type"].toString()];
        if (o["type"].toString() == "stats") {
            EXPECT_EQ(o["givenUp"].toInt(), 0);
            EXPECT_GT(o["framesPerSecond"].toDouble(), 0);
        }
    }
    EXPECT_EQ(seen["value"], 4);
    EXPECT_GT(seen["change"], 0);
    EXPECT_EQ(seen["stats"], 1);
}

TEST_F(CommandLine, RecipeWrittenFromCsvReadsBackIntoTheCsv)
{
    const QString csv = dir_.filePath("recipe.csv");
    QFile f(csv);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write("# reg,address,length,bufOffset,values\nD,100,3,,11,-2,0x33\n256CC,300,2,,123456\nV,7,1,,9\n");
    f.close();
    const Outcome w = kq71({"recipe", "write", csv});
    ASSERT_EQ(w.status, 0) << w.err.toStdString();
    const Outcome r = kq71({"recipe", "read", csv, "-o", "-"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    expectIn(r.out, {"D,100,3,0,11,65534,51", "V,7,1,3,9", "256CC,300,2,4,123456"});
}

} // namespace
