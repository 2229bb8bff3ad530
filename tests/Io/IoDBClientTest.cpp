#include "Io/IoDBClient.h"

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/OsSocket.h"
#include "Cr/CrDBTracker.h"
#include "Io/IoDBRouter.h"
#include "LoopbackPeer.h"
#include "Os/UDBControl.h"

using namespace loopback_peer;

namespace {

// The waits the sessions scheduled (each pause is 5 ms), and what the
// dispatcher saw of each command: code, sequence, net, destination count and
// first, response wanted, network order, manager class, payload.
using Seen = std::tuple<int, int, int, int, int, bool, bool, int, Bytes>;
std::mutex g_lock;
std::vector<int> g_waits;
std::vector<Seen> g_seen;

template <typename T>
std::vector<T> copyOf(const std::vector<T>& v)
{
    std::lock_guard<std::mutex> g(g_lock);
    return v;
}

DWORD recordWait(int connectWait)
{
    std::lock_guard<std::mutex> g(g_lock);
    g_waits.push_back(connectWait);
    return 5;
}

DWORD neverSoon(int)
{
    return 600000;
}

void recordCommand(CrCmd* cmd)
{
    const auto* p = static_cast<const std::uint8_t*>(cmd->GetData());
    std::lock_guard<std::mutex> g(g_lock);
    g_seen.emplace_back(cmd->GetCmdCode(), cmd->GetSeqNbr(), cmd->GetSourceNet(), cmd->GetMsgAddr().GetSlaveCount(),
                        cmd->GetMsgAddr().GetNextSlaveAddr(0), cmd->GetRspReq(), cmd->isNetworkOrder(),
                        cmd->GetMgrClass(), p ? Bytes(p, p + cmd->GetSize()) : Bytes());
}

bool eventually(const std::function<bool()>& pred)
{
    for (int waited = 0; waited < 30000 && !pred(); waited += 2) Sleep(2);
    return pred();
}

Frame frame(std::uint32_t type, std::uint32_t manager, std::uint32_t seq, std::uint32_t stat, const Bytes& payload)
{
    return Frame{kMarker, manager, type, CMD_CONN_PORT, seq, stat, 1, 0, payload};
}

c_sockaddr loopback(std::uint16_t port)
{
    return c_sockaddr(AF_INET, c_inaddr("127.0.0.1"), htons(port));
}

class Session : public testing::Test {
protected:
    void SetUp() override
    {
        UDBControl::ResetStaticsForTest();
        testing::internal::CaptureStdout();
        ctl = new UDBControl(&parm, UDBControl::PREPARE_SYSTEM);
        testing::internal::GetCapturedStdout();
        tavro_internal::clientSeams().connectDelayMs = recordWait;
        tavro_internal::clientSeams().terminatingWaitMs = 5;
        g_waits.clear();
        g_seen.clear();
    }
    void TearDown() override
    {
        for (IoClientMgmt* s : owned) delete s; // each waits for its loop to end
        OsSocket::setProgramTerminating(false);
        EXPECT_EQ(table()->RouteCount(), 0u);
        EXPECT_TRUE(ctl->StopSystem(30000));
        delete ctl;
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetClientSeams();
        tavro_internal::resetSocketSeams();
    }

    IoClientMgmt* start(std::uint16_t port)
    {
        auto* s = new IoClientMgmt(loopback(port), nullptr, 1, recordCommand);
        s->SetActiveMgmt(true);
        owned.push_back(s);
        EXPECT_TRUE(s->Start(nullptr));
        return s;
    }
    static void link(Peer& peer, IoClientMgmt* s)
    {
        ASSERT_TRUE(peer.accept());
        EXPECT_EQ(peer.read(12), linkTestBytes(hostOrder()));
        ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_NORMAL; }));
    }
    static RouteTable* table() { return RouteTable::getIt(SMN_SWI_TABLE); }
    static bool routeFound()
    {
        NET_SOCKET* r = table()->GetIoMgmt(1);
        table()->Done(r);
        return r != nullptr;
    }

    SYS_PARM parm;
    UDBControl* ctl = nullptr;
    std::vector<IoClientMgmt*> owned;
};

TEST(SessionBackoff, TwentyNineWaitsOfTwoSecondsThenThirtyOfEachDoublingUpTo256sThenAgain)
{
    CONNECT_BACKOFF b{0, IoClientMgmt::INITIAL_CONNECT_WAIT};
    std::vector<std::pair<int, int>> changes; // attempt, new wait
    for (int attempt = 1; attempt <= 29 + 30 * 8 + 5; ++attempt) {
        const CONNECT_BACKOFF next = IoClientMgmt::nextConnectBackoff(b.connectErr, b.connectWait);
        if (next.connectWait != b.connectWait) changes.emplace_back(attempt, next.connectWait);
        b = next;
    }
    const std::vector<std::pair<int, int>> expected = {{30, 4000},    {60, 8000},   {90, 16000},
                                                       {120, 32000},  {150, 64000}, {180, 128000},
                                                       {210, 256000}, {240, 2000},  {270, 4000}};
    EXPECT_EQ(changes, expected);
}

TEST_F(Session, StartClientConnectsEntersItsRouteSendsAndIsReclaimedOnceEnded)
{
    Peer peer;
    IoClientMgmt* s = IoClientMgmt::startClient(1, peer.port(), nullptr);
    link(peer, s);
    EXPECT_EQ(s->GetRcvCount(), 4);
    EXPECT_NE(s->GetSwiState() & SWITCH_CTL::STATE_LINK_TEST_PASSED, 0u);
    EXPECT_EQ(s->GetSwiState() & SWITCH_CTL::STATE_LINK_TEST_FAILED, 0u);
    EXPECT_EQ(copyOf(g_waits).at(0), 2000); // the first attempt waits the full 2 s
    NET_SOCKET* route = table()->GetIoMgmt(1);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->pRouteEntry, static_cast<IRouteTableEntry*>(s));
    EXPECT_EQ(route->id, 0); // entered under switchId
    table()->Done(route);

    std::uint8_t a[3] = {1, 2, 3}, b[2] = {4, 5};
    TCP_BD second{b, 2, nullptr};
    TCP_BD first{a, 3, &second};
    EXPECT_TRUE(s->TcpSend(&first));
    EXPECT_EQ(peer.read(5), (Bytes{1, 2, 3, 4, 5}));
    // Without a dispatcher commands are read and dropped.
    ASSERT_TRUE(peer.write(frame(kCommand, 1, 0, 0, {}).encode(hostOrder())));
    EXPECT_TRUE(eventually([s] { return s->GetRcvCount() == 5; }));
    EXPECT_EQ(s->GetProcState(), TCP_NORMAL);

    // Shut down while reading; the next startClient reclaims the ended session.
    s->SignalShutdown();
    ASSERT_TRUE(s->WaitFinished(30000));
    EXPECT_TRUE(peer.seesClose());
    EXPECT_EQ(s->GetProcState(), TCP_DISCONNECT);
    EXPECT_FALSE(s->ActiveMgmt());
    EXPECT_EQ(table()->RouteCount(), 0u);
    EXPECT_EQ(tavro_internal::clientSessionCount(), 1u);
    tavro_internal::clientSeams().connectDelayMs = neverSoon;
    IoClientMgmt* next = IoClientMgmt::startClient(1, peer.port(), nullptr);
    EXPECT_EQ(tavro_internal::clientSessionCount(), 1u);
    delete next;
    EXPECT_EQ(tavro_internal::clientSessionCount(), 0u);
}

TEST_F(Session, CommandsGoToTheDispatcherAndResponsesToTheTrackerInBothOrders)
{
    Peer peer;
    IoClientMgmt* s = start(peer.port());
    link(peer, s);
    parm.mySysAddr = SYS_SNMP_AGENT;
    for (Order o : {hostOrder(), orderOf(true)}) {
        const bool reversed = o != hostOrder();
        SCOPED_TRACE(reversed ? "reversed" : "host order");
        const std::size_t before = copyOf(g_seen).size();
        const int rcvBefore = s->GetRcvCount();

        // Dropped: a frame promising more than it carries, one too short for an
        // application header, manager classes 12, "LINK" and ~0; then a valid one.
        Frame cmd = frame(kCommand, 1, 77, 1, {9, 8, 7, 6, 5});
        Frame lying = cmd;
        lying.appSizeOverride = 100000;
        ASSERT_TRUE(peer.write(lying.encode(o)));
        Bytes shortFrame;
        for (std::uint32_t w : {kMarker, 1u, 8u}) putWord(shortFrame, w, o);
        shortFrame.resize(20, 0xEE);
        ASSERT_TRUE(peer.write(shortFrame));
        for (std::uint32_t mgr : {12u, kLink, 0xFFFFFFFFu, 1u}) {
            cmd.manager = mgr;
            ASSERT_TRUE(peer.write(cmd.encode(o)));
        }
        // rcvCount moves before the dispatcher runs: wait for the dispatch too.
        ASSERT_TRUE(eventually([&] { return s->GetRcvCount() == rcvBefore + 6 && copyOf(g_seen).size() > before; }));
        const std::vector<Seen> seen = copyOf(g_seen);
        EXPECT_EQ(std::vector<Seen>(seen.begin() + long(before), seen.end()),
                  std::vector<Seen>{Seen(CMD_CONN_PORT, 77, TCP_CLIENT, 1, 1, true, reversed, 1, cmd.payload)});

        // A command of ours, byte for byte in host order, answered by the peer
        // (status, error and payload in both orders: the request tests).
        CrCmd out;
        out.SetCmdCode(CMD_CONN_PORT);
        out.SetMsgAddr(1);
        out.SetRspReq(true);
        out.SetRspTimer(30000);
        const std::uint8_t data[2] = {0x11, 0x22};
        out.SetData(data, 2);
        out.Dispatch();
        Frame sent = frame(kCommand, 1, std::uint32_t(out.GetSeqNbr()), 1, {0x11, 0x22});
        sent.srcAddr = SYS_SNMP_AGENT;
        EXPECT_EQ(peer.readFrame(hostOrder()), sent.encode(hostOrder()));
        ASSERT_TRUE(peer.write(frame(kResponse, 1, sent.seqNbr, RSP_BUSY, {}).encode(o)));
        ASSERT_TRUE(out.WaitForRsp());
        ASSERT_EQ(out.GetRspCount(), 1);
        CrRsp* rsp = out.GetFirstRsp();
        EXPECT_EQ(std::make_tuple(rsp->GetRspStat(), rsp->GetMsgAddr().GetSlaveCount(),
                                  rsp->GetMsgAddr().SlaveAddrSet(1), rsp->GetSourceNet(), rsp->isNetworkOrder()),
                  std::make_tuple(RSP_BUSY, 1, true, TCP_CLIENT, reversed));
    }
}

TEST_F(Session, LosingTheLinkTakesTheRouteOutOfServiceUntilTheSessionReconnects)
{
    Peer peer;
    const std::uint16_t port = peer.port();
    tavro_internal::socketSeams().readyWaitMs = 20; // the reader sees the flag between two waits
    IoClientMgmt* s = start(port);
    link(peer, s);
    ASSERT_TRUE(routeFound());

    // While the program terminates, the session drops the link and stays down.
    OsSocket::setProgramTerminating(true);
    ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_DISCONNECT && !s->IsConnected(); }));
    EXPECT_TRUE(peer.seesClose());
    EXPECT_FALSE(peer.accept(200));
    EXPECT_EQ(s->GetProcState(), TCP_DISCONNECT);
    OsSocket::setProgramTerminating(false);
    link(peer, s);

    // The peer goes away: the route stays listed but is not found, and
    // refused attempts count the wait afresh, doubled after the 30th.
    const std::size_t waitsBefore = copyOf(g_waits).size();
    peer.closeListener();
    peer.closeConnection();
    ASSERT_TRUE(eventually([s] { return !s->IsConnected(); }));
    EXPECT_FALSE(routeFound());
    EXPECT_EQ(table()->RouteCount(), 1u);
    TCP_BD bd{nullptr, 0, nullptr};
    EXPECT_FALSE(s->TcpSend(&bd));
    ASSERT_TRUE(eventually([&] { return copyOf(g_waits).size() >= waitsBefore + 30; }));
    const std::vector<int> waits = copyOf(g_waits);
    EXPECT_EQ(std::vector<int>(waits.begin() + long(waitsBefore) + 28, waits.begin() + long(waitsBefore) + 30),
              (std::vector<int>{2000, 4000}));
    ASSERT_TRUE(peer.listenOn(port));
    link(peer, s);
    EXPECT_TRUE(routeFound());
}

TEST_F(Session, ShutdownEndsTheLoopWhileWaitingToConnectAndWhenItRacesTheStart)
{
    tavro_internal::clientSeams().connectDelayMs = neverSoon;
    IoClientMgmt* s = start(1);
    ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_CONNECT; }));
    s->SignalShutdown();
    ASSERT_TRUE(s->WaitFinished(30000));

    // Before the thread exists there is no socket to touch; right after, the
    // signal must not be lost.
    IoClientMgmt idle(loopback(1), nullptr, 1, nullptr);
    idle.SignalShutdown();
    idle.Close();
    EXPECT_TRUE(idle.HasFinished());
    for (int round = 0; round < 20; ++round) {
        IoClientMgmt* r = start(1);
        std::thread([r] { r->SignalShutdown(); }).join();
        ASSERT_TRUE(r->WaitFinished(30000)) << round;
        EXPECT_EQ(table()->RouteCount(), 0u);
    }
}

} // namespace
