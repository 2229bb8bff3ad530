#include "Io/IoRouteTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "Io/IoDBRouter.h"
#include "Io/RouteTestSupport.h"
#include "Os/UDBControl.h"

using namespace route_test;

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

void ignoreLeak(const void* p)
{
#if defined(__SANITIZE_ADDRESS__)
    __lsan_ignore_object(p);
#else
    (void)p;
#endif
}

const c_inaddr kIp("192.0.2.10");
const c_inaddr kIp2("192.0.2.11");
const c_inaddr kOther("192.0.2.20");

std::vector<unsigned> g_sleeps;
std::function<void(unsigned)> g_onSleep;
void recordSleep(unsigned ms)
{
    g_sleeps.push_back(ms);
    if (g_onSleep) g_onSleep(static_cast<unsigned>(g_sleeps.size()));
}

struct RouteFixture : testing::Test {
    RouteTable swi{TCP_CLIENT};
    RouteTable api{TCP_SERVER};
    RouteTable poll{TCP_POLL};
    void SetUp() override
    {
        tavro_internal::resetRouteTableSeams();
        tavro_internal::routeTableSeams().sleepMs = recordSleep;
        g_sleeps.clear();
        g_onSleep = nullptr;
    }
    void TearDown() override
    {
        g_onSleep = nullptr;
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
        // Routes belong to their sessions' threads: free what the test left,
        // as each session would on its way out (a condemned route first).
        for (int round = 0; round < 4; ++round)
            for (auto& e : entries) {
                NET_SOCKET* r = e->getNetSocket();
                if (r == nullptr) continue;
                RouteTable& t = r->type == TCP_SERVER ? api : r->type == TCP_POLL ? poll : swi;
                e->ownedByThisThread();
                testing::internal::CaptureStdout();
                t.DeleteRoute(r->ipAddr, r->id, r);
                testing::internal::GetCapturedStdout();
            }
        tavro_internal::resetRouteTableSeams();
    }
    FakeEntry& make(int id, bool active = true)
    {
        entries.emplace_back(new FakeEntry(id, active));
        return *entries.back();
    }
    std::vector<std::unique_ptr<FakeEntry>> entries;
    // Runs f with the trace captured.
    template <typename F>
    std::string traced(F f)
    {
        testing::internal::CaptureStdout();
        f();
        return testing::internal::GetCapturedStdout();
    }
};

} // namespace

// Models after the ten of pModel get names of their own; anything else is
// UNDEFINED rather than a read past the table.
TEST(RouteModels, LaterAndUnknownModels)
{
    EXPECT_STREQ(switchModelName(SW_MODEL_R732S), "R732s");
    EXPECT_STREQ(switchModelName(SW_MODEL_R721_R), "R721_R");
    EXPECT_STREQ(switchModelName(SW_MODEL_OTHER_VENDOR), "OTHER_VENDOR");
    for (int m : {-1, 14, 1000}) EXPECT_STREQ(switchModelName(m), "UNDEFINED");
}

TEST_F(RouteFixture, AddRouteLogsOneLinePerTable)
{
    FakeEntry& plain = make(3);
    FakeEntry& r700 = make(4);
    FakeEntry& later = make(5);
    FakeEntry& client = make(7);
    FakeEntry& poller = make(8);
    r700.describe = true;
    r700.ctl.swiType = SW_TYPE_R700;
    r700.ctl.swiModel = SW_MODEL_R723;
    later.describe = true;
    later.ctl.swiModel = SW_MODEL_HYBRID;
    const std::string out = traced([&] {
        EXPECT_EQ(swi.AddRoute(kIp, 3, &plain), 1);
        EXPECT_EQ(swi.AddRoute(kOther, 4, &r700, kIp2), 1);
        EXPECT_EQ(swi.AddRoute(c_inaddr("192.0.2.30"), 5, &later), 1);
        EXPECT_EQ(api.AddRoute(kIp, 7, &client), 1);
        EXPECT_EQ(poll.AddRoute(kIp, 8, &poller), 1);
    });
    EXPECT_EQ(out,
              " ROUT: for [N5xx] switch ID[3], Model[UNDEFINED] added to routing table with IP[192.0.2.10] and "
              "IP[0.0.0.0]\n"
              " ROUT: for [R7xx] switch ID[4], Model[R723] added to routing table with IP[192.0.2.20] and "
              "IP[192.0.2.11]\n"
              " ROUT: for [N5xx] switch ID[5], Model[HYBRID] added to routing table with IP[192.0.2.30] and "
              "IP[0.0.0.0]\n"
              " ROUT: Client [7] added to API routing table\n"
              " ROUT: Client [8] added to API routing table\n");
    EXPECT_EQ(plain.getNetSocket()->id, 3);
    EXPECT_EQ(plain.getNetSocket()->type, TCP_CLIENT);
    EXPECT_EQ(r700.getNetSocket()->ipAddr2.toString(), "192.0.2.11");
    EXPECT_EQ(poller.getNetSocket()->type, TCP_POLL);
}

TEST_F(RouteFixture, LookupsCountUsesAndDoneGivesThemBack)
{
    FakeEntry& e = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &e); });
    NET_SOCKET* r = e.getNetSocket();
    EXPECT_EQ(swi.GetIoMgmt(3), r);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.10")), r);
    EXPECT_EQ(swi.UseCount(r), 2);
    EXPECT_EQ(swi.GetIoMgmt(4), nullptr);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.11")), nullptr);
    swi.Done(r);
    swi.Done(r);
    swi.Done(r); // never below zero
    EXPECT_EQ(swi.UseCount(r), 0);
    swi.Done(nullptr);
    EXPECT_EQ(swi.GetClientIp(3).toString(), "192.0.2.10");
    EXPECT_EQ(swi.GetClientIp(9).toString(), "0.0.0.0");
    EXPECT_EQ(swi.UseCount(r), 0); // GetClientIp gave its use back
}

TEST_F(RouteFixture, SecondAddressIsNeverAKey)
{
    FakeEntry& e = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &e, kIp2); });
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.11")), nullptr);
    EXPECT_EQ(swi.DeleteRoute(kIp2, 3, nullptr), 0);
    EXPECT_FALSE(e.getNetSocket()->markDelete);
}

TEST_F(RouteFixture, LookupByNumberSkipsInactiveManagers)
{
    FakeEntry& standby = make(3, false);
    FakeEntry& active = make(3, true);
    traced([&] {
        swi.AddRoute(kIp, 3, &standby);
        swi.AddRoute(kOther, 3, &active);
    });
    EXPECT_EQ(swi.GetIoMgmt(3), active.getNetSocket());
    active.active = false;
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    standby.active = true;
    EXPECT_EQ(swi.GetIoMgmt(3), standby.getNetSocket());
}

TEST_F(RouteFixture, DeleteNeedsAddressNumberAndRouteToMatch)
{
    FakeEntry& e = make(3);
    FakeEntry& other = make(4);
    traced([&] {
        swi.AddRoute(kIp, 3, &e);
        swi.AddRoute(kOther, 4, &other);
    });
    e.ownedByThisThread();
    EXPECT_EQ(swi.DeleteRoute(kIp, 4, nullptr), 0);                 // other number
    EXPECT_EQ(swi.DeleteRoute(kIp, 3, other.getNetSocket()), 0);    // other route
    EXPECT_EQ(swi.DeleteRoute(c_inaddr("192.0.2.99"), 3, nullptr), 0); // no such address
    EXPECT_EQ(swi.RouteCount(), 2u);
    EXPECT_EQ(e.signals(), 0);
    EXPECT_EQ(swi.GetIoMgmt(3), e.getNetSocket());
}

TEST_F(RouteFixture, ForeignRemovalCondemnsAndSignalsOnce)
{
    FakeEntry& e = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &e); });
    NET_SOCKET* r = e.getNetSocket();
    const std::string out = traced([&] {
        for (int i = 0; i < 3; ++i) EXPECT_EQ(swi.DeleteRoute(kIp, 3, nullptr), 0);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(e.signals(), 1);
    EXPECT_TRUE(r->markDelete);
    EXPECT_TRUE(r->doneShutdown);
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.10")), nullptr);
    EXPECT_EQ(swi.UseCount(r), 0); // a hidden route counts no use
    EXPECT_EQ(swi.RouteCount(), 1u);
    // The session's own thread frees it on the way out, without a second signal.
    e.ownedByThisThread();
    const std::string out2 = traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, r), 1); });
    EXPECT_EQ(out2, "DeleteRoute: id[3] ipaddr[192.0.2.10]\n"
                    " ROUT: R700 switch [192.0.2.10] removed from Switch routing table\n");
    EXPECT_EQ(e.signals(), 1);
    EXPECT_EQ(swi.RouteCount(), 0u);
    EXPECT_EQ(e.getNetSocket(), nullptr);
}

TEST_F(RouteFixture, RouteWithoutEntryIsNeverRemoved)
{
    traced([&] { swi.AddRoute(kIp, 3, nullptr); });
    EXPECT_EQ(swi.DeleteRoute(kIp, 3, nullptr), 0);
    EXPECT_EQ(swi.RouteCount(), 1u);
    NET_SOCKET* r = swi.GetIpMgmt(ipWord("192.0.2.10"));
    EXPECT_NE(r, nullptr);                // not condemned either
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr); // no entry: never found by number
    ignoreLeak(r);                        // nothing can ever free it
}

TEST_F(RouteFixture, OwnRemovalSignalsAndLogsPerTable)
{
    FakeEntry& s = make(3);
    FakeEntry& c = make(7);
    traced([&] {
        swi.AddRoute(kIp, 3, &s);
        api.AddRoute(kOther, 7, &c);
    });
    s.ownedByThisThread();
    c.ownedByThisThread();
    const std::string out = traced([&] {
        EXPECT_EQ(swi.DeleteRoute(kIp, 3, s.getNetSocket()), 1);
        EXPECT_EQ(api.DeleteRoute(7), 1);
    });
    EXPECT_EQ(out, "DeleteRoute: id[3] ipaddr[192.0.2.10]\n"
                   " ROUT: R700 switch [192.0.2.10] removed from Switch routing table\n"
                   "DeleteRoute: id[7] ipaddr[192.0.2.20]\n"
                   " ROUT: Client [7] removed from API routing table\n");
    EXPECT_EQ(s.signals(), 1);
    EXPECT_EQ(c.signals(), 1);
    EXPECT_TRUE(g_sleeps.empty()); // no uses to wait for
    s.signalShutdown();            // the entry tells its thread only once
    EXPECT_EQ(s.signals(), 1);
}

TEST_F(RouteFixture, OwnRemovalWaitsForOutstandingUses)
{
    FakeEntry& e = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &e); });
    NET_SOCKET* r = swi.GetIoMgmt(3);
    ASSERT_NE(r, nullptr);
    e.ownedByThisThread();
    // The user gives its use back during the third wait, from another thread,
    // which it can only do if the removal does not hold the lock while waiting.
    g_onSleep = [&](unsigned n) {
        if (n != 3) return;
        auto f = std::async(std::launch::async, [&] {
            swi.Done(r);
            return swi.GetIoMgmt(3); // the erased route is not found meanwhile
        });
        ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(f.get(), nullptr);
    };
    const std::string out = traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, nullptr), 1); });
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(3, 1000));
    EXPECT_EQ(e.signals(), 1);
}

TEST_F(RouteFixture, OwnRemovalGivesUpWaitingAfter300Seconds)
{
    FakeEntry& e = make(3);
    traced([&] { swi.AddRoute(kIp, 3, &e); });
    ASSERT_NE(swi.GetIoMgmt(3), nullptr); // never given back
    e.ownedByThisThread();
    traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, nullptr), 1); });
    EXPECT_EQ(g_sleeps, std::vector<unsigned>(300, 1000));
    EXPECT_EQ(swi.RouteCount(), 0u);
}

TEST_F(RouteFixture, DuplicateAddReplacesAFreedRoute)
{
    FakeEntry& first = make(3);
    FakeEntry& second = make(3);
    first.ownedByThisThread();
    traced([&] { swi.AddRoute(kIp, 3, &first); });
    const std::string out = traced([&] { swi.AddRoute(kIp, 3, &second); });
    EXPECT_EQ(out, "DeleteRoute: id[3] ipaddr[192.0.2.10]\n"
                   " ROUT: R700 switch [192.0.2.10] removed from Switch routing table\n"
                   " ROUT: for [N5xx] switch ID[3], Model[UNDEFINED] added to routing table with IP[192.0.2.10] and "
                   "IP[0.0.0.0]\n");
    EXPECT_EQ(swi.RouteCount(), 1u);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.10")), second.getNetSocket());
    EXPECT_EQ(first.signals(), 1);
}

TEST_F(RouteFixture, CondemnedRouteHidesALaterLiveOneUntilFreed)
{
    FakeEntry& old = make(3);
    FakeEntry& fresh = make(3);
    traced([&] {
        swi.AddRoute(kIp, 3, &old);
        swi.AddRoute(kIp, 3, &fresh); // old is another thread's: condemned
    });
    NET_SOCKET* oldRoute = old.getNetSocket();
    EXPECT_EQ(old.signals(), 1);
    EXPECT_EQ(swi.RouteCount(), 2u);
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.10")), nullptr);
    EXPECT_EQ(swi.GetIoMgmt(3), nullptr);
    // The fresh route cannot be removed while the condemned one is first.
    fresh.ownedByThisThread();
    EXPECT_EQ(swi.DeleteRoute(kIp, 3, fresh.getNetSocket()), 0);
    EXPECT_EQ(fresh.signals(), 0);

    old.ownedByThisThread();
    traced([&] { EXPECT_EQ(swi.DeleteRoute(kIp, 3, oldRoute), 1); });
    EXPECT_EQ(swi.GetIpMgmt(ipWord("192.0.2.10")), fresh.getNetSocket());
    EXPECT_EQ(old.signals(), 1);
}

TEST_F(RouteFixture, DeleteByNumberUsesTheNumberInItsLog)
{
    FakeEntry& e = make(12);
    traced([&] { swi.AddRoute(kIp, 12, &e); });
    EXPECT_EQ(swi.DeleteRoute(13), 0);
    EXPECT_EQ(swi.DeleteRoute(12), 0); // foreign: condemned
    EXPECT_EQ(e.signals(), 1);
    e.active = true;
    e.ownedByThisThread();
    const std::string out = traced([&] { EXPECT_EQ(swi.DeleteRoute(12), 1); });
    EXPECT_EQ(out, "DeleteRoute: id[12] ipaddr[192.0.2.10]\n"
                   " ROUT: R700 switch [12] removed from Switch routing table\n");
}

TEST_F(RouteFixture, HandlesPickTheTableByTypeAndGiveTheUseBack)
{
    FakeEntry& s = make(3);
    FakeEntry& a = make(3);
    FakeEntry& p = make(3);
    traced([&] {
        swi.AddRoute(kIp, 3, &s);
        api.AddRoute(kIp, 3, &a);
        poll.AddRoute(kIp, 3, &p);
    });
    IoRouter router(&api, &swi, &poll);
    struct Case {
        TCP_TYPE type;
        FakeEntry* expected;
        RouteTable* table;
    };
    for (const Case& c : {Case{TCP_SERVER, &a, &api}, Case{TCP_POLL, &p, &poll}, Case{TCP_CLIENT, &s, &swi},
                          Case{TCP_TELNET, &s, &swi}, Case{UDP_SERVICE, &s, &swi}}) {
        SCOPED_TRACE(c.type);
        const int before = c.expected->sends.load();
        for (int byAddress : {0, 1}) {
            NetSocketHdl h(&router);
            h.SelectSocket(c.type, byAddress ? ipWord("192.0.2.10") : 0, 3);
            ASSERT_EQ(h.GetNetSocket(), c.expected->getNetSocket());
            EXPECT_EQ(c.table->UseCount(h.GetNetSocket()), 1);
            TCP_BD bd{nullptr, 0, nullptr};
            EXPECT_TRUE(h.TcpSend(&bd));
            EXPECT_EQ(c.expected->lastChain.load(), &bd);
            EXPECT_EQ(h.GetClientIp(3).toString(), "192.0.2.10");
        }
        EXPECT_EQ(c.expected->sends.load(), before + 2);
        EXPECT_EQ(c.table->UseCount(c.expected->getNetSocket()), 0);
    }
}

TEST_F(RouteFixture, HandleWithoutRouteCountsFailedSends)
{
    IoRouter router(&api, &swi, &poll);
    const unsigned before = tavro_internal::netSocketHdlNoRouteCount();
    {
        NetSocketHdl h(&router);
        h.SelectSocket(TCP_CLIENT, 0, 42);
        TCP_BD bd{nullptr, 0, nullptr};
        EXPECT_FALSE(h.TcpSend(&bd));
        EXPECT_EQ(h.GetClientIp(42).toString(), "0.0.0.0");
    }
    {
        NetSocketHdl h(static_cast<IoRouter*>(nullptr));
        h.SelectSocket(TCP_CLIENT, 0, 42); // no router: nothing selected
        EXPECT_EQ(h.GetNetSocket(), nullptr);
        EXPECT_FALSE(h.TcpSend(nullptr));
        EXPECT_EQ(h.GetClientIp(42).toString(), "0.0.0.0");
    }
    IoRouter partial(nullptr, nullptr, nullptr);
    NetSocketHdl h(&partial);
    h.SelectSocket(TCP_SERVER, 0, 1);
    EXPECT_FALSE(h.TcpSend(nullptr));
    EXPECT_EQ(tavro_internal::netSocketHdlNoRouteCount(), before + 3);
}

TEST_F(RouteFixture, SendResultComesFromTheSession)
{
    FakeEntry& e = make(3);
    e.sendResult = false;
    traced([&] { swi.AddRoute(kIp, 3, &e); });
    IoRouter router(&api, &swi, &poll);
    NetSocketHdl h(&router);
    h.SelectSocket(TCP_CLIENT, 0, 3);
    EXPECT_FALSE(h.TcpSend(nullptr));
    EXPECT_EQ(e.sends.load(), 1);
    h.SelectSocket(TCP_CLIENT, 0, 3); // reselecting gives the first use back
    EXPECT_EQ(swi.UseCount(e.getNetSocket()), 1);
}

TEST_F(RouteFixture, TablesAreFoundThroughTheControlBlock)
{
    UDBControl::ResetStaticsForTest();
    EXPECT_EQ(RouteTable::getIt(SMN_SWI_TABLE), nullptr);
    UDBControl::InsertClassRef(SMN_SWI_TABLE, &swi);
    UDBControl::InsertClassRef(SMN_API_TABLE, &api);
    UDBControl::InsertClassRef(SMN_POLL_TABLE, &poll);
    EXPECT_EQ(RouteTable::getIt(SMN_SWI_TABLE), &swi);
    EXPECT_EQ(RouteTable::getIt(SMN_API_TABLE), &api);
    EXPECT_EQ(RouteTable::getIt(SMN_POLL_TABLE), &poll);
    EXPECT_EQ(RouteTable::getIt(SMN_POLL_TABLE)->GetTableType(), TCP_POLL);
    UDBControl::ResetStaticsForTest();
}
