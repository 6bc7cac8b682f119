// What the read and write request builders share: where a register's units
// lie in the PLC memory map (so both always address the same cell) and the
// helpers that lay fields and the CRC into a frame.
#ifndef KQ71_PLC_ADDRESS_H
#define KQ71_PLC_ADDRESS_H

#include <QtCore/QString>

namespace kq71 {

// M relays from this address on live in a second area of the map.
enum { M_HIGH_START = 8000, M_HIGH_SHIFT = 4160 };

// Start address on the wire for unit a of the register at table row idx
// (0..18), before it is cut to 16 bits. interleave applies the V/Z doubling,
// which reads and single-register writes use and multi-register writes do not.
// 64-bit, so any int the runtime hands in stays defined.
long long plcAddress(int idx, const QString &regName, int a, bool interleave);

// True for the two register families that share one interleaved area.
bool isInterleaved(const QString &regName);

// Low 16 bits, high byte first, at frame[pos].
inline void put16(unsigned char *frame, int pos, long long value)
{
    frame[pos] = static_cast<unsigned char>((value >> 8) & 0xFF);
    frame[pos + 1] = static_cast<unsigned char>(value & 0xFF);
}

// CRC-16/MODBUS continued over count more bytes; lets replies longer than an
// unsigned short count be checked whole.
unsigned short crcUpdate(unsigned short crc, const unsigned char *bytes, long long count);

// Appends the CRC of frame[0..len) at frame[len], low byte first.
void putCrc(unsigned char *frame, int len);

} // namespace kq71

#endif
