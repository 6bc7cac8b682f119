#include "byte_order.h"

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
