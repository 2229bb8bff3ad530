#include "Common/Utility/UtlIp.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <istream>
#include <mutex>
#include <sstream>

// Boost marks its exception classes visible; their type information would
// then leak into the library's dynamic symbol table. Nothing of Boost crosses
// the library boundary, so hide them in this unit.
#include <boost/config.hpp>
#undef BOOST_SYMBOL_VISIBLE
#define BOOST_SYMBOL_VISIBLE
#include <boost/regex.hpp>

#include "Common/Utility/UtlDebug.h"

namespace {

int runShell(const char* command)
{
    return std::system(command);
}

std::atomic<tavro_internal::ShellRunner> pingRunner{&runShell};

int hexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

namespace tavro_internal {
ShellRunner setPingRunner(ShellRunner runner)
{
    return pingRunner.exchange(runner != nullptr ? runner : &runShell);
}
} // namespace tavro_internal

c_sockaddr::c_sockaddr(int fd)
{
    std::memset(static_cast<sockaddr_in*>(this), 0, sizeof(sockaddr_in));
    socklen_t len = sizeof(sockaddr_in);
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0 || len > sizeof(sockaddr_in)) {
        debugOut("c_sockaddr : getsockname() failed!");
        return;
    }
    std::memcpy(static_cast<sockaddr_in*>(this), &local, sizeof(sockaddr_in));
}

bool MAC_ADDRESS::writeToFile(const char* path) const
{
    if (path == nullptr) return false;
    std::ofstream out(path, std::ios::trunc);
    if (!out) return false;
    out << *this << '\n';
    return static_cast<bool>(out.flush());
}

bool MAC_ADDRESS::readFromFile(const char* path)
{
    if (path == nullptr) return false;
    std::ifstream in(path);
    if (!in) return false;
    MAC_ADDRESS read;
    if (!(in >> read)) return false;
    *this = read.addr;
    return true;
}

std::ostream& operator<<(std::ostream& os, const MAC_ADDRESS& mac)
{
    char text[18];
    convertMacAddrToString(mac.addr, text);
    return os << text;
}

std::istream& operator>>(std::istream& is, MAC_ADDRESS& mac)
{
    std::string word;
    if (!(is >> word)) return is;
    unsigned char bytes[6];
    // Both forms have a fixed length; anything else (trailing junk included) is refused.
    if ((word.size() != 17 && word.size() != 12) || !MacAddrStringToBytes(word.c_str(), bytes, sizeof bytes)) {
        is.setstate(std::ios::failbit);
        return is;
    }
    mac = bytes;
    return is;
}

bool IsValidIPAddress(const std::string& text)
{
    in_addr a;
    return inet_pton(AF_INET, text.c_str(), &a) == 1;
}

bool IsValidIPAddress(unsigned int addr)
{
    in_addr a;
    a.s_addr = addr;
    char text[INET_ADDRSTRLEN] = {0};
    if (inet_ntop(AF_INET, &a, text, sizeof text) == nullptr) return false;
    return IsValidIPAddress(std::string(text));
}

bool isIpAnyAddress(const std::string& text)
{
    if (text.empty()) return true;
    // Compiled once; matching against a const regex is safe from any thread.
    static const boost::regex anyAddress("^0+[.]0+[.]0+[.]0+$");
    // The matcher's state blocks come from a cache inside the Boost library,
    // whose hand-over between threads race checkers cannot see; one match at
    // a time keeps that hand-over ordered. The check is rare and short.
    static std::mutex matchLock;
    try {
        std::lock_guard<std::mutex> hold(matchLock);
        return boost::regex_match(text, anyAddress);
    } catch (...) {
        return false; // only on resource exhaustion; no exception leaves here
    }
}

int mygetaddrinfo(const char* /*node*/, const char* /*service*/, const struct addrinfo* /*hints*/,
                  struct addrinfo** result)
{
    if (result != nullptr) *result = nullptr;
    ifaddrs* interfaces = nullptr;
    int rc = getifaddrs(&interfaces);
    if (rc != 0) {
        std::ostringstream os;
        os << "mygetaddrinfo: getifaddrs( ) failed.  errno[" << errno << "]";
        debugOut(os.str().c_str());
        return rc < 0 ? rc : -rc;
    }
    addrinfo* head = nullptr;
    addrinfo** tail = &head;
    for (ifaddrs* ifa = interfaces; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_INET) continue;
        auto* info = static_cast<addrinfo*>(std::calloc(1, sizeof(addrinfo)));
        auto* addr = static_cast<sockaddr_in*>(std::calloc(1, sizeof(sockaddr_in)));
        if (info == nullptr || addr == nullptr) {
            std::free(info);
            std::free(addr);
            break;
        }
        std::memcpy(addr, ifa->ifa_addr, sizeof(sockaddr_in));
        info->ai_family = AF_INET;
        info->ai_addrlen = sizeof(sockaddr_in);
        info->ai_addr = reinterpret_cast<sockaddr*>(addr);
        if (head == nullptr) {
            char host[NI_MAXHOST] = {0};
            if (getnameinfo(info->ai_addr, info->ai_addrlen, host, sizeof host, nullptr, 0, NI_NUMERICHOST) == 0)
                info->ai_canonname = strdup(host);
        }
        *tail = info;
        tail = &info->ai_next;
    }
    freeifaddrs(interfaces);
    if (result != nullptr)
        *result = head;
    else
        myfreeaddrinfo(head);
    return 0;
}

void myfreeaddrinfo(struct addrinfo* list)
{
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        std::free(list->ai_addr);
        std::free(list->ai_canonname);
        std::free(list);
        list = next;
    }
}

struct addrinfo* GetAddrInfo(const char* name, int family)
{
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = family;
    addrinfo* result = nullptr;
    int rc = mygetaddrinfo(name, nullptr, &hints, &result);
    if (rc != 0) {
        std::ostringstream os;
        os << "GetAddrInfo: getaddrinfo( [" << (name != nullptr ? name : "") << "] ) failed with error["
           << gai_strerror(rc) << "]";
        debugOut(os.str().c_str());
        return nullptr;
    }
    return result;
}

int ping(const char* ip)
{
    char command[50];
    std::snprintf(command, sizeof command, "sudo sh ../pingIp.sh %s", ip != nullptr ? ip : "");
    int status = pingRunner.load()(command);
    if (status == -1 || WIFSIGNALED(status)) return -1;
    return WEXITSTATUS(status);
}

int ping(unsigned int ip)
{
    in_addr a;
    a.s_addr = ip;
    char text[16] = {0};
    if (inet_ntop(AF_INET, &a, text, sizeof text) == nullptr) return -1;
    return ping(static_cast<const char*>(text));
}

void convertMacAddrToString(const unsigned char* mac, char* out)
{
    if (out == nullptr) return;
    if (mac == nullptr) {
        out[0] = '\0';
        return;
    }
    std::snprintf(out, 18, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

bool MacAddrStringToUints(const char* text, unsigned int* out, unsigned int n)
{
    if (text == nullptr || out == nullptr || n < 6) return false;
    const char* format = std::strchr(text, ':') != nullptr ? "%2x:%2x:%2x:%2x:%2x:%2x" : "%2x%2x%2x%2x%2x%2x";
    return std::sscanf(text, format, &out[0], &out[1], &out[2], &out[3], &out[4], &out[5]) == 6;
}

bool MacAddrStringToBytes(const char* text, unsigned char* out, unsigned int n)
{
    if (out == nullptr || n < 6) return false;
    unsigned int fields[6];
    if (!MacAddrStringToUints(text, fields, 6)) return false;
    for (int i = 0; i < 6; ++i) out[i] = static_cast<unsigned char>(fields[i]);
    return true;
}

bool getMacAddress(const char* interfaceName, MAC_ADDRESS& mac)
{
    mac.clear();
    if (interfaceName == nullptr) return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    ifreq request;
    std::memset(&request, 0, sizeof request);
    std::strncpy(request.ifr_name, interfaceName, IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFHWADDR, &request) == 0;
    if (ok) {
        mac = reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
    } else {
        std::ostringstream os;
        os << " ========== IOCTL failed for pszIntf[" << interfaceName << "]";
        debugOut(os.str().c_str());
    }
    close(fd);
    return ok;
}

int makeHexToBinary(char* text)
{
    if (text == nullptr) return 0;
    int count = 0;
    for (;;) {
        int hi = hexValue(text[2 * count]);
        if (hi < 0) break;
        int lo = hexValue(text[2 * count + 1]);
        if (lo < 0) break; // a lone last digit is dropped
        text[count] = static_cast<char>(hi << 4 | lo);
        ++count;
    }
    return count;
}

bool ftpUrlPieces(const std::string& url, std::string& user, std::string& password, std::string& host,
                  std::string& path, std::string& file, unsigned short& port)
{
    user.clear();
    password.clear();
    host.clear();
    path.clear();
    file.clear();
    port = 0;

    static const char scheme[] = "ftp://";
    const size_t schemeLen = sizeof scheme - 1;
    if (url.size() < schemeLen) return false;
    for (size_t i = 0; i < schemeLen; ++i)
        if (std::tolower(static_cast<unsigned char>(url[i])) != scheme[i]) return false;

    size_t slash = url.find('/', schemeLen);
    std::string authority = url.substr(schemeLen, slash == std::string::npos ? std::string::npos : slash - schemeLen);
    std::string rest = slash == std::string::npos ? std::string("/") : url.substr(slash);

    // The password may hold '@', the host never does.
    size_t at = authority.rfind('@');
    std::string hostPort = authority;
    if (at != std::string::npos) {
        std::string userInfo = authority.substr(0, at);
        hostPort = authority.substr(at + 1);
        size_t colon = userInfo.find(':');
        user = userInfo.substr(0, colon);
        if (colon != std::string::npos) password = userInfo.substr(colon + 1);
    }
    if (user.empty()) user = "anonymous";

    unsigned long portValue = 21;
    size_t colon = hostPort.rfind(':');
    if (colon != std::string::npos) {
        std::string digits = hostPort.substr(colon + 1);
        hostPort.resize(colon);
        if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos ||
            (portValue = std::strtoul(digits.c_str(), nullptr, 10)) > 65535) {
            user.clear();
            password.clear();
            return false;
        }
    }
    if (hostPort.empty()) {
        user.clear();
        password.clear();
        return false;
    }
    host = hostPort;
    port = static_cast<unsigned short>(portValue);

    size_t last = rest.rfind('/');
    path = rest.substr(0, last + 1);
    file = rest.substr(last + 1);
    return true;
}
