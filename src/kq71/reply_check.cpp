#include "checksum.h"
#include "frames.h"

int rateReply(const unsigned char *reply, int length, const FRAME_PRO &head)
{
    if (length < 0 || length != head.recvLen)
        return 0;
    // Nothing to hold a CRC (the handshake job expects 0 bytes): never good.
    if (!kq71::crcMatches(reply, length))
        return 0;
    return head.itemCount != 0 ? 1 : 2;
}
