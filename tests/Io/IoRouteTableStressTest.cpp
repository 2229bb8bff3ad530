// Bounded stress of route tables: senders inside a route while its session
// removes it and others condemn it, and churn of many sessions.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"
#include "Io/RouteTestSupport.h"

using namespace route_test;

namespace {

// An entry that notices a send arriving after its route was freed.
class WatchedEntry : public FakeEntry {
public:
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
        tavro_internal::routeTableSeams().sleepMs = [](unsigned ms) {
            std::this_thread::sleep_for(std::chrono::microseconds(200 * ms));
        };
        tavro_internal::routeTableSeams().maxDrainWaits = 1000000; // drain for real
        tavro_internal::routeTableSeams().drainWaitMs = 1;
    }
    void TearDown() override
    {
        tavro_internal::resetRouteTableSeams();
        testing::internal::GetCapturedStdout();
    }
};

} // namespace

// Senders look the route up by number and address, send and give their uses
// back while the session removes its own route and other threads condemn
// it: no send reaches a freed route, and the session is told to stop once.
TEST_F(StressFixture, SessionRemovesItsRouteWhileSendersAreInsideAndOthersCondemnIt)
{
    const c_inaddr ip("192.0.2.10");
    for (int round = 0; round < 15; ++round) {
        RouteTable swi(TCP_CLIENT), api(TCP_SERVER), poll(TCP_POLL);
        IoRouter router(&api, &swi, &poll);
        WatchedEntry e(3);
        std::atomic<bool> added{false};
        std::atomic<int> removed{-1}, foreignFreed{0};
        auto busy = [&] { return e.sends.load() >= 200; };
        std::thread session([&] {
            e.ownedByThisThread();
            swi.AddRoute(ip, 3, &e);
            NET_SOCKET* route = e.getNetSocket();
            added = true;
            while (!busy()) std::this_thread::yield();
            removed = swi.DeleteRoute(ip, 3, route);
            e.freed = true;
        });
        while (!added.load()) std::this_thread::yield();
        NET_SOCKET* route = e.getNetSocket();
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 5000 && !e.freed.load(); ++i) {
                    NetSocketHdl h(&router);
                    h.SelectSocket(TCP_CLIENT, (i + t) % 2 ? static_cast<int>(ip.s_addr) : 0, 3);
                    TCP_BD bd{nullptr, 0, nullptr};
                    h.TcpSend(&bd);
                    swi.Done(swi.GetIpMgmt(static_cast<int>(ip.s_addr)));
                }
            });
        }
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                while (!busy()) std::this_thread::yield();
                foreignFreed += swi.DeleteRoute(ip, 3, nullptr);
                foreignFreed += swi.DeleteRoute(ip, 3, route);
            });
        }
        session.join();
        for (auto& t : threads) t.join();
        EXPECT_EQ(removed.load(), 1);
        EXPECT_EQ(foreignFreed.load(), 0);
        EXPECT_EQ(e.lateSends.load(), 0);
        EXPECT_EQ(e.signals(), 1);
        EXPECT_EQ(swi.RouteCount(), 0u);
        EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    }
}

// Sessions come and go on their own threads while senders look them up and a
// supervisor condemns them at random; every route ends freed exactly once.
TEST_F(StressFixture, ChurnOfSessionsSendersAndCondemnations)
{
    RouteTable swi(TCP_CLIENT), api(TCP_SERVER), poll(TCP_POLL);
    IoRouter router(&api, &swi, &poll);
    constexpr int kSessions = 4;
    constexpr int kRounds = 60;
    std::vector<std::unique_ptr<FakeEntry>> entries;
    for (int i = 0; i < kSessions; ++i) entries.emplace_back(new FakeEntry(i + 1));
    auto ipOf = [](int i) { return c_inaddr(static_cast<unsigned int>(htonl(0xC0000200u + unsigned(i)))); };
    std::atomic<bool> done{false};
    std::atomic<int> freed{0};

    std::vector<std::thread> threads;
    for (int i = 0; i < kSessions; ++i) {
        threads.emplace_back([&, i] {
            FakeEntry& e = *entries[std::size_t(i)];
            e.ownedByThisThread();
            for (int round = 0; round < kRounds; ++round) {
                e.setWorkerThread(&e.thread);
                swi.AddRoute(ipOf(i), i + 1, &e);
                std::this_thread::yield();
                freed += swi.DeleteRoute(ipOf(i), i + 1, e.getNetSocket());
            }
        });
    }
    threads.emplace_back([&] {
        for (int n = 0; !done.load(); ++n) {
            swi.DeleteRoute(ipOf(n % kSessions), n % kSessions + 1, nullptr);
            std::this_thread::yield();
        }
    });
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; !done.load(); ++n) {
                NetSocketHdl h(&router);
                const int i = (n + t) % kSessions;
                h.SelectSocket(TCP_CLIENT, n % 2 ? static_cast<int>(ipOf(i).s_addr) : 0, i + 1);
                h.TcpSend(nullptr);
                swi.GetClientIp(i + 1);
                std::this_thread::yield();
            }
        });
    }
    for (int i = 0; i < kSessions; ++i) threads[std::size_t(i)].join();
    done = true;
    for (std::size_t i = kSessions; i < threads.size(); ++i) threads[i].join();
    EXPECT_EQ(freed.load(), kSessions * kRounds);
    EXPECT_EQ(swi.RouteCount(), 0u);
}
