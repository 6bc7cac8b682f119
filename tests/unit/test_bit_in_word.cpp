// Bits inside 16-bit words ("D_bit", the address counting bits from bit 0 of
// word 0): watched, read and written as bits, cached in the words holding them.
#include "test_support.h"

using namespace kq71test;

namespace {

const int D100 = 0x439C; // wire address of D 100

class BitsInWords : public DriverTest {
protected:
    const _DATA_ &unit(const char *reg, int address)
    {
        return driver.dataAreas.at(getIndexOfDataArea(1, reg, address));
    }
    // A read reply of D `address`..: decoded as the cycle decodes one.
    void replyOfWords(int address, std::vector<quint16> values)
    {
        Bytes r{1, 3, quint8(2 * values.size())};
        for (quint16 v : values) {
            r.push_back(v >> 8);
            r.push_back(v & 0xFF);
        }
        ServiceLock lock;
        analyzeFrameOfVal(toQt(withCrc(r)), int(values.size()), 3, job("D", address, int(values.size())));
    }
    int shown(int address) { return word("D", address); }
    Reports bitReports(std::initializer_list<int> bits)
    {
        Reports r;
        for (int b : bits)
            r.push_back(Report{1, 1, "D_bit", b});
        return r;
    }
};

TEST_F(BitsInWords, WatchedBitsReportOncePerChangedBitInAscendingOrder)
{
    const struct {
        const char *what;
        std::vector<KEY_ADDRESS> keys;
        std::map<int, quint16> before, after;
        Reports reported;
    } cases[] = {
        {"other bits of the word report nothing", {key(1, "D_bit", 1605, 2, BIT)}, {{D100, 0}}, {{D100, 0x0061}},
         {{1, 1, "D_bit", 1605}, {1, 1, "D_bit", 1606}}},
        {"a word watched as a word reports as usual",
         {key(1, "D_bit", 1605, 1, BIT), key(1, "D", 100, 1)}, {{D100, 0}}, {{D100, 0x0001}}, {{1, 1, "D", 100}}},
        {"the word first, then its bits", {key(1, "D_bit", 1605, 1, BIT), key(1, "D", 100, 1)}, {{D100, 0}},
         {{D100, 0x0020}}, {{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}},
        {"bits over two words", {key(1, "D_bit", 1614, 4, BIT)}, {{D100, 0x3FFF}, {D100 + 1, 0xFFFC}},
         {{D100, 0xFFFF}, {D100 + 1, 0xFFFF}},
         {{1, 1, "D_bit", 1614}, {1, 1, "D_bit", 1615}, {1, 1, "D_bit", 1616}, {1, 1, "D_bit", 1617}}},
        {"a bit named twice reports once", {key(1, "D_bit", 1615, 1, BIT), key(1, "D_bit", 1600, 16, BIT)},
         {{D100, 0}}, {{D100, 0x8000}}, {{1, 1, "D_bit", 1615}}},
        {"a bit set back reports", {key(1, "D_bit", 1603, 1, BIT)}, {{D100, 0x0008}}, {{D100, 0}},
         {{1, 1, "D_bit", 1603}}},
        {"an unchanged reply reports nothing", {key(1, "D_bit", 1600, 16, BIT)}, {{D100, 0x0F0F}}, {{D100, 0x0F0F}},
         {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure("1#0#0#3#10");
        watch(c.keys);
        plc.regs = c.before;
        ASSERT_EQ(1, step());
        reports();
        plc.regs = c.after;
        ASSERT_EQ(1, step());
        EXPECT_EQ(c.reported, reports());
    }
}

TEST_F(BitsInWords, ReadsGiveOneByteABitAndNothingPastThem)
{
    watch({key(1, "D", 100, 2)});
    plc.regs = {{D100, 0x8421}, {D100 + 1, 0x0001}};
    ASSERT_EQ(1, step());
    const struct {
        int address, length;
        Bytes expected;
    } cases[] = {
        {1600, 20, {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0}},
        {1615, 2, {1, 1}},
        {1610, 1, {1}},
        {1606, 0, {}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.expected, get(1, "D_bit", c.address, c.length, int(c.expected.size()))) << c.address;
}

TEST_F(BitsInWords, WrittenBitGoesOutInAWordWriteAndOutlivesAReplyUntilItSettles)
{
    watch({key(1, "D_bit", 1600, 1, BIT), key(1, "D_bit", 1605, 1, BIT)});
    plc.regs[D100] = 0x0F00;
    ASSERT_EQ(1, step());
    set(1, "D_bit", 1605, 1, {1});
    EXPECT_EQ(bitReports({1605}), reports());
    EXPECT_EQ(0x0F20, shown(100));

    const FRAME_PRO write = nextFrame();
    EXPECT_EQ(withCrc(hexBytes("01 06 43 9C 0F 20")), sentBytes(write));
    // Another writer set bit 0; the PLC does not hold bit 5 yet.
    replyOfWords(100, {0x0F01});
    EXPECT_EQ(bitReports({1600}), reports());
    EXPECT_EQ((Bytes{1, 0, 0, 0, 0, 1}), get(1, "D_bit", 1600, 6, 6));

    // The write carried bit 0 from the older read: the read-modify-write
    // window. The word shows what the PLC now holds, and bit 0 reports.
    EXPECT_EQ(1, answerWith(plc.answer(write)));
    EXPECT_EQ(0x0F20, plc.regs[D100]);
    EXPECT_EQ(0x0F20, shown(100));
    EXPECT_EQ(0, unit("D", 100).writePending);
    EXPECT_EQ(0, unit("D", 100).bitWritePending);
    EXPECT_EQ(bitReports({1600}), reports());
}

TEST_F(BitsInWords, BitsOfSeveralWordsGoInOneWriteAndLeaveTheOtherBits)
{
    watch({key(1, "D", 100, 2)});
    plc.regs = {{D100, 0xFFFF}, {D100 + 1, 0x0000}};
    ASSERT_EQ(1, step());
    reports();
    set(1, "D_bit", 1614, 4, {0, 1, 1, 0});
    // Only bits that changed report, under the name the runtime gave; the words report as watched words.
    EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D_bit", 1614}, {1, 1, "D", 101}, {1, 1, "D_bit", 1616}}),
              reports());
    FRAME_PRO sent;
    EXPECT_EQ(1, step(&sent));
    EXPECT_EQ(withCrc(hexBytes("01 10 43 9C 00 02 04 BF FF 00 01")), sentBytes(sent));
    EXPECT_EQ(0xBFFF, plc.regs[D100]);
    EXPECT_EQ(0x0001, plc.regs[D100 + 1]);
}

TEST_F(BitsInWords, BitsWrittenAfterAWriteWasBuiltWaitForTheirOwnWrite)
{
    const struct {
        const char *what;
        QByteArray firstAnswer; // empty: the PLC acknowledges
        int shownBetween;       // after the first write ended and a reply without bit 6
    } cases[] = {
        {"the first write acknowledged", {}, 0x0060},
        {"the first write given up", WRITE_REFUSED, 0x0040},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure("1#0#0#1#10");
        watch({key(1, "D", 100, 1)});
        plc.regs.clear();
        ASSERT_EQ(1, step());
        set(1, "D_bit", 1605, 1, {1});
        const FRAME_PRO first = nextFrame();
        set(1, "D_bit", 1606, 1, {1});
        reports();
        EXPECT_EQ(c.firstAnswer.isEmpty() ? 1 : 2, answerWith(c.firstAnswer.isEmpty() ? plc.answer(first) : c.firstAnswer));
        // Bit 6 still waits for its write: a reply without it keeps it.
        replyOfWords(100, {quint16(c.firstAnswer.isEmpty() ? 0x0020 : 0)});
        EXPECT_EQ(c.shownBetween, shown(100));
        EXPECT_EQ(1, unit("D", 100).writePending);
        if (!c.firstAnswer.isEmpty())
            EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}), reports());
        // The second write was built with both bits.
        FRAME_PRO second;
        EXPECT_EQ(1, step(&second));
        EXPECT_EQ(0x06, second.frame[1]);
        EXPECT_EQ(0x0060, plc.regs[D100]);
        EXPECT_EQ(0x0060, shown(100));
        EXPECT_EQ(0, unit("D", 100).bitWritePending);
    }
}

TEST_F(BitsInWords, GivenUpBitsFallBackAndReportLikeAnyGivenUpWrite)
{
    const struct {
        const char *what;
        bool readFirst;        // the word has been read before the write
        QByteArray refusal;    // answer to every frame after the write was asked for
    } cases[] = {
        {"the write is given up", true, WRITE_REFUSED},
        {"the read the write waits for is given up", false, READ_REFUSED},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        configure("1#0#0#2#10");
        watch({key(1, "D", 100, 1)});
        plc.regs[D100] = 0x0100;
        if (c.readFirst)
            ASSERT_EQ(1, step());
        reports();
        set(1, "D_bit", 1605, 1, {1});
        const int before = shown(100);
        reports();
        FRAME_PRO f;
        ASSERT_EQ(1, intf_getSendFrame(&f));
        EXPECT_EQ(c.readFirst ? 0x06 : 0x03, f.frame[1]);
        EXPECT_EQ(8, answerWith(c.refusal));
        EXPECT_EQ(2, answerWith(c.refusal));
        EXPECT_EQ((Reports{{1, 1, "D", 100}, {1, 1, "D_bit", 1605}}), reports());
        EXPECT_EQ(before & ~0x20, shown(100));
        EXPECT_EQ(0, unit("D", 100).writePending);
        EXPECT_TRUE(driver.writeJobs.isEmpty());
    }
}

TEST_F(BitsInWords, BitOfAWordNeverReadIsWrittenAfterTheWordIsRead)
{
    plc.regs[D100] = 0x1234;
    set(1, "D_bit", 1600, 1, {1}, 42);
    EXPECT_EQ(bitReports({1600}), reports());
    FRAME_PRO sent;
    EXPECT_EQ(1, step(&sent));
    EXPECT_EQ(withCrc(hexBytes("01 03 43 9C 00 01")), sentBytes(sent));
    EXPECT_EQ(1, step(&sent));
    EXPECT_EQ(withCrc(hexBytes("01 06 43 9C 12 35")), sentBytes(sent));
    EXPECT_EQ(42, sent.var.id); // the word write carries the bit write's id
    EXPECT_EQ(-1, step());
    EXPECT_EQ(0x1235, shown(100));
    EXPECT_EQ(0, unit("D", 100).writePending);
    // The runtime's own condition batch saw no end signal from the driver's read.
    EXPECT_TRUE(reports().empty());
}

TEST_F(BitsInWords, ConditionReadOfBitsReadsTheirWordsAndEndsItsBatch)
{
    plc.regs = {{D100, 0x8000}, {D100 + 1, 0x0001}};
    KEY_ADDRESS k = key(1, "D_bit", 1615, 2, BIT);
    EXPECT_EQ(1, intf_addConditionRead(&k, 7));
    runUntilIdle();
    EXPECT_EQ((Reports{{-1, -1, "-1", 0}}), reports());
    EXPECT_EQ((Bytes{1, 1}), get(1, "D_bit", 1615, 2, 2));
}

TEST_F(BitsInWords, EveryWordRegisterTakesBitsAndOtherRegistersRefuseThem)
{
    configure("1#1#0#3#10"); // cache-only: what a write shows, without the line
    for (const char *reg : {"D", "V", "Z", "TC", "TP", "CC", "CP"}) {
        set(1, QString(reg) + "_bit", 35, 1, {1});
        EXPECT_EQ(0x0008, word(reg, 2)) << reg;
    }

    configure("1#0#0#3#10");
    const struct {
        const char *name;
        int address;
    } refused[] = {{"200CC_bit", 32}, {"256CP_bit", 0}, {"M_bit", 16}, {"D_bit", -1}};
    for (const auto &r : refused) {
        SCOPED_TRACE(r.name);
        QString name = r.name;
        Bytes buffer(8, 0xEE);
        EXPECT_EQ(0, intf_getData(1, &name, r.address, 4, buffer.data()));
        EXPECT_EQ(Bytes(8, 0xEE), buffer);
        EXPECT_EQ(0, intf_setData(1, &name, r.address, 4, buffer.data(), 1));
        KEY_ADDRESS k = key(1, name, r.address, 4, BIT);
        EXPECT_EQ(1, intf_addConditionRead(&k, 1)); // its batch ends as failed
        EXPECT_EQ(0, watch({k}));
        EXPECT_TRUE(driver.writeJobs.isEmpty() && driver.conditionReads.isEmpty() && driver.dataAreas.isEmpty());
        FRAME_PRO f;
        intf_getSendFrame(&f);
        EXPECT_EQ(Reports({{-1, -1, "-1", -1}}), reports());
    }
}

} // namespace
