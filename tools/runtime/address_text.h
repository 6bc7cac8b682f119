// Addresses as a user types them in the panel editor ("D100:10", "X20:8",
// "200CC200:2", "M8000"), and bits in words ("D100.5", "D100.0:16": bits
// counted from bit 5 of D100), checked by the driver itself.
#ifndef KQ71_RUNTIME_ADDRESS_TEXT_H
#define KQ71_RUNTIME_ADDRESS_TEXT_H

#include "driver_library.h"
#include "plc_map.h"

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace kq71rt {

// One register of the driver's catalogue.
struct RegisterInfo {
    QString name, format, min, max;
    UnitKind kind = UnitKind::Unknown;
    QString access;  // "R", "RW" or "W"
};

QList<RegisterInfo> registerCatalogue(const DriverLibrary &lib);
const RegisterInfo *findRegister(const QList<RegisterInfo> &catalogue, const QString &name);

// Access modes handed to the driver's check.
enum { ACCESS_READ = 0, ACCESS_WRITE = 1 };

// A run of units as the driver's check and watch list take it: data type -1
// for bits, 0 for 16-bit and 1 for 32-bit registers; the length in bits or
// 16-bit words (two per 32-bit value).
int driverDataType(UnitKind kind);
int driverLength(UnitKind kind, int units);

struct TypedAddress {
    QString text;      // as typed
    QString regName;
    QString addrText;  // in the register's radix
    int count = 1;     // bits, words, or 32-bit values
    int address = -1;  // the driver's number for addrText, once checked
    UnitKind kind = UnitKind::Unknown;
    int bitInWord = -1; // the bit typed after '.', 0..15; the target then counts bits of 16-bit words

    int dataType() const { return driverDataType(kind); }
    int driverLength() const { return kq71rt::driverLength(kind, count); }
    QString unitName(int i) const;
};

// Splits the text at the longest register name that starts it and an
// optional ":count". False with a message for text that cannot be an address.
bool parseAddress(const QString &text, const QList<RegisterInfo> &catalogue, TypedAddress *target, QString *error);

// intf_checkAddr on the target; fills target->address on success. Returns the
// driver's code (0 valid, 1..6 refused). A bit in a word is checked as the
// words holding its bits, then becomes the driver's bit-in-word name ("D_bit")
// and bit number.
int checkAddress(const DriverLibrary &lib, TypedAddress *target, int access);

// The driver's refusal in words.
QString checkFailureText(int code, const TypedAddress &target, const QList<RegisterInfo> &catalogue);

// A run of units of one register that lies on the same PLC memory as a run
// of another: writing one changes the other.
struct SharedMemory {
    QString reg;
    int first = 0, last = 0;
    int step = 1;  // 2: every second unit of first..last (V and Z interleave)
    QString otherReg;
    int otherFirst = 0, otherLast = 0;
    int otherStep = 1;
};

// Every register's units laid on the PLC memory, as the PLC map places them
// within each register's range in the catalogue.
class MemoryMap {
public:
    explicit MemoryMap(const QList<RegisterInfo> &catalogue);
    // The runs of other registers on the memory of units first..last of reg.
    QVector<SharedMemory> shared(const QString &reg, int first, int last) const;

private:
    QStringList names_;
    QHash<QString, QHash<qint64, int>> units_;  // register -> memory unit -> address
};

// "D8512..D9998 (every 2nd) = Z0..Z743"
QString sharedMemoryText(const SharedMemory &m);

// parseAddress and checkAddress in one; the error says what is wrong.
bool resolveAddress(const DriverLibrary &lib, const QList<RegisterInfo> &catalogue, const QString &text, int access,
                    TypedAddress *target, QString *error);

} // namespace kq71rt

#endif
