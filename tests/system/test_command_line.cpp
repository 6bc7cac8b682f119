// The kq71 program as a script uses it: exit status and output, run after run.
#include "support.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

using namespace kq71test;

namespace {

TEST(CommandLine, EveryRunSetsItsStatusAndSaysWhatItDidOrWhatIsWrong)
{
    QTemporaryDir dir;
    const QByteArray recipe = "# reg,address,length,bufOffset,values\nD,100,3,,11,-2,0x33\n256CC,300,2,,123456\n"
                              "V,7,1,,9\n";
    const QString csv = writeFile(dir.filePath("recipe.csv"), recipe);
    const QString tags = writeFile(dir.filePath("tags.json"), R"([{"name": "a", "address": "D1", "type": "int16"},
                                                         {"name": "b", "address": "D2", "type": "bool"}])");
    // One simulated PLC whose memory lasts from run to run, and one on a
    // pseudo-terminal that refuses every request.
    SimProcess refusing({"--pty", "--quiet", "--exception", "1"});
    ASSERT_TRUE(refusing.first.startsWith("PTY /dev/")) << refusing.first.toStdString();
    auto sim = [&](QStringList args) { return args << "--sim-fast" << "--sim-state" << dir.filePath("plc.state"); };
    const std::vector<RunCase> runs = {
        {sim({"write", "D100=5", "200CC201=70000", "--json"}), 0,
         {R"("name":"D100","ok":true)", R"("name":"200CC201","ok":true)"}},
        {sim({"read", "D100", "200CC201"}), 0, {"D100 = 5  (0x0005, signed 5)", "200CC201 = 70000  (0x00011170"}},
        // A bit in a word is typed with a dot; its word's other bits stay.
        {sim({"write", "D100=3840"}), 0, {}},
        {sim({"write", "D100.5=1", "--json"}), 0, {R"("address":1605,"name":"D100.5","ok":true,"reg":"D_bit")"}},
        {sim({"read", "D100", "D100.4:3"}), 0, {"D100 = 3872  (0x0F20", "D100.4 = 0\nD100.5 = 1\nD100.6 = 0"}},
        // 200 bits fit one standard request each way; asked for as words they would be 3200.
        {sim({"write", "M0:200=1", "--sim-strict"}), 0, {}},
        {sim({"read", "M0:200", "M199:3", "--sim-strict"}), 0, {"M199 = 1\nM199 = 1\nM200 = 0\nM201 = 0"}},
        // Without -o a recipe read leaves its file as it was (checked below).
        {sim({"recipe", "write", csv}), 0, {}},
        {sim({"recipe", "read", csv, "-o", "-"}), 0, {"D,100,3,0,11,65534,51", "V,7,1,3,9", "256CC,300,2,4,123456"}},
        {sim({"recipe", "read", csv}), 0, {"D,100,3,0,11,65534,51"}},
        {sim({"recipe", "read", csv, "--json"}), 0, {R"("type":"recipe")"}},
        // Refused before anything is sent; check echoes octal and names shared memory.
        {sim({"write", "D9999:2=1", "W5=1", "200CC256=1"}), 64,
         {"D9999:2: address out of range", "W5: unknown register \"W\"", "200CC256: address out of range"}},
        {{"check", "X8", "M100.5", "D100.16"}, 1,
         {"X8: \"8\" is not an octal number", "M100.5: bits in words are only on 16-bit registers",
          "D100.16: the bit after '.'"}},
        {{"check", "X20:8", "TC900", "D100:2", "200CC200:2", "M8000"}, 0,
         {"X20:8: valid, X address 20 (octal), 8 bits", "shares PLC memory: TC900 = D76",
          "shares PLC memory: D100..D101 = TC924..TC925"}},
        {{"registers"}, 0,
         {"D0..D9175 = TC824..TC9999", "D8512..D9998 (every 2nd) = Z0..Z743", "S0..S1791 = M1536..M3327"}},
        // Failures.
        {sim({"read", "D100:3", "--sim-faults", "drop=1", "--timeout", "20"}), 1,
         {"read failed after 3 tries: 1#D100(3): no reply within 20 ms"}},
        {{"read", "D0", "--sim-fast", "--sim-state", dir.filePath("missing/dir/plc.state")}, 1, {"cannot write"}},
        // The reply's own length ends an exchange: waiting out the timeout would outlast the run's 20 s.
        {{"read", "D100:3", "--port", refusing.first.mid(4), "--baud", "115200", "--timeout", "20000"}, 1,
         {"read failed after 3 tries: 1#D100(3),error code:3: exception 4 from the PLC for function 0x03"}},
        {{"watch", "D100", "--port", "/nonexistent/ttyKQ71"}, 2, {"cannot open /nonexistent/ttyKQ71"}},
        {{"read", "D1", "--driver", "/nonexistent/lib.so"}, 3, {"cannot load driver /nonexistent/lib.so"}},
        {{"read", "D1", "--driver", "libm.so.6"}, 3,
         {"lacks intf_getProtocolType, intf_getDriverParameter", "intf_setData, driver"}},
        // Usage errors.
        {{"frobnicate"}, 64, {"unknown command \"frobnicate\""}},
        {{"read", "D1", "--bogus"}, 64, {"Unknown option 'bogus'"}},
        {{"watch", "D1", "--interval", "soon"}, 64, {"--interval needs a duration"}},
        {{"read", "D1", "--retries", "0"}, 64, {"--retries needs a whole number from 1 to 100"}},
        {{"read", "Q5"}, 64, {"Q5: unknown register \"Q\""}},
        {{"write", "D100=70000"}, 64, {"\"70000\" is not a 16-bit value"}},
        {{"read", "D1", "--port", "/dev/null", "--parity", "MARK"}, 64, {"--parity takes NONE, EVEN or ODD"}},
        {{"read", "D1", "--tcp", "127.0.0.1:99999"}, 64, {"the port must be a number from 1 to 65535"}},
        {{"help", "frobnicate"}, 64, {"help: no command \"frobnicate\""}},
        {{"bridge", "--mqtt", "127.0.0.1:1", "--root", "r", "--tags", tags}, 64, {"tag 2 (b): bool needs a bit"}},
        {{"bridge", "--mqtt-password", "x"}, 64, {}},  // never on the command line
        // Help.
        {{"--version"}, 0, {"kq71 2.0.0.0\ndriver vorn_kq71_ap 2.0.0.0"}}, {{"help"}, 0, {"64 a wrong command line"}},
    };
    expectRuns(KQ71_CLI_FILE, runs);
    QFile f(csv);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), recipe);
    // A command's own page: its options, and none of another command's.
    const Outcome page = runKq71({"watch", "--help"});
    EXPECT_EQ(page.out, runKq71({"help", "watch"}).out);
    expectIn(page.out, {"--interval DURATION"});
    EXPECT_FALSE(page.out.contains("recipe write FILE")) << page.out.toStdString();
}

} // namespace
