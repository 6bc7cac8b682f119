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
//   steps     until the input ends: a reply (see answer) and the shape of
//             the intf_dealRcvFrame arguments (see deal)
// The chosen job is set up first and made current with intf_getSendFrame; the
// others are then queued behind it, as a runtime does while a frame is out.
// Then good replies must finish every write, condition read and recipe
// transfer, with no pause while jobs wait.
#include "fuzz_support.h"

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
    const bool bits = (pick & 0x80) && r.width == 16;
    KEY_ADDRESS key;
    key.station = 1;
    key.regName = QString::fromLatin1(r.name) + QLatin1String(bits ? "_bit" : "");
    key.address = bits ? addressIn(in, r) * 16 + (pick >> 3) % 16 : addressIn(in, r);
    key.length = unitsOf(r, in.byte() % 64);
    key.dataType = r.width == 1 || bits ? -1 : 0;
    return key;
}

} // namespace

int runRepliesInput(const uint8_t *data, size_t size)
{
    Runtime runtime;
    Input in{data, size};
    static const int gaps[] = {0, 1, 2, 5, 10, 16, 64, 200};
    const uint8_t config = in.byte();
    setCallback(config & 0x20 ? 2 : 1);
    runtime.init(("1#0#0#" + QByteArray::number(1 + config % 4) + "#" + QByteArray::number(gaps[(config >> 2) % 8]))
                     .constData());
    const uint8_t choice = in.byte();
    const int current = choice % 5, first = qMin(current, 3);
    const bool bothFlags = choice & 0x08, readFlag = choice & 0x10;

    // The four jobs: watch list, writes, condition read, recipe; each the calls that set it up.
    QList<std::function<void()>> setUp[4];
    const auto run = [&setUp](int job) {
        for (const std::function<void()> &call : setUp[job])
            call();
    };
    QList<KEY_ADDRESS> keys;
    for (int n = 1 + in.below(4); n > 0; --n)
        keys.append(readKey(in));
    setUp[0] << [keys] { watch(keys); };
    for (int n = 1 + in.below(3); n > 0; --n) {
        const RegisterInfo &r = REGISTERS[in.byte() % 19];
        const int address = addressIn(in, r), length = 1 + in.byte() % 32;
        const QByteArray values = in.bytes(valueBytes(QString::fromLatin1(r.name), length, false));
        setUp[1] << [=] { setData(1, QString::fromLatin1(r.name), address, length, values, true, 7); };
    }
    const KEY_ADDRESS key = readKey(in);
    const int id = in.byte();
    setUp[2] << [key, id] { condition(key, id); };
    QVector<_RCP_VAR_PRO> items;
    for (int n = 1 + in.below(3); n > 0; --n) {
        const RegisterInfo &r = REGISTERS[in.byte() % 19];
        _RCP_VAR_PRO item;
        item.deviceId = item.station = 1;
        item.regName = QString::fromLatin1(r.name);
        item.address = addressIn(in, r);
        item.length = unitsOf(r, in.byte() % 32);
        // The values stay inside the recipe buffer.
        item.bufOffset = in.u16() % (RECIPE_BUFFER_WORDS - (r.width == 1 ? (item.length + 15) / 16 : item.length) + 1);
        items.append(item);
    }
    setUp[3] << [items] { recipe(items); };

    // The current job first, with the state the cycle must choose for it.
    if (current >= 3)
        runtime.setRecipeFlags(current == 3, current == 4 || bothFlags);
    run(first);
    static const int states[] = {CYCLE_CYCLIC, CYCLE_WRITE, CYCLE_CONDITION, CYCLE_RECIPE_WRITE, CYCLE_RECIPE_READ};
    FRAME_PRO f;
    const bool expected = current < 2 || (current == 2 ? !driver.conditionReads.isEmpty() : !driver.rcpBlocks.isEmpty());
    FUZZ_CHECK(nextFrame(f) == expected && (!expected || driver.cycleState == states[current]), "%d", current);
    // Then the rest, queued while that frame is out.
    for (int job = 0; job < 4; ++job)
        if (job != first)
            run(job);
    if (current < 3)
        runtime.setRecipeFlags(!readFlag || bothFlags, readFlag || bothFlags);
    else if (current == 4 && bothFlags)
        runtime.setRecipeFlags(1, 1); // a write asked for while a read is under way

    for (int step = 0; step < 256 && !in.atEnd(); ++step)
        answer(in, (step == 0 ? expected : nextFrame(f)) ? &f : nullptr);
    Input none{nullptr, 0};
    drain(none, &runtime);
    return 0;
}
