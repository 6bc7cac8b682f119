// Our frames against an independent Modbus RTU implementation. Each side of
// libmodbus gets the slave end of a pseudo-terminal; the test holds the master
// end, so it can read exactly what libmodbus sends and feed it our bytes.
#include "driver_internals.h"
#include "pty_pair.h"
#include "register_table.h"
#include "../qt_compat.h"

#include <gtest/gtest.h>
#include <modbus.h>

#include <cstring>
#include <random>
#include <string>

namespace {

using Bytes = std::vector<uint8_t>;

std::string hex(const uint8_t *b, size_t n)
{
    return kq71test::hexText(b, int(n));
}

// One libmodbus RTU context on the slave end of its own pty.
struct Peer {
    Peer()
    {
        ctx = pty.ok() ? modbus_new_rtu(pty.slavePath().c_str(), 115200, 'N', 8, 1) : nullptr;
        if (!ctx)
            return;
        // Baud rate means nothing on a pty; generous timeouts keep a busy
        // machine from splitting a frame. The client only sends: its wait for
        // a reply is dead time.
        modbus_set_byte_timeout(ctx, 0, 500000);
        modbus_set_indication_timeout(ctx, 2, 0);
        modbus_set_response_timeout(ctx, 0, 10000);
        if (modbus_connect(ctx) != 0) {
            modbus_free(ctx);
            ctx = nullptr;
        }
    }
    ~Peer()
    {
        if (ctx) {
            modbus_close(ctx);
            modbus_free(ctx);
        }
    }
    PtyPair pty;
    modbus_t *ctx = nullptr;
};

bool isBits(int reg) { return reg <= 7; }
bool isWide(int reg) { return reg >= 15; }
bool isInterleaved(int reg) { return reg == 9 || reg == 10; }
uint16_t word(const uint8_t *lowFirst) { return uint16_t(lowFirst[1] << 8 | lowFirst[0]); }

struct Case {
    int reg, station, address, length;
    bool write;
    uint8_t data[KQ71_DATA_BYTES];

    std::string text() const
    {
        return std::string(write ? "write " : "read ") + REG_NAME_TEXT[reg] + " " + std::to_string(address) + " x" +
               std::to_string(length) + " station " + std::to_string(station);
    }
    // Where the request starts in the PLC map, written out per family so that
    // it checks the builders rather than repeats them.
    int plcAddress(bool interleaveApplies) const
    {
        const std::string name = REG_NAME_TEXT[reg];
        const int base = ADDRESS_REG_OFFSET[reg];
        if (name == "M" && address >= 8000)
            return address - 4160;
        if (name == "200CC" || name == "200CP")
            return base + 2 * (address - 100);
        if (name == "256CC" || name == "256CP")
            return base + 2 * (address - 128);
        return base + ((isInterleaved(reg) && interleaveApplies) ? 2 * address : address);
    }
};

// The bytes libmodbus sends for the same request, read off the pty.
Bytes libmodbusRequest(Peer &client, const Case &c)
{
    modbus_t *ctx = client.ctx;
    modbus_set_slave(ctx, c.station);
    client.pty.discard();
    std::vector<uint8_t> bits(2000);
    std::vector<uint16_t> regs(256);
    const int units = isWide(c.reg) ? 2 * c.length : c.length;
    size_t expected = 8;
    if (!c.write && isBits(c.reg)) {
        modbus_read_bits(ctx, c.plcAddress(true), c.length, bits.data());
    } else if (!c.write) {
        modbus_read_registers(ctx, c.plcAddress(true), isInterleaved(c.reg) ? 2 * units - 1 : units, regs.data());
    } else if (isBits(c.reg) && c.length == 1) {
        modbus_write_bit(ctx, c.plcAddress(false), c.data[0] == 1);
    } else if (isBits(c.reg)) {
        modbus_write_bits(ctx, c.plcAddress(false), c.length, c.data);
        expected = 9 + (c.length + 7) / 8;
    } else if (c.length == 1 && !isWide(c.reg)) {
        modbus_write_register(ctx, c.plcAddress(true), word(c.data));
    } else {
        for (int i = 0; i < units; ++i)
            regs[i] = word(c.data + 2 * i); // 32-bit values go low word first
        modbus_write_registers(ctx, c.plcAddress(false), units, regs.data());
        expected = 9 + 2 * units;
    }
    return client.pty.receive(expected, 1000);
}

class LibmodbusPeer : public ::testing::Test {
protected:
    static constexpr int MAP_UNITS = 65536;

    void SetUp() override
    {
        ASSERT_TRUE(client_.ctx) << "libmodbus client on a pty";
        ASSERT_TRUE(server_.ctx) << "libmodbus server on a pty";
        map_ = modbus_mapping_new(MAP_UNITS, 0, MAP_UNITS, 0);
        ASSERT_NE(map_, nullptr);
        std::mt19937 fill(7);
        for (int i = 0; i < MAP_UNITS; ++i) {
            map_->tab_bits[i] = uint8_t(fill() & 1);
            map_->tab_registers[i] = uint16_t(fill());
        }
    }
    void TearDown() override
    {
        if (map_)
            modbus_mapping_free(map_);
    }

    // Our request to the libmodbus server; its reply must rate good and carry
    // (or have stored) the values.
    void serve(const Case &c, const FRAME_PRO &f)
    {
        modbus_set_slave(server_.ctx, c.station);
        server_.pty.discard();
        ASSERT_TRUE(server_.pty.send(f.frame, size_t(f.sendLen)));
        uint8_t request[MODBUS_RTU_MAX_ADU_LENGTH];
        const int got = modbus_receive(server_.ctx, request);
        ASSERT_EQ(got, f.sendLen) << "server took our request as " << got << " bytes";
        ASSERT_GT(modbus_reply(server_.ctx, request, got, map_), 0);
        const Bytes reply = server_.pty.receive(size_t(f.recvLen), 1000);
        SCOPED_TRACE("reply " + hex(reply.data(), reply.size()));
        ASSERT_EQ(rateReply(reply.data(), int(reply.size()), f), c.write ? 2 : 1);

        const int plc = (f.frame[2] << 8) | f.frame[3], count = (f.frame[4] << 8) | f.frame[5];
        if (!c.write && isBits(c.reg)) {
            for (int i = 0; i < count; ++i)
                ASSERT_EQ((reply[3 + i / 8] >> (i % 8)) & 1, map_->tab_bits[plc + i]) << "bit " << i;
        } else if (!c.write) {
            for (int k = 0; k < count; ++k)
                ASSERT_EQ(reply[3 + 2 * k] << 8 | reply[4 + 2 * k], map_->tab_registers[plc + k]) << "register " << k;
        } else if (isBits(c.reg)) {
            for (int i = 0; i < c.length; ++i)
                ASSERT_EQ(map_->tab_bits[plc + i], c.data[i] == 1 ? 1 : 0) << "bit " << i;
        } else {
            for (int k = 0; k < (c.length == 1 && !isWide(c.reg) ? 1 : count); ++k)
                ASSERT_EQ(map_->tab_registers[plc + k], word(c.data + 2 * k)) << "register " << k;
        }
    }

    void check(std::mt19937 &rng, int reg, bool write, int address, int length)
    {
        Case c{reg, int(rng() % 247) + 1, address, length, write, {}};
        for (uint8_t &b : c.data)
            b = isBits(reg) ? uint8_t(rng() & 1) : uint8_t(rng());
        SCOPED_TRACE(c.text());
        VARIABLE v;
        v.station = c.station;
        v.regName = QString::fromLatin1(REG_NAME_TEXT[c.reg]);
        v.address = c.address;
        v.length = c.length;
        std::memcpy(v.data, c.data, sizeof v.data);
        FRAME_PRO f;
        ASSERT_TRUE(c.write ? buildWriteFrame(v, f) : buildReadFrame(v, f));
        const Bytes theirs = libmodbusRequest(client_, c);
        EXPECT_EQ(hex(f.frame, size_t(f.sendLen)), hex(theirs.data(), theirs.size()));
        serve(c, f);
    }

    Peer client_, server_;
    modbus_mapping_t *map_ = nullptr;
};

// The largest request of each kind that both sides accept.
int maxLength(int reg, bool write)
{
    if (isBits(reg))
        return write ? int(MAX_WRITE_BITS) : MODBUS_MAX_READ_BITS;
    if (write)
        return isWide(reg) ? MODBUS_MAX_WRITE_REGISTERS / 2 : MODBUS_MAX_WRITE_REGISTERS;
    if (isInterleaved(reg))
        return (MODBUS_MAX_READ_REGISTERS + 1) / 2;
    return isWide(reg) ? MODBUS_MAX_READ_REGISTERS / 2 : MODBUS_MAX_READ_REGISTERS;
}

int bound(int reg, int column)
{
    const QString format = ADDRESS_RANGE_PRO[reg][COL_FORMAT];
    const int radix = format.endsWith(QLatin1Char('O')) ? 8 : format.endsWith(QLatin1Char('H')) ? 16 : 10;
    return ADDRESS_RANGE_PRO[reg][column].toInt(nullptr, radix);
}

} // namespace

TEST_F(LibmodbusPeer, LimitsOfEveryRegisterMatchByteForByte)
{
    std::mt19937 rng(1);
    for (int reg = 0; reg < REG_COUNT; ++reg)
        for (bool write : {false, true})
            for (int length : {1, 2, maxLength(reg, write)})
                for (int column : {int(COL_MIN), int(COL_MAX)}) {
                    check(rng, reg, write, bound(reg, column), length);
                    if (HasFatalFailure())
                        return;
                }
}

TEST_F(LibmodbusPeer, RandomRequestsMatchByteForByte)
{
    const unsigned seed = 20240611;
    std::mt19937 rng(seed);
    for (int i = 0; i < 300; ++i) {
        const int reg = int(rng() % REG_COUNT);
        const bool write = rng() & 1;
        const int lo = bound(reg, COL_MIN), hi = bound(reg, COL_MAX);
        const int address = lo + int(rng() % unsigned(hi - lo + 1));
        // Short requests are the common case; keep a fair share of them.
        const int limit = rng() % 2 ? 8 : maxLength(reg, write);
        const int length = 1 + int(rng() % unsigned(limit));
        SCOPED_TRACE("seed " + std::to_string(seed) + " case " + std::to_string(i));
        check(rng, reg, write, address, length);
        if (HasFatalFailure())
            return;
    }
}
