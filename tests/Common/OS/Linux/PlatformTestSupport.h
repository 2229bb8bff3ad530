#pragma once

// Helpers shared by the platform-layer tests. Every exchange in the stress
// helpers is a counted handshake, so results never depend on timing; the
// bounds only turn a lost wake-up or a deadlock into a failure, not a hang.
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

// Starts pairs of threads that bounce auto-reset events to each other.
inline void startPingPong(std::vector<std::thread>& threads, Events& ev, int rounds, std::atomic<int>& failures)
{
    auto side = [rounds, &failures](HANDLE in, HANDLE out, bool first) {
        for (int i = 0; i < rounds; ++i) {
            if (first) SetEvent(out);
            if (WaitForSingleObject(in, kStuckMs) != WAIT_OBJECT_0) {
                ++failures;
                return;
            }
            if (!first) SetEvent(out);
        }
    };
    for (size_t p = 0; p + 1 < ev.h.size(); p += 2) {
        threads.emplace_back(side, ev.h[p], ev.h[p + 1], true);
        threads.emplace_back(side, ev.h[p + 1], ev.h[p], false);
    }
}

// Client i sets req[i] and waits for ack[i], `requests` times; this thread
// serves them through wait-any. Returns how often each client was served.
inline std::vector<int> serveWaitAny(Events& req, Events& ack, int requests, std::atomic<int>& failures)
{
    const DWORD n = static_cast<DWORD>(req.h.size());
    std::vector<std::thread> clients;
    for (DWORD i = 0; i < n; ++i)
        clients.emplace_back([&, i] {
            for (int k = 0; k < requests; ++k) {
                SetEvent(req.h[i]);
                if (WaitForSingleObject(ack.h[i], kStuckMs) != WAIT_OBJECT_0) {
                    ++failures;
                    return;
                }
            }
        });
    std::vector<int> served(n);
    for (DWORD total = 0; total < n * requests && failures == 0;) {
        const DWORD start = GetTickCount();
        const DWORD r = WaitForMultipleObjects(n, req.h.data(), FALSE, kStuckMs);
        if (r < n) {
            ++served[r];
            ++total;
            SetEvent(ack.h[r]);
        } else if (GetTickCount() - start >= kStuckMs) {
            // A signal wakes the wait with WAIT_TIMEOUT at once; only a lost
            // wake-up runs the whole time-out.
            ++failures;
        }
    }
    for (auto& t : clients) t.join();
    return served;
}

} // namespace tavro_test
