// The runtime's values: read replies landing in the cache for every register
// family, the change reports, writes (mirrored at once, settled by their
// acknowledgement or given up), and bits inside 16-bit words ("D_bit", the
// address counting bits from bit 0 of word 0).
#include "test_support.h"

using namespace kq71test;

namespace {

const int D100 = 0x439C; // wire address of D 100

using Cache = DriverTest;
using Writes = DriverTest;
using BitsInWords = DriverTest;

Reports reportsOf(const char *reg, std::initializer_list<int> addresses)
{
    Reports r;
    for (int a : addresses)
        r.push_back(Report{1, 1, reg, a});
    return r;
}

TEST_F(Cache, OneCyclicReadFillsTheCacheAndReportsChangedUnitsOfEveryFamily)
{
    // PLC memory by wire address; what intf_getData gives from the first key's
    // address; unchanged (still zero) and unwatched units are not reported.
    const struct { std::vector<KEY_ADDRESS> keys; std::map<int, quint16> regs; std::map<int, int> bits;
                   Bytes expected; Reports reported; } cases[] = {
        {{key(1, "D", 100, 1), key(1, "D", 103, 1)}, {{D100, 1}, {D100 + 1, 2}, {D100 + 3, 0x1234}}, {},
         {1, 0, 2, 0, 0, 0, 0x34, 0x12}, reportsOf("D", {100, 103})},
        {{key(1, "X", 16, 10, BIT)}, {}, {{16, 1}, {25, 1}}, {1, 0, 0, 0, 0, 0, 0, 0, 0, 1}, reportsOf("X", {16, 25})},
        // V k at 0x6479 + 2k: the Z registers between are skipped
        {{key(1, "V", 5, 3)}, {{0x6483, 0x11}, {0x6484, 0xAAAA}, {0x6485, 0x22}, {0x6486, 0xBBBB}, {0x6487, 0x33}},
         {}, {0x11, 0, 0x22, 0, 0x33, 0}, reportsOf("V", {5, 6, 7})},
        // 32-bit values: low word first on the wire; the runtime's length counts words
        {{key(1, "200CC", 201, 4)}, {{0x42CA, 0x1170}, {0x42CB, 0x0001}, {0x42CD, 0xFFFF}}, {},
         {0x70, 0x11, 0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF}, reportsOf("200CC", {201, 202})},
    };
    for (const auto &c : cases) {
        const KEY_ADDRESS &k = c.keys.front();
        SCOPED_TRACE(k.regName.toStdString());
        configure("1#0#0#3#10");
        watch(c.keys);
        plc.regs = c.regs;
        plc.bits = c.bits;
        ASSERT_EQ(1, step());
        EXPECT_EQ(c.reported, reports());
        const int n = int(c.expected.size());
        EXPECT_EQ(c.expected, get(k.regName, k.address, k.dataType == BIT ? n : n / 2, n));
    }
    { // a reply cut short reads as zeros past its end
        ServiceLock lock;
        analyzeFrameOfVal(QByteArray("\x01\x03\x02\x12", 4), 3, 3, job("V", 0, 3));
    }
    EXPECT_EQ((Bytes{0x00, 0x12, 0, 0, 0, 0}), get("V", 0, 3, 6));
}

// A write shows at once; it outlives a reply that does not change the PLC's
// value, a changed reply shows, and the acknowledgement installs the write.
TEST_F(Writes, WriteIsMirroredAtOnceOutlivesStaleRepliesAndIsInstalledByTheAck)
{
    watch({key(1, "D", 100, 1)});
    set("D", 100, 2, {0x34, 0x12, 0x78, 0x56}, 7);
    EXPECT_EQ(reportsOf("D", {100}), reports()); // D101 is not watched
    replyOfWords(100, {0, 0});
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get("D", 100, 2, 4));
    replyOfWords(100, {9, 0}); // a read reply that overtook the write
    EXPECT_EQ((Bytes{9, 0, 0x78, 0x56}), get("D", 100, 2, 4));
    EXPECT_EQ(std::make_pair(0, 1), std::make_pair(int(unit("D", 100).writePending), int(unit("D", 101).writePending)));
    FRAME_PRO f;
    EXPECT_EQ(1, step(&f));
    EXPECT_EQ(std::make_tuple(CYCLE_WRITE, 7), std::make_tuple(CycleState(driver.cycleState), f.var.id));
    EXPECT_EQ(withCrc(hexBytes("01 10 43 9C 00 02 04 12 34 56 78")), sentBytes(f));
    EXPECT_EQ((std::map<int, quint16>{{D100, 0x1234}, {D100 + 1, 0x5678}}), plc.regs);
    EXPECT_EQ(0, unit("D", 101).writePending);
    EXPECT_EQ((Bytes{0x34, 0x12, 0x78, 0x56}), get("D", 100, 2, 4));
    reports();
    ASSERT_EQ(1, step()); // the PLC holds the written values now: nothing changed
    EXPECT_TRUE(reports().empty());
    set("X", 0, 3, {1, 0, 1}); // bits report when they change, watched or not
    EXPECT_EQ(reportsOf("X", {0, 2}), reports());
    configure("1#1#0#3#10"); // cache-only writes: shown and pending, nothing goes out
    set("D", 100, 1, {7, 0});
    EXPECT_EQ(std::make_tuple(true, 7, 1), std::make_tuple(driver.writeJobs.isEmpty(), word("D", 100), int(unit("D", 100).writePending)));
}

// Writes of every size reach the PLC whole: pieces by the configured limit,
// capped to what one request carries, 32-bit pieces on double-word bounds.
TEST_F(Writes, EveryValueOfAWriteReachesThePlcAndTheCache)
{
    const struct { const char *what, *property, *reg; int address, length, wireBase, stride, jobs; } cases[] = {
        {"bits over the piece limit", "1#0#0#3#2", "M", 0, 20, 0x200, 1, 2}, // jobs -1: not pinned down
        {"bits over one request", "1#0#0#3#200", "M", 0, 1500, 0x200, 1, -1},
        {"words over one request", "1#0#0#3#1000", "D", 0, 600, 0x4338, 1, -1},
        {"words without a usable limit", "1#0#0#3#0", "D", 0, 300, 0x4338, 1, 3},
        {"32-bit in one job", "1#0#0#3#64", "200CC", 200, 4, 0x42C8, 1, 1},
        {"32-bit with an odd limit", "1#0#0#3#3", "200CC", 200, 8, 0x42C8, 1, 4},
        {"interleaved: a job per word", "1#0#0#3#10", "Z", 10, 2, 0x648C, 2, 2}, // Z k at 0x6478 + 2k
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure(c.property);
        plc = FakePlc();
        const bool bits = c.reg[0] == 'M';
        Bytes values(bits ? c.length : 2 * c.length);
        for (size_t i = 0; i < values.size(); ++i)
            values[i] = bits ? (i * 7 % 3 == 0) : static_cast<unsigned char>(i * 13 + 1);
        set(c.reg, c.address, c.length, values);
        EXPECT_TRUE(c.jobs < 0 || c.jobs == driver.writeJobs.size());
        runUntilIdle();
        for (int i = 0; i < c.length; ++i)
            ASSERT_EQ(bits ? values[i] : values[2 * i] | values[2 * i + 1] << 8,
                      bits ? plc.bits[c.wireBase + i] : plc.regs[c.wireBase + c.stride * i]) << "unit " << i;
        EXPECT_EQ(values, get(c.reg, c.address, c.length, int(values.size())));
    }
}

// A given-up write falls back to the value read and reports every unit it
// named, even when nothing would change; inside the report the runtime reads
// the fallen-back value. A bit of a word never read falls back the same way
// when the read it waits for is given up.
TEST_F(Writes, GivenUpWriteFallsBackToTheReadValueAndReports)
{
    const struct { const char *reg; int address, length; Bytes values; bool readFirst; int function; Reports reported; } cases[] = {
        {"D", 100, 1, {7, 0}, true, 0x06, reportsOf("D", {100})},
        {"D", 100, 1, {0, 1}, true, 0x06, reportsOf("D", {100})}, // the value the PLC holds
        {"X", 4, 2, {1, 1}, true, 0x0F, reportsOf("X", {4, 5})},  // bits: every unit, watched or not
        {"D_bit", 1605, 1, {1}, true, 0x06, {{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}},
        {"D_bit", 1605, 1, {1}, false, 0x03, {{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.reg) + (c.readFirst ? "" : ", word never read"));
        configure("1#0#0#2#10");
        watch({key(1, "D", 100, 1)});
        plc.regs[D100] = 0x0100;
        if (c.readFirst)
            ASSERT_EQ(1, step());
        set(c.reg, c.address, c.length, c.values);
        reports();
        auto shown = [&](const Report &r) {
            return get(QString::fromStdString(std::get<2>(r)), std::get<3>(r), 1, std::get<2>(r) == "D" ? 2 : 1);
        };
        std::vector<Bytes> seen; // what the runtime reads inside the reports
        inReport = [&](const Report &r) { seen.push_back(shown(r)); };
        EXPECT_EQ(c.function, nextFrame().frame[1]);
        const QByteArray refusal = c.function == 0x03 ? READ_REFUSED : WRITE_REFUSED;
        EXPECT_EQ(8, answerWith(refusal));
        EXPECT_EQ(2, answerWith(refusal));
        inReport = nullptr;
        const Reports reported = reports();
        EXPECT_EQ(c.reported, reported);
        for (size_t i = 0; i < seen.size(); ++i)
            EXPECT_EQ(shown(reported.at(i)), seen[i]) << "inside report " << i;
        EXPECT_EQ(std::make_pair(c.readFirst ? 0x0100 : 0, Bytes{0, 0}), std::make_pair(word("D", 100), get("X", 4, 2, 2)));
        EXPECT_TRUE(driver.writeJobs.isEmpty());
        set(c.reg, c.address, c.length, c.values, 9); // the next write goes out as the first did
        const FRAME_PRO again = nextFrame();
        EXPECT_EQ(std::make_pair(c.function, 9), std::make_pair(int(again.frame[1]), again.var.id));
    }
}

TEST_F(BitsInWords, WatchedBitsReportOncePerChangedBitInAscendingOrder)
{
    const struct { const char *what; std::vector<KEY_ADDRESS> keys; quint16 before[2], after[2]; Reports reported; } cases[] = {
        {"other bits of the word report nothing", {key(1, "D_bit", 1605, 2, BIT)}, {0, 0}, {0x0061, 0},
         reportsOf("D_bit", {1605, 1606})},
        {"a word watched as a word reports as usual", {key(1, "D_bit", 1605, 1, BIT), key(1, "D", 100, 1)}, {0, 0},
         {0x0001, 0}, reportsOf("D", {100})},
        {"the word first, then its bits", {key(1, "D_bit", 1605, 1, BIT), key(1, "D", 100, 1)}, {0, 0}, {0x0020, 0},
         {{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}},
        {"bits over two words", {key(1, "D_bit", 1614, 4, BIT)}, {0x3FFF, 0xFFFC}, {0xFFFF, 0xFFFF},
         reportsOf("D_bit", {1614, 1615, 1616, 1617})},
        {"a bit named twice reports once", {key(1, "D_bit", 1615, 1, BIT), key(1, "D_bit", 1600, 16, BIT)}, {0, 0},
         {0x8000, 0}, reportsOf("D_bit", {1615})},
        {"a bit set back reports", {key(1, "D_bit", 1603, 1, BIT)}, {0x0008, 0}, {0, 0}, reportsOf("D_bit", {1603})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure("1#0#0#3#10");
        watch(c.keys);
        replyOfWords(100, {c.before[0], c.before[1]});
        reports();
        replyOfWords(100, {c.after[0], c.after[1]});
        EXPECT_EQ(c.reported, reports());
    }
    // Reads give one byte a bit and nothing past them.
    replyOfWords(100, {0x8421, 0x0001});
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0}), get("D_bit", 1600, 18, 18));
    EXPECT_EQ(Bytes{}, get("D_bit", 1606, 0, 0));
}

TEST_F(BitsInWords, WrittenBitGoesOutInAWordWriteAndOutlivesAReplyUntilItSettles)
{
    watch({key(1, "D_bit", 1600, 1, BIT), key(1, "D_bit", 1605, 1, BIT), key(1, "D_bit", 1616, 1, BIT)});
    plc.regs[D100] = 0x0F00;
    ASSERT_EQ(1, step());
    set("D_bit", 1605, 1, {1});
    EXPECT_EQ(reportsOf("D_bit", {1605}), reports());
    EXPECT_EQ(0x0F20, word("D", 100));
    const FRAME_PRO write = nextFrame();
    EXPECT_EQ(withCrc(hexBytes("01 06 43 9C 0F 20")), sentBytes(write));
    // Another writer set bit 0; the PLC does not hold bit 5 yet.
    replyOfWords(100, {0x0F01});
    EXPECT_EQ(reportsOf("D_bit", {1600}), reports());
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0, 1}), get("D_bit", 1600, 6, 6));
    // The write carried bit 0 from the older read: the read-modify-write
    // window. The word shows what the PLC now holds, and bit 0 reports.
    EXPECT_EQ(1, answerWith(plc.answer(write)));
    EXPECT_EQ(std::make_pair(0x0F20, 0x0F20), std::make_pair(int(plc.regs[D100]), word("D", 100)));
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(int(unit("D", 100).writePending), unit("D", 100).bitWritePending));
    EXPECT_EQ(reportsOf("D_bit", {1600}), reports());
}

TEST_F(BitsInWords, BitOfAWordNeverReadIsWrittenAfterTheWordIsRead)
{
    plc.regs = {{D100, 0x1234}, {D100 + 1, 0x0001}};
    set("D_bit", 1600, 1, {1}, 42);
    EXPECT_EQ(reportsOf("D_bit", {1600}), reports());
    FRAME_PRO sent;
    EXPECT_EQ(1, step(&sent));
    EXPECT_EQ(withCrc(hexBytes("01 03 43 9C 00 01")), sentBytes(sent));
    EXPECT_EQ(1, step(&sent));
    EXPECT_EQ(withCrc(hexBytes("01 06 43 9C 12 35")), sentBytes(sent));
    EXPECT_EQ(42, sent.var.id); // the word write carries the bit write's id
    EXPECT_EQ(-1, step());
    EXPECT_EQ(std::make_pair(0x1235, 0), std::make_pair(word("D", 100), int(unit("D", 100).writePending)));
    // The runtime's own condition batch saw no end signal from the driver's read.
    EXPECT_TRUE(reports().empty());
    // A condition read of bits reads the words holding them and ends its batch.
    KEY_ADDRESS k = key(1, "D_bit", 1615, 2, BIT);
    EXPECT_EQ(1, intf_addConditionRead(&k, 7));
    runUntilIdle();
    EXPECT_EQ((Reports{{-1, -1, "-1", 0}}), reports());
    EXPECT_EQ((Bytes{0, 1}), get("D_bit", 1615, 2, 2));
}

TEST_F(BitsInWords, EveryWordRegisterTakesBitsAndOtherRegistersRefuseThem)
{
    configure("1#1#0#3#10"); // cache-only: what a write shows, without the line
    for (const char *reg : {"D", "V", "Z", "TC", "TP", "CC", "CP"}) {
        set(QString(reg) + "_bit", 35, 1, {1});
        EXPECT_EQ(0x0008, word(reg, 2)) << reg;
    }
    configure("1#0#0#3#10");
    const std::pair<const char *, int> refused[] = {{"200CC_bit", 32}, {"256CP_bit", 0}, {"M_bit", 16}, {"D_bit", -1}};
    for (const auto &r : refused) {
        SCOPED_TRACE(r.first);
        QString name = r.first;
        Bytes buffer(8, 0xEE);
        EXPECT_EQ(0, intf_getData(1, &name, r.second, 4, buffer.data()));
        EXPECT_EQ(Bytes(8, 0xEE), buffer);
        EXPECT_EQ(0, intf_setData(1, &name, r.second, 4, buffer.data(), 1));
        KEY_ADDRESS k = key(1, name, r.second, 4, BIT);
        EXPECT_EQ(1, intf_addConditionRead(&k, 1)); // its batch ends as failed
        EXPECT_EQ(0, watch({k}));
        EXPECT_TRUE(driver.writeJobs.isEmpty() && driver.conditionReads.isEmpty() && driver.dataAreas.isEmpty());
        FRAME_PRO f;
        intf_getSendFrame(&f);
        EXPECT_EQ(Reports({{-1, -1, "-1", -1}}), reports());
    }
    // No word register before the suffix: an unknown name like any other, not a refused one.
    EXPECT_EQ(Bytes(2, 0), get("_bit", 0, 1, 2));
}

} // namespace
