#include "Common/OS/OsSocketDebug.h"

#include <netdb.h>

#include <cctype>
#include <iomanip>
#include <sstream>

#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlFormatGuard.h"

std::vector<UtlDbgBitDesc> socketTraceBits()
{
    return {
        {SOCK_TRACE_BIND, "BIND", "bind and accept detail"},
        {SOCK_TRACE_OPTIONS, "OPTIONS", "socket options that succeeded"},
        {SOCK_TRACE_CONNECT, "CONNECT", "preparation, connection and read requests"},
        {SOCK_TRACE_INTERRUPT, "INTERRUPT", "interrupted reads and FIONREAD failures"},
        {SOCK_TRACE_WAIT, "WAIT", "readiness waits"},
        {SOCK_TRACE_WAIT_EXIT, "WAIT_EXIT", "outcome of each readiness wait"},
        {SOCK_TRACE_RAW, "RAW", "raw dumps of received headers and bodies"},
        {SOCK_TRACE_SEND_ERROR, "SEND_ERROR", "failed, empty and short sends"},
        {SOCK_TRACE_SEND_CALL, "SEND_CALL", "every send call"},
        {SOCK_TRACE_SEND_BD, "SEND_BD", "every buffer descriptor sent, with a dump"},
    };
}

UtlDbgFeature& socketTraceFeatureSlow()
{
    // Registered by its owner on first use; the configuration file's line for
    // it, read earlier, is applied then.
    return UtlDbgContainer::Instance().FeatureRegister("SOCKET", socketTraceBits());
}

int& tavro_internal::socketTraceMuteDepth()
{
    static thread_local int depth = 0;
    return depth;
}

std::ostream& operator<<(std::ostream& os, const Hex8& h)
{
    UtlFormatGuard guard(os);
    os << "0x" << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << h.value;
    return os;
}

const char* sockErrText(int errNum)
{
    return gai_strerror(errNum);
}

std::string rawDump(const char* title, const void* data, std::size_t n)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::ostringstream os;
    os << (title ? title : "") << ": raw[" << n << "] bytes\n";
    if (p == nullptr) return os.str();
    os << std::hex << std::uppercase << std::setfill('0');
    for (std::size_t off = 0; off < n; off += 16) {
        os << "  " << std::setw(4) << off << " ";
        std::string ascii;
        for (std::size_t i = 0; i < 16; ++i) {
            if (off + i < n) {
                const unsigned char c = p[off + i];
                os << ' ' << std::setw(2) << static_cast<unsigned>(c);
                ascii += std::isprint(c) ? static_cast<char>(c) : '.';
            } else {
                os << "   ";
            }
        }
        os << "  " << ascii << "\n";
    }
    return os.str();
}

void sockLog(const std::string& text)
{
    debugOut(text.c_str(), false);
}
