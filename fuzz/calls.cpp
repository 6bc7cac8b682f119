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
//   5 intf_dealRcvFrame: a reply to the frame handed out last (makeReply)
//   6 intf_getData, 7 intf_setData: any station, name, address, and lengths
//     up to 70000 with a buffer of exactly the contract size (or none)
//   8 the callback: none, checking, or checking and reading each unit back
//   9 the recipe flags in shared memory
//  10 up to 16 exchanges answered with good replies
//  11 the descriptive queries
//  12 a call for the callback to make from inside the next report
// Then good replies must work off every write and condition read.
//
// Recipe items keep their values inside the 64 KiB recipe buffer: the driver
// takes the item layout from the runtime as given.
#include "fuzz_support.h"

using namespace kq71fuzz;

namespace {

// Beyond the 65536 units one call may name, so that the driver's own bound is
// exercised, while the buffer stays one a runtime could hold.
const int MAX_VALUE_LENGTH = 70000;

struct Program {
    Input in;
    Runtime runtime;
    FRAME_PRO frame; // handed out last
    bool haveFrame = false;
    int frameGeneration = 0;

    Program(const uint8_t *data, size_t size) : in(data, size) {}

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

    QList<KEY_ADDRESS> keys(int most)
    {
        QList<KEY_ADDRESS> keys;
        for (int n = in.below(most + 1); n > 0; --n)
            keys.append(key());
        return keys;
    }

    QByteArray property()
    {
        // One read per statement: the input must mean the same to every compiler.
        switch (in.byte() % 3) {
        case 0: {
            QByteArray text;
            for (int i = 0; i < 5; ++i)
                text += (i ? "#" : "") + QByteArray::number(in.number());
            return text;
        }
        case 1: {
            static const int gaps[] = {0, 1, 2, 10, 64, 128, 507, 4096, 2147483647};
            const int device = in.below(4);
            const int cacheOnly = in.below(2);
            const int retries = in.below(5);
            const int gap = gaps[in.below(9)];
            return QByteArray::number(device) + "#" + QByteArray::number(cacheOnly) + "#0#" +
                   QByteArray::number(retries) + "#" + QByteArray::number(gap);
        }
        default:
            return in.text().toLatin1(); // any shape; a NUL ends it early
        }
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
            // Bits take 16 to a word, every other unit a word each (a 32-bit
            // value counts two).
            const RegisterInfo *r = findRegister(item.regName);
            const qint64 room = RECIPE_BUFFER_WORDS - item.bufOffset;
            const qint64 most = (r && r->width == 1) ? 16 * room : room;
            const int length = in.number();
            item.length = length > most ? int(length % (most + 1)) : length;
            items.append(item);
        }
        return items;
    }

    void send()
    {
        haveFrame = nextFrame(frame);
        frameGeneration = generation;
    }

    void reply()
    {
        const FRAME_PRO *out = haveFrame && frameGeneration == generation ? &frame : 0;
        bool wellFormed = false;
        const QByteArray bytes = makeReply(in, out, wellFormed);
        // A frame that is answered is done unless it is to be sent again.
        if (deal(in, bytes, out, wellFormed) != 8)
            haveFrame = false;
    }

    void exchange()
    {
        for (int n = 1 + in.below(16); n > 0; --n) {
            send();
            if (!haveFrame || !spend(unitsNamed(frame.var.length)))
                return;
            deal(in, goodReply(in, frame), &frame, true);
            haveFrame = false;
        }
    }

    void queries()
    {
        int type = -1;
        intf_getProtocolType(&type);
        QString text;
        intf_getDriverParameter(&text);
        intf_getDriverPropertyPage(&text);
        text = in.text();
        intf_SetDriverPropertyPage(&text);
        QList<QString> names;
        const int listType = in.number();
        const int result = intf_getRegListByType(listType, &names);
        if (type != 0 || result != (listType == 0 || listType == 1) || names.size() != (listType == 0 ? 8 : 11))
            fail("protocol type %d; intf_getRegListByType(%d): %d, %d names", type, listType, result, names.size());
    }

    // A runtime may call back into the driver from inside a report.
    void nestedCall()
    {
        std::function<void()> call;
        switch (in.below(6)) {
        case 0: {
            const QByteArray text = property();
            call = [this, text] { runtime.init(text.constData()); };
            break;
        }
        case 1: {
            const int station = in.number(), address = in.number(), length = qMin(in.number(), 64);
            const QString name = in.regName();
            const QByteArray values = in.bytes(valueBytes(name, length, false));
            call = [=] { setData(station, name, address, length, values, true, 9); };
            break;
        }
        case 2: {
            const KEY_ADDRESS k = key();
            call = [k] { condition(k, 11); };
            break;
        }
        case 3: {
            const QList<KEY_ADDRESS> list = keys(3);
            call = [list] { watch(list); };
            break;
        }
        case 4: {
            const QVector<_RCP_VAR_PRO> items = recipeItems();
            call = [items] { recipe(items); };
            break;
        }
        default: {
            const int station = in.number(), address = in.number(), length = qMin(in.number(), 64);
            const QString name = in.regName();
            call = [=] { getData(station, name, address, length, true); };
        }
        }
        nested = call;
    }

    void step()
    {
        const int op = in.byte() % 13;
        switch (op) {
        case 0:
            runtime.init(property().constData());
            break;
        case 1:
            watch(keys(12));
            break;
        case 2: {
            const KEY_ADDRESS k = key();
            condition(k, in.number());
            break;
        }
        case 3:
            recipe(recipeItems());
            break;
        case 4:
            send();
            break;
        case 5:
            reply();
            break;
        case 6:
        case 7: {
            const int station = in.number(), address = in.number(), length = qMin(in.number(), MAX_VALUE_LENGTH);
            const QString name = in.regName();
            const bool withBuffer = in.byte() % 8 != 0;
            if (op == 6) {
                getData(station, name, address, length, withBuffer);
                break;
            }
            const QByteArray values = in.bytes(valueBytes(name, length, false));
            setData(station, name, address, length, values, withBuffer, in.number());
            break;
        }
        case 8:
            setCallback(in.below(3));
            break;
        case 9: {
            static const unsigned char values[] = {0, 1, 1, 2, 255};
            const unsigned char write = values[in.below(5)];
            runtime.setRecipeFlags(write, values[in.below(5)]);
            break;
        }
        case 10:
            exchange();
            break;
        case 11:
            queries();
            break;
        default:
            nestedCall();
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
    // Both queues full, a cyclic read between runs, every recipe block written
    // and read (V and Z a frame per word): a nested call from a report may
    // still fill the queues meanwhile.
    drain(p.in, 6 * qint64(MAX_QUEUED_JOBS) + 2 * (MAX_BLOCK_UNITS + 2) * qint64(driver.rcpBlocks.size()) + 64, 0);
    return 0;
}
