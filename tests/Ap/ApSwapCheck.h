#pragma once

// Checking byte-order conversion against an independent description of a
// record's layout: the fields in declaration order, "2", "4" or "8" for a
// number of that width (reversed by Swap), "bN" for N bytes Swap must leave
// alone, "P" for a port address (4x4), "T" for a time stamp (4x2). Any item,
// or a "( ... )" group, may end in "xN" to repeat it N times. The expected
// image comes from the layout alone, so a Swap that forgets a field, uses the
// wrong width or touches bytes fails.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace apcheck {

using Bytes = std::vector<unsigned char>;
using Fields = std::vector<std::pair<std::size_t, bool>>; // width, reversed

inline std::size_t number(const std::string& s, std::size_t& i)
{
    std::size_t n = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') n = n * 10 + std::size_t(s[i++] - '0');
    return n;
}

inline Fields parse(const std::string& s, std::size_t& i)
{
    Fields out;
    while (i < s.size() && s[i] != ')') {
        Fields one;
        const char c = s[i];
        if (c == ' ') {
            ++i;
            continue;
        }
        if (c == '(') {
            one = parse(s, ++i);
            ++i;
        } else if (c == 'P' || c == 'T') {
            one.assign(c == 'P' ? 4 : 2, {4, true});
            ++i;
        } else if (c == 'b') {
            one.push_back({number(s, ++i), false});
        } else {
            one.push_back({number(s, i), true});
            EXPECT_TRUE(one[0].first == 2 || one[0].first == 4 || one[0].first == 8) << "bad layout " << s;
        }
        std::size_t times = 1;
        if (i < s.size() && s[i] == 'x') times = number(s, ++i);
        for (std::size_t k = 0; k < times; ++k) out.insert(out.end(), one.begin(), one.end());
    }
    return out;
}

// Reverses each number of the layout in `bytes`; returns the bytes covered,
// or -1 if the layout runs past `size`.
inline long applyLayout(const std::string& layout, unsigned char* bytes, std::size_t size)
{
    std::size_t i = 0, at = 0;
    for (const auto& f : parse(layout, i)) {
        if (at + f.first > size) return -1;
        if (f.second) std::reverse(bytes + at, bytes + at + f.first);
        at += f.first;
    }
    return long(at);
}

// Every byte differs from its neighbours, and no 2-, 4- or 8-byte group
// reads the same reversed.
inline Bytes pattern(std::size_t n, unsigned seed = 0)
{
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>((i + seed) * 7 + 1);
    return v;
}

using SwapFn = int (*)(unsigned char*);

template <typename R>
int swapAs(unsigned char* p)
{
    return reinterpret_cast<R*>(p)->Swap();
}

struct RecordCase {
    const char* name;
    std::size_t wireSize, actualSize;
    std::string layout;
    SwapFn swap;
};

#define AP_RECORD(R, wireSize, layout)                                                                                 \
    ::apcheck::RecordCase                                                                                              \
    {                                                                                                                  \
#R, wireSize, sizeof(R), layout, &::apcheck::swapAs < R>                                                       \
    }

// Size, one conversion against the layout, and a second conversion back.
inline void checkRecord(const RecordCase& c)
{
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.actualSize, c.wireSize);
    const Bytes original = pattern(c.actualSize);
    Bytes expected = original;
    ASSERT_EQ(applyLayout(c.layout, expected.data(), expected.size()), long(c.actualSize)) << "layout != record";
    Bytes work = original; // heap storage, exactly the record's size
    EXPECT_EQ(c.swap(work.data()), 1);
    const auto wrong = std::mismatch(work.begin(), work.end(), expected.begin()).first;
    EXPECT_TRUE(wrong == work.end()) << "first wrong byte at offset " << wrong - work.begin();
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
