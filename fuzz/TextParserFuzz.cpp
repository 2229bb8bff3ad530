// The text parsers: port numbers, IPv4 addresses, MAC addresses, ftp URLs and
// hexadecimal text. Input: a selector byte, then the text. Whatever parses
// must print back to a text that parses to the same value.
#include <strings.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "Common/Utility/UtlIp.h"
#include "FuzzSupport.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"

namespace {

// "^0+[.]0+[.]0+[.]0+$" or empty.
bool simpleAnyAddress(const std::string& s)
{
    if (s.empty()) return true;
    std::size_t at = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (at >= s.size() || s[at] != '.') return false;
            ++at;
        }
        const std::size_t start = at;
        while (at < s.size() && s[at] == '0') ++at;
        if (at == start) return false;
    }
    return at == s.size();
}

void portNumber(const std::string& text)
{
    const PORT_NUM p(text.c_str());
    if (p == PORT_NUM::INVALID_PORT_NUM) return;
    FUZZ_CHECK(p.swId == 0);
    FUZZ_CHECK(PORT_NUM(p.toString().c_str()) == p);
}

void address(const std::string& text)
{
    const bool valid = IsValidIPAddress(text);
    const c_inaddr a(text);
    if (valid) {
        FUZZ_CHECK(c_inaddr(a.toString()) == a);
        FUZZ_CHECK(IsValidIPAddress(static_cast<unsigned>(a.s_addr)));
    }
    FUZZ_CHECK(isIpAnyAddress(text) == simpleAnyAddress(text));
}

void mac(const std::string& text, unsigned room)
{
    // Exactly `room` bytes of output, as the caller says.
    std::unique_ptr<unsigned char[]> out(new unsigned char[room == 0 ? 1 : room]);
    const bool ok = MacAddrStringToBytes(text.c_str(), out.get(), room);
    FUZZ_CHECK(!ok || room >= 6);
    if (ok) {
        char printed[18];
        convertMacAddrToString(out.get(), printed);
        FUZZ_CHECK(std::strlen(printed) == 17);
        unsigned char again[6];
        FUZZ_CHECK(MacAddrStringToBytes(printed, again, 6));
        FUZZ_CHECK(std::memcmp(again, out.get(), 6) == 0);
    }
    std::istringstream is(text);
    MAC_ADDRESS m;
    if (is >> m) {
        std::ostringstream os;
        os << m;
        std::istringstream back(os.str());
        MAC_ADDRESS n;
        FUZZ_CHECK(static_cast<bool>(back >> n));
        FUZZ_CHECK(n == m);
    }
}

void url(const std::string& text)
{
    std::string user = "x", password = "x", host = "x", path = "x", file = "x";
    unsigned short port = 1;
    const bool ok = ftpUrlPieces(text, user, password, host, path, file, port);
    if (!ok) {
        FUZZ_CHECK(user.empty() && password.empty() && host.empty() && path.empty() && file.empty());
        return;
    }
    FUZZ_CHECK(strncasecmp(text.c_str(), "ftp://", 6) == 0); // the scheme ignores case
    FUZZ_CHECK(!host.empty() && !user.empty());
    FUZZ_CHECK(!path.empty() && path.front() == '/' && path.back() == '/');
    FUZZ_CHECK(file.find('/') == std::string::npos);
}

void hex(const std::string& text, unsigned count)
{
    // makeHexToBinary works in place on a terminated text.
    std::unique_ptr<char[]> buf(new char[text.size() + 1]);
    std::memcpy(buf.get(), text.c_str(), text.size() + 1);
    const int n = makeHexToBinary(buf.get());
    FUZZ_CHECK(n >= 0 && static_cast<std::size_t>(n) <= std::strlen(text.c_str()) / 2 + 1);

    // AsciiToString reads exactly count characters and writes (count + 1) / 2.
    if (count > text.size()) count = static_cast<unsigned>(text.size());
    std::unique_ptr<unsigned char[]> out(new unsigned char[count / 2 + 1]);
    const int produced = AsciiToString(text.data(), static_cast<int>(count), out.get());
    FUZZ_CHECK(produced == static_cast<int>(count / 2));

    // SAFE_STRNCPY writes at most n bytes and always terminates.
    const unsigned n2 = count;
    std::unique_ptr<char[]> dst(new char[n2 == 0 ? 1 : n2]);
    SAFE_STRNCPY(dst.get(), text.c_str(), n2);
    if (n2 > 0) FUZZ_CHECK(std::strlen(dst.get()) < n2);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_support::quietStdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_support::Bytes in(data, size);
    const std::uint8_t which = in.u8();
    const std::uint8_t extra = in.u8();
    const std::string text(reinterpret_cast<const char*>(in.rest()), in.restSize());
    switch (which % 5) {
    case 0: portNumber(text); break;
    case 1: address(text); break;
    case 2: mac(text, extra % 9); break;
    case 3: url(text); break;
    default: hex(text, extra); break;
    }
    return 0;
}
