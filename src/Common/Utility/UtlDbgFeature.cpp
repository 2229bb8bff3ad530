#include "Common/Utility/UtlDbgFeature.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "Common/Utility/UtlDebug.h"

namespace {

std::string upper(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s)
{
    const char* ws = " \t\r\n";
    const auto b = s.find_first_not_of(ws);
    if (b == std::string::npos) return std::string();
    const auto e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

// Whole-token unsigned number: 0x-prefixed hex or decimal, at most 32 bits.
bool parseNumber(const std::string& tok, std::uint32_t& out)
{
    if (tok.empty()) return false;
    int base = 10;
    std::string digits = tok;
    if (tok.size() > 2 && tok[0] == '0' && (tok[1] == 'x' || tok[1] == 'X')) {
        base = 16;
        digits = tok.substr(2);
    }
    for (char c : digits) {
        const bool ok = base == 16 ? std::isxdigit(static_cast<unsigned char>(c)) != 0
                                   : std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!ok) return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(digits.c_str(), &end, base);
    if (errno != 0 || end == nullptr || *end != '\0' || v > 0xFFFFFFFFull) return false;
    out = static_cast<std::uint32_t>(v);
    return true;
}

} // namespace

std::uint32_t UtlDbgFeature::BitByName(const std::string& name) const
{
    const std::string want = upper(name);
    for (const auto& b : m_featuremaskdesc)
        if (upper(b.name) == want) return b.bit;
    return 0;
}

UtlDbgContainer& UtlDbgContainer::Instance()
{
    // Never destroyed: trace checks may run during static destruction.
    static UtlDbgContainer* const theContainer = new UtlDbgContainer();
    return *theContainer;
}

UtlDbgContainer::UtlDbgContainer()
{
    // Each module registers its own features when it first traces; settings
    // read before then wait for them. The configuration is read once when the registry first exists; start-up
    // code may call MaskInit again to re-read it.
    LoadDebugCfgFile(DEFAULT_CFG_FILE);
}

UtlDbgFeature& UtlDbgContainer::FeatureRegister(const std::string& name, std::vector<UtlDbgBitDesc> bits)
{
    const std::string key = upper(trim(name));
    std::string pendingValue;
    UtlDbgFeature* f = nullptr;
    {
        std::lock_guard<std::mutex> g(m_lock);
        auto it = m_byName.find(key);
        if (it != m_byName.end()) return *it->second;
        const int id = static_cast<int>(m_features.size());
        m_features.emplace_back(new UtlDbgFeature(id, trim(name), std::move(bits)));
        f = m_features.back().get();
        m_byName[key] = f;
        auto p = m_pending.find(key);
        if (p == m_pending.end()) return *f;
        pendingValue = p->second;
        m_pending.erase(p);
    }
    std::uint32_t mask = 0;
    std::string why;
    if (ParseMask(f, pendingValue, mask, why)) {
        f->SetMask(mask);
    } else {
        std::ostringstream os;
        os << "FeatureRegister: feature[" << f->Name() << "] setting [" << pendingValue << "] ignored: " << why << "\n";
        debugOut(os.str().c_str(), false);
    }
    return *f;
}

UtlDbgFeature* UtlDbgContainer::Feature(int id) const
{
    std::lock_guard<std::mutex> g(m_lock);
    if (id < 0 || static_cast<std::size_t>(id) >= m_features.size()) return nullptr;
    return m_features[static_cast<std::size_t>(id)].get();
}

UtlDbgFeature* UtlDbgContainer::Feature(const std::string& name) const
{
    std::lock_guard<std::mutex> g(m_lock);
    auto it = m_byName.find(upper(trim(name)));
    return it == m_byName.end() ? nullptr : it->second;
}

bool UtlDbgContainer::FeatureMaskSet(int id, std::uint32_t bits)
{
    UtlDbgFeature* f = Feature(id);
    if (f == nullptr) return false;
    f->SetBits(bits);
    return true;
}

bool UtlDbgContainer::FeatureMaskClear(int id, std::uint32_t bits)
{
    UtlDbgFeature* f = Feature(id);
    if (f == nullptr) return false;
    f->ClearBits(bits);
    return true;
}

std::uint32_t UtlDbgContainer::FeatureMask(int id) const
{
    const UtlDbgFeature* f = Feature(id);
    return f ? f->Mask() : 0;
}

std::string UtlDbgContainer::FeatureName(int id) const
{
    const UtlDbgFeature* f = Feature(id);
    return f ? f->Name() : std::string();
}

std::string UtlDbgContainer::FeatureMaskBitsDesc(int id) const
{
    const UtlDbgFeature* f = Feature(id);
    if (f == nullptr) return std::string();
    const std::uint32_t mask = f->Mask();
    std::ostringstream os;
    os << f->Name() << " [0x" << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << mask << "]\n";
    for (const auto& b : f->Bits()) {
        os << "  0x" << std::setw(8) << b.bit << ((mask & b.bit) ? " * " : "   ") << b.name;
        if (!b.text.empty()) os << "  " << b.text;
        os << "\n";
    }
    return os.str();
}

void UtlDbgContainer::MaskInit()
{
    {
        std::lock_guard<std::mutex> g(m_lock);
        for (auto& f : m_features) f->SetMask(0);
        m_pending.clear();
    }
    LoadDebugCfgFile(DEFAULT_CFG_FILE);
}

int UtlDbgContainer::LoadDebugCfgFile(const char* path)
{
    if (path == nullptr) return -1;
    std::ifstream in(path);
    if (!in) return -1;
    return LoadDebugCfg(in, path);
}

bool UtlDbgContainer::ParseMask(const UtlDbgFeature* f, const std::string& value, std::uint32_t& mask, std::string& why)
{
    mask = 0;
    std::string tok;
    std::size_t start = 0;
    bool any = false;
    while (start <= value.size()) {
        std::size_t end = value.find_first_of("|,", start);
        if (end == std::string::npos) end = value.size();
        tok = trim(value.substr(start, end - start));
        start = end + 1;
        if (tok.empty()) {
            why = "empty value";
            return false;
        }
        std::uint32_t v = 0;
        if (parseNumber(tok, v)) {
            mask |= v;
        } else if (f != nullptr && (v = f->BitByName(tok)) != 0) {
            mask |= v;
        } else {
            why = "unknown bit or bad number [" + tok + "]";
            return false;
        }
        any = true;
    }
    if (!any) why = "empty value";
    return any;
}

int UtlDbgContainer::LoadDebugCfg(std::istream& in, const std::string& source)
{
    int applied = 0;
    unsigned lineNo = 0;
    std::string line;
    auto report = [&](const std::string& what) {
        std::ostringstream os;
        os << "LoadDebugCfgFile: " << source << " line[" << lineNo << "] " << what << "\n";
        debugOut(os.str().c_str(), false);
    };
    while (std::getline(in, line)) {
        ++lineNo;
        const auto hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        line = trim(line);
        if (line.empty()) continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos) {
            report("has no '=': [" + line + "]");
            continue;
        }
        const std::string name = trim(line.substr(0, eq));
        const std::string value = trim(line.substr(eq + 1));
        if (name.empty()) {
            report("has no feature name");
            continue;
        }
        UtlDbgFeature* f = Feature(name);
        std::uint32_t mask = 0;
        std::string why;
        if (f == nullptr) {
            // Bit names can only be resolved once the feature exists; the
            // value is checked when it registers.
            std::lock_guard<std::mutex> g(m_lock);
            auto it = m_byName.find(upper(name));
            if (it == m_byName.end()) {
                m_pending[upper(name)] = value;
                ++applied;
                continue;
            }
            f = it->second; // registered meanwhile
        }
        if (!ParseMask(f, value, mask, why)) {
            report("feature[" + f->Name() + "] bad value [" + value + "]: " + why);
            continue;
        }
        f->SetMask(mask);
        ++applied;
    }
    return applied;
}
