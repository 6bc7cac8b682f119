// What is particular to the KQ71 family on the wire: the checksum, the request
// builders, the reply rating, the merge rule and the address hooks.
// Everything here is pure: bytes and records in, results out; no driver state.
#ifndef KQ71_PROTOCOL_H
#define KQ71_PROTOCOL_H

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

// CRC-16/MODBUS of count bytes; 0xFFFF for none.
unsigned short computate_check(const unsigned char *bytes, unsigned short count);

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

// 0 when next may join block, 1 when not. mode 0: touching/overlapping only;
// other modes: gaps up to mergeGap units.
int judgeAddrMergeWithGap(const KEY_ADDRESS &block, const KEY_ADDRESS &next, int mode, int mergeGap);
// The same rule for two ranges already known to share station and register.
int judgeRangeMerge(int blockAddress, int blockLength, int nextAddress, int nextLength, int mode, int mergeGap);

// Address hooks for formats that mix letters (none in this family).
int addr_str2int(const QString &text, const QString &regName);
QString addr_int2str(int address, const QString &regName);
int addrOffset(const QString &regName, int address);

// Packers: first byte least significant.
int uchar2int16(unsigned char b0, unsigned char b1);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);

#endif
