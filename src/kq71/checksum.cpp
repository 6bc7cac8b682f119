#include "kq71_protocol.h"
#include "plc_address.h"

namespace kq71 {

unsigned short crcUpdate(unsigned short crc, const unsigned char *bytes, long long count)
{
    unsigned int c = crc;
    for (long long i = 0; i < count; ++i) {
        c ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            c = (c & 1u) ? ((c >> 1) ^ 0xA001u) : (c >> 1);
    }
    return static_cast<unsigned short>(c);
}

void putCrc(unsigned char *frame, int len)
{
    const unsigned short crc = crcUpdate(0xFFFF, frame, len);
    frame[len] = static_cast<unsigned char>(crc & 0xFF);
    frame[len + 1] = static_cast<unsigned char>(crc >> 8);
}

} // namespace kq71

unsigned short computate_check(const unsigned char *bytes, unsigned short count)
{
    if (count == 0 || bytes == 0)
        return 0xFFFF;
    return kq71::crcUpdate(0xFFFF, bytes, count);
}
