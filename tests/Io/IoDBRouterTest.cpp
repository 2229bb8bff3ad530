#include "Io/IoDBRouter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "Io/FakeSwitch.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"

using fake_switch::FakeSwitch;
using fake_switch::Frame;
using fake_switch::Routed;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char kTooLarge[] = "SendR700Cmd: MESSAGE TOO LARGE.  appSize[2559936] greater than MAX_TCP_MSG_SIZE[2559936].  "
                         "MESSAGE NOT SENT!\n";

SlaveAddr addrs(std::initializer_list<int> list)
{
    SlaveAddr a;
    for (int i : list) a.SetSlaveAddr(i);
    return a;
}

struct RouterTest : testing::Test {
    void SetUp() override
    {
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
    }
    void TearDown() override
    {
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
    }

    RouteTable api{TCP_SERVER};
    RouteTable swi{TCP_CLIENT};
    RouteTable poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};
    // Payload storage shared by the size tests; messages point into it.
    std::vector<unsigned char> big = std::vector<unsigned char>(MAX_TCP_MSG_SIZE, 0x5A);
};

TEST_F(RouterTest, CommandPayloadMustStayBelowTheLimit)
{
    FakeSwitch sw(1);
    Routed r(swi, sw);
    const struct {
        int size;
        int result;
        const char* trace;
    } cases[] = {{2559935, 0, ""}, {2559936, 1, kTooLarge}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        CrCmd cmd;
        cmd.SetCmdCode(CMD_CONN_PORT);
        cmd.SetMsgAddr(1);
        cmd.SetFastData(big.data(), c.size, false);
        const std::size_t before = sw.sentCount();
        CaptureStdout();
        EXPECT_EQ(router.SendCmd(&cmd), c.result);
        EXPECT_EQ(GetCapturedStdout(), c.trace);
        if (c.result != 0) {
            EXPECT_EQ(sw.sentCount(), before);
            continue;
        }
        ASSERT_EQ(sw.sentCount(), before + 1);
        const Frame f = sw.sent().back();
        EXPECT_EQ(f.bytes.size(), 40u + 2559935u);
        EXPECT_EQ(f.app.getAppSize(), 2559935u);
        EXPECT_EQ(f.ctl.getSize(), 2559935u + 28u);
        // Sent from the message's own buffer, not a copy.
        EXPECT_EQ(f.payloadPiece, big.data());
    }
}

TEST_F(RouterTest, ResponseLimitAppliesOnlyOutsideServerAndTelnetAndIsSilent)
{
    FakeSwitch apiSw(1), swiSw(1), pollSw(1);
    Routed ra(api, apiSw), rs(swi, swiSw), rp(poll, pollSw);
    const struct {
        TCP_TYPE net;
        int size;
        int result;
        FakeSwitch* receiver;
    } cases[] = {
        {TCP_SERVER, 2559936, 0, &apiSw}, {TCP_TELNET, 2559936, 0, &swiSw}, {TCP_CLIENT, 2559936, 1, nullptr},
        {TCP_POLL, 2559936, 1, nullptr},  {TCP_SYSTEM, 2559936, 1, nullptr}, {TCP_CLIENT, 2559935, 0, &swiSw},
        {TCP_POLL, 2559935, 0, &pollSw},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "net " << c.net << " size " << c.size);
        CrRsp rsp;
        rsp.SetCmdCode(CMD_CONN_PORT);
        rsp.SetMsgAddr(1);
        rsp.SetSourceNet(c.net);
        rsp.SetFastData(big.data(), c.size, false);
        const std::size_t before[] = {apiSw.sentCount(), swiSw.sentCount(), pollSw.sentCount()};
        CaptureStdout();
        EXPECT_EQ(router.SendRsp(&rsp), c.result);
        EXPECT_EQ(GetCapturedStdout(), "");
        const std::size_t after[] = {apiSw.sentCount(), swiSw.sentCount(), pollSw.sentCount()};
        FakeSwitch* all[] = {&apiSw, &swiSw, &pollSw};
        for (int i = 0; i < 3; ++i) EXPECT_EQ(after[i] - before[i], all[i] == c.receiver ? 1u : 0u) << "table " << i;
        if (c.receiver != nullptr) {
            EXPECT_EQ(c.receiver->sent().back().bytes.size(), 40u + std::size_t(c.size));
        }
    }
}

TEST_F(RouterTest, NullMessagesAreRefused)
{
    EXPECT_EQ(router.SendCmd(nullptr), 2);
    EXPECT_EQ(router.SendRsp(nullptr), 2);
}

TEST_F(RouterTest, EmptyDestinationSetTouchesNoRoute)
{
    FakeSwitch sw(1);
    Routed r(swi, sw);
    NET_SOCKET* route = sw.getNetSocket();
    const unsigned noRouteBefore = tavro_internal::netSocketHdlNoRouteCount();
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    CrRsp rsp;
    rsp.SetCmdCode(CMD_CONN_PORT);
    EXPECT_EQ(router.SendCmd(&cmd), 3);
    EXPECT_EQ(router.SendRsp(&rsp), 3);
    EXPECT_EQ(sw.sentCount(), 0u);
    EXPECT_EQ(swi.UseCount(route), 0);
    // Not even an attempt without a route was made.
    EXPECT_EQ(tavro_internal::netSocketHdlNoRouteCount(), noRouteBefore);
}

TEST_F(RouterTest, EachDestinationIsTriedAndAnyTakerMeansSuccess)
{
    const struct {
        std::vector<int> routed;
        std::vector<int> failing;
        int result;
        std::map<int, std::size_t> frames;
    } cases[] = {
        {{3}, {}, 0, {{1, 0}, {3, 1}}},
        {{1, 3}, {1}, 0, {{1, 1}, {3, 1}}},
        {{1, 3}, {1, 3}, 3, {{1, 1}, {3, 1}}},
        {{}, {}, 3, {{1, 0}, {3, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case with result " << c.result << ", routes " << c.routed.size());
        FakeSwitch sw1(1), sw3(3);
        std::vector<std::unique_ptr<Routed>> routes;
        for (int id : c.routed) routes.emplace_back(new Routed(swi, id == 1 ? sw1 : sw3));
        for (int id : c.failing) (id == 1 ? sw1 : sw3).sendResult = false;
        const unsigned noRouteBefore = tavro_internal::netSocketHdlNoRouteCount();

        CrCmd cmd;
        cmd.SetCmdCode(CMD_CONN_PORT);
        cmd.SetMsgAddr(addrs({1, 3}));
        EXPECT_EQ(router.SendCmd(&cmd), c.result);
        EXPECT_EQ(sw1.sentCount(), c.frames.at(1));
        EXPECT_EQ(sw3.sentCount(), c.frames.at(3));
        EXPECT_EQ(tavro_internal::netSocketHdlNoRouteCount() - noRouteBefore, 2u - c.routed.size());
        // Every use taken for a send was given back.
        for (FakeSwitch* sw : {&sw1, &sw3}) {
            if (sw->getNetSocket() != nullptr) {
                EXPECT_EQ(swi.UseCount(sw->getNetSocket()), 0);
            }
        }
    }
}

TEST_F(RouterTest, PayloadPieceIsLinkedOnlyWithSizeAndData)
{
    FakeSwitch sw(1);
    Routed r(swi, sw);
    unsigned char data[7] = {1, 2, 3, 4, 5, 6, 7};
    const struct {
        unsigned char* p;
        int size;
        std::size_t bytes;
        int pieces;
    } cases[] = {{nullptr, 0, 40, 2}, {nullptr, 10, 40, 2}, {data, 0, 40, 2}, {data, 7, 47, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << (c.p ? " with data" : " without data"));
        for (bool response : {false, true}) {
            CrCmd cmd;
            CrRsp rsp;
            Message& msg = response ? static_cast<Message&>(rsp) : cmd;
            msg.SetCmdCode(CMD_CONN_PORT);
            msg.SetMsgAddr(1);
            msg.SetFastData(c.p, c.size, false);
            ASSERT_EQ(response ? router.SendRsp(&rsp) : router.SendCmd(&cmd), 0);
            const Frame f = sw.sent().back();
            EXPECT_EQ(f.bytes.size(), c.bytes);
            EXPECT_EQ(f.pieces, c.pieces);
            EXPECT_EQ(f.app.getAppSize(), std::uint32_t(c.size));
        }
    }
}

TEST_F(RouterTest, ClientAddressSendsEveryDestinationThroughThatRoute)
{
    FakeSwitch swA(1), swB(2);
    Routed ra(swi, swA, "10.0.0.1"), rb(swi, swB, "10.0.0.2");
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetMsgAddr(addrs({1, 2, 3}));
    cmd.SetClient(int(c_inaddr("10.0.0.2").s_addr));
    EXPECT_EQ(router.SendCmd(&cmd), 0);
    EXPECT_EQ(swA.sentCount(), 0u);
    EXPECT_EQ(swB.sentCount(), 3u);

    // Without a client, each number finds its own switch; 3 has none.
    cmd.SetClient(0);
    EXPECT_EQ(router.SendCmd(&cmd), 0);
    EXPECT_EQ(swA.sentCount(), 1u);
    EXPECT_EQ(swB.sentCount(), 4u);
}

TEST_F(RouterTest, NetworkOrderMessagesCarryReversedHeadersWithoutTheFlag)
{
    FakeSwitch sw(1);
    Routed r(swi, sw);
    const unsigned char data[4] = {0xA1, 0xB2, 0xC3, 0xD4};
    for (bool response : {false, true}) {
        for (bool network : {false, true}) {
            SCOPED_TRACE(testing::Message() << (response ? "response" : "command") << (network ? " network" : " host"));
            CrCmd cmd;
            CrRsp rsp;
            Message& msg = response ? static_cast<Message&>(rsp) : cmd;
            msg.SetCmdCode(CMD_CONN_PORT);
            msg.SetMsgAddr(1);
            msg.SetData(data, 4);
            msg.SetNetworkOrder(network);
            ASSERT_EQ(response ? router.SendRsp(&rsp) : router.SendCmd(&cmd), 0);
            const Frame f = sw.sent().back();
            EXPECT_EQ(f.reversed, network);
            // The in-memory order flag never goes out (packed fields: copies).
            const std::uint32_t ctlSize = f.ctl.size, appSize = f.app.appSize;
            EXPECT_EQ(ctlSize, 32u);
            EXPECT_EQ(appSize, 4u);
            EXPECT_EQ(f.app.getCmdCode(), CMD_CONN_PORT);
            EXPECT_EQ(f.payload(), std::vector<unsigned char>(data, data + 4));
        }
    }
}

// ------------------------------------------------------------ event loop

API_EVENT_PKT samplePacket()
{
    API_EVENT_PKT pkt;
    std::memset(static_cast<void*>(&pkt), 0, sizeof pkt);
    pkt.hdr.apiHdr.iCategory = 5;
    pkt.hdr.iDataSize = 1234;
    return pkt;
}

std::vector<unsigned char> bytesOf(const API_EVENT_PKT& pkt)
{
    const auto* p = reinterpret_cast<const unsigned char*>(&pkt);
    return std::vector<unsigned char>(p, p + sizeof pkt);
}

struct EventLoopTest : RouterTest {
    void SetUp() override
    {
        RouterTest::SetUp();
        CaptureStdout();
        ctl.reset(new UDBControl(&parm, UDBControl::SKIP_PREPARE));
        GetCapturedStdout();
        UDBControl::InsertClassRef(SMN_LOGON_CTL, &logons);
        loop = new IoRouter(&api, &swi, &poll); // after the control block: it takes its eventlock
    }
    void start()
    {
        thread = std::thread([this] { loop->Run(nullptr); });
    }
    void stop()
    {
        loop->SignalShutdown();
        thread.join();
        delete loop;
        loop = nullptr;
    }
    void TearDown() override
    {
        if (loop != nullptr) stop();
        ctl.reset();
        RouterTest::TearDown();
    }

    SYS_PARM parm;
    std::unique_ptr<UDBControl> ctl;
    LogonList logons;
    IoRouter* loop = nullptr;
    std::thread thread;
};

TEST_F(EventLoopTest, BroadcastsInBothOrdersAndKeepsCopiesForLogonsInProgress)
{
    FakeSwitch hostClient(1), netClient(2);
    Routed r1(api, hostClient), r2(api, netClient);
    logons.SetBroadcastEndian(false, addrs({1}));
    logons.SetBroadcastEndian(true, addrs({2}));
    auto* waiting = new LogonCtl;
    waiting->logonInProgress = true;
    auto* telnet = new LogonCtl;
    telnet->logonInProgress = true;
    telnet->tcpType = TCP_TELNET;
    auto* done = new LogonCtl;
    logons.Logons() = {waiting, telnet, done};

    API_EVENT_PKT pkt = samplePacket();
    API_EVENT_PKT swapped = samplePacket();
    swapped.Swap();
    start();
    EXPECT_EQ(loop->SendEvent(&pkt, sizeof pkt), 0);
    ASSERT_TRUE(hostClient.waitFor(1));
    ASSERT_TRUE(netClient.waitFor(1));
    stop();

    const Frame h = hostClient.sent()[0];
    EXPECT_FALSE(h.reversed);
    EXPECT_EQ(h.app.getCmdCode(), CMD_API_EVENT);
    EXPECT_EQ(h.app.getCmdControl(), CMD_WITHOUT_RSP);
    EXPECT_EQ(h.payload(), bytesOf(pkt));
    const Frame n = netClient.sent()[0];
    EXPECT_TRUE(n.reversed);
    EXPECT_EQ(n.payload(), bytesOf(swapped));

    ASSERT_EQ(waiting->pendingEvents.size(), 1u);
    EXPECT_EQ(bytesOf(*waiting->pendingEvents.front()), bytesOf(pkt));
    EXPECT_TRUE(telnet->pendingEvents.empty());
    EXPECT_TRUE(done->pendingEvents.empty());
}

TEST_F(EventLoopTest, ShortEventsArePaddedToAWholePacket)
{
    FakeSwitch client(1);
    Routed r(api, client);
    logons.SetBroadcastEndian(false, addrs({1}));
    const unsigned char data[10] = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    start();
    loop->SendEvent(const_cast<unsigned char*>(data), sizeof data);
    ASSERT_TRUE(client.waitFor(1));
    stop();
    std::vector<unsigned char> expected(sizeof(API_EVENT_PKT), 0);
    std::memcpy(expected.data(), data, sizeof data);
    EXPECT_EQ(client.sent()[0].payload(), expected);
}

TEST_F(EventLoopTest, WithoutLogonsEventsAreOnlyConsumed)
{
    UDBControl::InsertClassRef(SMN_LOGON_CTL, nullptr);
    FakeSwitch client(1);
    Routed r(api, client);
    start();
    API_EVENT_PKT pkt = samplePacket();
    loop->SendEvent(&pkt, sizeof pkt);
    // Stopping waits for nothing in particular: whatever was taken is freed,
    // whatever was not is freed with the router.
    stop();
    EXPECT_EQ(client.sentCount(), 0u);
}

TEST_F(RouterTest, QueuedEventsAreFreedWithTheRouter)
{
    auto* r = new IoRouter(&api, &swi, &poll);
    API_EVENT_PKT pkt = samplePacket();
    for (int i = 0; i < 3; ++i) r->SendEvent(&pkt, sizeof pkt);
    delete r; // the leak checker of the sanitizer build has the last word
}

} // namespace
