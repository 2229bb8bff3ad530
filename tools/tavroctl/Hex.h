#pragma once

// Payload bytes as people type and read them.
#include <cstdint>
#include <string>
#include <vector>

namespace tavroctl {

using Bytes = std::vector<std::uint8_t>;

// Hex digits in pairs; blanks, ':' and '-' between bytes and a leading "0x"
// are allowed ("0a0b0c", "0a:0b:0c", "0x0a0b0c"). False, with the reason in
// error, for anything else.
bool parseHex(const std::string& text, Bytes& out, std::string& error);

// Lines of "offset  16 bytes in hex  |printable|", each ending in '\n'.
std::string hexDump(const std::uint8_t* data, std::size_t size);

// The bytes as one run of hex digits.
std::string hexString(const std::uint8_t* data, std::size_t size);

} // namespace tavroctl
