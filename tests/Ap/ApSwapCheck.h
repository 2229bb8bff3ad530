#pragma once

// Checking byte-order conversion against an independent description of a
// record's layout.
//
// A layout is a list of tokens, one per field in declaration order: "2",
// "4" or "8" for a number of that width (reversed by Swap), "bN" for N bytes
// that Swap must leave alone (bytes, flags, character arrays). The
// expected image of a swapped record is computed from the layout alone, so
// a Swap that forgets a field, converts one with the wrong width, or
// touches a character array fails the comparison.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace apcheck {

using Bytes = std::vector<unsigned char>;

inline std::string b(std::size_t n) { return "b" + std::to_string(n) + " "; }
inline std::string rep(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}
const std::string U16 = "2 ";
const std::string U32 = "4 ";
const std::string U64 = "8 ";
const std::string F32 = "4 ";
const std::string PORT_ADDR = rep(U32, 4);
const std::string TIME_STAMP = U32 + U32;

// Every byte differs from its neighbours, and no 2-, 4- or 8-byte group
// reads the same reversed.
inline Bytes pattern(std::size_t n, unsigned seed = 0)
{
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i)
        v[i] = static_cast<unsigned char>((i + seed) * 7 + 1);
    return v;
}

// Applies the layout to `bytes` (reversing each number) and returns the
// number of bytes the layout covers; -1 on a malformed token or overrun.
inline long applyLayout(const std::string& layout, unsigned char* bytes, std::size_t size)
{
    std::istringstream in(layout);
    std::string tok;
    std::size_t at = 0;
    while (in >> tok) {
        std::size_t width = 0;
        bool reverse = true;
        if (tok[0] == 'b') {
            width = std::stoul(tok.substr(1));
            reverse = false;
        } else {
            width = std::stoul(tok);
            if (width != 2 && width != 4 && width != 8)
                return -1;
        }
        if (at + width > size)
            return -1;
        if (reverse) {
            for (std::size_t i = 0; i < width / 2; ++i)
                std::swap(bytes[at + i], bytes[at + width - 1 - i]);
        }
        at += width;
    }
    return static_cast<long>(at);
}

inline long layoutSize(const std::string& layout)
{
    std::vector<unsigned char> scratch(1 << 17);
    return applyLayout(layout, scratch.data(), scratch.size());
}

using SwapFn = int (*)(unsigned char*);

template <typename R>
int swapAs(unsigned char* p)
{
    return reinterpret_cast<R*>(p)->Swap();
}

struct RecordCase {
    const char* name;
    std::size_t wireSize; // the size the protocol fixes
    std::size_t actualSize;
    std::string layout;
    SwapFn swap;
};

template <typename R>
RecordCase recordCase(const char* name, std::size_t wireSize, const std::string& layout)
{
    return RecordCase{name, wireSize, sizeof(R), layout, &swapAs<R>};
}

// Size, one conversion against the layout, and a second conversion back.
inline void checkRecord(const RecordCase& c)
{
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.actualSize, c.wireSize);
    ASSERT_EQ(layoutSize(c.layout), static_cast<long>(c.actualSize)) << "layout does not cover the record";

    const Bytes original = pattern(c.actualSize);
    Bytes expected = original;
    applyLayout(c.layout, expected.data(), expected.size());

    Bytes work = original; // heap storage, exactly the record's size
    EXPECT_EQ(c.swap(work.data()), 1);
    for (std::size_t i = 0; i < work.size(); ++i) {
        if (work[i] != expected[i]) {
            ADD_FAILURE() << "first wrong byte at offset " << i;
            break;
        }
    }
    c.swap(work.data());
    EXPECT_TRUE(work == original) << "converting twice must restore the record";
}

// Packed fields must not bind to the references that EXPECT_EQ takes.
template <typename T>
T val(T v)
{
    return v;
}

template <typename T>
T getAt(const unsigned char* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
void putAt(unsigned char* p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

} // namespace apcheck
