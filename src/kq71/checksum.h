// CRC-16/MODBUS, the checksum of every frame: the driver, the simulator and
// the links all use this one. Plain C++ so that the tools can build it without Qt.
#ifndef KQ71_CHECKSUM_H
#define KQ71_CHECKSUM_H

namespace kq71 {

// CRC-16/MODBUS continued over count more bytes (start with 0xFFFF); lets
// replies longer than an unsigned short count be checked whole.
unsigned short crcUpdate(unsigned short crc, const unsigned char *bytes, long long count);

// Appends the CRC of frame[0..len) at frame[len], low byte first.
void putCrc(unsigned char *frame, int len);

// True when the last two of count bytes are the CRC of the ones before them.
bool crcMatches(const unsigned char *bytes, long long count);

} // namespace kq71

// CRC-16/MODBUS of count bytes; 0xFFFF for none.
unsigned short computate_check(const unsigned char *bytes, unsigned short count);

#endif
