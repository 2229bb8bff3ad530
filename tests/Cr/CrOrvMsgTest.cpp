#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <tuple>
#include <vector>

#include "Cr/CrDBCmd.h"
#include "Cr/CrOrvMsg.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Expected bytes are built here from shifts, not from the code's swapping:
// the words as the host holds them, or each word byte-reversed.
Bytes words(std::initializer_list<std::uint32_t> ws, bool reversed)
{
    const std::uint16_t one = 1;
    unsigned char first;
    std::memcpy(&first, &one, 1);
    const bool big = (first == 0) != reversed;
    Bytes out;
    for (std::uint32_t w : ws)
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(w >> (big ? 24 - 8 * i : 8 * i)));
    return out;
}

template <typename T>
Bytes bytesOf(const T& v)
{
    Bytes out(sizeof(T));
    std::memcpy(out.data(), &v, sizeof(T));
    return out;
}

constexpr std::uint32_t kOwnAddr = SYS_SNMP_AGENT;

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UDBControl::ResetStaticsForTest();
        parm.mySysAddr = SYS_ADDR(kOwnAddr);
        UDBControl::InsertClassRef(SMN_SYS_PARM, &parm);
        UDBControl::SetSeqNbrForTest(41);
        cmd.SetCmdCode(CMD_CONN_PORT);
        cmd.SetMsgAddr(3);
        cmd.SetRspReq(true);
        const unsigned char payload[] = {0xDE, 0xAD, 0xBE, 0xEF};
        cmd.SetData(payload, sizeof payload);
    }
    void TearDown() override { UDBControl::ResetStaticsForTest(); }
    SYS_PARM parm;
    CrCmd cmd;
};

TEST_F(FrameTest, CommandAndResponseHeadersInHostOrder)
{
    ORV_CTL_MSG ctl(cmd);
    ORV_APP_MSG app(cmd);
    EXPECT_EQ(words({0x4D53473A, MGR_CONN, 28 + 4}, false), bytesOf(ctl));
    EXPECT_EQ(words({0x434D443A, 10002, 42, 1, kOwnAddr, 0, 4}, false), bytesOf(app));
    EXPECT_EQ(42, cmd.GetSeqNbr()) << "the header's sequence number is written back";
    EXPECT_FALSE(ctl.isNetworkOrder() || app.isNetworkOrder());

    cmd.SetRspReq(false);
    ORV_APP_MSG noRsp(cmd);
    EXPECT_EQ(CMD_WITHOUT_RSP, noRsp.getCmdControl());
    EXPECT_EQ(43u, noRsp.getSeqNbr());

    cmd.SetSeqNbr(42);
    CrRsp rsp(&cmd);
    rsp.SetRspStat(RSP_NAK);
    rsp.SetErrorCode(I_ERR_PORT_IN_GROUP);
    const unsigned char payload[] = {1, 2};
    rsp.SetData(payload, sizeof payload);
    EXPECT_EQ(words({0x4D53473A, MGR_CONN, 28 + 2}, false), bytesOf(ORV_CTL_MSG(rsp)));
    EXPECT_EQ(words({0x5253503A, 10002, 42, RSP_NAK, kOwnAddr, std::uint32_t(-407), 2}, false),
              bytesOf(ORV_APP_MSG(rsp)));
}

TEST_F(FrameTest, NetworkOrderFlagNeverReachesTheWire)
{
    cmd.SetNetworkOrder(true);
    ORV_CTL_MSG ctl(cmd);
    ORV_APP_MSG app(cmd);
    ASSERT_TRUE(ctl.isNetworkOrder() && app.isNetworkOrder());
    EXPECT_EQ(std::make_tuple(ctl.getSize(), app.getAppSize()), std::make_tuple(32u, 4u));

    // What the router does before writing the chain.
    ctl.setHostOrder();
    app.setHostOrder();
    EXPECT_TRUE(ctl.toNetwork());
    EXPECT_TRUE(app.toNetwork());
    EXPECT_EQ(words({0x4D53473A, MGR_CONN, 32}, true), bytesOf(ctl));
    EXPECT_EQ(words({0x434D443A, 10002, 42, 1, kOwnAddr, 0, 4}, true), bytesOf(app));

    EXPECT_EQ(words({0x5453543A, 0x4C494E4B, 12}, false), bytesOf(ORV_LINK_TEST_MSG));
    ORV_CTL_MSG link = ORV_LINK_TEST_MSG;
    link.toNetwork();
    EXPECT_EQ(words({0x5453543A, 0x4C494E4B, 12}, true), bytesOf(link));
}

TEST_F(FrameTest, ReversedFrameDecodesToHostOrderWithFlags)
{
    // A peer of the other byte order sends a command with a 3-byte payload.
    Bytes wire = words({0x4D53473A, MGR_PKT_CARD, 28 + 3}, true);
    const Bytes appWire = words({0x434D443A, 80011, 7, 1, SYS_UDB_SERVER, 0, 3}, true);
    wire.insert(wire.end(), appWire.begin(), appWire.end());
    wire.insert(wire.end(), {0xA1, 0xA2, 0xA3});

    ORV_CTL_MSG ctl;
    std::memcpy(&ctl, wire.data(), sizeof ctl);
    ASSERT_EQ(0x3A47534Du, ctl.getMarker()) << "reversed \"MSG:\"";
    EXPECT_TRUE(ctl.fromNetwork());
    ctl.setNetworkOrder();
    EXPECT_EQ(std::make_tuple(ctl.getMarker(), ctl.getManagerClass(), ctl.getSize()),
              std::make_tuple(std::uint32_t(ORV_MSG_MARKER), MGR_PKT_CARD, 31u));

    // The body as the reader holds it: application header, then payload.
    alignas(8) unsigned char body[sizeof(ORV_APP_MSG) + 3];
    std::memcpy(body, wire.data() + sizeof ctl, sizeof body);
    auto* app = reinterpret_cast<ORV_APP_MSG*>(body);
    EXPECT_TRUE(app->fromNetwork());
    app->setNetworkOrder();
    EXPECT_EQ(
        std::make_tuple(app->getMsgType(), app->getCmdCode(), app->getSeqNbr(), app->getCmdControl(), app->getSrcAddr(),
                        app->getAppSize()),
        std::make_tuple(MSG_COMMAND, CMD_PKT_GET_BLADE_RAW_STATS, 7u, CMD_WITH_RSP, std::uint32_t(SYS_UDB_SERVER), 3u));

    CrCmd received(ctl.getManagerClass(), app, nullptr);
    EXPECT_EQ(std::make_tuple(received.GetCmdCode(), received.GetSeqNbr(), received.GetMgrClass(), received.GetRspReq(),
                              received.isNetworkOrder()),
              std::make_tuple(CMD_PKT_GET_BLADE_RAW_STATS, 7, MGR_PKT_CARD, true, true));
    ASSERT_EQ(3, received.GetSize());
    ASSERT_TRUE(received.OwnsData());
    EXPECT_EQ(0, std::memcmp(received.GetData(), "\xA1\xA2\xA3", 3)) << "payload taken from behind the header";
    EXPECT_NE(static_cast<void*>(body + sizeof(ORV_APP_MSG)), received.GetData());
}

TEST_F(FrameTest, SizesUpToTheLimitKeepTheOrderFlag)
{
    for (bool flagged : {false, true}) {
        for (std::uint32_t s : {0u, MAX_TCP_MSG_SIZE - 1, MAX_TCP_MSG_SIZE}) {
            CrCmd big;
            big.SetCmdCode(CMD_UPDATE);
            big.SetFastData(nullptr, int(s), false);
            big.SetNetworkOrder(flagged);
            ORV_CTL_MSG ctl(big);
            ORV_APP_MSG app(big);
            EXPECT_EQ(std::make_tuple(ctl.getSize(), app.getAppSize()), std::make_tuple(s + 28, s)) << s << flagged;
            ctl.setSize(s);
            app.setAppSize(s);
            EXPECT_EQ(std::make_tuple(ctl.getSize(), app.getAppSize(), ctl.isNetworkOrder(), app.isNetworkOrder()),
                      std::make_tuple(s, s, flagged, flagged))
                << s;
        }
    }
    // A host-order size word with bit 31 set reads as flagged and masks.
    ORV_CTL_MSG odd;
    odd.size = 0x80000020;
    EXPECT_TRUE(odd.isNetworkOrder());
    EXPECT_EQ(0x20u, odd.getSize());
}

} // namespace
