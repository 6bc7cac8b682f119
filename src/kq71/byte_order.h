// Byte orders of this family: frame fields high byte first; the cache keeps a
// unit's bytes as the reply carries them (each register high byte first, a
// double word's low register first); the runtime's buffers hold each 16-bit
// word low byte first.
#ifndef KQ71_BYTE_ORDER_H
#define KQ71_BYTE_ORDER_H

// Low 16 bits, high byte first, at frame[pos].
inline void put16(unsigned char *frame, int pos, long long value)
{
    frame[pos] = static_cast<unsigned char>((value >> 8) & 0xFF);
    frame[pos + 1] = static_cast<unsigned char>(value & 0xFF);
}

// Packers: first byte least significant.
int uchar2int16(unsigned char b0, unsigned char b1);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);

// One unit of bytes between the cache's order and the runtime's: the two
// differ by the byte order inside each 16-bit word, so one swap serves both
// directions. A bit unit is its one byte.
inline void swapUnitBytes(const unsigned char *from, unsigned char *to, int bytesPerUnit)
{
    if (bytesPerUnit == 1) {
        to[0] = from[0];
        return;
    }
    for (int i = 0; i + 1 < bytesPerUnit; i += 2) {
        to[i] = from[i + 1];
        to[i + 1] = from[i];
    }
}

#endif
