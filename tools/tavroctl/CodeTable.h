#pragma once

// Names and numbers of the library's codes, looked up both ways.
#include <cstdint>
#include <string>
#include <vector>

namespace tavroctl {

struct CodeEntry {
    const char* type; // COMMAND_CODE, RSP_STATUS, I_STATUS, ...
    const char* name;
    long long value;
};

// Every entry of `type` in declaration order.
std::vector<const CodeEntry*> codesOfType(const std::string& type);

// The first name declared for value (the one the library prints), or null.
const char* nameOf(const std::string& type, long long value);

// A name (any case, "CMD_" prefix optional for commands) or a decimal or 0x
// number. A number need not have a name. False when neither.
bool parseCode(const std::string& type, const std::string& text, long long& value);

// Up to `count` names of `type` closest to text, best first.
std::vector<std::string> nearestNames(const std::string& type, const std::string& text, std::size_t count = 3);

} // namespace tavroctl
