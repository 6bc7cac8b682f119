// What the fuzz targets share: a reader that turns input bytes into call
// arguments, the runtime's buffers in exactly the sizes the runtime contract
// promises, and the invariants checked around every call into the driver.
//
// An invariant that does not hold ends the process through fail(), so that
// libFuzzer keeps the input as a crash and a replay stops at the first fault.
#ifndef KQ71_FUZZ_SUPPORT_H
#define KQ71_FUZZ_SUPPORT_H

#include "vorn_kq71_ap.h"
#include "../tests/qt_compat.h"

#include <QtCore/QByteArray>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace kq71fuzz {

[[noreturn]] void fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Named in every failure message (the replay test sets the file name).
void setInputName(const char *name);

// --- input ----------------------------------------------------------------

// Reads arguments from the input front to back; past its end every read
// gives zeros, so any input is a complete program.
class Input {
public:
    Input(const uint8_t *data, size_t size) : p_(data), n_(size) {}
    bool atEnd() const { return n_ == 0; }
    uint8_t byte();
    uint16_t u16();
    int32_t i32();
    int below(int n) { return n > 0 ? byte() % n : 0; }
    // A selector byte, then a small number, a boundary value or four raw bytes.
    int number();
    // n bytes; zeros where the input has ended.
    QByteArray bytes(int n);
    // A length byte, then Latin-1 or UTF-8 text.
    QString text();
    // A register name of the family, one with "_bit", a near miss or any text.
    QString regName();
    // One of the 19 register names.
    QString knownRegName();

private:
    const uint8_t *p_;
    size_t n_;
};

// --- the register family as the runtime contract describes it ---------------

struct RegisterInfo {
    const char *name;
    int width;  // bits of one unit: 1, 16 or 32
    int lowest; // address range, as numbers
    int highest;
    int radix;
};
extern const RegisterInfo REGISTERS[19];
// The row of a name, or 0 for a name outside the family.
const RegisterInfo *findRegister(const QString &name);

// Bytes of the values buffer that intf_getData fills / intf_setData reads for
// length units of the register: 1 per bit, 2 per 16-bit word, and for 32-bit
// registers (length counting 16-bit words) 4 per whole value when reading and
// 2 per word when writing. Names outside the family are 16-bit words. 0 for
// lengths below 1.
// Bits inside 16-bit words ("D_bit") take one byte a bit both ways; a
// bit-in-word name the driver refuses (of a bit or 32-bit register, or with
// anything between register and suffix) takes none.
int getDataBytes(const QString &name, int length);
int setDataBytes(const QString &name, int length);
// 1: bits of 16-bit words; -1: a bit-in-word name the driver refuses; 0: another name.
int bitInWordKind(const QString &name);

// Largest length the targets give intf_getData / intf_setData: beyond the
// 65536 units one call may name, so the driver's own bound is exercised,
// while the buffer stays one a runtime could hold.
enum { MAX_VALUE_LENGTH = 70000 };

// Units one range names at most: the driver bounds every range to 65536.
qint64 unitsNamed(qint64 length);

// --- the runtime's side ----------------------------------------------------

enum { RECIPE_BUFFER_BYTES = 65536, RECIPE_BUFFER_WORDS = RECIPE_BUFFER_BYTES / 2 };

// Shared memory of exactly KQ71_SHARED_MEM_MIN bytes and a 64 KiB recipe
// buffer, both on the heap, so that an access past either end is reported.
// Construction puts the driver back to the state after load; destruction
// clears it again, so that no pointer to the freed buffers stays behind.
class Runtime {
public:
    Runtime();
    ~Runtime();
    int init(const char *property); // intf_initProperty with these buffers
    void setRecipeFlags(unsigned char write, unsigned char read);

    unsigned char *sharedMem;
    unsigned char *recipeBuf;
    QMutex mutex;

private:
    Runtime(const Runtime &);
    Runtime &operator=(const Runtime &);
};

// The driver as it is after load: configuration zero, no recipe, no jobs,
// no callback.
void resetDriver();

// Drops Qt messages for a scope (the driver writes debug lines per job).
class QuietMessages {
public:
    QuietMessages();
    ~QuietMessages();

private:
    kq71test::MessageSink previous_;
};

// --- invariants around calls ------------------------------------------------

// Around one entry point call: afterwards the cache has grown by at most the
// units the call named (nested calls from the callback add theirs), the write
// and condition queues are within their bound of 513, the callback was called
// a bounded number of times and the call returned within the time limit.
// Checks made inside the callback count towards the outermost call.
class CallCheck {
public:
    CallCheck(const char *what, qint64 unitsNamed);
    ~CallCheck();

private:
    const char *what_;
    bool outer_;
    int cacheBefore_;
    std::chrono::steady_clock::time_point start_;
};

// Reports of the value-change callback during the outermost call.
void countReport();

// Checks a frame handed out by intf_getSendFrame: sendLen in [0, 1024] and
// equal to the length its own bytes imply, recvLen the reply length its
// request implies, a correct CRC, and the fields that go with its function.
void checkFrame(const FRAME_PRO &frame);

// The callback: checks its arguments (a unit of this device, the end of a
// condition-read batch, or a recipe word inside the recipe buffer), counts the
// report and, when asked, reads the unit back or runs a nested call.
void setCallbackReadsBack(bool on);
// The callback: 0 none, 1 checking, 2 checking and reading each unit back.
void setCallback(int mode);
// Every batch the runtime opens ends with exactly one report: the callback
// fails on an end no batch owes; checkBatchEnded fails while one is owed.
void conditionBatchOpened();
void checkBatchEnded();
bool conditionBatchOwed();
void setNestedCall(const std::function<void()> &call); // run once, from the next report
void valueChanged(int deviceId, int station, const QString &regName, int address);

// --- replies ------------------------------------------------------------------

// A reply for the frame handed out last (none: frame is 0), chosen by the
// input: raw bytes of any length up to 1100, a well-formed reply (possibly
// with one flaw), an exception reply, or bytes of exactly the expected
// length. wellFormed tells that the driver must accept it.
QByteArray makeReply(Input &in, const FRAME_PRO *frame, bool &wellFormed);
// The correct reply to a frame (read: data bytes from the input).
QByteArray goodReply(Input &in, const FRAME_PRO &frame);

// Hands a reply to intf_dealRcvFrame with the argument shapes the input
// chooses (missing reply or text, text filled beforehand) and checks the
// result and the error text against the frame handed out last. Returns the
// result.
int deal(Input &in, const QByteArray &reply, const FRAME_PRO *frame, bool wellFormed);

// One intf_getSendFrame with its checks; false when nothing is to be sent.
bool nextFrame(FRAME_PRO &frame);

// Counts the calls of Runtime::init: a frame handed out before the last one
// is no longer pending.
int initGeneration();

} // namespace kq71fuzz

#endif
