// Bounded stress of route tables: senders inside a route while its session
// removes it and others condemn it, and churn of many sessions.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Io/RouteTestSupport.h"

using namespace route_test;

namespace {

// An entry that notices a send arriving after its route was freed.
struct WatchedEntry : FakeEntry {
    explicit WatchedEntry(int id) : FakeEntry(id) {}
    bool TcpSend(TCP_BD* chain) override
    {
        if (freed.load()) ++lateSends;
        std::this_thread::yield();
        return FakeEntry::TcpSend(chain);
    }
    std::atomic<bool> freed{false};
    std::atomic<int> lateSends{0};
};

struct StressFixture : testing::Test {
    void SetUp() override
    {
        testing::internal::CaptureStdout();
        tavro_internal::resetRouteTableSeams();
        auto& seams = tavro_internal::routeTableSeams();
        seams.sleepMs = [](unsigned ms) { std::this_thread::sleep_for(std::chrono::microseconds(200 * ms)); };
        seams.maxDrainWaits = 1000000; // drain for real
        seams.drainWaitMs = 1;
    }
    void TearDown() override
    {
        tavro_internal::resetRouteTableSeams();
        testing::internal::GetCapturedStdout();
    }
    RouteTable swi{TCP_CLIENT}, api{TCP_SERVER}, poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};
};

} // namespace

// Senders look the route up by number and address, send and give their uses
// back while the session removes its own route and other threads condemn
// it: no send reaches a freed route, and the session is told to stop once.
TEST_F(StressFixture, SessionRemovesItsRouteWhileSendersAreInsideAndOthersCondemnIt)
{
    const c_inaddr ip("192.0.2.10");
    const int ipWord = static_cast<int>(ip.s_addr);
    for (int round = 0; round < 15; ++round) {
        WatchedEntry e(3);
        e.ownedByThisThread();
        swi.AddRoute(ip, 3, &e);
        NET_SOCKET* route = e.getNetSocket();
        std::atomic<int> removed{-1}, foreignFreed{0};
        auto busy = [&] { return e.sends.load() >= 200; };
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            e.ownedByThisThread();
            while (!busy()) std::this_thread::yield();
            removed = swi.DeleteRoute(ip, 3, route);
            e.freed = true;
        });
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 5000 && !e.freed.load(); ++i) {
                    NetSocketHdl h(&router);
                    h.SelectSocket(TCP_CLIENT, (i + t) % 2 ? ipWord : 0, 3);
                    h.TcpSend(nullptr);
                    swi.Done(swi.GetIpMgmt(ipWord));
                }
            });
        }
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                while (!busy()) std::this_thread::yield();
                foreignFreed += swi.DeleteRoute(ip, 3, nullptr) + swi.DeleteRoute(ip, 3, route);
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(removed.load(), 1);
        EXPECT_EQ(foreignFreed.load(), 0);
        EXPECT_EQ(e.lateSends.load(), 0);
        EXPECT_EQ(e.signals(), 1);
        EXPECT_EQ(swi.RouteCount(), 0u);
    }
}

// Sessions come and go on their own threads while senders look them up and a
// supervisor condemns them at random; every route ends freed exactly once.
TEST_F(StressFixture, ChurnOfSessionsSendersAndCondemnations)
{
    constexpr int kSessions = 4, kRounds = 60;
    auto ipOf = [](int i) { return c_inaddr(("192.0.2." + std::to_string(i)).c_str()); };
    std::atomic<bool> done{false};
    std::atomic<int> freed{0};
    std::deque<FakeEntry> entries; // outlive every thread
    std::vector<std::thread> sessions, others;
    for (int i = 1; i <= kSessions; ++i) {
        entries.emplace_back(i);
        sessions.emplace_back([&, i] {
            FakeEntry& e = entries[std::size_t(i - 1)];
            e.ownedByThisThread();
            for (int round = 0; round < kRounds; ++round) {
                e.setWorkerThread(&e.thread);
                swi.AddRoute(ipOf(i), i, &e);
                std::this_thread::yield();
                freed += swi.DeleteRoute(ipOf(i), i, e.getNetSocket());
            }
        });
    }
    others.emplace_back([&] {
        for (int n = 0; !done.load(); ++n) swi.DeleteRoute(ipOf(n % kSessions + 1), n % kSessions + 1, nullptr);
    });
    for (int t = 0; t < 2; ++t) {
        others.emplace_back([&, t] {
            for (int n = 0; !done.load(); ++n) {
                const int i = (n + t) % kSessions + 1;
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
    EXPECT_EQ(swi.RouteCount(), 0u);
}
