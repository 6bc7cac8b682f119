// A raw pseudo-terminal pair for the tests that put a Modbus peer on a serial
// line: the master end here, the slave end by path.
#ifndef KQ71_TEST_PTY_PAIR_H
#define KQ71_TEST_PTY_PAIR_H

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

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

#endif
