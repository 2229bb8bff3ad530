// Route tables under TSan: sessions add and free their own routes while
// senders look them up by number and address and another thread condemns them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "Io/FakeSwitch.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"

// An entry that notices a send arriving after its route was freed.
struct WatchedSwitch : fake_switch::FakeSwitch {
    explicit WatchedSwitch(int id) : FakeSwitch(id) {}
    bool TcpSend(TCP_BD* chain) override
    {
        if (freed.load()) ++lateSends;
        std::this_thread::yield();
        return FakeSwitch::TcpSend(chain);
    }
    std::atomic<bool> freed{false};
    std::atomic<int> lateSends{0};
};

// Every route is freed exactly once, by its own session; condemning never frees.
TEST(RouteTableStress, SessionsChurnWhileSendersAreInsideAndOthersCondemn)
{
    testing::internal::CaptureStdout();
    tavro_internal::resetRouteTableSeams();
    auto& seams = tavro_internal::routeTableSeams();
    seams.sleepMs = [](unsigned ms) { std::this_thread::sleep_for(std::chrono::microseconds(200 * ms)); };
    seams.maxDrainWaits = 1000000; // drain for real
    seams.drainWaitMs = 1;
    RouteTable swi{TCP_CLIENT}, api{TCP_SERVER}, poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};

    constexpr int kSessions = 4, kRounds = 30;
    auto ipOf = [](int i) { return c_inaddr(("192.0.2." + std::to_string(i)).c_str()); };
    std::atomic<bool> done{false};
    std::atomic<int> freed{0}, foreignFreed{0};
    std::deque<WatchedSwitch> entries; // outlive every thread
    std::vector<std::thread> sessions, others;
    for (int i = 1; i <= kSessions; ++i) {
        WatchedSwitch& e = entries.emplace_back(i);
        sessions.emplace_back([&, i] {
            e.ownedByThisThread();
            for (int round = 0; round < kRounds; ++round) {
                e.setWorkerThread(&e.thread);
                e.freed = false;
                const int sendsBefore = e.sends.load();
                swi.AddRoute(ipOf(i), i, &e);
                for (int spin = 0; spin < 2000 && e.sends.load() < sendsBefore + 20; ++spin) std::this_thread::yield();
                freed += swi.DeleteRoute(ipOf(i), i, e.getNetSocket());
                e.freed = true;
            }
        });
    }
    for (int t = 0; t < 4; ++t) {
        others.emplace_back([&, t] {
            for (int n = 0; !done.load(); ++n) {
                const int i = (n + t) % kSessions + 1;
                if (t == 0) {
                    foreignFreed += swi.DeleteRoute(ipOf(i), i, nullptr);
                    continue;
                }
                NetSocketHdl h(&router);
                h.SelectSocket(TCP_CLIENT, n % 2 ? static_cast<int>(ipOf(i).s_addr) : 0, i);
                h.TcpSend(nullptr);
                swi.GetClientIp(i);
            }
        });
    }
    for (auto& t : sessions) t.join();
    done = true;
    for (auto& t : others) t.join();
    EXPECT_EQ(freed.load(), kSessions * kRounds);
    EXPECT_EQ(foreignFreed.load(), 0);
    EXPECT_EQ(swi.RouteCount(), 0u);
    for (WatchedSwitch& e : entries) EXPECT_EQ(e.lateSends.load(), 0);
    tavro_internal::resetRouteTableSeams();
    testing::internal::GetCapturedStdout();
}
