// Fuzz target "replies": whatever comes back over the line.
//
// Input layout (every field one byte unless said otherwise; a field past the
// end of the input reads as 0):
//   config    retry limit 1 + bits 0-1, merge gap from a table by bits 2-4,
//             bit 5: the callback reads each reported unit back
//   choice    current job: 0 cyclic read, 1 write, 2 condition read,
//             3 recipe write, 4 recipe read (choice % 5); bit 3: both recipe
//             flags up (the other one raised after the first frame); bit 4:
//             the recipe read flag rather than the write flag
//   watch     count, then per key: register, address, length
//   writes    count, then per write: register, address, length, value bytes
//   condition register, address, length, id
//   recipe    count, then per item: register, address, length, offset (u16)
//   steps     until the input ends: a reply (see makeReply) and the shape of
//             the intf_dealRcvFrame arguments (see deal)
// The chosen job is set up first and made current with intf_getSendFrame; the
// others are then queued behind it, as a runtime does while a frame is out.
// After the steps, good replies must finish every write, condition read and
// recipe transfer within a bounded number of exchanges.
//
// Recipe items keep their values inside the 64 KiB recipe buffer: the driver
// takes the item layout from the runtime as given.
#include "fuzz_support.h"
#include "fuzz_targets.h"

#include "driver_internals.h"

#include <QtCore/QList>
#include <QtCore/QVector>

#include <cstdlib>

using namespace kq71fuzz;

namespace {

int addressIn(Input &in, const RegisterInfo &r)
{
    return r.lowest + in.byte() % (r.highest - r.lowest + 1);
}

// 1 + n units of the register, as keys count them: 16-bit words for a
// 32-bit register, two to a value.
int unitsOf(const RegisterInfo &r, int n)
{
    return r.width == 32 ? 2 * (1 + n) : 1 + n;
}

// A watched or condition key: any register, word registers also bit by bit.
KEY_ADDRESS readKey(Input &in)
{
    const uint8_t pick = in.byte();
    const RegisterInfo &r = REGISTERS[pick % 19];
    KEY_ADDRESS key;
    key.station = 1;
    key.regName = QString::fromLatin1(r.name);
    key.address = addressIn(in, r);
    key.length = unitsOf(r, in.byte() % 64);
    key.dataType = r.width == 1 ? -1 : 0;
    if ((pick & 0x80) && r.width == 16) {
        key.regName += QLatin1String("_bit");
        key.address = key.address * 16 + (pick >> 3) % 16;
        key.dataType = -1;
    }
    return key;
}

struct Setup {
    QList<KEY_ADDRESS> watch;
    struct Write {
        QString name;
        int address, length;
        QByteArray values;
    };
    QList<Write> writes;
    KEY_ADDRESS condition;
    int conditionId;
    QVector<_RCP_VAR_PRO> recipe;
};

Setup readSetup(Input &in)
{
    Setup s;
    for (int n = 1 + in.below(4); n > 0; --n)
        s.watch.append(readKey(in));
    for (int n = 1 + in.below(3); n > 0; --n) {
        Setup::Write w;
        const RegisterInfo &r = REGISTERS[in.byte() % 19];
        w.name = QString::fromLatin1(r.name);
        w.address = addressIn(in, r);
        w.length = 1 + in.byte() % 32;
        w.values = in.bytes(setDataBytes(w.name, w.length));
        s.writes.append(w);
    }
    s.condition = readKey(in);
    s.conditionId = in.byte();
    for (int n = 1 + in.below(3); n > 0; --n) {
        const RegisterInfo &r = REGISTERS[in.byte() % 19];
        _RCP_VAR_PRO item;
        item.deviceId = 1;
        item.station = 1;
        item.regName = QString::fromLatin1(r.name);
        item.address = addressIn(in, r);
        item.length = unitsOf(r, in.byte() % 32);
        const int words = r.width == 1 ? (item.length + 15) / 16 : item.length;
        item.bufOffset = in.u16() % (RECIPE_BUFFER_WORDS - words + 1);
        s.recipe.append(item);
    }
    return s;
}

void watch(Setup &s)
{
    qint64 units = 0;
    for (int i = 0; i < s.watch.size(); ++i)
        units += unitsNamed(s.watch.at(i).length);
    CallCheck check("intf_addrMerge", units);
    const int jobs = intf_addrMerge(&s.watch);
    if (jobs != driver.cyclicReads.size() || jobs < 1)
        fail("intf_addrMerge returned %d for %d cyclic reads", jobs, driver.cyclicReads.size());
}

void write(const Setup &s)
{
    for (int i = 0; i < s.writes.size(); ++i) {
        const Setup::Write &w = s.writes.at(i);
        // The runtime's buffer holds exactly the values of the write.
        unsigned char *values = static_cast<unsigned char *>(malloc(size_t(w.values.size())));
        memcpy(values, w.values.constData(), size_t(w.values.size()));
        QString name = w.name;
        {
            CallCheck check("intf_setData", unitsNamed(w.length));
            if (intf_setData(1, &name, w.address, w.length, values, 7) != 1)
                fail("intf_setData did not return 1");
        }
        free(values);
    }
}

void conditionRead(Setup &s)
{
    CallCheck check("intf_addConditionRead", unitsNamed(s.condition.length));
    // Also a key that names no unit (one word of a 32-bit register) opens a
    // batch, which ends at the next frame request.
    const int result = intf_addConditionRead(&s.condition, s.conditionId);
    if (result != 1)
        fail("intf_addConditionRead returned %d", result);
    conditionBatchOpened();
}

void recipe(Setup &s)
{
    qint64 units = 0;
    for (int i = 0; i < s.recipe.size(); ++i)
        units += unitsNamed(s.recipe.at(i).length);
    CallCheck check("intf_setRcpAddress", units);
    if (intf_setRcpAddress(&s.recipe) != s.recipe.size())
        fail("intf_setRcpAddress kept fewer items than it was given");
}

bool busy(const Runtime &runtime)
{
    return !driver.writeJobs.isEmpty() || !driver.conditionReads.isEmpty() ||
           runtime.sharedMem[KQ71_RECIPE_WRITE_FLAG] != 0 || runtime.sharedMem[KQ71_RECIPE_READ_FLAG] != 0;
}

// Good replies from here on finish every job in a bounded number of exchanges.
void drain(const Runtime &runtime)
{
    int frames = driver.writeJobs.size() + driver.conditionReads.size();
    for (int i = 0; i < driver.rcpBlocks.size(); ++i) {
        const _RCP_VAR_PRO &b = driver.rcpBlocks.at(i);
        frames += 2 * qMax(1, b.regName == QLatin1String("V") || b.regName == QLatin1String("Z") ? b.length : 1);
    }
    // A cyclic read after every ten writes and every three condition reads.
    const int limit = 2 * frames + 16;
    int n = 0;
    for (; n < limit && busy(runtime); ++n) {
        FRAME_PRO f;
        if (!nextFrame(f))
            fail("nothing to send while jobs wait");
        Input none(0, 0);
        if (deal(none, goodReply(none, f), &f, true) != 1)
            fail("a good reply was not taken");
    }
    if (busy(runtime))
        fail("%d writes, %d condition reads and recipe flags %d/%d left after %d exchanges with good replies",
             driver.writeJobs.size(), driver.conditionReads.size(), runtime.sharedMem[KQ71_RECIPE_WRITE_FLAG],
             runtime.sharedMem[KQ71_RECIPE_READ_FLAG], n);
    FRAME_PRO f;
    nextFrame(f);
    checkBatchEnded();
}

} // namespace

int runRepliesInput(const uint8_t *data, size_t size)
{
    QuietMessages quiet;
    Runtime runtime;
    Input in(data, size);

    setCallback(1);
    static const int gaps[] = {0, 1, 2, 5, 10, 16, 64, 200};
    const uint8_t config = in.byte();
    setCallbackReadsBack(config & 0x20);
    const QByteArray property =
        "1#0#0#" + QByteArray::number(1 + config % 4) + "#" + QByteArray::number(gaps[(config >> 2) % 8]);
    runtime.init(property.constData());

    const uint8_t choice = in.byte();
    const int current = choice % 5;
    const bool bothFlags = choice & 0x08;
    const bool readFlag = choice & 0x10;
    Setup s = readSetup(in);

    // The current job first, with the state the cycle must choose for it.
    int state = CYCLE_CYCLIC;
    switch (current) {
    case 0:
        watch(s);
        break;
    case 1:
        write(s);
        state = CYCLE_WRITE;
        break;
    case 2:
        conditionRead(s);
        state = CYCLE_CONDITION;
        break;
    default:
        runtime.setRecipeFlags(current == 3, current == 4 || bothFlags);
        recipe(s);
        state = current == 3 ? CYCLE_RECIPE_WRITE : CYCLE_RECIPE_READ;
        break;
    }
    FRAME_PRO f;
    const bool expected = current < 2 || (current == 2 ? !driver.conditionReads.isEmpty() : !driver.rcpBlocks.isEmpty());
    if (nextFrame(f) != expected || (expected && driver.cycleState != state))
        fail("job %d was not made current (state %d)", current, driver.cycleState);

    // Then the rest, queued while that frame is out.
    if (current != 0)
        watch(s);
    if (current != 1)
        write(s);
    if (current != 2)
        conditionRead(s);
    if (current < 3) {
        recipe(s);
        runtime.setRecipeFlags(!readFlag || bothFlags, readFlag || bothFlags);
    } else if (current == 4 && bothFlags) {
        runtime.setRecipeFlags(1, 1); // a write asked for while a read is under way
    }

    bool have = expected;
    for (int step = 0; step < 256 && !in.atEnd(); ++step) {
        if (step > 0)
            have = nextFrame(f);
        bool wellFormed = false;
        const QByteArray reply = makeReply(in, have ? &f : 0, wellFormed);
        deal(in, reply, have ? &f : 0, wellFormed);
    }
    drain(runtime);
    return 0;
}
