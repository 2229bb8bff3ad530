#include "CodeTable.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace tavroctl {
namespace {

const CodeEntry kCodes[] = {
#include "TavroctlCodes.inc"
};

std::string upper(std::string s)
{
    for (char& c : s) c = char(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

std::size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diag = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diag = up;
        }
    }
    return row[b.size()];
}

bool parseNumber(const std::string& text, long long& value)
{
    if (text.empty()) return false;
    const char* s = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(s, &end, 0);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > UINT32_MAX) return false;
    value = v;
    return true;
}

} // namespace

std::vector<const CodeEntry*> codesOfType(const std::string& type)
{
    std::vector<const CodeEntry*> out;
    for (const CodeEntry& e : kCodes)
        if (type == e.type) out.push_back(&e);
    return out;
}

const char* nameOf(const std::string& type, long long value)
{
    for (const CodeEntry& e : kCodes)
        if (type == e.type && e.value == value) return e.name;
    return nullptr;
}

bool parseCode(const std::string& type, const std::string& text, long long& value)
{
    if (!text.empty() && (std::isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-'))
        return parseNumber(text, value);
    const std::string want = upper(text);
    for (const CodeEntry& e : kCodes) {
        if (type != e.type) continue;
        if (want == e.name || (type == "COMMAND_CODE" && "CMD_" + want == e.name)) {
            value = e.value;
            return true;
        }
    }
    return false;
}

std::vector<std::string> nearestNames(const std::string& type, const std::string& text, std::size_t count)
{
    const std::string want = upper(text);
    std::vector<std::pair<std::size_t, const char*>> scored;
    for (const CodeEntry& e : kCodes) {
        if (type != e.type) continue;
        const std::string name = e.name;
        std::size_t d = editDistance(want, name);
        if (name.rfind("CMD_", 0) == 0) d = std::min(d, editDistance(want, name.substr(4)));
        // A fragment of a long name is close to it, whatever its length.
        if (want.size() >= 3 && name.find(want) != std::string::npos) d = std::min<std::size_t>(d, 1);
        scored.emplace_back(d, e.name);
    }
    std::stable_sort(scored.begin(), scored.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> out;
    const std::size_t limit = std::max<std::size_t>(3, want.size() / 2);
    for (const auto& s : scored) {
        if (out.size() == count || s.first > limit) break;
        if (std::find(out.begin(), out.end(), s.second) == out.end()) out.push_back(s.second);
    }
    return out;
}

} // namespace tavroctl
