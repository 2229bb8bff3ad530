#pragma once

// The other end of a switch connection, written with plain sockets and
// explicit byte packing, sharing nothing with the library's framing code or
// the simulator's: what it reads and writes is what is on the wire.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "support/PlainSocketIo.h"

namespace loopback_peer {

using Bytes = std::vector<std::uint8_t>;

enum class Order { Big, Little };

inline Order hostOrder()
{
    const std::uint16_t probe = 1;
    return *reinterpret_cast<const std::uint8_t*>(&probe) == 1 ? Order::Little : Order::Big;
}

inline Order orderOf(bool reversed)
{
    return (hostOrder() == Order::Big) != reversed ? Order::Big : Order::Little;
}

inline void putWord(Bytes& out, std::uint64_t v, Order o, unsigned width = 4)
{
    for (unsigned i = 0; i < width; ++i) out.push_back(std::uint8_t(v >> 8 * (o == Order::Big ? width - 1 - i : i)));
}

inline std::uint64_t getWord(const std::uint8_t* p, Order o, unsigned width = 4)
{
    std::uint64_t v = 0;
    for (unsigned i = 0; i < width; ++i) v |= std::uint64_t(p[i]) << 8 * (o == Order::Big ? width - 1 - i : i);
    return v;
}

constexpr std::uint32_t kMarker = 0x4D53473A;   // "MSG:"
constexpr std::uint32_t kTest = 0x5453543A;     // "TST:"
constexpr std::uint32_t kLink = 0x4C494E4B;     // "LINK"
constexpr std::uint32_t kCommand = 0x434D443A;  // "CMD:"
constexpr std::uint32_t kResponse = 0x5253503A; // "RSP:"

// One frame, header words as numbers; size words the true ones unless given.
struct Frame {
    std::uint32_t marker = kMarker, manager = 0, msgType = kResponse, cmdCode = 0, seqNbr = 0, msgStat = 0, srcAddr = 1,
                  appError = 0;
    Bytes payload;
    std::int64_t sizeOverride = -1, appSizeOverride = -1;

    Bytes encode(Order o) const
    {
        const auto len = std::uint32_t(payload.size());
        Bytes out;
        putWord(out, marker, o);
        putWord(out, manager, o);
        putWord(out, sizeOverride >= 0 ? std::uint32_t(sizeOverride) : 28 + len, o);
        for (std::uint32_t w : {msgType, cmdCode, seqNbr, msgStat, srcAddr, appError}) putWord(out, w, o);
        putWord(out, appSizeOverride >= 0 ? std::uint32_t(appSizeOverride) : len, o);
        out.insert(out.end(), payload.begin(), payload.end());
        return out;
    }
};

// The link test header: "TST:", "LINK", 12.
inline Bytes linkTestBytes(Order o)
{
    Bytes b;
    for (std::uint32_t w : {kTest, kLink, 12u}) putWord(b, w, o);
    return b;
}

// Either end of one TCP connection on 127.0.0.1: it listens (on a free port
// unless given one) and accepts, or it connects. Every wait is bounded, so a
// broken counterpart fails a test instead of hanging it.
class Peer {
public:
    explicit Peer(std::uint16_t port = 0) { listenOn(port); }
    ~Peer()
    {
        closeConnection();
        closeListener();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool listenOn(std::uint16_t port)
    {
        lfd = ::socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        ::setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a = address(port);
        socklen_t len = sizeof a;
        if (::bind(lfd, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(lfd, 8) != 0 ||
            ::getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            closeListener();
        boundPort = ntohs(a.sin_port);
        return lfd >= 0;
    }
    void closeListener() { closeFd(lfd); }
    std::uint16_t port() const { return boundPort; }

    bool accept(int timeoutMs = 30000)
    {
        closeConnection();
        cfd = ready(lfd, timeoutMs) ? ::accept(lfd, nullptr, nullptr) : -1;
        return cfd >= 0;
    }
    bool connectTo(std::uint16_t port)
    {
        closeConnection();
        closeListener();
        cfd = ::socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in a = address(port);
        return ::connect(cfd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    }
    void closeConnection() { closeFd(cfd); }

    // n bytes, or fewer when the other end closed or went quiet for 30 s.
    Bytes read(std::size_t n)
    {
        Bytes out(n);
        std::size_t got = 0;
        while (got < n && ready(cfd, 30000)) {
            const ssize_t r = ::recv(cfd, out.data() + got, n - got, 0);
            if (r <= 0) break;
            got += std::size_t(r);
        }
        out.resize(got);
        return out;
    }
    // One whole frame sent in order o (a link test header counts as one).
    Bytes readFrame(Order o)
    {
        Bytes f = read(12);
        if (f.size() < 12 || getWord(f.data(), o) == kTest) return f;
        const Bytes body = read(getWord(f.data() + 8, o) & 0x7FFFFFFFu);
        f.insert(f.end(), body.begin(), body.end());
        return f;
    }
    bool write(const Bytes& b) { return writeAll(cfd, b.data(), b.size()); }
    // True once the other end closed (EOF within 30 s).
    bool seesClose()
    {
        std::uint8_t b;
        return ready(cfd, 30000) && ::recv(cfd, &b, 1, 0) == 0;
    }

private:
    static sockaddr_in address(std::uint16_t port)
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        return a;
    }
    static bool ready(int fd, int timeoutMs)
    {
        pollfd p{fd, POLLIN, 0};
        return fd >= 0 && ::poll(&p, 1, timeoutMs) == 1;
    }
    static void closeFd(int& fd)
    {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

    int lfd = -1;
    int cfd = -1;
    std::uint16_t boundPort = 0;
};

} // namespace loopback_peer
