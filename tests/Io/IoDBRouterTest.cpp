#include "Io/IoDBRouter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>
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

SlaveAddr addrs(const std::vector<int>& list)
{
    SlaveAddr a;
    for (int i : list) a.SetSlaveAddr(i);
    return a;
}

struct RouterTest : testing::Test {
    void SetUp() override
    {
        TearDown();
        tavro_internal::routeTableSeams().maxDrainWaits = 0;
    }
    void TearDown() override
    {
        UDBControl::ResetStaticsForTest();
        tavro_internal::resetRouteTableSeams();
    }
    // Sends a CMD_CONN_PORT command or response to switch 1, set up further by f.
    template <typename F>
    int send(bool response, F f)
    {
        CrCmd cmd;
        CrRsp rsp;
        Message& msg = response ? static_cast<Message&>(rsp) : cmd;
        msg.SetCmdCode(CMD_CONN_PORT);
        msg.SetMsgAddr(1);
        f(msg);
        return response ? router.SendRsp(&rsp) : router.SendCmd(&cmd);
    }

    RouteTable api{TCP_SERVER}, swi{TCP_CLIENT}, poll{TCP_POLL};
    IoRouter router{&api, &swi, &poll};
    std::vector<unsigned char> big = std::vector<unsigned char>(MAX_TCP_MSG_SIZE, 0x5A);
};

// Commands must stay below the limit, and say so; responses only outside
// server and telnet connections, silently.
TEST_F(RouterTest, PayloadLimitsOfCommandsAndResponses)
{
    FakeSwitch apiSw(1), swiSw(1), pollSw(1);
    Routed ra(api, apiSw), rs(swi, swiSw), rp(poll, pollSw);
    FakeSwitch* all[] = {&apiSw, &swiSw, &pollSw};
    const struct {
        bool response;
        TCP_TYPE net;
        int size;
        int result;
        FakeSwitch* receiver;
    } cases[] = {
        // clang-format off
        {false, TCP_CLIENT, 2559935, 0, &swiSw}, {false, TCP_CLIENT, 2559936, 1, nullptr},
        {true, TCP_SERVER, 2559936, 0, &apiSw}, {true, TCP_TELNET, 2559936, 0, &swiSw},
        {true, TCP_CLIENT, 2559936, 1, nullptr}, {true, TCP_POLL, 2559936, 1, nullptr},
        {true, TCP_SYSTEM, 2559936, 1, nullptr}, {true, TCP_CLIENT, 2559935, 0, &swiSw},
        {true, TCP_POLL, 2559935, 0, &pollSw},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.response ? "response" : "command") << " net " << c.net << " size "
                                        << c.size);
        std::size_t before[3];
        for (int i = 0; i < 3; ++i) before[i] = all[i]->sentCount();
        CaptureStdout();
        EXPECT_EQ(send(c.response,
                       [&](Message& m) {
                           m.SetSourceNet(c.net);
                           m.SetFastData(big.data(), c.size, false);
                       }),
                  c.result);
        EXPECT_EQ(GetCapturedStdout(), c.response || c.result == 0
                                           ? ""
                                           : "SendR700Cmd: MESSAGE TOO LARGE.  appSize[2559936] greater than "
                                             "MAX_TCP_MSG_SIZE[2559936].  MESSAGE NOT SENT!\n");
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(all[i]->sentCount() - before[i], all[i] == c.receiver ? 1u : 0u) << "table " << i;
        if (c.receiver != nullptr) {
            const Frame f = c.receiver->sent().back();
            EXPECT_EQ(f.bytes.size(), 40u + std::size_t(c.size));
            EXPECT_EQ(f.payloadPiece, big.data()); // sent from the message's own buffer
        }
    }
}

TEST_F(RouterTest, EachDestinationIsTriedAndAnyTakerMeansSuccess)
{
    EXPECT_EQ(router.SendCmd(nullptr), 2);
    EXPECT_EQ(router.SendRsp(nullptr), 2);
    const struct {
        std::vector<int> to, routed, failing;
        int result;
        std::size_t frames1, frames3;
        unsigned noRoute; // sends attempted without a route
    } cases[] = {
        {{1, 3}, {3}, {}, 0, 0, 1, 1}, {{1, 3}, {1, 3}, {1}, 0, 1, 1, 0}, {{1, 3}, {1, 3}, {1, 3}, 3, 1, 1, 0},
        {{1, 3}, {}, {}, 3, 0, 0, 2},  {{}, {1, 3}, {}, 3, 0, 0, 0}, // no destination: not even an attempt
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case with result " << c.result << ", routes " << c.routed.size());
        FakeSwitch sw1(1), sw3(3);
        std::vector<std::unique_ptr<Routed>> routes;
        for (int id : c.routed) routes.emplace_back(new Routed(swi, id == 1 ? sw1 : sw3));
        for (int id : c.failing) (id == 1 ? sw1 : sw3).sendResult = false;
        const unsigned noRouteBefore = tavro_internal::netSocketHdlNoRouteCount();
        auto to = [&](Message& m) { m.SetMsgAddr(addrs(c.to)); };
        EXPECT_EQ(send(false, to), c.result);
        EXPECT_EQ(sw1.sentCount(), c.frames1);
        EXPECT_EQ(sw3.sentCount(), c.frames3);
        EXPECT_EQ(tavro_internal::netSocketHdlNoRouteCount() - noRouteBefore, c.noRoute);
        for (FakeSwitch* sw : {&sw1, &sw3}) { // every use taken for a send was given back
            if (sw->getNetSocket() != nullptr) {
                EXPECT_EQ(swi.UseCount(sw->getNetSocket()), 0);
            }
        }
    }
}

TEST_F(RouterTest, PayloadPieceIsLinkedOnlyWithSizeAndDataAndHeadersFollowTheOrder)
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
        for (bool response : {false, true}) {
            for (bool network : {false, true}) {
                SCOPED_TRACE(testing::Message() << "size " << c.size << (c.p ? " with data" : " without data")
                                                << (response ? ", response" : ", command")
                                                << (network ? ", network order" : ", host order"));
                ASSERT_EQ(send(response,
                               [&](Message& m) {
                                   m.SetFastData(c.p, c.size, false);
                                   m.SetNetworkOrder(network);
                               }),
                          0);
                const Frame f = sw.sent().back();
                EXPECT_EQ(f.bytes.size(), c.bytes);
                EXPECT_EQ(f.pieces, c.pieces);
                EXPECT_EQ(f.reversed, network);
                // The in-memory order flag never goes out (packed fields: copies).
                EXPECT_EQ(std::make_tuple(std::uint32_t(f.ctl.size), std::uint32_t(f.app.appSize)),
                          std::make_tuple(28u + c.size, unsigned(c.size)));
                EXPECT_EQ(f.app.getCmdCode(), CMD_CONN_PORT);
                EXPECT_EQ(f.payload(), std::vector<unsigned char>(data, data + (c.pieces == 3 ? c.size : 0)));
            }
        }
    }
}

TEST_F(RouterTest, ClientAddressSendsEveryDestinationThroughThatRoute)
{
    FakeSwitch swA(1), swB(2);
    Routed ra(swi, swA), rb(swi, swB);
    for (int client : {int(c_inaddr("10.0.0.2").s_addr), 0}) {
        // Without a client, each number finds its own switch; 3 has none.
        EXPECT_EQ(send(false,
                       [&](Message& m) {
                           m.SetMsgAddr(addrs({1, 2, 3}));
                           static_cast<CrCmd&>(m).SetClient(client);
                       }),
                  0);
    }
    EXPECT_EQ(swA.sentCount(), 1u);
    EXPECT_EQ(swB.sentCount(), 4u);
}

// Runs an event router over the events until done() returns, with logons as
// the logon list; it is made after a control block, whose eventlock it takes.
template <typename F>
void runEvents(RouterTest& t, LogonList* logons, const std::vector<std::vector<unsigned char>>& events, F done)
{
    SYS_PARM parm;
    CaptureStdout();
    UDBControl ctl(&parm, UDBControl::SKIP_PREPARE);
    GetCapturedStdout();
    UDBControl::InsertClassRef(SMN_LOGON_CTL, logons);
    std::unique_ptr<IoRouter> loop(new IoRouter(&t.api, &t.swi, &t.poll));
    for (auto e : events) loop->SendEvent(e.data(), int(e.size()));
    std::thread thread([&] { loop->Run(nullptr); });
    done();
    loop->SignalShutdown();
    thread.join();
}

TEST_F(RouterTest, EventsGoOutPaddedInBothOrdersWithCopiesForLogonsInProgress)
{
    FakeSwitch hostClient(1), netClient(2);
    Routed r1(api, hostClient), r2(api, netClient);
    LogonList logons;
    logons.SetBroadcastEndian(false, addrs({1}));
    logons.SetBroadcastEndian(true, addrs({2}));
    auto* waiting = new LogonCtl;
    waiting->logonInProgress = true;
    auto* telnet = new LogonCtl;
    telnet->logonInProgress = true;
    telnet->tcpType = TCP_TELNET;
    auto* done = new LogonCtl;
    logons.Logons() = {waiting, telnet, done};

    API_EVENT_PKT pkt;
    std::memset(static_cast<void*>(&pkt), 0, sizeof pkt);
    pkt.hdr.apiHdr.iCategory = 5;
    pkt.hdr.iDataSize = 1234;
    const auto* p = reinterpret_cast<const unsigned char*>(&pkt);
    const std::vector<unsigned char> whole(p, p + sizeof pkt), shortEvent = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    std::vector<unsigned char> padded(sizeof pkt, 0);
    std::copy(shortEvent.begin(), shortEvent.end(), padded.begin());
    runEvents(*this, &logons, {whole, shortEvent}, [&] {
        ASSERT_TRUE(hostClient.waitFor(2));
        ASSERT_TRUE(netClient.waitFor(2));
    });
    const Frame h = hostClient.sent()[0];
    EXPECT_FALSE(h.reversed);
    EXPECT_EQ(h.app.getCmdCode(), CMD_API_EVENT);
    EXPECT_EQ(h.app.getCmdControl(), CMD_WITHOUT_RSP);
    EXPECT_EQ(h.payload(), whole);
    EXPECT_EQ(hostClient.sent()[1].payload(), padded);
    pkt.Swap();
    EXPECT_TRUE(netClient.sent()[0].reversed);
    EXPECT_EQ(netClient.sent()[0].payload(), std::vector<unsigned char>(p, p + sizeof pkt));
    ASSERT_EQ(waiting->pendingEvents.size(), 2u);
    const auto* first = reinterpret_cast<const unsigned char*>(waiting->pendingEvents.front());
    const auto* second = reinterpret_cast<const unsigned char*>(waiting->pendingEvents.back());
    EXPECT_EQ(std::vector<unsigned char>(first, first + sizeof pkt), whole);
    EXPECT_EQ(std::vector<unsigned char>(second, second + sizeof pkt), padded);
    EXPECT_TRUE(telnet->pendingEvents.empty());
    EXPECT_TRUE(done->pendingEvents.empty());

    // Without a logon list events are only consumed; those the loop did not
    // take are freed with it (the sanitizer build's leak checker has the last word).
    runEvents(*this, nullptr, {whole, whole, whole}, [] {});
    EXPECT_EQ(hostClient.sentCount(), 2u);

    // Network-order listeners get theirs when none wants host order.
    LogonList netOnly;
    netOnly.SetBroadcastEndian(true, addrs({2}));
    runEvents(*this, &netOnly, {whole}, [&] { ASSERT_TRUE(netClient.waitFor(3)); });
    EXPECT_TRUE(netClient.sent()[2].reversed);
}

} // namespace
