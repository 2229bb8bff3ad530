#pragma once

// Shared by the fuzz targets: the check that turns a broken property into a
// crash (a finding under libFuzzer, a failed replay under ctest), a reader of
// the input's leading control bytes, and the long-lived library objects that
// some targets drive (the tracker thread and one switch session).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

class CrTracker;
class IoClientMgmt;

#define FUZZ_CHECK(cond)                                                                                               \
    do {                                                                                                               \
        if (!(cond)) fuzz_support::fail(__FILE__, __LINE__, #cond);                                                    \
    } while (0)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz_support {

[[noreturn]] void fail(const char* file, int line, const char* what);

// The library writes trace and handler lines to standard output; the fuzz
// drivers report on standard error, so standard output goes to /dev/null.
void quietStdout();

// Takes control values from the front of the input; zero once it ran out.
class Bytes {
public:
    Bytes(const std::uint8_t* d, std::size_t n) : data(d), left(n) {}
    std::uint8_t u8()
    {
        if (left == 0) return 0;
        --left;
        return *data++;
    }
    std::uint16_t u16() { return static_cast<std::uint16_t>(u8() | u8() << 8); }
    std::uint32_t u32() { return u16() | static_cast<std::uint32_t>(u16()) << 16; }
    const std::uint8_t* rest() const { return data; }
    std::size_t restSize() const { return left; }

private:
    const std::uint8_t* data;
    std::size_t left;
};

inline std::uint32_t load32(const void* p)
{
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline std::uint32_t reverse32(std::uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

// A tracker registered in the control block's class table and running on a
// thread of its own, made on first use; stopTracker ends it (replay only).
CrTracker* tracker();
// Everything queued to the tracker so far has been handled on return.
void syncTracker();
void stopTracker();

// One session (client number 1) that is never started: frames are handed to
// its message handling directly.
IoClientMgmt& session();

} // namespace fuzz_support
