#pragma once

// A switch end written with plain sockets and explicit byte packing, sharing
// nothing with the library's framing code: what it reads and writes is what
// is on the wire.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace loopback_peer {

using Bytes = std::vector<std::uint8_t>;

enum class Order { Big, Little };

inline Order hostOrder()
{
    const std::uint16_t probe = 1;
    std::uint8_t first;
    std::memcpy(&first, &probe, 1);
    return first == 1 ? Order::Little : Order::Big;
}

inline Order reversedOrder()
{
    return hostOrder() == Order::Big ? Order::Little : Order::Big;
}

inline void putWord(Bytes& out, std::uint32_t v, Order o)
{
    for (int i = 0; i < 4; ++i) {
        const int shift = o == Order::Big ? 24 - 8 * i : 8 * i;
        out.push_back(static_cast<std::uint8_t>(v >> shift));
    }
}

inline std::uint32_t getWord(const std::uint8_t* p, Order o)
{
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
        const int shift = o == Order::Big ? 24 - 8 * i : 8 * i;
        v |= std::uint32_t(p[i]) << shift;
    }
    return v;
}

constexpr std::uint32_t kMarker = 0x4D53473A;  // "MSG:"
constexpr std::uint32_t kTest = 0x5453543A;    // "TST:"
constexpr std::uint32_t kLink = 0x4C494E4B;    // "LINK"
constexpr std::uint32_t kCommand = 0x434D443A; // "CMD:"
constexpr std::uint32_t kResponse = 0x5253503A; // "RSP:"

// One frame, header words as numbers.
struct Frame {
    std::uint32_t marker = kMarker;
    std::uint32_t manager = 0;
    std::uint32_t msgType = kResponse;
    std::uint32_t cmdCode = 0;
    std::uint32_t seqNbr = 0;
    std::uint32_t msgStat = 0;
    std::uint32_t srcAddr = 1;
    std::uint32_t appError = 0;
    Bytes payload;
    // Size words; by default the true ones.
    std::int64_t sizeOverride = -1;
    std::int64_t appSizeOverride = -1;

    Bytes encode(Order o) const
    {
        Bytes out;
        putWord(out, marker, o);
        putWord(out, manager, o);
        putWord(out, sizeOverride >= 0 ? std::uint32_t(sizeOverride) : std::uint32_t(28 + payload.size()), o);
        for (std::uint32_t w : {msgType, cmdCode, seqNbr, msgStat, srcAddr, appError}) putWord(out, w, o);
        putWord(out, appSizeOverride >= 0 ? std::uint32_t(appSizeOverride) : std::uint32_t(payload.size()), o);
        out.insert(out.end(), payload.begin(), payload.end());
        return out;
    }

    // Reads a frame in order o from bytes; false when they are too short.
    static bool decode(const Bytes& in, Order o, Frame& f)
    {
        if (in.size() < 40) return false;
        const std::uint8_t* p = in.data();
        f.marker = getWord(p, o);
        f.manager = getWord(p + 4, o);
        f.sizeOverride = getWord(p + 8, o);
        f.msgType = getWord(p + 12, o);
        f.cmdCode = getWord(p + 16, o);
        f.seqNbr = getWord(p + 20, o);
        f.msgStat = getWord(p + 24, o);
        f.srcAddr = getWord(p + 28, o);
        f.appError = getWord(p + 32, o);
        f.appSizeOverride = getWord(p + 36, o);
        f.payload.assign(in.begin() + 40, in.end());
        return true;
    }
};

// Listens on 127.0.0.1 and serves one connection at a time.
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
        if (lfd < 0) return false;
        const int one = 1;
        ::setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        if (::bind(lfd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(lfd, 8) != 0) {
            closeListener();
            return false;
        }
        socklen_t len = sizeof a;
        ::getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len);
        boundPort = ntohs(a.sin_port);
        return true;
    }
    void closeListener()
    {
        if (lfd >= 0) ::close(lfd);
        lfd = -1;
    }
    std::uint16_t port() const { return boundPort; }

    bool accept(int timeoutMs = 30000)
    {
        closeConnection();
        pollfd p{lfd, POLLIN, 0};
        if (lfd < 0 || ::poll(&p, 1, timeoutMs) != 1) return false;
        cfd = ::accept(lfd, nullptr, nullptr);
        return cfd >= 0;
    }
    void closeConnection()
    {
        if (cfd >= 0) ::close(cfd);
        cfd = -1;
    }

    bool readExact(Bytes& out, std::size_t n, int timeoutMs = 30000)
    {
        out.resize(n);
        std::size_t got = 0;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (got < n) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until -
                                                                                    std::chrono::steady_clock::now());
            pollfd p{cfd, POLLIN, 0};
            if (cfd < 0 || left.count() <= 0 || ::poll(&p, 1, int(left.count())) != 1) return false;
            const ssize_t r = ::recv(cfd, out.data() + got, n - got, 0);
            if (r <= 0) return false;
            got += std::size_t(r);
        }
        return true;
    }

    // Reads one whole frame as the library sent it (host order of the
    // library = o); the link test header counts as a 12-byte frame.
    bool readFrame(Bytes& raw, Order o, int timeoutMs = 30000)
    {
        Bytes head;
        if (!readExact(head, 12, timeoutMs)) return false;
        raw = head;
        if (getWord(head.data(), o) == kTest) return true;
        const std::uint32_t size = getWord(head.data() + 8, o) & 0x7FFFFFFFu;
        Bytes body;
        if (!readExact(body, size, timeoutMs)) return false;
        raw.insert(raw.end(), body.begin(), body.end());
        return true;
    }

    bool write(const Bytes& b)
    {
        std::size_t off = 0;
        while (off < b.size()) {
            const ssize_t w = ::send(cfd, b.data() + off, b.size() - off, MSG_NOSIGNAL);
            if (w <= 0) return false;
            off += std::size_t(w);
        }
        return true;
    }

    // True once the library closed its end (EOF within the time).
    bool seesClose(int timeoutMs = 30000)
    {
        pollfd p{cfd, POLLIN, 0};
        if (cfd < 0 || ::poll(&p, 1, timeoutMs) != 1) return false;
        std::uint8_t b;
        return ::recv(cfd, &b, 1, 0) == 0;
    }

private:
    int lfd = -1;
    int cfd = -1;
    std::uint16_t boundPort = 0;
};

// The link test header as the library must send it: words in its host order.
inline Bytes linkTestBytes(Order o)
{
    Bytes b;
    putWord(b, kTest, o);
    putWord(b, kLink, o);
    putWord(b, 12, o);
    return b;
}

} // namespace loopback_peer
