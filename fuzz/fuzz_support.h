// What the fuzz targets share: a reader that turns input bytes into call
// arguments, the runtime's buffers in exactly the sizes the runtime contract
// promises, and the checked calls into the driver.
//
// An invariant that does not hold ends the process through fail(), so that
// libFuzzer keeps the input as a crash and a replay stops at the first fault.
#ifndef KQ71_FUZZ_SUPPORT_H
#define KQ71_FUZZ_SUPPORT_H

#include "vorn_kq71_ap.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

// The targets' bodies, each described at the top of its file. libFuzzer calls
// them through fuzz_main.cpp; the unit tests replay the kept inputs. Each
// returns 0.
int runRepliesInput(const uint8_t *data, size_t size);
int runCallsInput(const uint8_t *data, size_t size);
int runEditorInput(const uint8_t *data, size_t size);

namespace kq71fuzz {

[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));
void setInputName(const char *name); // named in every failure message

// Reads arguments from the input front to back; past its end every read
// gives zeros, so any input is a complete program.
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), n_(size) {}
    bool atEnd() const { return n_ == 0; }
    uint8_t byte() { return n_ ? (--n_, *p_++) : 0; }
    uint16_t u16()
    {
        const uint16_t low = byte();
        return uint16_t(low | byte() << 8);
    }
    int below(int n) { return n > 0 ? byte() % n : 0; }
    int number();             // a small number, a boundary value or four raw bytes
    QByteArray bytes(int n);  // zeros where the input has ended
    QString text();           // Latin-1 or UTF-8, up to 47 bytes
    QString regName();        // of the family, a near miss or any text

private:
    const uint8_t *p_;
    size_t n_;
};

struct RegisterInfo {
    const char *name;
    int width; // bits of one unit: 1, 16 or 32
    int lowest, highest, radix;
};
extern const RegisterInfo REGISTERS[19];
const RegisterInfo *findRegister(const QString &name); // 0 outside the family

// 1: bits of 16-bit words ("D_bit"); -1: a bit-in-word name the driver
// refuses (of a bit or 32-bit register, or with anything between register
// and suffix); 0: another name.
int bitInWordKind(const QString &name);
// Bytes of the values buffer for length units: a byte per bit, two per word,
// and for 32-bit registers (length counting words) four per whole value read,
// two per word written. None for a refused bit-in-word name.
int getDataBytes(const QString &name, int length);
int setDataBytes(const QString &name, int length);
qint64 unitsNamed(qint64 length); // the driver bounds every range to 65536 units

enum { RECIPE_BUFFER_WORDS = 32768 };

// Shared memory of exactly KQ71_SHARED_MEM_MIN bytes and a 64 KiB recipe
// buffer on the heap, so that an access past either end is reported. The
// driver is put back to its state after load on construction and again on
// destruction, so that no pointer to the freed buffers stays behind; Qt's
// messages (a debug line per job) are dropped meanwhile.
struct Runtime {
    Runtime();
    ~Runtime();
    Runtime(const Runtime &) = delete;
    void init(const char *property); // checked: 1, status 0, nothing left behind
    void setRecipeFlags(unsigned char write, unsigned char read);
    unsigned char *sharedMem, *recipeBuf;
    QMutex mutex;
};

// Around one entry point call: afterwards the cache has grown by at most the
// units the call named (nested calls from the callback add theirs), both job
// queues are within 513, the callback was called a bounded number of times
// and the call returned within the time limit.
class CallCheck {
public:
    CallCheck(const char *what, qint64 unitsNamed);
    ~CallCheck();

private:
    const char *what_;
    int cacheBefore_;
    std::chrono::steady_clock::time_point start_;
};

// The callback: 0 none, 1 checking its arguments, 2 also reading each
// reported unit back. A call set with setNestedCall runs from the next report.
void setCallback(int mode);
void setNestedCall(const std::function<void()> &call);

// Entry points with their results checked. Each draws the units it names
// from a work budget per input, and is skipped once that runs out.
void watch(QList<KEY_ADDRESS> keys);
void condition(KEY_ADDRESS key, int id); // opens a batch that must end once
void recipe(QVector<_RCP_VAR_PRO> items);
void getData(int station, QString name, int address, int length, bool withBuffer);
void setData(int station, QString name, int address, int length, const QByteArray &values, bool withBuffer, int id);
bool spend(qint64 units);

// intf_getSendFrame with the frame's checks; false when nothing is to be sent.
bool nextFrame(FRAME_PRO &frame);
// A reply to the frame handed out last (none: frame is 0), chosen by the
// input: raw bytes of up to 1099, a correct reply with or without one flaw,
// an exception reply, or bytes of exactly the length awaited. wellFormed:
// the driver must take it.
QByteArray makeReply(Input &in, const FRAME_PRO *frame, bool &wellFormed);
QByteArray goodReply(Input &in, const FRAME_PRO &frame);
// intf_dealRcvFrame with argument shapes from the input, its result and error
// text checked against the frame that is out. Returns the result.
int deal(Input &in, const QByteArray &reply, const FRAME_PRO *frame, bool wellFormed);
// Answered well, the exchange works off every write and condition read (and,
// given the runtime, every recipe transfer its flags ask for) within bound
// frames, and the open batch ends.
void drain(Input &in, qint64 bound, const Runtime *recipeFlags);
int initGeneration(); // counts intf_initProperty calls: a frame out before is gone

} // namespace kq71fuzz

#endif
