#include "Io/IoDBClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/OsSocket.h"
#include "Cr/CrDBTracker.h"
#include "Io/IoDBRouter.h"
#include "LoopbackPeer.h"
#include "Os/UDBControl.h"

using namespace loopback_peer;

namespace {

// Scheduled waits the sessions asked for; the actual pause is a few ms.
std::mutex g_waitLock;
std::vector<int> g_waits;

DWORD recordWait(int connectWait)
{
    std::lock_guard<std::mutex> g(g_waitLock);
    g_waits.push_back(connectWait);
    return 5;
}

DWORD neverSoon(int)
{
    return 600000;
}

std::vector<int> waitsSoFar()
{
    std::lock_guard<std::mutex> g(g_waitLock);
    return g_waits;
}

// What the dispatcher saw of one command (the command is gone afterwards).
struct Seen {
    COMMAND_CODE code;
    int seq;
    TCP_TYPE net;
    int addrCount;
    int firstAddr;
    bool rspReq;
    bool networkOrder;
    MGR_CLASS mgr;
    Bytes payload;
};

std::mutex g_seenLock;
std::condition_variable g_seenCond;
std::vector<Seen> g_seen;

void recordCommand(CrCmd* cmd)
{
    Seen s{cmd->GetCmdCode(),
           cmd->GetSeqNbr(),
           cmd->GetSourceNet(),
           cmd->GetMsgAddr().GetSlaveCount(),
           cmd->GetMsgAddr().GetNextSlaveAddr(0),
           cmd->GetRspReq(),
           cmd->isNetworkOrder(),
           cmd->GetMgrClass(),
           {}};
    const auto* p = static_cast<const std::uint8_t*>(cmd->GetData());
    if (p != nullptr) s.payload.assign(p, p + cmd->GetSize());
    std::lock_guard<std::mutex> g(g_seenLock);
    g_seen.push_back(s);
    g_seenCond.notify_all();
}

bool waitSeen(std::size_t n)
{
    std::unique_lock<std::mutex> lk(g_seenLock);
    return g_seenCond.wait_for(lk, std::chrono::seconds(30), [n] { return g_seen.size() >= n; });
}

bool eventually(const std::function<bool()>& pred, int ms = 30000)
{
    for (int waited = 0; waited < ms; waited += 2) {
        if (pred()) return true;
        Sleep(2);
    }
    return pred();
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
        std::lock_guard<std::mutex> g(g_waitLock);
        g_waits.clear();
        std::lock_guard<std::mutex> g2(g_seenLock);
        g_seen.clear();
    }
    void TearDown() override
    {
        for (IoClientMgmt* s : owned) delete s; // each waits for its loop to end
        OsSocket::setProgramTerminating(false);
        EXPECT_EQ(RouteTable::getIt(SMN_SWI_TABLE)->RouteCount(), 0u);
        EXPECT_TRUE(ctl->StopSystem(30000));
        delete ctl;
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetClientSeams();
        tavro_internal::resetSocketSeams();
    }

    IoClientMgmt* start(std::uint16_t port, IoClientMgmt::Dispatcher d = recordCommand)
    {
        auto* s = new IoClientMgmt(loopback(port), nullptr, 1, d);
        s->SetActiveMgmt(true);
        owned.push_back(s);
        EXPECT_TRUE(s->Start(nullptr));
        return s;
    }

    // Accepts the session's connection and takes its link test header.
    void link(Peer& peer, IoClientMgmt* s)
    {
        ASSERT_TRUE(peer.accept());
        Bytes hdr;
        ASSERT_TRUE(peer.readExact(hdr, 12));
        EXPECT_EQ(hdr, linkTestBytes(hostOrder()));
        ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_NORMAL; }));
    }

    RouteTable* table() { return RouteTable::getIt(SMN_SWI_TABLE); }
    bool routeFound()
    {
        NET_SOCKET* r = table()->GetIoMgmt(1);
        table()->Done(r);
        return r != nullptr;
    }

    SYS_PARM parm;
    UDBControl* ctl = nullptr;
    std::vector<IoClientMgmt*> owned;
};

// ------------------------------------------------------------------ back-off

TEST(SessionBackoff, WaitsRunTwentyNineThenThirtyEachDoublingUpTo256sThenStartAgain)
{
    CONNECT_BACKOFF b{0, IoClientMgmt::INITIAL_CONNECT_WAIT};
    std::vector<std::pair<int, int>> changes; // attempt, new wait
    for (int attempt = 1; attempt <= 29 + 30 * 8 + 5; ++attempt) {
        const CONNECT_BACKOFF next = IoClientMgmt::nextConnectBackoff(b.connectErr, b.connectWait);
        if (attempt <= 29) {
            EXPECT_EQ(next.connectWait, 2000) << attempt;
        }
        if (next.connectWait != b.connectWait) changes.emplace_back(attempt, next.connectWait);
        b = next;
    }
    const std::vector<std::pair<int, int>> expected = {{30, 4000},    {60, 8000},    {90, 16000},
                                                       {120, 32000},  {150, 64000},  {180, 128000},
                                                       {210, 256000}, {240, 2000},   {270, 4000}};
    EXPECT_EQ(changes, expected);
    // Each change restarts the count.
    EXPECT_EQ(IoClientMgmt::nextConnectBackoff(29, 2000).connectErr, 0);
    EXPECT_EQ(IoClientMgmt::nextConnectBackoff(28, 2000).connectErr, 29);
}

// ------------------------------------------------------------ construction

TEST_F(Session, FreshSessionKnowsOnlyItsClientNumberAndIgnoresTheGivenDescription)
{
    SWITCH_CTL given;
    given.switchId = 5;
    given.swiType = SW_TYPE_R700;
    IoClientMgmt s(loopback(1), &given, 7, nullptr);
    EXPECT_EQ(s.GetClientId(), 7);
    EXPECT_EQ(s.GetSwitchAdr().GetSlaveCount(), 1);
    EXPECT_EQ(s.GetProcState(), TCP_NONE);
    EXPECT_EQ(s.GetConnectWait(), 2000);
    EXPECT_FALSE(s.ActiveMgmt());
    EXPECT_NE(s.GetTimer(), nullptr);
    EXPECT_NE(s.GetSyncLock(), nullptr);
    EXPECT_EQ(s.GetSwitchCtl()->switchId, 0);
    EXPECT_FALSE(s.GetSwitchCtl()->typeR700());
    EXPECT_EQ(s.GetSwitchCtl()->activeCtlr, -1);
    TCP_BD bd{nullptr, 0, nullptr};
    EXPECT_FALSE(s.TcpSend(&bd));
    // Its route's worker thread is the session itself.
    s.signalShutdown();
    EXPECT_TRUE(s.Shuttingdown());
    EXPECT_TRUE(s.HasFinished());
}

// ------------------------------------------------------------ connecting

TEST_F(Session, StartClientConnectsToLoopbackAndEntersItsRoute)
{
    Peer peer;
    IoClientMgmt* s = IoClientMgmt::startClient(1, peer.port(), recordCommand);
    EXPECT_EQ(s->GetSockAddr().sin_port, htons(peer.port()));
    EXPECT_EQ(s->GetSockAddr().address().toString(), "127.0.0.1");
    EXPECT_TRUE(s->ActiveMgmt());
    EXPECT_EQ(tavro_internal::clientSessionCount(), 1u);
    link(peer, s);

    EXPECT_TRUE(s->IsConnected());
    EXPECT_EQ(s->GetRcvCount(), 4);
    EXPECT_EQ(s->GetSwiState() & SWITCH_CTL::STATE_LINK_TEST_PASSED, SWITCH_CTL::STATE_LINK_TEST_PASSED);
    EXPECT_EQ(s->GetSwiState() & SWITCH_CTL::STATE_LINK_TEST_FAILED, 0u);
    // The first attempt came after the full initial wait.
    ASSERT_FALSE(waitsSoFar().empty());
    EXPECT_EQ(waitsSoFar().front(), 2000);
    NET_SOCKET* route = table()->GetIoMgmt(1);
    ASSERT_NE(route, nullptr);
    EXPECT_EQ(route->pRouteEntry, static_cast<IRouteTableEntry*>(s));
    EXPECT_EQ(route->id, 0); // entered under switchId
    table()->Done(route);

    // The router's chain goes out as it is.
    std::uint8_t a[3] = {1, 2, 3}, b[2] = {4, 5};
    TCP_BD second{b, 2, nullptr};
    TCP_BD first{a, 3, &second};
    EXPECT_TRUE(s->TcpSend(&first));
    Bytes got;
    ASSERT_TRUE(peer.readExact(got, 5));
    EXPECT_EQ(got, (Bytes{1, 2, 3, 4, 5}));

    // Deleting a running session ends its loop and its connection.
    delete s;
    EXPECT_TRUE(peer.seesClose());
    EXPECT_EQ(tavro_internal::clientSessionCount(), 0u);
}

TEST_F(Session, StartClientReclaimsSessionsWhoseLoopEnded)
{
    tavro_internal::clientSeams().connectDelayMs = neverSoon;
    IoClientMgmt* first = IoClientMgmt::startClient(1, 1, nullptr);
    first->SignalShutdown();
    ASSERT_TRUE(first->WaitFinished(30000));
    EXPECT_EQ(first->GetProcState(), TCP_DISCONNECT);
    EXPECT_EQ(tavro_internal::clientSessionCount(), 1u);
    IoClientMgmt* second = IoClientMgmt::startClient(1, 1, nullptr); // frees first
    EXPECT_EQ(tavro_internal::clientSessionCount(), 1u);
    delete second;
    EXPECT_EQ(tavro_internal::clientSessionCount(), 0u);
}

// ------------------------------------------------------------ reading

TEST_F(Session, CommandsGoToTheDispatcherAndResponsesToTheTrackerInBothOrders)
{
    Peer peer;
    IoClientMgmt* s = start(peer.port());
    link(peer, s);
    parm.mySysAddr = SYS_SNMP_AGENT;

    for (Order o : {hostOrder(), reversedOrder()}) {
        const bool reversed = o != hostOrder();
        SCOPED_TRACE(reversed ? "reversed" : "host order");
        std::size_t before;
        {
            std::lock_guard<std::mutex> g(g_seenLock);
            before = g_seen.size();
        }
        const int rcvBefore = s->GetRcvCount();

        // Dropped: manager class 12 and a link echo; then one that passes.
        Frame cmd;
        cmd.msgType = kCommand;
        cmd.cmdCode = CMD_CONN_PORT;
        cmd.seqNbr = 77;
        cmd.msgStat = 1;
        cmd.payload = {9, 8, 7, 6, 5};
        for (std::uint32_t mgr : {12u, kLink, 0xFFFFFFFFu, 1u}) {
            cmd.manager = mgr;
            ASSERT_TRUE(peer.write(cmd.encode(o)));
        }
        ASSERT_TRUE(waitSeen(before + 1));
        EXPECT_TRUE(eventually([&] { return s->GetRcvCount() == rcvBefore + 4; }));
        {
            std::lock_guard<std::mutex> g(g_seenLock);
            ASSERT_EQ(g_seen.size(), before + 1);
            const Seen& c = g_seen.back();
            EXPECT_EQ(c.code, CMD_CONN_PORT);
            EXPECT_EQ(c.seq, 77);
            EXPECT_EQ(c.net, TCP_CLIENT);
            EXPECT_EQ(c.addrCount, 1);
            EXPECT_EQ(c.firstAddr, 1);
            EXPECT_TRUE(c.rspReq);
            EXPECT_EQ(c.networkOrder, reversed);
            EXPECT_EQ(c.mgr, MGR_CLASS(1));
            EXPECT_EQ(c.payload, cmd.payload);
        }

        // A command of ours, answered by the peer.
        CrCmd out;
        out.SetCmdCode(CMD_CONN_PORT);
        out.SetMsgAddr(1);
        out.SetRspReq(true);
        out.SetRspTimer(30000);
        const std::uint8_t data[2] = {0x11, 0x22};
        out.SetData(data, 2);
        out.Dispatch();
        Bytes raw;
        ASSERT_TRUE(peer.readFrame(raw, hostOrder()));
        Frame sent;
        ASSERT_TRUE(Frame::decode(raw, hostOrder(), sent));
        EXPECT_EQ(sent.marker, kMarker);
        EXPECT_EQ(sent.manager, 1u);
        EXPECT_EQ(sent.sizeOverride, 30);
        EXPECT_EQ(sent.msgType, kCommand);
        EXPECT_EQ(sent.seqNbr, std::uint32_t(out.GetSeqNbr()));
        EXPECT_EQ(sent.msgStat, 1u);
        EXPECT_EQ(sent.srcAddr, std::uint32_t(SYS_SNMP_AGENT));
        EXPECT_EQ(sent.payload, (Bytes{0x11, 0x22}));

        Frame answer;
        answer.manager = 1;
        answer.cmdCode = CMD_CONN_PORT;
        answer.seqNbr = sent.seqNbr;
        answer.msgStat = RSP_BUSY;
        answer.appError = 0xFFFFFF9Bu; // -101
        answer.payload = {1, 2, 3};
        ASSERT_TRUE(peer.write(answer.encode(o)));
        ASSERT_TRUE(out.WaitForRsp());
        CrRsp* rsp = out.GetFirstRsp();
        ASSERT_NE(rsp, nullptr);
        EXPECT_EQ(rsp->GetRspStat(), RSP_BUSY);
        EXPECT_EQ(int(rsp->GetErrorCode()), -101);
        EXPECT_EQ(rsp->GetMsgAddr().GetSlaveCount(), 1);
        EXPECT_TRUE(rsp->GetMsgAddr().SlaveAddrSet(1));
        EXPECT_EQ(rsp->GetSourceNet(), TCP_CLIENT);
        EXPECT_EQ(rsp->isNetworkOrder(), reversed);
        const auto* p = static_cast<const std::uint8_t*>(rsp->GetData());
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(Bytes(p, p + rsp->GetSize()), answer.payload);
        EXPECT_EQ(out.GetRspCount(), 1);
    }
}

TEST_F(Session, FramesPromisingMoreThanTheyCarryAreDropped)
{
    Peer peer;
    IoClientMgmt* s = start(peer.port());
    link(peer, s);
    Frame bad;
    bad.manager = 1;
    bad.msgType = kCommand;
    bad.cmdCode = CMD_CONN_PORT;
    bad.payload = {1, 2, 3, 4};
    bad.appSizeOverride = 100000; // the frame holds 4
    ASSERT_TRUE(peer.write(bad.encode(hostOrder())));
    Bytes shortFrame;
    putWord(shortFrame, kMarker, hostOrder());
    putWord(shortFrame, 1, hostOrder());
    putWord(shortFrame, 8, hostOrder()); // too short for an application header
    shortFrame.resize(20, 0xEE);
    ASSERT_TRUE(peer.write(shortFrame));
    Frame good = bad;
    good.appSizeOverride = -1;
    good.seqNbr = 5;
    ASSERT_TRUE(peer.write(good.encode(hostOrder())));
    ASSERT_TRUE(waitSeen(1));
    std::lock_guard<std::mutex> g(g_seenLock);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].seq, 5);
    EXPECT_EQ(s->GetRcvCount(), 4 + 3);
}

TEST_F(Session, WithoutDispatcherCommandsAreReadAndDropped)
{
    Peer peer;
    IoClientMgmt* s = start(peer.port(), nullptr);
    link(peer, s);
    Frame cmd;
    cmd.manager = 1;
    cmd.msgType = kCommand;
    cmd.cmdCode = CMD_CONN_PORT;
    ASSERT_TRUE(peer.write(cmd.encode(hostOrder())));
    EXPECT_TRUE(eventually([s] { return s->GetRcvCount() == 5; }));
    EXPECT_EQ(s->GetProcState(), TCP_NORMAL);
}

// ------------------------------------------------------------ losing the link

TEST_F(Session, PeerCloseTakesTheRouteOutOfServiceUntilTheSessionReconnects)
{
    Peer peer;
    const std::uint16_t port = peer.port();
    IoClientMgmt* s = start(port);
    link(peer, s);
    ASSERT_TRUE(routeFound());
    const std::size_t waitsBefore = waitsSoFar().size();

    peer.closeListener();
    peer.closeConnection();
    ASSERT_TRUE(eventually([s] { return !s->IsConnected(); }));
    EXPECT_FALSE(s->ActiveMgmt());
    EXPECT_FALSE(routeFound()); // still listed, no longer active
    EXPECT_EQ(table()->RouteCount(), 1u);
    TCP_BD bd{nullptr, 0, nullptr};
    EXPECT_FALSE(s->TcpSend(&bd));
    // Refused attempts go on, the wait counted afresh from 2 s.
    ASSERT_TRUE(eventually([&] { return waitsSoFar().size() >= waitsBefore + 3; }));
    EXPECT_EQ(waitsSoFar()[waitsBefore], 2000);
    EXPECT_NE(s->GetProcState(), TCP_NORMAL);

    ASSERT_TRUE(peer.listenOn(port));
    link(peer, s);
    EXPECT_TRUE(s->IsConnected());
    EXPECT_TRUE(routeFound());
    EXPECT_EQ(s->GetRcvCount(), 4);
}

TEST_F(Session, WhileTheProgramTerminatesTheSessionStaysDown)
{
    Peer peer;
    // The flag is seen between two readiness waits of the reader.
    tavro_internal::socketSeams().readyWaitMs = 20;
    IoClientMgmt* s = start(peer.port());
    link(peer, s);
    OsSocket::setProgramTerminating(true);
    ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_DISCONNECT && !s->IsConnected(); }));
    EXPECT_TRUE(peer.seesClose());
    // No further attempt while terminating.
    EXPECT_FALSE(peer.accept(200));
    EXPECT_EQ(s->GetProcState(), TCP_DISCONNECT);
    OsSocket::setProgramTerminating(false);
    link(peer, s);
}

// ------------------------------------------------------------ shutting down

TEST_F(Session, ShutdownEndsTheLoopPromptlyInEveryState)
{
    Peer peer;
    struct Case {
        const char* name;
        DWORD (*delay)(int);
        bool connect;
    } cases[] = {{"waiting to connect", neverSoon, false}, {"reading", recordWait, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tavro_internal::clientSeams().connectDelayMs = c.delay;
        IoClientMgmt* s = start(peer.port());
        if (c.connect) {
            link(peer, s);
        } else {
            ASSERT_TRUE(eventually([s] { return s->GetProcState() == TCP_CONNECT; }));
        }
        s->SignalShutdown();
        ASSERT_TRUE(s->WaitFinished(30000));
        EXPECT_EQ(s->GetProcState(), TCP_DISCONNECT);
        EXPECT_FALSE(s->ActiveMgmt());
        EXPECT_EQ(table()->RouteCount(), 0u);
        if (c.connect) {
            EXPECT_TRUE(peer.seesClose());
        }
    }
}

TEST_F(Session, ShutdownRacingTheStartOfTheLoopNeverLosesIt)
{
    tavro_internal::clientSeams().connectDelayMs = neverSoon;
    // Before the thread exists there is no socket to touch.
    IoClientMgmt idle(loopback(1), nullptr, 1, nullptr);
    idle.SignalShutdown();
    idle.Close();
    for (int round = 0; round < 20; ++round) {
        IoClientMgmt* s = start(1);
        std::thread stopper([s] { s->SignalShutdown(); });
        stopper.join();
        ASSERT_TRUE(s->WaitFinished(30000)) << round;
        EXPECT_EQ(table()->RouteCount(), 0u);
    }
}

TEST_F(Session, SignalShutdownRemovesTheRouteOnlyWhereSwitchIdIsTheClientNumber)
{
    IoClientMgmt s(loopback(1), nullptr, 1, nullptr);
    const c_inaddr ip("127.0.0.1");
    const int ipWord = static_cast<int>(ip.s_addr);
    struct Case {
        int switchId;
        bool removed;
    } cases[] = {{0, false}, {1, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.switchId);
        s.GetSwitchCtl()->switchId = c.switchId;
        s.setWorkerThread(&s);
        table()->AddRoute(ip, c.switchId, &s);
        NET_SOCKET* route = s.getNetSocket();
        ASSERT_NE(route, nullptr);
        s.SignalShutdown(); // from a thread that is not the session's
        NET_SOCKET* found = table()->GetIpMgmt(ipWord);
        table()->Done(found);
        EXPECT_EQ(found == nullptr, c.removed); // condemned routes are not found
        EXPECT_EQ(table()->RouteCount(), 1u);
        // Clean up as the session's own thread would.
        s.setMyThread(pthread_self());
        EXPECT_EQ(table()->DeleteRoute(ip, c.switchId, route), 1);
        s.setMyThread(pthread_t());
    }
}

} // namespace
