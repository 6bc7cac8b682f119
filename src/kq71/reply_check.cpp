#include "checksum.h"
#include "frames.h"

#include <string.h>

namespace {

// A read reply: station, function and byte count as asked, and not the
// request itself (an RS-485 adapter that echoes hands back the request, and
// a bit read of 17 to 24 bits is as long as its request). The byte count is
// one byte: a block of 512 data bytes says 0.
bool answersRead(const unsigned char *reply, int length, const FRAME_PRO &head)
{
    if (length < REPLY_DATA_POS + 2)
        return false;
    if (reply[2] != static_cast<unsigned char>((length - REPLY_DATA_POS - 2) & 0xFF))
        return false;
    return !(head.sendLen == length && memcmp(reply, head.frame, size_t(length)) == 0);
}

} // namespace

int rateReply(const unsigned char *reply, int length, const FRAME_PRO &head)
{
    if (length < 0 || length != head.recvLen)
        return 0;
    // Nothing to hold a CRC (the handshake job expects 0 bytes): never good.
    if (!kq71::crcMatches(reply, length))
        return 0;
    if (reply[0] != head.frame[0] || reply[1] != head.frame[1])
        return 0;
    const bool read = head.frame[1] == READ_BITS || head.frame[1] == READ_REGISTERS;
    if (read && !answersRead(reply, length, head))
        return 0;
    return head.itemCount != 0 ? 1 : 2;
}
