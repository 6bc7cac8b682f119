#include "byte_order.h"
#include "checksum.h"
#include "frames.h"
#include "plc_address.h"

// Read request, 8 bytes:
//   0     station (low 8 bits)
//   1     0x01 bit register / 0x03 any other
//   2..3  PLC address, high byte first
//   4..5  count of PLC units, high byte first
//   6..7  CRC of bytes 0..5, low byte first
bool buildReadFrame(const VARIABLE &v, FRAME_PRO &out)
{
    const int idx = getIndexFromRegName(v.regName);
    if (idx < 0)
        return false;

    const kq71::RegisterTraits t = kq71::rowTraits(idx);
    const long long n = v.length;
    const long long address = kq71::plcAddress(idx, v.regName, v.address, true);
    int function;
    long long count;
    long long recvLen;
    if (t.isBit()) {
        function = READ_BITS;
        count = n;
        recvLen = 5 + n / 8 + (n % 8 != 0 ? 1 : 0);
    } else {
        function = READ_REGISTERS;
        count = t.registersPerUnit() * n;
        // n interleaved registers span 2n - 1 PLC registers; the decoder skips
        // every second one.
        if (t.interleaved)
            count = count * 2 - 1;
        recvLen = 5 + 2 * count;
    }

    FRAME_PRO job;
    job.frame[0] = static_cast<unsigned char>(v.station & 0xFF);
    job.frame[1] = static_cast<unsigned char>(function);
    put16(job.frame, 2, address);
    put16(job.frame, 4, count);
    kq71::putCrc(job.frame, 6);
    job.sendLen = READ_REQUEST_LEN;
    // Only ever compared with a reply's length, so a wrapped value for a
    // nonsense count merely rejects every reply.
    job.recvLen = static_cast<int>(recvLen);
    job.dataPos = REPLY_DATA_POS;
    job.itemCount = v.length;
    job.reserved = 0;
    job.var = v;
    out = job;
    return true;
}
