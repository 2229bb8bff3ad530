#include "Os/UDBPortNum.h"

#include <cctype>
#include <cstring>
#include <sstream>

const PORT_NUM PORT_NUM::INVALID_PORT_NUM(-1);
const PORT_NUM PORT_NUM::ALL_PORT_NUMS(-2);
const SUBPORT_NUM SUBPORT_NUM::INVALID_SUBPORT_NUM(-1);

namespace {

// Splits "n.n.n[.n]" of one-based decimal numbers (each 0-255) into exactly
// `parts` numbers. Leading and trailing white space are allowed; anything
// else that is not a digit or "." fails.
bool parseDottedNumbers(const char* text, size_t minLength, unsigned parts, unsigned* out)
{
    if (text == nullptr) return false;
    size_t len = strnlen(text, 64);
    if (len < minLength) return false;
    if (len > 63) len = 63;
    std::string s(text, len);
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    if (s.empty() || s.back() == '.') return false;
    size_t start = 0;
    while (start < s.size() && std::isspace(static_cast<unsigned char>(s[start]))) ++start;

    unsigned count = 0;
    unsigned value = 0;
    for (size_t i = start; i <= s.size(); ++i) {
        char c = i < s.size() ? s[i] : '.';
        if (c == '.') {
            if (count == parts) return false;
            out[count++] = value;
            value = 0;
        } else if (c >= '0' && c <= '9') {
            value = value * 10 + static_cast<unsigned>(c - '0');
            if (value > 255) return false;
        } else {
            return false;
        }
    }
    return count == parts;
}

} // namespace

PORT_NUM::PORT_NUM(const char* text) : PORT_NUM(INVALID_PORT_NUM)
{
    unsigned n[3];
    if (!parseDottedNumbers(text, 5, 3, n)) return;
    if (n[0] == 0 || n[1] == 0 || n[2] == 0) return;
    ccId = static_cast<unsigned char>(n[0] - 1);
    pimId = static_cast<unsigned char>(n[1] - 1);
    portId = static_cast<unsigned char>(n[2] - 1);
    swId = 0;
}

bool PORT_NUM::isValid() const
{
    if (*this == ALL_PORT_NUMS) return true;
    return *this != INVALID_PORT_NUM && ccId < MAX_CHASSIS && pimId < MAX_PIMS;
}

std::string PORT_NUM::toString() const
{
    if (*this == INVALID_PORT_NUM) return "INVALID";
    if (*this == ALL_PORT_NUMS) return "ALL";
    std::ostringstream os;
    os << ccId + 1 << '.' << pimId + 1 << '.' << portId + 1;
    return os.str();
}

SUBPORT_NUM::SUBPORT_NUM(const char* text) : SUBPORT_NUM(-1)
{
    unsigned n[4];
    if (!parseDottedNumbers(text, 7, 4, n)) return;
    if (n[0] == 0 || n[1] == 0 || n[2] == 0) return;
    ccId = static_cast<unsigned char>(n[0] - 1);
    pimId = static_cast<unsigned char>(n[1] - 1);
    portId = static_cast<unsigned char>(n[2] - 1);
    subportId = static_cast<unsigned char>(n[3]);
}

PORT_NUM SUBPORT_NUM::port() const
{
    return PORT_NUM(static_cast<unsigned int>(portId) | static_cast<unsigned int>(pimId) << 8 |
                    static_cast<unsigned int>(ccId) << 16);
}

std::string SUBPORT_NUM::toString() const
{
    if (*this == INVALID_SUBPORT_NUM) return "INVALID";
    std::ostringstream os;
    os << ccId + 1 << '.' << pimId + 1 << '.' << portId + 1 << '.' << static_cast<unsigned>(subportId);
    return os.str();
}
