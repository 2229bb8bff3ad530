#pragma once

// Platform-layer test helpers; bounds turn a lost wake-up into a failure.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Common/OS/Linux/WinEvent.h"

namespace tavro_test {

constexpr DWORD kStuckMs = 10000;

// Polls cond for up to five seconds.
template <typename Cond>
bool eventually(Cond cond)
{
    for (int i = 0; i < 5000 && !cond(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return cond();
}

// glibc may hand out a cached stack up to four times the size asked for
// (ThreadSanitizer's runtime up to 1 MiB); the 8 MiB default is far outside.
inline void expectOwnStackOf(size_t asked)
{
    pthread_attr_t attr;
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    EXPECT_GE(size, asked);
#if defined(__SANITIZE_THREAD__)
    asked = std::max<size_t>(asked, 0x40000);
#endif
    EXPECT_LE(size, 4 * asked);
}

struct Events {
    Events(int n, BOOL manual)
    {
        for (int i = 0; i < n; ++i) h.push_back(CreateEvent(nullptr, manual, FALSE, nullptr));
    }
    ~Events()
    {
        for (HANDLE x : h) CloseHandle(x);
    }
    std::vector<HANDLE> h;
};

} // namespace tavro_test
