#pragma once

// Socket test helpers: descriptor pairs, frames in either byte order, traces.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Common/OS/Linux/PlatformTestSupport.h"
#include "Common/OS/OsSocket.h"
#include "Common/OS/OsSocketDebug.h"
#include "support/PlainSocketIo.h"

namespace sock_test {

// Byte order of the words of a frame on the wire.
enum class Order { Big, Little };

inline Order hostOrder()
{
    const std::uint16_t one = 1;
    return *reinterpret_cast<const unsigned char*>(&one) == 0 ? Order::Big : Order::Little;
}

inline void putWord(std::string& s, std::uint32_t w, Order o)
{
    for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>(w >> (o == Order::Big ? 24 - 8 * i : 8 * i)));
}

constexpr std::uint32_t kMarker = 0x4D53473A; // "MSG:"
constexpr std::uint32_t kCmd = 0x434D443A;    // "CMD:"

// Payload byte i of a frame tagged tag.
inline char payloadByte(std::uint32_t tag, std::size_t i)
{
    return static_cast<char>((i * 31u + tag * 7u + (i >> 8)) & 0xFF);
}

struct FrameShape {
    Order order = Order::Big;
    std::uint32_t marker = kMarker;
    std::uint32_t manager = 1;
    std::uint32_t cmdCode = 10002;
    std::uint32_t seqNbr = 1;
    std::uint32_t payload = 0;   // payload bytes
    std::uint32_t tag = 0;       // selects the payload pattern
    long long sizeOverride = -1; // size word to announce instead of 28 + payload
};

inline FrameShape shape(std::uint32_t payload, std::uint32_t tag = 0, Order order = Order::Big)
{
    FrameShape f;
    f.order = order;
    f.payload = payload;
    f.tag = tag;
    return f;
}

// Control header, application header and payload as they travel.
inline std::string buildFrame(const FrameShape& f)
{
    std::string s;
    const std::uint32_t size = f.sizeOverride >= 0 ? static_cast<std::uint32_t>(f.sizeOverride) : 28 + f.payload;
    // msgStat 1, srcAddr 25, appError 0
    for (std::uint32_t w : {f.marker, f.manager, size, kCmd, f.cmdCode, f.seqNbr, 1u, 25u, 0u, f.payload})
        putWord(s, w, f.order);
    for (std::uint32_t i = 0; i < f.payload; ++i) s.push_back(payloadByte(f.tag, i));
    return s;
}

// Checks a frame read by the socket against the description it was built from.
inline void expectFrame(const ORV_CTL_MSG& ctl, const char* body, const FrameShape& f)
{
    const bool reversed = f.order != hostOrder();
    EXPECT_EQ(ctl.getMarker(), kMarker);
    EXPECT_EQ(ctl.manager, f.manager);
    EXPECT_EQ(ctl.getSize(), 28 + f.payload);
    EXPECT_EQ(ctl.isNetworkOrder(), reversed);
    const ORV_APP_MSG* app = reinterpret_cast<const ORV_APP_MSG*>(body);
    EXPECT_EQ(app->msgType, kCmd);
    EXPECT_EQ(app->cmdCode, f.cmdCode);
    EXPECT_EQ(app->seqNbr, f.seqNbr);
    EXPECT_EQ(app->getAppSize(), f.payload);
    EXPECT_EQ(app->isNetworkOrder(), reversed);
    std::size_t bad = 0;
    for (std::uint32_t i = 0; i < f.payload; ++i)
        if (body[28 + i] != payloadByte(f.tag, i)) ++bad;
    EXPECT_EQ(bad, 0u) << "payload bytes differ";
}

using ::writeAll;
inline bool writeAll(int fd, const std::string& s)
{
    return writeAll(fd, s.data(), s.size());
}

inline int waiting(int fd)
{
    int n = 0;
    if (::ioctl(fd, FIONREAD, &n) != 0) return -1;
    return n;
}

// Two connected blocking descriptors; take() hands a over to a socket.
struct FdPair {
    int a = -1;
    int b = -1;
    FdPair()
    {
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        a = sv[0];
        b = sv[1];
    }
    int take() { return std::exchange(a, -1); }
    void closeB()
    {
        if (b >= 0) ::close(b);
        b = -1;
    }
    ~FdPair()
    {
        if (a >= 0) ::close(a);
        closeB();
    }
};

// Captures the socket trace (standard output while no debug writer runs).
struct TraceCapture {
    bool done = false;
    TraceCapture() { testing::internal::CaptureStdout(); }
    ~TraceCapture()
    {
        if (!done) testing::internal::GetCapturedStdout();
    }
    std::string text()
    {
        done = true;
        return testing::internal::GetCapturedStdout();
    }
};

// The trace of fn, under the given trace bits (cleared after) if any.
template <typename Fn>
std::string traced(Fn fn, long long mask = -1)
{
    if (mask >= 0) socketTraceFeature().SetMask(static_cast<unsigned>(mask));
    TraceCapture cap;
    fn();
    if (mask >= 0) socketTraceFeature().SetMask(0);
    return cap.text();
}

inline std::size_t countOf(const std::string& text, const std::string& what)
{
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

inline void resetSockets()
{
    tavro_internal::resetSocketSeams();
    socketTraceFeature().SetMask(0);
    OsSocket::setProgramTerminating(false);
}

// Resets seams, trace bits and the terminating flag around each test.
struct SeamGuard {
    SeamGuard()
    {
        resetSockets();
        tavro_internal::socketSeams().readyWaitMs = 20;
    }
    ~SeamGuard() { resetSockets(); }
};

} // namespace sock_test
