// Requests and replies of this family on the wire: the builders lay down a
// job's request, the rating judges the reply that answers it. Pure: records
// and bytes in, results out; no driver state.
#ifndef KQ71_FRAMES_H
#define KQ71_FRAMES_H

#include "vorn_kq71_ap.h"

enum {
    READ_BITS = 0x01,
    READ_REGISTERS = 0x03,
    WRITE_BIT = 0x05,
    WRITE_REGISTER = 0x06,
    WRITE_BITS = 0x0F,
    WRITE_REGISTERS = 0x10,
    EXCEPTION_FLAG = 0x80,
    EXCEPTION_REPLY_LEN = 5,
    WRITE_ACK_LEN = 8,
    READ_REQUEST_LEN = 8,
    REPLY_DATA_POS = 3,
    MAX_WRITE_REGISTERS = (KQ71_FRAME_BYTES - 9) / 2, // 507: what one 0x10 request can carry
    MAX_WRITE_BITS = KQ71_DATA_BYTES                  // one data byte per bit in a job
};

// Fill out with the read request for v. False (out untouched) for an unknown register.
bool buildReadFrame(const VARIABLE &v, FRAME_PRO &out);

// Fill out with the write request for v. False (out untouched) for an unknown
// register or a request that would not fit the frame.
bool buildWriteFrame(const VARIABLE &v, FRAME_PRO &out);

// The handshake job: no bytes to send, no reply length.
void buildHandshakeFrame(FRAME_PRO &out);

// Rate a reply against the frame it answers: 0 bad, 1 good read reply, 2 good
// write acknowledgement. Reads at most length bytes of reply.
int rateReply(const unsigned char *reply, int length, const FRAME_PRO &head);

#endif
