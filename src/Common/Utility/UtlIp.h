#pragma once

// IPv4, socket-address and MAC-address value types and helpers.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <iosfwd>
#include <ostream>
#include <string>

#include "TavroExport.h"

// One IPv4 address, network byte order. Kept inline so that applications can
// build addresses for the exported functions that take them.
class c_inaddr : public in_addr {
public:
    c_inaddr() { s_addr = 0; }
    // An empty text or "0.0.0.0" is the any-address; text that does not parse
    // also gives 0.
    c_inaddr(const char* text)
    {
        s_addr = 0;
        if (text == nullptr || text[0] == '\0' || std::strcmp(text, "0.0.0.0") == 0) return;
        in_addr a;
        if (inet_pton(AF_INET, text, &a) == 1) s_addr = a.s_addr;
    }
    c_inaddr(const std::string& text) : c_inaddr(text.c_str()) {}
    // The word is taken as it is (already network order).
    c_inaddr(unsigned int word) { s_addr = word; }
    // Without this, c_inaddr(0) would be ambiguous between the word and text forms.
    c_inaddr(int word) { s_addr = static_cast<unsigned int>(word); }
    c_inaddr(unsigned long word) { s_addr = static_cast<unsigned int>(word); }
    c_inaddr(const in_addr& a) { s_addr = a.s_addr; }

    operator unsigned long() const { return s_addr; }

    // Dotted-decimal text.
    std::string toString() const
    {
        char buf[INET_ADDRSTRLEN] = {0};
        if (inet_ntop(AF_INET, static_cast<const in_addr*>(this), buf, sizeof buf) == nullptr) return "0.0.0.0";
        return buf;
    }
};
static_assert(sizeof(c_inaddr) == 4, "c_inaddr is one IPv4 word");

inline std::ostream& operator<<(std::ostream& os, const c_inaddr& a)
{
    return os << a.toString();
}

// sockaddr_in with constructors; the port is always stored as given, so pass
// it in network order.
class c_sockaddr : public sockaddr_in {
public:
    c_sockaddr() { std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in)); }
    c_sockaddr(short family, const in_addr& addr, unsigned short port) { c_sockaddr_init(family, addr, port); }
    c_sockaddr(const sockaddr_in& sa) { std::memcpy(static_cast<sockaddr_in*>(this), &sa, sizeof(sockaddr_in)); }
    // The local address of a socket descriptor; zeroed if getsockname fails.
    explicit c_sockaddr(int fd);

    void c_sockaddr_init(short family, const c_inaddr& addr, unsigned short port)
    {
        std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
        sin_family = static_cast<sa_family_t>(family);
        sin_addr.s_addr = addr.s_addr;
        sin_port = port;
    }

    operator sockaddr*() { return reinterpret_cast<sockaddr*>(static_cast<sockaddr_in*>(this)); }
    operator const sockaddr*() const
    {
        return reinterpret_cast<const sockaddr*>(static_cast<const sockaddr_in*>(this));
    }
    operator sockaddr_in*() { return this; }
    operator const sockaddr_in*() const { return this; }

    c_inaddr address() const { return c_inaddr(sin_addr); }
    // Port in host order, for display.
    unsigned short hostPort() const { return ntohs(sin_port); }
};
static_assert(sizeof(c_sockaddr) == 16, "c_sockaddr is a plain sockaddr_in");

// "a.b.c.d:port", port in host order.
inline std::ostream& operator<<(std::ostream& os, const c_sockaddr& sa)
{
    return os << sa.address() << ':' << sa.hostPort();
}

// File the other blade's MAC address is kept in, relative to the working directory.
constexpr const char* OTHER_MAC_ADDRESS_FILE = "./OtherMacAddress.txt";

struct MAC_ADDRESS {
    unsigned char addr[6];

    MAC_ADDRESS() { clear(); }
    void clear() { std::memset(addr, 0, sizeof addr); }
    MAC_ADDRESS& operator=(const unsigned char* p)
    {
        if (p == nullptr)
            clear();
        else
            std::memcpy(addr, p, sizeof addr);
        return *this;
    }
    bool operator==(const MAC_ADDRESS& o) const { return std::memcmp(addr, o.addr, sizeof addr) == 0; }
    bool operator!=(const MAC_ADDRESS& o) const { return !(*this == o); }

    // One line "xx:xx:xx:xx:xx:xx" in OTHER_MAC_ADDRESS_FILE (or the given path).
    bool writeToFile(const char* path = OTHER_MAC_ADDRESS_FILE) const;
    // Leaves the address unchanged and returns false when the file is missing
    // or does not hold an address.
    bool readFromFile(const char* path = OTHER_MAC_ADDRESS_FILE);
};
static_assert(sizeof(MAC_ADDRESS) == 6, "MAC_ADDRESS is six bytes");

// "xx:xx:xx:xx:xx:xx", lower-case hex.
std::ostream& operator<<(std::ostream& os, const MAC_ADDRESS& mac);
// Reads one word in either "xx:xx:xx:xx:xx:xx" or "xxxxxxxxxxxx" form; sets
// failbit (and leaves mac unchanged) when it is not a MAC address.
std::istream& operator>>(std::istream& is, MAC_ADDRESS& mac);

TAVRO_EXPORT bool IsValidIPAddress(const std::string& text);
TAVRO_EXPORT bool IsValidIPAddress(unsigned int addr);
TAVRO_EXPORT bool isIpAnyAddress(const std::string& text);

// One addrinfo per local interface with an IPv4 address; node, service and
// hints are ignored. Free the chain with myfreeaddrinfo.
TAVRO_EXPORT int mygetaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                               struct addrinfo** result);
TAVRO_EXPORT void myfreeaddrinfo(struct addrinfo* list);
TAVRO_EXPORT struct addrinfo* GetAddrInfo(const char* name, int family);

// 0 when reachable, else the script's exit status; -1 when the shell died of
// a signal or could not be run.
TAVRO_EXPORT int ping(const char* ip);
TAVRO_EXPORT int ping(unsigned int ip);

// out needs 18 bytes.
TAVRO_EXPORT void convertMacAddrToString(const unsigned char* mac, char* out);
TAVRO_EXPORT bool MacAddrStringToUints(const char* text, unsigned int* out, unsigned int n);
TAVRO_EXPORT bool MacAddrStringToBytes(const char* text, unsigned char* out, unsigned int n);
TAVRO_EXPORT bool getMacAddress(const char* interfaceName, MAC_ADDRESS& mac);

// Replaces the hexadecimal text with the bytes it denotes and returns their
// number; stops at the first character that is not a hex digit.
TAVRO_EXPORT int makeHexToBinary(char* text);

// Splits "ftp://[user[:password]@]host[:port][/dir/.../file]". A missing user
// becomes "anonymous", a missing password "". path is the directory part
// with its leading and trailing "/" ("/" when there is none), file the last
// part (may be empty), port in host order (21 when absent). Returns false when url does not start with "ftp://" or
// has no host; the outputs are then cleared.
TAVRO_EXPORT bool ftpUrlPieces(const std::string& url, std::string& user, std::string& password, std::string& host,
                               std::string& path, std::string& file, unsigned short& port);

namespace tavro_internal {
// Runs a shell command and returns its wait status as system() does. Tests
// replace it so that nothing is really pinged; null restores the shell.
using ShellRunner = int (*)(const char* command);
ShellRunner setPingRunner(ShellRunner runner);
} // namespace tavro_internal
