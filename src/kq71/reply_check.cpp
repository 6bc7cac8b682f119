#include "kq71_protocol.h"
#include "plc_address.h"

int rateReply(const unsigned char *reply, int length, const FRAME_PRO &head)
{
    if (length < 0 || length != head.recvLen)
        return 0;
    // Nothing to hold a CRC (the handshake job expects 0 bytes): never good.
    if (length < 2 || reply == 0)
        return 0;
    const unsigned short crc = kq71::crcUpdate(0xFFFF, reply, length - 2);
    if (reply[length - 1] != (crc >> 8))
        return 0;
    if (reply[length - 2] != (crc & 0xFF))
        return 0;
    return head.itemCount != 0 ? 1 : 2;
}

int uchar2int16(unsigned char b0, unsigned char b1)
{
    return b0 + 256 * b1;
}

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3)
{
    const unsigned int value = static_cast<unsigned int>(b0) | (static_cast<unsigned int>(b1) << 8) |
                               (static_cast<unsigned int>(b2) << 16) | (static_cast<unsigned int>(b3) << 24);
    return static_cast<int>(value);
}
