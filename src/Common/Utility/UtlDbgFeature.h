#pragma once

// Trace features: named groups of optional diagnostics. Each feature has a
// 32-bit mask; its owner tests bits of it before building a trace line, so
// a disabled line costs one relaxed atomic load.
//
// The masks start at 0 and are set at start-up from "ftrdbgUDBServ.cfg" in
// the working directory (MaskInit). File format, one setting per line:
//
//     # comment; also allowed after a value
//     SOCKET = 0x00000404          hexadecimal (0x...) or decimal
//     SOCKET = CONNECT | WAIT      or names of the feature's bits, '|' or ','
//     SOCKET = 0x4 | WAIT          mixed
//
// Feature and bit names are matched without regard to case; blanks are
// ignored. A line replaces the feature's whole mask; a later line for the
// same feature wins. A setting for a feature not registered yet is kept and
// applied when the feature registers. Malformed lines, unknown bit names and
// values that do not parse are reported through debugOut and skipped.
#include <atomic>
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// Name and one-line meaning of one bit of a feature's mask.
struct UtlDbgBitDesc {
    std::uint32_t bit;
    std::string name;
    std::string text;
};

class UtlDbgFeature {
public:
    UtlDbgFeature(int id, std::string name, std::vector<UtlDbgBitDesc> bits)
        : m_featureid(id), m_featuremask(0), m_featurename(std::move(name)), m_featuremaskdesc(std::move(bits))
    {
    }

    int Id() const { return m_featureid; }
    const std::string& Name() const { return m_featurename; }
    const std::vector<UtlDbgBitDesc>& Bits() const { return m_featuremaskdesc; }

    std::uint32_t Mask() const { return m_featuremask.load(std::memory_order_relaxed); }
    bool On(std::uint32_t bits) const { return (Mask() & bits) != 0; }
    void SetMask(std::uint32_t m) { m_featuremask.store(m, std::memory_order_relaxed); }
    void SetBits(std::uint32_t b) { m_featuremask.fetch_or(b, std::memory_order_relaxed); }
    void ClearBits(std::uint32_t b) { m_featuremask.fetch_and(~b, std::memory_order_relaxed); }

    // The bit of that name (any case), or 0.
    std::uint32_t BitByName(const std::string& name) const;

    UtlDbgFeature(const UtlDbgFeature&) = delete;
    UtlDbgFeature& operator=(const UtlDbgFeature&) = delete;

private:
    const int m_featureid;
    std::atomic<std::uint32_t> m_featuremask;
    const std::string m_featurename;
    const std::vector<UtlDbgBitDesc> m_featuremaskdesc;
};

class UtlDbgContainer {
public:
    static constexpr const char* DEFAULT_CFG_FILE = "ftrdbgUDBServ.cfg";

    // The process's registry; built on first use with the built-in features.
    static UtlDbgContainer& Instance();

    // Registers a feature, or returns the one already registered under that
    // name (its bits are then left as they were). A setting read earlier for
    // the name is applied now.
    UtlDbgFeature& FeatureRegister(const std::string& name, std::vector<UtlDbgBitDesc> bits = {});

    // Null when unknown. Features are never removed, so the pointer stays valid.
    UtlDbgFeature* Feature(int id) const;
    UtlDbgFeature* Feature(const std::string& name) const;

    // All false / 0 / "" for an unknown id.
    bool FeatureMaskSet(int id, std::uint32_t bits);
    bool FeatureMaskClear(int id, std::uint32_t bits);
    std::uint32_t FeatureMask(int id) const;
    std::string FeatureName(int id) const;
    // One line per defined bit: "  0x00000004 * CONNECT  <text>", '*' when set.
    std::string FeatureMaskBitsDesc(int id) const;

    // Clears every mask and pending setting, then reads DEFAULT_CFG_FILE.
    void MaskInit();
    // Applies the settings of a file; -1 when it cannot be opened (an absent
    // file is normal and not reported), else the number of settings applied.
    int LoadDebugCfgFile(const char* path = DEFAULT_CFG_FILE);
    // The same from a stream; source names the stream in messages.
    int LoadDebugCfg(std::istream& in, const std::string& source);

    UtlDbgContainer(const UtlDbgContainer&) = delete;
    UtlDbgContainer& operator=(const UtlDbgContainer&) = delete;

private:
    UtlDbgContainer();

    // Parses a value for a feature; false (with the reason) when it does not parse.
    static bool ParseMask(const UtlDbgFeature* f, const std::string& value, std::uint32_t& mask, std::string& why);

    mutable std::mutex m_lock;
    std::vector<std::unique_ptr<UtlDbgFeature>> m_features; // index = id
    std::map<std::string, UtlDbgFeature*> m_byName;         // upper-case name
    std::map<std::string, std::string> m_pending;           // upper-case name -> value text
};
