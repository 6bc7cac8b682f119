/*
 * vorn_kq71_ap: Modbus RTU driver for the KQ71 PLC family, as loaded by an HMI runtime.
 *
 * This header is the whole contract between a runtime and the driver library
 * (libvorn_kq71_ap.so): the records exchanged by pointer, the value-change
 * callback, and the 19 entry points exported under unmangled names. The
 * library also exports the global object `driver`; a runtime only looks it up.
 *
 * Record layouts are binary: field order and integer widths must not change.
 *
 * Threads
 * -------
 * The driver starts no thread and no timer. Every call runs on the caller's
 * thread, and every callback report is made synchronously from inside the call
 * that caused it (intf_dealRcvFrame or intf_setData).
 *
 * A runtime may call
 *   - the editor queries (protocol type, parameter, property page, version,
 *     register lists and descriptions, address checks, multi-copy) from any
 *     thread at any time;
 *   - intf_getSendFrame / intf_dealRcvFrame from its communication thread;
 *   - intf_getData, intf_setData and intf_addConditionRead from its UI thread,
 *     concurrently with the exchange.
 * The driver serialises the cache, the job lists and the frame queue with a
 * recursive lock of its own, so these calls may overlap safely. The planning
 * calls (intf_addrMerge, intf_setRcpAddress) and intf_initProperty take the
 * same lock and may also come from either thread.
 *
 * Inside the value-change callback a runtime may call intf_getData (and any
 * other entry point) on the same thread. It must not block waiting for another
 * thread that is itself calling into the driver, and must not hold the mutex
 * it passed to intf_initProperty while calling intf_getSendFrame or
 * intf_dealRcvFrame: the driver takes that mutex while holding its own lock.
 */
#ifndef VORN_KQ71_AP_H
#define VORN_KQ71_AP_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <stddef.h>
#include <string.h>

#define VORN_KQ71_AP_EXPORT __attribute__((visibility("default")))

/* Size of the value bytes of a job or key, and of the bytes of a frame. */
enum { KQ71_DATA_BYTES = 1024, KQ71_FRAME_BYTES = 1024 };

/* Byte offsets of the recipe request flags in the runtime's shared memory. */
enum { KQ71_RECIPE_WRITE_FLAG = 60115, KQ71_RECIPE_READ_FLAG = 60116, KQ71_SHARED_MEM_MIN = 60117 };

/* One transfer job: a run of consecutive units of one register on one station. */
struct VARIABLE {
    int id;
    int station;
    QString regName;
    int address;
    int length;
    unsigned char data[KQ71_DATA_BYTES];

    VARIABLE() : id(0), station(0), address(0), length(0) { memset(data, 0, sizeof(data)); }
};

/* One address key, as the runtime hands it in (watch list, condition read). */
struct KEY_ADDRESS {
    QString label;
    int tag;
    int bufOffset;
    int station;
    QString regName;
    QString note;
    int address;
    int dataType; /* -1 marks a bit object */
    int length;
    unsigned char data[KQ71_DATA_BYTES];

    KEY_ADDRESS() : tag(0), bufOffset(0), station(0), address(0), dataType(0), length(0)
    {
        memset(data, 0, sizeof(data));
    }
};

/* One request frame with the job it belongs to. */
struct FRAME_PRO {
    unsigned char frame[KQ71_FRAME_BYTES];
    int sendLen;   /* bytes of frame to send */
    int recvLen;   /* length of a complete reply */
    int dataPos;   /* first data byte in the reply: 3 for reads, 0 for writes */
    int itemCount; /* units the reply carries; 0 marks a write frame */
    int reserved;
    VARIABLE var;

    FRAME_PRO() : sendLen(0), recvLen(0), dataPos(0), itemCount(0), reserved(0) { memset(frame, 0, sizeof(frame)); }
};

/* One recipe item (from the runtime) or merged recipe block (the driver's). */
struct _RCP_VAR_PRO {
    int deviceId;
    int station;
    QString regName;
    int address;
    int length;
    int bufOffset; /* position of the values in the recipe buffer, in 16-bit words */
    int reserved;

    _RCP_VAR_PRO() : deviceId(0), station(0), address(0), length(0), bufOffset(0), reserved(0) {}
};

/*
 * Value-change report. A watched unit changed: read it with intf_getData.
 * Station -1 marks the driver's own signals:
 *   (-1, -1, "-1", 0 or -1)   a batch of condition reads ended (-1: given up);
 *   (0, -1, "RWI", word)      a recipe read stored this word of the recipe buffer.
 */
typedef void (*ValueChangeCallBack)(int deviceId, int station, const QString &regName, int address);

/* Compile-time pins of the record layouts (they are read and written by pointer). */
#define KQ71_PIN(c, m, after) \
    static_assert(offsetof(c, m) >= offsetof(c, after) + sizeof(((c *)0)->after), #c "." #m " order")
static_assert(sizeof(int) == 4, "entry points and records use 32-bit int");
static_assert(offsetof(VARIABLE, id) == 0, "VARIABLE.id first");
static_assert(offsetof(VARIABLE, station) == 4, "VARIABLE.station");
KQ71_PIN(VARIABLE, regName, station);
KQ71_PIN(VARIABLE, address, regName);
KQ71_PIN(VARIABLE, length, address);
static_assert(offsetof(VARIABLE, length) == offsetof(VARIABLE, address) + 4, "VARIABLE.length");
static_assert(offsetof(VARIABLE, data) == offsetof(VARIABLE, length) + 4, "VARIABLE.data");
static_assert(offsetof(KEY_ADDRESS, label) == 0, "KEY_ADDRESS.label first");
KQ71_PIN(KEY_ADDRESS, tag, label);
static_assert(offsetof(KEY_ADDRESS, bufOffset) == offsetof(KEY_ADDRESS, tag) + 4, "KEY_ADDRESS.bufOffset");
static_assert(offsetof(KEY_ADDRESS, station) == offsetof(KEY_ADDRESS, bufOffset) + 4, "KEY_ADDRESS.station");
KQ71_PIN(KEY_ADDRESS, regName, station);
static_assert(offsetof(KEY_ADDRESS, note) == offsetof(KEY_ADDRESS, regName) + sizeof(QString), "KEY_ADDRESS.note");
KQ71_PIN(KEY_ADDRESS, address, note);
static_assert(offsetof(KEY_ADDRESS, dataType) == offsetof(KEY_ADDRESS, address) + 4, "KEY_ADDRESS.dataType");
static_assert(offsetof(KEY_ADDRESS, length) == offsetof(KEY_ADDRESS, dataType) + 4, "KEY_ADDRESS.length");
static_assert(offsetof(KEY_ADDRESS, data) == offsetof(KEY_ADDRESS, length) + 4, "KEY_ADDRESS.data");
static_assert(offsetof(FRAME_PRO, frame) == 0, "FRAME_PRO.frame first");
static_assert(offsetof(FRAME_PRO, sendLen) == KQ71_FRAME_BYTES, "FRAME_PRO.sendLen");
static_assert(offsetof(FRAME_PRO, recvLen) == KQ71_FRAME_BYTES + 4, "FRAME_PRO.recvLen");
static_assert(offsetof(FRAME_PRO, dataPos) == KQ71_FRAME_BYTES + 8, "FRAME_PRO.dataPos");
static_assert(offsetof(FRAME_PRO, itemCount) == KQ71_FRAME_BYTES + 12, "FRAME_PRO.itemCount");
static_assert(offsetof(FRAME_PRO, reserved) == KQ71_FRAME_BYTES + 16, "FRAME_PRO.reserved");
KQ71_PIN(FRAME_PRO, var, reserved);
static_assert(offsetof(_RCP_VAR_PRO, deviceId) == 0, "_RCP_VAR_PRO.deviceId first");
static_assert(offsetof(_RCP_VAR_PRO, station) == 4, "_RCP_VAR_PRO.station");
KQ71_PIN(_RCP_VAR_PRO, regName, station);
KQ71_PIN(_RCP_VAR_PRO, address, regName);
static_assert(offsetof(_RCP_VAR_PRO, length) == offsetof(_RCP_VAR_PRO, address) + 4, "_RCP_VAR_PRO.length");
static_assert(offsetof(_RCP_VAR_PRO, bufOffset) == offsetof(_RCP_VAR_PRO, length) + 4, "_RCP_VAR_PRO.bufOffset");
static_assert(offsetof(_RCP_VAR_PRO, reserved) == offsetof(_RCP_VAR_PRO, bufOffset) + 4, "_RCP_VAR_PRO.reserved");
#undef KQ71_PIN

/*
 * Whole layouts per architecture: a QString is one pointer (4 bytes on 32-bit
 * ARM panels, 8 on x86-64) and aligns the records to it. A runtime built with
 * another compiler must see the same sizes and offsets.
 */
#define KQ71_AT(c, m, at) static_assert(offsetof(c, m) == (at), #c "." #m " offset")
static_assert(sizeof(QString) == sizeof(void *), "QString is one pointer");
#if defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 4
KQ71_AT(VARIABLE, regName, 8);
KQ71_AT(VARIABLE, address, 12);
KQ71_AT(VARIABLE, data, 20);
static_assert(sizeof(VARIABLE) == 1044, "VARIABLE size (32-bit)");
KQ71_AT(KEY_ADDRESS, tag, 4);
KQ71_AT(KEY_ADDRESS, regName, 16);
KQ71_AT(KEY_ADDRESS, note, 20);
KQ71_AT(KEY_ADDRESS, address, 24);
KQ71_AT(KEY_ADDRESS, data, 36);
static_assert(sizeof(KEY_ADDRESS) == 1060, "KEY_ADDRESS size (32-bit)");
KQ71_AT(FRAME_PRO, var, 1044);
static_assert(sizeof(FRAME_PRO) == 2088, "FRAME_PRO size (32-bit)");
KQ71_AT(_RCP_VAR_PRO, regName, 8);
KQ71_AT(_RCP_VAR_PRO, address, 12);
KQ71_AT(_RCP_VAR_PRO, reserved, 24);
static_assert(sizeof(_RCP_VAR_PRO) == 28, "_RCP_VAR_PRO size (32-bit)");
#elif defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ == 8
KQ71_AT(VARIABLE, regName, 8);
KQ71_AT(VARIABLE, address, 16);
KQ71_AT(VARIABLE, data, 24);
static_assert(sizeof(VARIABLE) == 1048, "VARIABLE size (64-bit)");
KQ71_AT(KEY_ADDRESS, tag, 8);
KQ71_AT(KEY_ADDRESS, regName, 24);
KQ71_AT(KEY_ADDRESS, note, 32);
KQ71_AT(KEY_ADDRESS, address, 40);
KQ71_AT(KEY_ADDRESS, data, 52);
static_assert(sizeof(KEY_ADDRESS) == 1080, "KEY_ADDRESS size (64-bit)");
KQ71_AT(FRAME_PRO, var, 1048);
static_assert(sizeof(FRAME_PRO) == 2096, "FRAME_PRO size (64-bit)");
KQ71_AT(_RCP_VAR_PRO, regName, 8);
KQ71_AT(_RCP_VAR_PRO, address, 16);
KQ71_AT(_RCP_VAR_PRO, reserved, 28);
static_assert(sizeof(_RCP_VAR_PRO) == 32, "_RCP_VAR_PRO size (64-bit)");
#endif
#undef KQ71_AT

extern "C" {

/* Descriptive queries (any thread, any time). */
VORN_KQ71_AP_EXPORT void intf_getProtocolType(int *type);
VORN_KQ71_AP_EXPORT void intf_getDriverParameter(QString *text);
VORN_KQ71_AP_EXPORT void intf_getDriverPropertyPage(QString *page);
VORN_KQ71_AP_EXPORT void intf_SetDriverPropertyPage(QString *page);
VORN_KQ71_AP_EXPORT QString intf_getVersion();

/* Configuration. */
VORN_KQ71_AP_EXPORT void intf_setAddrValueChangeCallBack(ValueChangeCallBack callBack);
VORN_KQ71_AP_EXPORT int intf_initProperty(unsigned char *sharedMem, unsigned char *spare, unsigned char *recipeBuf,
                                          int *status, const char *property, QMutex *mutex);

/* Editor side: catalogue, address checks, address series. */
VORN_KQ71_AP_EXPORT int intf_getRegListByType(int type, QList<QString> *names);
VORN_KQ71_AP_EXPORT int intf_getRegDiscription(QString *regName, QList<QString> *description);
VORN_KQ71_AP_EXPORT int intf_checkAddrValidity(QString *regName, QString *addrText, int *address, int count,
                                               int wordFlag);
VORN_KQ71_AP_EXPORT int intf_checkAddr(QString *regName, QString *addrText, int *address, int dataType, int count,
                                       int access);
VORN_KQ71_AP_EXPORT int intf_multiCopy(QString *regName, int start, int count, int interval, QVector<QString> *texts,
                                       QVector<int> *addresses);

/* Planning. */
VORN_KQ71_AP_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> *keys);
VORN_KQ71_AP_EXPORT int intf_addConditionRead(KEY_ADDRESS *key, int id);
VORN_KQ71_AP_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO> *items);

/* Exchange. */
VORN_KQ71_AP_EXPORT int intf_getSendFrame(FRAME_PRO *out);
VORN_KQ71_AP_EXPORT int intf_dealRcvFrame(QByteArray *reply, QString *errorText);

/* Values. */
VORN_KQ71_AP_EXPORT int intf_getData(int station, QString *regName, int address, int length, unsigned char *values);
VORN_KQ71_AP_EXPORT int intf_setData(int station, QString *regName, int address, int length, unsigned char *values,
                                     int id);
}

#endif
