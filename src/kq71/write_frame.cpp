#include "byte_order.h"
#include "checksum.h"
#include "frames.h"
#include "plc_address.h"

// The refusals below are what keep every index inside data and frame.
static_assert(9 + 2 * int(MAX_WRITE_REGISTERS) <= int(KQ71_FRAME_BYTES), "0x10 request fits the frame");
static_assert(2 * int(MAX_WRITE_REGISTERS) <= int(KQ71_DATA_BYTES), "0x10 values fit the job");
static_assert(9 + (int(MAX_WRITE_BITS) + 7) / 8 <= int(KQ71_FRAME_BYTES), "0x0F request fits the frame");
static_assert(int(MAX_WRITE_BITS) <= int(KQ71_DATA_BYTES), "one data byte per bit");

namespace {

// One bit, 8 bytes:
//   0     station
//   1     0x05
//   2..3  PLC address
//   4..5  FF 00 when data[0] is 1, else 00 00
//   6..7  CRC
int layWriteBit(const VARIABLE &v, long long address, unsigned char *frame)
{
    frame[1] = WRITE_BIT;
    put16(frame, 2, address);
    frame[4] = v.data[0] == 1 ? 0xFF : 0x00;
    frame[5] = 0x00;
    return 6;
}

// Several bits, 9 + bc bytes (bc = ceil(n / 8)):
//   0       station
//   1       0x0F
//   2..3    PLC address
//   4..5    n
//   6       bc
//   7..6+bc item 8j + k in bit k of byte j
//   then    CRC
int layWriteBits(const VARIABLE &v, long long address, unsigned char *frame)
{
    const int n = v.length;
    const int bc = n / 8 + (n % 8 != 0 ? 1 : 0);
    frame[1] = WRITE_BITS;
    put16(frame, 2, address);
    put16(frame, 4, n);
    frame[6] = static_cast<unsigned char>(bc);
    for (int j = 0; j < bc; ++j) {
        const int bits = (j == bc - 1 && n % 8 != 0) ? n % 8 : 8;
        // Summed, not OR-ed: only 0 and 1 are meaningful data bytes, and any
        // other value spills into the neighbouring bits of the same byte.
        unsigned int sum = 0;
        for (int k = 0; k < bits; ++k)
            sum += static_cast<unsigned int>(v.data[8 * j + k]) << k;
        frame[7 + j] = static_cast<unsigned char>(sum & 0xFF);
    }
    return 7 + bc;
}

// One 16-bit register, 8 bytes:
//   0     station
//   1     0x06
//   2..3  PLC address (V/Z interleaved: base + 2a)
//   4..5  data[1], data[0]
//   6..7  CRC
int layWriteRegister(const VARIABLE &v, long long address, unsigned char *frame)
{
    frame[1] = WRITE_REGISTER;
    put16(frame, 2, address);
    frame[4] = v.data[1];
    frame[5] = v.data[0];
    return 6;
}

// Several registers, 9 + 2c bytes (c = n, or 2n for 32-bit values):
//   0        station
//   1        0x10
//   2..3     PLC address
//   4..5     c
//   6        2c mod 256
//   7..6+2c  16-bit: data[2i+1], data[2i]
//            32-bit: data[4i+1], data[4i], data[4i+3], data[4i+2] (low word first)
//   then     CRC
int layWriteRegisters(const VARIABLE &v, long long address, bool wide, unsigned char *frame)
{
    const int n = v.length;
    const int c = wide ? 2 * n : n;
    frame[1] = WRITE_REGISTERS;
    put16(frame, 2, address);
    put16(frame, 4, c);
    frame[6] = static_cast<unsigned char>((2 * c) & 0xFF);
    int pos = 7;
    if (wide) {
        for (int i = 0; i < n; ++i) {
            frame[pos++] = v.data[4 * i + 1];
            frame[pos++] = v.data[4 * i];
            frame[pos++] = v.data[4 * i + 3];
            frame[pos++] = v.data[4 * i + 2];
        }
    } else {
        for (int i = 0; i < n; ++i) {
            frame[pos++] = v.data[2 * i + 1];
            frame[pos++] = v.data[2 * i];
        }
    }
    return pos;
}

} // namespace

bool buildWriteFrame(const VARIABLE &v, FRAME_PRO &out)
{
    const int idx = getIndexFromRegName(v.regName);
    if (idx < 0 || v.length < 0)
        return false;

    const kq71::RegisterTraits t = kq71::rowTraits(idx);
    const int n = v.length;
    FRAME_PRO job;
    job.frame[0] = static_cast<unsigned char>(v.station & 0xFF);
    int len;
    if (t.isBit()) {
        const long long address = kq71::plcAddress(idx, v.regName, v.address, false);
        if (n == 1) {
            len = layWriteBit(v, address, job.frame);
        } else {
            // One data byte per bit: the job cannot describe more.
            if (n > MAX_WRITE_BITS)
                return false;
            len = layWriteBits(v, address, job.frame);
        }
    } else {
        const bool wide = t.unitBits == kq71::UNIT_DWORD;
        if (n == 1 && !wide) {
            len = layWriteRegister(v, kq71::plcAddress(idx, v.regName, v.address, true), job.frame);
        } else {
            // Several V or Z registers are never handed in at once, so no
            // doubling here.
            if ((wide ? 2LL * n : n) > MAX_WRITE_REGISTERS)
                return false;
            len = layWriteRegisters(v, kq71::plcAddress(idx, v.regName, v.address, false), wide, job.frame);
        }
    }
    kq71::putCrc(job.frame, len);

    job.sendLen = len + 2;
    job.recvLen = WRITE_ACK_LEN;
    job.dataPos = 0;
    job.itemCount = 0;
    job.reserved = 0;
    job.var = v;
    out = job;
    return true;
}
