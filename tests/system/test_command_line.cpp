// The kq71 program as a script would use it: exit status and output.
#include "cli_process.h"
#include "system_support.h"

#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

using namespace kq71test;

namespace {

class CommandLine : public ::testing::Test {
protected:
    // Runs kq71; with sim, on a simulated PLC whose memory lasts for the test.
    Outcome kq71(QStringList args, bool sim = true)
    {
        if (sim)
            args << "--sim-fast" << "--sim-state" << dir_.filePath("plc.state");
        return runKq71(args);
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
    EXPECT_EQ(r.status, 64);
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

    // Without -o the values go to stdout and the recipe file stays as it was;
    // with --json, stdout holds JSON lines only.
    const Outcome plain = kq71({"recipe", "read", csv});
    ASSERT_EQ(plain.status, 0) << plain.err.toStdString();
    expectIn(plain.out, {"D,100,3,0,11,65534,51"});
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll().toStdString(), "# reg,address,length,bufOffset,values\nD,100,3,,11,-2,0x33\n256CC,300,2,,123456\nV,7,1,,9\n");
    f.close();
    const Outcome json = kq71({"recipe", "read", csv, "-o", "-", "--json"});
    ASSERT_EQ(json.status, 0) << json.err.toStdString();
    ASSERT_EQ(json.objects().size(), 3) << json.out.toStdString();
    for (const QJsonObject &o : json.objects())
        EXPECT_EQ(o["type"].toString(), "recipe") << json.out.toStdString();
}

// Exit status and message of each kind of mistake, and the help a person asks for.
TEST_F(CommandLine, EveryUsageErrorExits64NamingWhatIsWrong)
{
    struct Case {
        QStringList args;
        int status;
        const char *text;  // in stderr, or in stdout for status 0
    };
    const Case cases[] = {
        {{"frobnicate"}, 64, "unknown command \"frobnicate\""},
        {{"read", "D1", "--bogus"}, 64, "Unknown option 'bogus'"},
        {{"watch", "D1", "--interval", "soon"}, 64, "--interval needs a duration"},
        {{"read", "D1", "--retries", "0"}, 64, "--retries needs a whole number from 1 to 100"},
        {{"read", "Q5"}, 64, "Q5: unknown register \"Q\""},
        {{"read", "X8"}, 64, "X8: \"8\" is not an octal number"},
        {{"watch", "D9999:2"}, 64, "address out of range"},
        {{"write", "D100=70000"}, 64, "\"70000\" is not a 16-bit value"},
        {{"read", "D1", "--port", "/dev/null", "--parity", "MARK"}, 64, "--parity takes NONE, EVEN or ODD"},
        {{"read", "D1", "--tcp", "127.0.0.1:99999"}, 64, "the port must be a number from 1 to 65535"},
        {{"help", "frobnicate"}, 64, "help: no command \"frobnicate\""},
        {{"read", "D1", "--driver", "/nonexistent/lib.so"}, 3, "cannot load driver"},
        {{"--version"}, 0, "kq71 2.0.0.0\ndriver vorn_kq71_ap 2.0.0.0"},
        {{"help", "watch"}, 0, "--interval DURATION"},
        {{"recipe", "--help"}, 0, "recipe read FILE [-o OUT]"},
        {{"help"}, 0, "64 a wrong command line"},
    };
    for (const Case &c : cases) {
        const Outcome r = kq71(c.args, false);
        EXPECT_EQ(r.status, c.status) << c.args.join(' ').toStdString() << "\n" << r.err.toStdString();
        expectIn(c.status == 0 ? r.out : r.err, {c.text});
    }
    // A command's own page: its options and examples, and the ones it shares.
    const Outcome page = kq71({"watch", "--help"}, false);
    EXPECT_EQ(page.out, kq71({"help", "watch"}, false).out);
    EXPECT_FALSE(page.out.contains("recipe write FILE")) << page.out.toStdString();
}

TEST_F(CommandLine, CheckAndRegistersEchoOctalAndNameSharedMemory)
{
    const Outcome check = kq71({"check", "X20:8", "TC900", "D100:2"}, false);
    ASSERT_EQ(check.status, 0) << check.err.toStdString();
    expectIn(check.out, {"X20:8: valid, X address 20 (octal), 8 bits", "shares PLC memory: TC900 = D76",
                         "shares PLC memory: D100..D101 = TC924..TC925"});
    const Outcome regs = kq71({"registers"}, false);
    ASSERT_EQ(regs.status, 0) << regs.err.toStdString();
    expectIn(regs.out, {"D0..D9175 = TC824..TC9999", "D8512..D9998 (every 2nd) = Z0..Z743",
                        "S0..S1791 = M1536..M3327"});
}

TEST_F(CommandLine, BitReadsAskForTheBitsNamed)
{
    // 200 bits fit one standard request each way; asked for as words they would be 3200.
    const Outcome w = kq71({"write", "M0:200=1", "--sim-strict"});
    ASSERT_EQ(w.status, 0) << w.err.toStdString();
    const Outcome r = kq71({"read", "M0:200", "M199:3", "D0", "--sim-strict", "--json"});
    ASSERT_EQ(r.status, 0) << r.err.toStdString();
    const QList<QJsonObject> values = r.objects();
    ASSERT_EQ(values.size(), 204) << r.out.toStdString();
    EXPECT_EQ(values[199]["name"].toString(), "M199");
    EXPECT_EQ(values[199]["value"].toInt(), 1);
    EXPECT_EQ(values[201]["value"].toInt(), 0);  // M200, past what was written
}

TEST_F(CommandLine, StateThatCannotBeSavedFailsTheRun)
{
    const Outcome r = runKq71({"read", "D0", "--sim-fast", "--sim-state", dir_.filePath("missing/dir/plc.state")});
    EXPECT_EQ(r.status, 1);
    expectIn(r.err, {"cannot write"});
}

} // namespace
