#include "Hex.h"

#include <cctype>
#include <cstdio>

namespace tavroctl {

bool parseHex(const std::string& text, Bytes& out, std::string& error)
{
    out.clear();
    std::size_t i = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) i = 2;
    int high = -1;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (high < 0 && (c == ' ' || c == ':' || c == '-')) continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            error = "'" + std::string(1, c) + "' at position " + std::to_string(i + 1) + " is not a hex digit";
            return false;
        }
        const int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10);
        if (high < 0) {
            high = v;
        } else {
            out.push_back(std::uint8_t(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) {
        error = "an odd number of hex digits (each byte takes two)";
        return false;
    }
    return true;
}

std::string hexDump(const std::uint8_t* data, std::size_t size)
{
    std::string out;
    char buf[24];
    for (std::size_t line = 0; line < size; line += 16) {
        std::snprintf(buf, sizeof buf, "%04zx ", line);
        out += buf;
        std::string text;
        for (std::size_t i = line; i < line + 16; ++i) {
            if (i < size) {
                std::snprintf(buf, sizeof buf, " %02x", data[i]);
                out += buf;
                text += std::isprint(data[i]) ? char(data[i]) : '.';
            } else {
                out += "   ";
            }
        }
        out += "  |" + text + "|\n";
    }
    return out;
}

std::string hexString(const std::uint8_t* data, std::size_t size)
{
    std::string out;
    char buf[4];
    for (std::size_t i = 0; i < size; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", data[i]);
        out += buf;
    }
    return out;
}

} // namespace tavroctl
