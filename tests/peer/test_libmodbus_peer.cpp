// Our frames against an independent Modbus RTU implementation. Each side of
// libmodbus gets the slave end of a pseudo-terminal; the test holds the master
// end, so it can read exactly what libmodbus sends and feed it our bytes.
#include "driver_internals.h"
#include "../qt_compat.h"

#include <gtest/gtest.h>
#include <modbus.h>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

namespace {

// A raw pseudo-terminal pair: the master end here, the slave end by path.
class PtyPair {
public:
    PtyPair()
    {
        master_ = posix_openpt(O_RDWR | O_NOCTTY);
        char name[128] = {0};
        termios t;
        if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
            ptsname_r(master_, name, sizeof name) != 0 || tcgetattr(master_, &t) != 0)
            return;
        cfmakeraw(&t);
        if (tcsetattr(master_, TCSANOW, &t) == 0)
            slavePath_ = name;
    }
    ~PtyPair()
    {
        if (master_ >= 0)
            close(master_);
    }
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;

    bool ok() const { return master_ >= 0 && !slavePath_.empty(); }
    int master() const { return master_; }
    const std::string &slavePath() const { return slavePath_; }

    bool send(const std::uint8_t *bytes, size_t n) { return write(master_, bytes, n) == ssize_t(n); }
    // Everything up to `want` bytes, waiting at most timeoutMs; then whatever
    // else is already on its way, so that an overlong frame shows.
    std::vector<std::uint8_t> receive(size_t want, int timeoutMs)
    {
        std::vector<std::uint8_t> out;
        std::uint8_t buf[512];
        for (pollfd p = {master_, POLLIN, 0}; poll(&p, 1, out.size() >= want ? 5 : timeoutMs) > 0;) {
            const ssize_t got = read(master_, buf, sizeof buf);
            if (got <= 0)
                break;
            out.insert(out.end(), buf, buf + got);
        }
        return out;
    }
    void discard() { receive(SIZE_MAX, 0); }

private:
    int master_ = -1;
    std::string slavePath_;
};

std::string hex(const std::vector<uint8_t> &b) { return kq71test::hexText(b.data(), int(b.size())); }

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

// Where the request starts in the PLC map, written out per family so that it
// checks the builders rather than repeats them.
int plcAddress(int reg, int address, bool interleaveApplies)
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

class LibmodbusPeer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(client_.ctx) << "libmodbus client on a pty";
        ASSERT_TRUE(server_.ctx) << "libmodbus server on a pty";
        ASSERT_NE(map_, nullptr);
    }
    void TearDown() override { modbus_mapping_free(map_); }

    // The bytes libmodbus sends for the same request, read off the pty: as
    // many as ours, and whatever else follows at once.
    std::vector<uint8_t> theirRequest(int reg, bool write, int address, int length, const uint8_t *data, size_t n)
    {
        modbus_t *ctx = client_.ctx;
        client_.pty.discard();
        uint8_t bits[MODBUS_MAX_READ_BITS];
        uint16_t regs[MODBUS_MAX_READ_REGISTERS];
        const int units = isWide(reg) ? 2 * length : length;
        if (!write && isBits(reg)) {
            modbus_read_bits(ctx, plcAddress(reg, address, true), length, bits);
        } else if (!write) {
            modbus_read_registers(ctx, plcAddress(reg, address, true), isInterleaved(reg) ? 2 * units - 1 : units, regs);
        } else if (isBits(reg) && length == 1) {
            modbus_write_bit(ctx, plcAddress(reg, address, false), data[0] == 1);
        } else if (isBits(reg)) {
            modbus_write_bits(ctx, plcAddress(reg, address, false), length, data);
        } else if (length == 1 && !isWide(reg)) {
            modbus_write_register(ctx, plcAddress(reg, address, true), word(data));
        } else {
            for (int i = 0; i < units; ++i)
                regs[i] = word(data + 2 * i); // 32-bit values go low word first
            modbus_write_registers(ctx, plcAddress(reg, address, false), units, regs);
        }
        return client_.pty.receive(n, 1000);
    }

    void check(std::mt19937 &rng, int reg, bool write, int address, int length)
    {
        VARIABLE v;
        v.station = int(rng() % 247) + 1;
        v.regName = QString::fromLatin1(REG_NAME_TEXT[reg]);
        v.address = address;
        v.length = length;
        for (uint8_t &b : v.data)
            b = isBits(reg) ? uint8_t(rng() & 1) : uint8_t(rng());
        SCOPED_TRACE(std::string(write ? "write " : "read ") + REG_NAME_TEXT[reg] + " " + std::to_string(address) +
                     " x" + std::to_string(length) + " station " + std::to_string(v.station));
        FRAME_PRO f;
        ASSERT_TRUE(write ? buildWriteFrame(v, f) : buildReadFrame(v, f));
        modbus_set_slave(client_.ctx, v.station);
        const std::vector<uint8_t> ours(f.frame, f.frame + f.sendLen);
        EXPECT_EQ(hex(ours), hex(theirRequest(reg, write, address, length, v.data, ours.size())));

        // Our request to the libmodbus server: it must take all of it, and its
        // reply must be as long as we wait for and rate good.
        modbus_set_slave(server_.ctx, v.station);
        server_.pty.discard();
        ASSERT_TRUE(server_.pty.send(f.frame, size_t(f.sendLen)));
        uint8_t request[MODBUS_RTU_MAX_ADU_LENGTH];
        const int got = modbus_receive(server_.ctx, request);
        ASSERT_EQ(got, f.sendLen) << "server took our request as " << got << " bytes";
        ASSERT_GT(modbus_reply(server_.ctx, request, got, map_), 0);
        const std::vector<uint8_t> reply = server_.pty.receive(size_t(f.recvLen), 1000);
        ASSERT_EQ(rateReply(reply.data(), int(reply.size()), f), write ? 2 : 1) << "reply " << hex(reply);
    }

    Peer client_, server_;
    modbus_mapping_t *map_ = modbus_mapping_new(65536, 0, 65536, 0);
};

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

} // namespace
