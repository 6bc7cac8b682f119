// Fuzz target "calls": the runtime's side of the contract, any program of it.
//
// The input is a program: one opcode byte per call, its arguments after it
// (numbers through Input::number, so boundary values and raw ints are as
// likely as small ones; names through Input::regName). The driver starts
// configured with "1#0#0#3#10" and the checking callback, as a runtime
// starts it; then, until the input or 96 calls end:
//   0 intf_initProperty: a property text of five numbers, of small useful
//     numbers, or any text
//   1 intf_addrMerge: up to 12 keys with any station, name, address, length,
//     data type and carried fields
//   2 intf_addConditionRead: one such key and an id
//   3 intf_setRcpAddress: up to 8 items, mostly of this device
//   4 intf_getSendFrame
//   5 intf_dealRcvFrame: a reply to the frame handed out last (answer)
//   6 intf_getData, 7 intf_setData: any station, name, address, and lengths
//     up to 70000 with a buffer of exactly the contract size (or none)
//   8 the callback: none, checking, or checking and reading each unit back
//   9 the recipe flags in shared memory
//  10 up to 16 exchanges answered with good replies
//  11 the descriptive queries
//  12 one of 0, 7, 2, 1, 3, 6 (by a byte % 6) for the callback to make from
//     inside the next report: up to 3 keys, lengths up to 64, always a
//     buffer, no id (9 for writes, 11 for condition reads)
// Then good replies must work off every write and condition read.
//
// Recipe items keep their values inside the 64 KiB recipe buffer: the driver
// takes the item layout from the runtime as given.
#include "fuzz_support.h"

using namespace kq71fuzz;

namespace {

struct Program {
    Input in;
    Runtime runtime;
    FRAME_PRO frame; // handed out last
    bool haveFrame = false;

    Program(const uint8_t *data, size_t size) : in{data, size} {}

    KEY_ADDRESS key()
    {
        KEY_ADDRESS k;
        k.regName = in.regName();
        k.station = in.number();
        k.address = in.number();
        k.length = in.number();
        k.dataType = in.number();
        const uint8_t extra = in.byte();
        if (extra & 1) {
            k.label = in.text();
            k.note = in.text();
            k.tag = in.number();
            k.bufOffset = in.number();
        }
        if (extra & 2) {
            const QByteArray d = in.bytes(in.byte());
            memcpy(k.data, d.constData(), size_t(d.size()));
        }
        return k;
    }

    QByteArray property()
    {
        // One read per statement: the input must mean the same to every compiler.
        const int mode = in.byte() % 3;
        if (mode == 2)
            return in.text().toLatin1(); // any shape; a NUL ends it early
        if (mode == 1) { // device, cache only, retries and merge gap of use
            static const int gaps[] = {0, 1, 2, 10, 64, 128, 507, 4096, 2147483647};
            const int device = in.below(4), cacheOnly = in.below(2), retries = in.below(5), gap = gaps[in.below(9)];
            return QString::fromLatin1("%1#%2#0#%3#%4").arg(device).arg(cacheOnly).arg(retries).arg(gap).toLatin1();
        }
        QByteArray text = QByteArray::number(in.number());
        for (int i = 1; i < 5; ++i)
            text += "#" + QByteArray::number(in.number());
        return text;
    }

    QVector<_RCP_VAR_PRO> recipeItems()
    {
        QVector<_RCP_VAR_PRO> items;
        for (int n = in.below(9); n > 0; --n) {
            _RCP_VAR_PRO item;
            item.deviceId = in.byte() % 4 ? driver.deviceId : in.number();
            item.station = in.number();
            item.regName = in.regName();
            item.address = in.number();
            item.bufOffset = in.u16() % RECIPE_BUFFER_WORDS;
            item.reserved = in.number();
            // Bits take 16 to a word, every other unit (a 32-bit value: two) a word each.
            const qint64 room = RECIPE_BUFFER_WORDS - item.bufOffset;
            const qint64 most = widthOf(item.regName) == 1 ? 16 * room : room;
            const int length = in.number();
            item.length = length > most ? int(length % (most + 1)) : length;
            items.append(item);
        }
        return items;
    }

    // A call that takes arguments, read now and made at once or, nested, from
    // inside the next report.
    std::function<void()> call(int op, bool nested)
    {
        switch (op) {
        case 0:
            return [this, text = property()] { runtime.init(text.constData()); };
        case 1: {
            QList<KEY_ADDRESS> keys;
            for (int n = in.below(nested ? 4 : 13); n > 0; --n)
                keys.append(key());
            return [keys] { watch(keys); };
        }
        case 2: {
            const KEY_ADDRESS k = key();
            const int id = nested ? 11 : in.number();
            return [k, id] { condition(k, id); };
        }
        case 3:
            return [items = recipeItems()] { recipe(items); };
        default: { // 6 intf_getData, 7 intf_setData
            // Past the 65536 units one call may name, a buffer a runtime could still hold.
            const int station = in.number(), address = in.number(), length = qMin(in.number(), nested ? 64 : 70000);
            const QString name = in.regName();
            const bool withBuffer = nested || in.byte() % 8 != 0;
            if (op == 6)
                return [=] { getData(station, name, address, length, withBuffer); };
            const QByteArray values = in.bytes(valueBytes(name, length, false));
            const int id = nested ? 9 : in.number();
            return [=] { setData(station, name, address, length, values, withBuffer, id); };
        }
        }
    }

    void step()
    {
        const int op = in.byte() % 13;
        if (op < 4 || op == 6 || op == 7)
            return call(op, false)();
        if (op == 4) {
            haveFrame = nextFrame(frame);
        } else if (op == 5) {
            // A frame handed out before the last intf_initProperty is gone; replies to it must find nothing out.
            // A frame that is answered is done unless it is to be sent again.
            haveFrame = answer(in, haveFrame ? &frame : nullptr) == 8 && haveFrame;
        } else if (op == 8) {
            setCallback(in.below(3));
        } else if (op == 9) {
            static const unsigned char values[] = {0, 1, 1, 2, 255};
            const unsigned char write = values[in.below(5)], read = values[in.below(5)];
            runtime.setRecipeFlags(write, read);
        } else if (op == 10) {
            // Good replies are taken; a frame past the budget stays out, for a later reply.
            for (int n = 1 + in.below(16);
                 n > 0 && (haveFrame = nextFrame(frame)) && spend(unitsNamed(frame.var.length)); --n)
                haveFrame = deal(in, goodReply(in, frame), &frame, true) != 1;
        } else if (op == 11) {
            // Their results are the unit tests' business; here any text and list type.
            int type = 0;
            QString page, text = in.text();
            intf_getProtocolType(&type);
            intf_getDriverParameter(&page);
            intf_getDriverPropertyPage(&page);
            intf_SetDriverPropertyPage(&text);
            QList<QString> names;
            intf_getRegListByType(in.number(), &names);
        } else {
            static const int nestable[] = {0, 7, 2, 1, 3, 6};
            nested = call(nestable[in.below(6)], true);
        }
    }
};

} // namespace

int runCallsInput(const uint8_t *data, size_t size)
{
    Program p(data, size);
    setCallback(1);
    p.runtime.init("1#0#0#3#10");
    for (int calls = 0; calls < 96 && !p.in.atEnd(); ++calls)
        p.step();
    drain(p.in, nullptr);
    return 0;
}
