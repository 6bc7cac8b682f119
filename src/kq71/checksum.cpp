#include "checksum.h"

namespace {

// The reflected polynomial 0xA001 applied to every byte value at once: one
// table step per byte instead of eight shifts (the check runs on every reply).
struct CrcTable {
    unsigned short step[256];
    CrcTable()
    {
        for (unsigned int b = 0; b < 256; ++b) {
            unsigned int c = b;
            for (int bit = 0; bit < 8; ++bit)
                c = (c & 1u) ? ((c >> 1) ^ 0xA001u) : (c >> 1);
            step[b] = static_cast<unsigned short>(c);
        }
    }
};

const CrcTable &crcTable()
{
    static const CrcTable table;
    return table;
}

} // namespace

namespace kq71 {

unsigned short crcUpdate(unsigned short crc, const unsigned char *bytes, long long count)
{
    const unsigned short *step = crcTable().step;
    unsigned int c = crc;
    for (long long i = 0; i < count; ++i)
        c = (c >> 8) ^ step[(c ^ bytes[i]) & 0xFFu];
    return static_cast<unsigned short>(c);
}

void putCrc(unsigned char *frame, int len)
{
    const unsigned short crc = crcUpdate(0xFFFF, frame, len);
    frame[len] = static_cast<unsigned char>(crc & 0xFF);
    frame[len + 1] = static_cast<unsigned char>(crc >> 8);
}

bool crcMatches(const unsigned char *bytes, long long count)
{
    if (bytes == 0 || count < 2)
        return false;
    const unsigned short crc = crcUpdate(0xFFFF, bytes, count - 2);
    return bytes[count - 2] == (crc & 0xFF) && bytes[count - 1] == (crc >> 8);
}

} // namespace kq71

unsigned short computate_check(const unsigned char *bytes, unsigned short count)
{
    if (count == 0 || bytes == 0)
        return 0xFFFF;
    return kq71::crcUpdate(0xFFFF, bytes, count);
}
