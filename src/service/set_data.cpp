// The runtime writes values: write jobs for the PLC, and the values mirrored
// into the cache at once as pending.
#include "vorn_kq71_ap.h"
#include "set_data.h"
#include "addr_merge.h"
#include "byte_order.h"
#include "change_notify.h"
#include "data_area.h"
#include "bit_in_word.h"
#include "frames.h"
#include "job_queue.h"
#include "write_completion.h"

#include <QtCore/QDebug>
#include <QtCore/QMutexLocker>

#include <string.h>

namespace {

// A newer write to exactly the same range replaces a queued one; a full queue
// keeps only the newest of the writes that do not fit, and the one it pushes
// out is settled as failed at once, so that no unit goes on showing a value
// the PLC will never get. M relays are written on each side of their boundary.
void queueWriteJob(const VARIABLE &job)
{
    VARIABLE parts[2];
    const int n = splitAtRelayBoundary(job, parts);
    for (int i = 0; i < n; ++i) {
        VARIABLE evicted;
        bool pushedOut;
        {
            QMutexLocker guard(&driver.listMutex);
            pushedOut = queueReplacingSameRange(driver.writeJobs, parts[i], &evicted);
        }
        if (pushedOut)
            _write_FailOrSuc(evicted.station, evicted.regName, evicted.address, evicted.length, 0);
    }
}

// Units of one piece: no more than the piece limit, and no more than one
// request carries, so that every job becomes a frame.
int pieceLimit(const kq71::RegisterTraits &t)
{
    int limit = configuredPieceLimit(t.isBit());
    if (t.isBit())
        return qMin(limit, int(MAX_WRITE_BITS));
    if (t.unitBits == kq71::UNIT_DWORD) {
        // Pieces of a double-word write meet on double-word boundaries.
        limit = qMin(limit, int(MAX_WRITE_REGISTERS)) & ~1;
        return limit >= 2 ? limit : 2;
    }
    return qMin(limit, int(MAX_WRITE_REGISTERS));
}

void queueInterleavedWords(int id, int station, const QString &regName, const KEY_ADDRESS &key)
{
    for (int i = 0; i < key.length; ++i) {
        VARIABLE job;
        job.id = id;
        job.station = station;
        job.regName = regName;
        job.address = key.address + i;
        job.length = 1;
        job.data[0] = key.data[2 * i];
        job.data[1] = key.data[2 * i + 1];
        qDebug() << "addVarToList" << job.station << job.regName << job.address << job.length << 2;
        queueWriteJob(job);
    }
}

void queuePieces(int id, const QString &regName, const kq71::RegisterTraits &t, const KEY_ADDRESS &key, qint64 &shift)
{
    QList<KEY_ADDRESS> pieces;
    groupingKey(key, pieceLimit(t), pieces, 1);
    for (int p = 0; p < pieces.size(); ++p) {
        const KEY_ADDRESS &piece = pieces.at(p);
        VARIABLE job;
        job.id = id;
        job.station = piece.station;
        job.regName = regName;
        job.address = piece.address;
        job.length = piece.length;
        const qint64 bytes = qint64(piece.length) * (t.isBit() ? 1 : 2);
        memcpy(job.data, piece.data, size_t(qBound<qint64>(0, bytes, KQ71_DATA_BYTES)));
        if (!t.isBit()) {
            // Job addresses and lengths count the register's own units.
            job.address = int(piece.address - shift);
            job.length = int(t.unitsOfWords(piece.length));
            shift += piece.length - job.length;
        }
        qDebug() << "addVarToList" << job.station << job.regName << job.address << job.length;
        queueWriteJob(job);
    }
}

} // namespace

// A request longer than one key holds is cut into consecutive keys, so that
// every value is written.
void queueWriteJobs(int station, const QString &regName, int address, int length, const unsigned char *values,
                    int id)
{
    const kq71::RegisterTraits t = kq71::registerTraits(regName);
    // Keys carry bits a byte each and 16-bit words two bytes each.
    const int bytesPerUnit = t.isBit() ? 1 : 2;
    // A key holds 1024 bits or 512 words; taking a whole number of pieces per
    // key keeps the cut where the piece limit puts it.
    const int limit = pieceLimit(t);
    const int capacity = KQ71_DATA_BYTES / bytesPerUnit;
    const int unitsPerKey = limit <= capacity ? capacity / limit * limit : capacity;
    const int total = boundedUnits(address, length);
    if (total == 0 && length != 0)
        return; // a negative range names nothing
    qint64 shift = 0;
    int done = 0;
    do {
        KEY_ADDRESS key;
        key.station = station;
        key.regName = regName;
        key.address = address + done;
        key.length = qMin(unitsPerKey, total - done);
        key.dataType = t.isBit() ? -1 : 0;
        if (key.length > 0)
            memcpy(key.data, values + qint64(done) * bytesPerUnit, size_t(key.length) * bytesPerUnit);
        if (t.interleaved)
            queueInterleavedWords(id, station, regName, key);
        else
            queuePieces(id, regName, t, key, shift);
        done += key.length;
    } while (done < total);
}

void write_saveDataToArea(int station, const QString &regName, int address, int length, const unsigned char *values)
{
    const UnitRange r = cacheRange(regName, address, length, RUNTIME_LENGTH);
    const int bytes = r.traits.bytesPerUnit();
    AreaKey area(r.area);
    for (int i = 0; i < r.units; ++i) {
        const int idx = getIndexOfDataArea(station, area, address + i);
        quint8 stored[4] = {0, 0, 0, 0};
        swapUnitBytes(values + qint64(i) * bytes, stored, bytes);
        {
            const _DATA_ &unit = driver.dataAreas.at(idx);
            const quint8 *cur = unit.writePending == 1 ? unit.writtenValue : unit.readValue;
            // Reported before the unit takes the value: a reader in the report
            // still sees the previous one.
            if (r.traits.isBit()) {
                if (cur[0] != stored[0])
                    reportValueChange(driver.deviceId, station, regName, address + i);
            } else if (r.traits.unitBits == kq71::UNIT_WORD) {
                const int oldValue = uchar2int16(cur[0], cur[1]);
                const int newValue = uchar2int16(stored[0], stored[1]);
                if (oldValue != newValue)
                    _wordDataChange(&oldValue, &newValue, idx, 0);
            } else {
                const int oldValue = uchar2int32(cur[0], cur[1], cur[2], cur[3]);
                const int newValue = uchar2int32(stored[0], stored[1], stored[2], stored[3]);
                if (oldValue != newValue)
                    _dwordDataChange(&oldValue, &newValue, idx, 0);
            }
        }
        if (cacheClearedSince(area))
            return; // the report re-initialised the driver
        _DATA_ &unit = driver.dataAreas[idx];
        memcpy(unit.writtenValue, stored, size_t(bytes));
        unit.writePending = 1;
        // The whole word is written now: bits written before it no longer
        // stand on their own.
        unit.bitWritePending = 0;
        if (unit.spareFlag & WORD_BITS_HELD) {
            unit.spareFlag = quint8(unit.spareFlag & ~WORD_BITS_HELD);
            driver.heldBitWriteIds.remove(idx);
        }
    }
}

int intf_setData(int station, QString *regName, int address, int length, unsigned char *values, int id)
{
    if (!regName || (!values && length > 0))
        return 0;
    ServiceLock lock;
    const QString name = *regName;
    BitRange bits;
    switch (bitsInWordRange(name, address, length, &bits)) {
    case BITS_IN_WORD:
        if (values)
            writeBitsInWords(station, name, bits, values, id);
        return 1;
    case REFUSED_BITS_IN_WORD:
        return 0; // nothing queued, nothing cached
    case NOT_BITS_IN_WORD:
        break;
    }
    if (!driver.cacheOnlyWrites)
        queueWriteJobs(station, name, address, length, values, id);
    if (values)
        write_saveDataToArea(station, name, address, length, values);
    return 1;
}
