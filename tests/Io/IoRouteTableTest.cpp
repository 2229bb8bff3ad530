#include "Io/IoRouteTable.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <deque>
#include <vector>

#include "Io/IoDBRouter.h"
#include "Io/FakeSwitch.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using namespace fake_switch;

namespace {

const c_inaddr kIp("192.0.2.10");
const c_inaddr kIp2("192.0.2.11");
const c_inaddr kOther("192.0.2.20");
const int kIpWord = ipWord("192.0.2.10");

// Waits the drain asked for, and a hook run at the n-th one.
std::vector<unsigned> g_sleeps;
std::function<void(std::size_t)> g_onSleep;

template <typename F>
std::string traced(F f)
{
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

struct Routes : testing::Test {
    RouteTable swi{TCP_CLIENT}, api{TCP_SERVER}, poll{TCP_POLL};
    std::deque<FakeSwitch> entries;

    void SetUp() override
    {
        tavro_internal::resetRouteTableSeams();
        tavro_internal::routeTableSeams().sleepMs = [](unsigned ms) {
            g_sleeps.push_back(ms);
            if (g_onSleep) g_onSleep(g_sleeps.size());
        };
        g_sleeps.clear();
        g_onSleep = nullptr;
    }
    // Routes belong to their sessions' threads: free what a test left as each
    // session would on its way out, until nothing more can be freed.
    void TearDown() override
    {
        g_onSleep = nullptr;
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
        for (bool again = true; again;) {
            again = false;
            for (FakeSwitch& e : entries)
                if (NET_SOCKET* r = e.getNetSocket()) {
                    RouteTable& t = r->type == TCP_SERVER ? api : r->type == TCP_POLL ? poll : swi;
                    e.ownedByThisThread();
                    traced([&] { again |= t.DeleteRoute(r->ipAddr, r->id, r) == 1; });
                }
        }
        tavro_internal::resetRouteTableSeams();
    }
    FakeSwitch& make(int id, bool active = true) { return entries.emplace_back(id, active); }
};

} // namespace

TEST_F(Routes, LogLinesOfAddingAndRemovingPerTable)
{
    // Every model by its own name; unknown ones are UNDEFINED rather than a
    // read past the table.
    const char* const names[] = {"UNDEFINED", "N511", "N512",  "N512H",  "N513",    "N514",   "R721",
                                 "R723",      "R732", "R732s", "R721_R", "OPTICAL", "HYBRID", "OTHER_VENDOR"};
    for (int m = 0; m < SW_MODEL_NUM_MODELS; ++m) EXPECT_STREQ(switchModelName(m), names[m]) << m;
    for (int m : {-1, 14, 1000}) EXPECT_STREQ(switchModelName(m), "UNDEFINED");
    FakeSwitch& plain = make(3);
    FakeSwitch& r700 = make(4);
    FakeSwitch& later = make(5);
    FakeSwitch& client = make(7);
    FakeSwitch& poller = make(8);
    FakeSwitch& again = make(5);
    r700.describe = later.describe = true;
    r700.ctl.swiType = SW_TYPE_R700;
    r700.ctl.swiModel = SW_MODEL_R723;
    later.ctl.swiModel = SW_MODEL_HYBRID;
    EXPECT_EQ(traced([&] {
                  EXPECT_EQ(swi.AddRoute(kIp, 3, &plain), 1);
                  swi.AddRoute(kOther, 4, &r700, kIp2);
                  swi.AddRoute(c_inaddr("192.0.2.30"), 5, &later);
                  api.AddRoute(kIp, 7, &client);
                  poll.AddRoute(kIp, 8, &poller);
              }),
              " ROUT: for [N5xx] switch ID[3], Model[UNDEFINED] added to routing table with IP[192.0.2.10] and "
              "IP[0.0.0.0]\n"
              " ROUT: for [R7xx] switch ID[4], Model[R723] added to routing table with IP[192.0.2.20] and "
              "IP[192.0.2.11]\n"
              " ROUT: for [N5xx] switch ID[5], Model[HYBRID] added to routing table with IP[192.0.2.30] and "
              "IP[0.0.0.0]\n"
              " ROUT: Client [7] added to API routing table\n"
              " ROUT: Client [8] added to API routing table\n");

    // Own removals by address, by number (logged with the number), from the
    // API table, and an own route replaced by a duplicate add.
    for (FakeSwitch& e : entries) e.ownedByThisThread();
    EXPECT_EQ(traced([&] {
                  EXPECT_EQ(swi.DeleteRoute(kIp, 3, plain.getNetSocket()), 1);
                  EXPECT_EQ(swi.DeleteRoute(4), 1);
                  EXPECT_EQ(api.DeleteRoute(7), 1);
                  swi.AddRoute(c_inaddr("192.0.2.30"), 5, &again);
              }),
              "DeleteRoute: id[3] ipaddr[192.0.2.10]\n"
              " ROUT: R700 switch [192.0.2.10] removed from Switch routing table\n"
              "DeleteRoute: id[4] ipaddr[192.0.2.20]\n"
              " ROUT: R700 switch [4] removed from Switch routing table\n"
              "DeleteRoute: id[7] ipaddr[192.0.2.10]\n"
              " ROUT: Client [7] removed from API routing table\n"
              "DeleteRoute: id[5] ipaddr[192.0.2.30]\n"
              " ROUT: R700 switch [192.0.2.30] removed from Switch routing table\n"
              " ROUT: for [N5xx] switch ID[5], Model[UNDEFINED] added to routing table with IP[192.0.2.30] and "
              "IP[0.0.0.0]\n");
    for (FakeSwitch* e : {&plain, &r700, &client, &later}) EXPECT_EQ(e->signals(), 1);
    EXPECT_TRUE(g_sleeps.empty()); // no uses to wait for
    EXPECT_EQ(swi.RouteCount(), 1u);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.30")), again.getNetSocket());
    plain.signalShutdown(); // an entry tells its thread only once
    EXPECT_EQ(plain.signals(), 1);
}

TEST_F(Routes, LookupsCountUsesAndSkipInactiveManagersAndRoutesWithoutEntry)
{
    FakeSwitch& standby = make(3, false);
    FakeSwitch& e = make(3);
    traced([&] {
        swi.AddRoute(kOther, 3, &standby);
        swi.AddRoute(kIp, 3, &e, kIp2);
        swi.AddRoute(c_inaddr("192.0.2.12"), 3, nullptr);
    });
    NET_SOCKET* r = e.getNetSocket();
    EXPECT_EQ(swi.GetIoMgmt(3), r);
    EXPECT_EQ(swi.GetIpMgmt(kIpWord), r);
    EXPECT_EQ(swi.UseCount(r), 2);
    EXPECT_EQ(swi.GetIoMgmt(4), nullptr);
    // The second address is never a key, neither to find nor to remove.
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.11")), nullptr);
    EXPECT_EQ(swi.DeleteRoute(kIp2, 3, nullptr), 0);
    EXPECT_FALSE(r->markDelete);
    for (int i = 0; i < 3; ++i) swi.Done(r); // never below zero
    swi.Done(nullptr);
    EXPECT_EQ(swi.UseCount(r), 0);
    EXPECT_EQ(swi.GetClientIp(3).toString(), "192.0.2.10");
    EXPECT_EQ(swi.UseCount(r), 0); // GetClientIp gave its use back

    e.active = false;
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    standby.active = true;
    EXPECT_EQ(swi.GetIoMgmt(3), standby.getNetSocket());
    // Without an entry a route is found by address only, and never removed
    // or condemned: nothing could ever free it.
    NET_SOCKET* bare = swi.GetIpMgmt(ipWord("192.0.2.12"));
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(swi.DeleteRoute(c_inaddr("192.0.2.12"), 3, nullptr), 0);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.12")), bare);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(bare);
#endif
}

TEST_F(Routes, ForeignRemovalCondemnsSignalsOnceAndHidesALaterLiveRoute)
{
    FakeSwitch& e = make(3);
    FakeSwitch& other = make(4);
    FakeSwitch& fresh = make(3);
    traced([&] {
        swi.AddRoute(kIp, 3, &e);
        swi.AddRoute(kOther, 4, &other);
    });
    NET_SOCKET* r = e.getNetSocket();
    // Address, number and route must all match.
    EXPECT_EQ(swi.DeleteRoute(kIp, 4, nullptr), 0);
    EXPECT_EQ(swi.DeleteRoute(kIp, 3, other.getNetSocket()), 0);
    EXPECT_EQ(swi.DeleteRoute(c_inaddr("192.0.2.99"), 3, nullptr), 0);
    EXPECT_EQ(swi.DeleteRoute(13), 0);
    EXPECT_EQ(e.signals() + other.signals(), 0);

    traced([&] { swi.AddRoute(kIp, 3, &fresh); }); // e is another thread's: condemned
    EXPECT_EQ(traced([&] {
                  EXPECT_EQ(swi.DeleteRoute(4), 0);
                  for (int i = 0; i < 2; ++i) EXPECT_EQ(swi.DeleteRoute(kOther, 4, nullptr), 0);
              }),
              "");
    EXPECT_EQ(e.signals(), 1);
    EXPECT_EQ(other.signals(), 1);
    EXPECT_TRUE(r->markDelete);
    EXPECT_TRUE(r->doneShutdown);
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    EXPECT_EQ(swi.GetIpMgmt(kIpWord), nullptr);
    EXPECT_EQ(swi.UseCount(r), 0); // a hidden route counts no use
    EXPECT_EQ(swi.RouteCount(), 3u);
    // The fresh route cannot be removed while the condemned one is first.
    fresh.ownedByThisThread();
    EXPECT_EQ(swi.DeleteRoute(kIp, 3, fresh.getNetSocket()), 0);
    EXPECT_EQ(fresh.signals(), 0);

    // The session's own thread frees it on the way out, without a second signal.
    e.ownedByThisThread();
    traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, r), 1); });
    EXPECT_EQ(e.signals(), 1);
    EXPECT_EQ(e.getNetSocket(), nullptr);
    EXPECT_EQ(swi.GetIpMgmt(kIpWord), fresh.getNetSocket());
}

TEST_F(Routes, OwnRemovalWaitsForUsesToDrainAtMost300Seconds)
{
    FakeSwitch& e = make(3);
    FakeSwitch& stuck = make(4);
    traced([&] {
        swi.AddRoute(kIp, 3, &e);
        swi.AddRoute(kOther, 4, &stuck);
    });
    NET_SOCKET* r = swi.GetIoMgmt(3);
    ASSERT_NE(r, nullptr);
    ASSERT_NE(swi.GetIoMgmt(4), nullptr); // never given back
    e.ownedByThisThread();
    stuck.ownedByThisThread();
    // The user gives its use back during the third wait, from another thread,
    // which it can only do if the removal does not hold the lock while waiting.
    g_onSleep = [&](std::size_t n) {
        if (n != 3) return;
        auto f = std::async(std::launch::async, [&] {
            swi.Done(r);
            return swi.GetIoMgmt(3); // the erased route is not found meanwhile
        });
        ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(f.get(), nullptr);
    };
    traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, nullptr), 1); });
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(3, 1000));
    EXPECT_EQ(e.signals(), 1);

    g_onSleep = nullptr;
    g_sleeps.clear();
    traced([&] { EXPECT_EQ(swi.DeleteRoute(kOther, 4, nullptr), 1); });
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(300, 1000));
    EXPECT_EQ(swi.RouteCount(), 0u);
}

// The table each type picks is the router tests' concern.
TEST_F(Routes, HandlesHoldOneUseAndSendNothingWithoutARoute)
{
    FakeSwitch& s = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &s); });
    IoRouter router(&api, &swi, &poll);
    {
        NetSocketHdl h(&router);
        h.SelectSocket(UDP_SERVICE, kIpWord, 3);
        ASSERT_EQ(h.GetNetSocket(), s.getNetSocket());
        h.SelectSocket(TCP_CLIENT, 0, 3); // gives the first use back
        EXPECT_EQ(swi.UseCount(s.getNetSocket()), 1);
        EXPECT_EQ(h.GetClientIp(3).toString(), "192.0.2.10");
        s.sendResult = false;
        EXPECT_FALSE(h.TcpSend(nullptr));
    }
    EXPECT_EQ(swi.UseCount(s.getNetSocket()), 0);

    // Without a route, a table or a router stcnt counts each attempt.
    const unsigned before = tavro_internal::netSocketHdlNoRouteCount();
    IoRouter tableless(nullptr, nullptr, nullptr);
    for (IoRouter* rt : {&router, &tableless, static_cast<IoRouter*>(nullptr)}) {
        NetSocketHdl h(rt);
        h.SelectSocket(TCP_CLIENT, 0, 42);
        EXPECT_EQ(h.GetNetSocket(), nullptr);
        EXPECT_FALSE(h.TcpSend(nullptr));
        EXPECT_EQ(h.GetClientIp(42).toString(), "0.0.0.0");
    }
    EXPECT_EQ(tavro_internal::netSocketHdlNoRouteCount(), before + 3);
}
