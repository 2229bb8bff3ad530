#pragma once

// Optional socket diagnostics: the bits of the SOCKET trace feature, the
// cheap test used on the transfer paths, and the text helpers of the
// socket messages.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Common/Utility/UtlDbgFeature.h"
#include "Common/Utility/UtlTraceLine.h"

enum SOCKET_TRACE_BITS : std::uint32_t {
    SOCK_TRACE_BIND = 0x00000001,       // bind and accept detail
    SOCK_TRACE_OPTIONS = 0x00000002,    // socket options that succeeded
    SOCK_TRACE_CONNECT = 0x00000004,    // preparation, connection and read requests
    SOCK_TRACE_INTERRUPT = 0x00000100,  // interrupted reads, FIONREAD failures
    SOCK_TRACE_WAIT = 0x00000400,       // readiness waits
    SOCK_TRACE_WAIT_EXIT = 0x00000800,  // outcome of each readiness wait
    SOCK_TRACE_RAW = 0x00001000,        // raw dumps of received headers and bodies
    SOCK_TRACE_SEND_ERROR = 0x00010000, // failed, empty and short sends
    SOCK_TRACE_SEND_CALL = 0x00040000,  // every send call
    SOCK_TRACE_SEND_BD = 0x00080000,    // every buffer descriptor sent, with a dump
};

// Names and meanings, as the configuration file and FeatureMaskBitsDesc use them.
std::vector<UtlDbgBitDesc> socketTraceBits();

UtlDbgFeature& socketTraceFeatureSlow();

inline UtlDbgFeature& socketTraceFeature()
{
    static UtlDbgFeature& f = socketTraceFeatureSlow();
    return f;
}

namespace tavro_internal {
// Depth of SocketTraceMute scopes on this thread.
int& socketTraceMuteDepth();
} // namespace tavro_internal

// True when any of the bits is set and this thread is not muted.
inline bool sockTraceOn(std::uint32_t bits)
{
    return socketTraceFeature().On(bits) && tavro_internal::socketTraceMuteDepth() == 0;
}

// Silences the optional socket trace on this thread for its scope. Writing
// trace text to a listener socket must not itself produce trace text, or the
// debug writer would feed itself.
class SocketTraceMute {
public:
    SocketTraceMute() { ++tavro_internal::socketTraceMuteDepth(); }
    ~SocketTraceMute() { --tavro_internal::socketTraceMuteDepth(); }
    SocketTraceMute(const SocketTraceMute&) = delete;
    SocketTraceMute& operator=(const SocketTraceMute&) = delete;
};

// "0x" and eight upper-case hex digits (more for wider values).
struct Hex8 {
    explicit Hex8(std::uint64_t v) : value(v) {}
    std::uint64_t value;
};
std::ostream& operator<<(std::ostream& os, const Hex8& h);
inline Hex8 hex8(std::uint64_t v)
{
    return Hex8(v);
}
inline Hex8 hex8(const void* p)
{
    return Hex8(reinterpret_cast<std::uintptr_t>(p));
}

// The text printed after "errNum[<n>] ": the resolver's error text, as the
// socket messages have always shown it.
const char* sockErrText(int errNum);
inline const char* boolText(bool b)
{
    return b ? "true" : "false";
}

// Raw dump: "<title>: raw[<n>] bytes\n" and lines of 16 bytes
// "  0000  4D 53 47 3A ...  MSG:....\n".
std::string rawDump(const char* title, const void* data, std::size_t n);

// Hands one finished line to the debug trace.
void sockLog(const std::string& text);

// A socket trace line under one of `bits`, built only when it is written.
// The texts are the system's own and stay as they always were, also where
// they say select(): readiness is waited for with poll(), which has no limit
// on descriptor numbers, but the messages users grep for are unchanged.
#define SOCK_TRACE(bits, expr) UTL_TRACE_IF(sockTraceOn(bits), expr)
