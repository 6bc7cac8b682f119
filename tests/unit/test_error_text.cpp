#include "protocol.h"

#include <gtest/gtest.h>

namespace {

void queueJob(int station, const char *reg, int address, int length)
{
    FRAME_PRO f;
    f.var.station = station;
    f.var.regName = QString::fromLatin1(reg);
    f.var.address = address;
    f.var.length = length;
    driver.frameQueue.clear();
    driver.frameQueue.append(f);
}

} // namespace

TEST(ErrorText, NamesTheHeadJobAndThePlcErrorNumber)
{
    const struct {
        int station;
        const char *reg;
        int address, length;
        const char *reply;
        const char *text;
    } rows[] = {
        {1, "D", 100, 3, "01 03 06 00 01 00 02 00 03 FD 74", "1#D100(3)"},
        {1, "D", 100, 3, "01 83 02 C0 F1", "1#D100(3),error code:3"},
        {2, "X", 16, 10, "02 81 02 31 91", "2#X16(10),error code:1"},
        {1, "V", 5, 1, "01 86 02 C3 A1", "1#V5(1),error code:6"},
        {1, "Z", 6, 1, "", "1#Z3(1)"},
        {1, "Z", 5, 1, "01 83 02 C0 F1", "1#V2(1),error code:3"},
        {1, "Z", -3, 1, "", "1#Z-1(1)"}, // remainder -1: treated as even
        {1, "Z", -4, 1, "", "1#Z-2(1)"},
        {1, "D", 100, 3, "", "1#D100(3)"},
        {1, "D", 100, 3, "01 80 02 C0 F1", "1#D100(3)"},
        {1, "D", 100, 3, "01 FF 02 C0 F1", "1#D100(3),error code:127"},
        {1, "D", 100, 3, "01 83 02 C0 F1 00", "1#D100(3)"},
        {1, "D", 100, 3, "01 83 02 C0", "1#D100(3)"},
        {0, "%3", 7, 2, "", "0#%37(2)"}, // a '%' in a name is not a placeholder
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        queueJob(r.station, r.reg, r.address, r.length);
        EXPECT_EQ(getErrorInfo(QByteArray::fromHex(r.reply)), QString::fromLatin1(r.text));
    }
    driver.frameQueue.clear();
}

TEST(ErrorText, EmptyQueueGivesNoText)
{
    driver.frameQueue.clear();
    EXPECT_TRUE(getErrorInfo(QByteArray::fromHex("01 83 02 C0 F1")).isEmpty());
}
