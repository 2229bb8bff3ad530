#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "Cr/CrDBCmd.h"
#include "Cr/CrOrvMsg.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Expected bytes are built here from shifts, not from the code's swapping.
bool hostIsBigEndian()
{
    const std::uint16_t one = 1;
    unsigned char first;
    std::memcpy(&first, &one, 1);
    return first == 0;
}

void putBig(Bytes& out, std::uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
}

void putLittle(Bytes& out, std::uint32_t v)
{
    for (int shift = 0; shift <= 24; shift += 8) out.push_back(static_cast<unsigned char>(v >> shift));
}

// Words as the host holds them, or each word byte-reversed ("network order").
Bytes words(std::initializer_list<std::uint32_t> ws, bool reversed)
{
    const bool big = hostIsBigEndian() != reversed;
    Bytes out;
    for (std::uint32_t w : ws) big ? putBig(out, w) : putLittle(out, w);
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

TEST_F(FrameTest, CommandHeadersInHostOrder)
{
    ORV_CTL_MSG ctl(cmd);
    ORV_APP_MSG app(cmd);

    EXPECT_EQ(words({0x4D53473A, MGR_CONN, 28 + 4}, false), bytesOf(ctl));
    EXPECT_EQ(words({0x434D443A, 10002, 42, 1, kOwnAddr, 0, 4}, false), bytesOf(app));
    EXPECT_EQ(42, cmd.GetSeqNbr()) << "the header's sequence number is written back";
    EXPECT_FALSE(ctl.isNetworkOrder());
    EXPECT_FALSE(app.isNetworkOrder());

    cmd.SetRspReq(false);
    ORV_APP_MSG noRsp(cmd);
    EXPECT_EQ(CMD_WITHOUT_RSP, noRsp.getCmdControl());
    EXPECT_EQ(43u, noRsp.getSeqNbr());
}

TEST_F(FrameTest, ResponseHeadersInHostOrder)
{
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
    ASSERT_TRUE(ctl.isNetworkOrder());
    ASSERT_TRUE(app.isNetworkOrder());
    EXPECT_EQ(32u, ctl.getSize());
    EXPECT_EQ(4u, app.getAppSize());

    // What the router does before writing the chain.
    ctl.setHostOrder();
    app.setHostOrder();
    EXPECT_TRUE(ctl.toNetwork());
    EXPECT_TRUE(app.toNetwork());
    EXPECT_EQ(words({0x4D53473A, MGR_CONN, 32}, true), bytesOf(ctl));
    EXPECT_EQ(words({0x434D443A, 10002, 42, 1, kOwnAddr, 0, 4}, true), bytesOf(app));
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
    EXPECT_EQ(std::uint32_t(ORV_MSG_MARKER), ctl.getMarker());
    EXPECT_EQ(MGR_PKT_CARD, ctl.getManagerClass());
    EXPECT_EQ(31u, ctl.getSize());

    // The body as the reader holds it: application header, then payload.
    alignas(8) unsigned char body[sizeof(ORV_APP_MSG) + 3];
    std::memcpy(body, wire.data() + sizeof ctl, sizeof body);
    auto* app = reinterpret_cast<ORV_APP_MSG*>(body);
    EXPECT_TRUE(app->fromNetwork());
    app->setNetworkOrder();
    EXPECT_EQ(MSG_COMMAND, app->getMsgType());
    EXPECT_EQ(CMD_PKT_GET_BLADE_RAW_STATS, app->getCmdCode());
    EXPECT_EQ(7u, app->getSeqNbr());
    EXPECT_EQ(CMD_WITH_RSP, app->getCmdControl());
    EXPECT_EQ(std::uint32_t(SYS_UDB_SERVER), app->getSrcAddr());
    EXPECT_EQ(3u, app->getAppSize());

    CrCmd received(ctl.getManagerClass(), app, nullptr);
    EXPECT_EQ(CMD_PKT_GET_BLADE_RAW_STATS, received.GetCmdCode());
    EXPECT_EQ(7, received.GetSeqNbr());
    EXPECT_EQ(MGR_PKT_CARD, received.GetMgrClass());
    EXPECT_TRUE(received.GetRspReq());
    EXPECT_TRUE(received.isNetworkOrder());
    ASSERT_EQ(3, received.GetSize());
    ASSERT_TRUE(received.OwnsData());
    EXPECT_EQ(0, std::memcmp(received.GetData(), "\xA1\xA2\xA3", 3)) << "payload taken from behind the header";
    EXPECT_NE(static_cast<void*>(body + sizeof(ORV_APP_MSG)), received.GetData());
}

TEST_F(FrameTest, EmptyCommandIsFortyBytes)
{
    CrCmd empty;
    empty.SetCmdCode(CMD_HEARTBEAT);
    ORV_CTL_MSG ctl(empty);
    ORV_APP_MSG app(empty);
    EXPECT_EQ(28u, ctl.getSize());
    EXPECT_EQ(0u, app.getAppSize());
    EXPECT_EQ(40u, sizeof ctl + ctl.getSize() + 0);
    EXPECT_EQ(MGR_SYMN, ctl.getManagerClass());
}

TEST(FrameHeader, LinkTestHeader)
{
    EXPECT_EQ(words({0x5453543A, 0x4C494E4B, 12}, false), bytesOf(ORV_LINK_TEST_MSG));
    ORV_CTL_MSG reversed = ORV_LINK_TEST_MSG;
    reversed.toNetwork();
    EXPECT_EQ(words({0x5453543A, 0x4C494E4B, 12}, true), bytesOf(reversed));
    EXPECT_EQ(Bytes(12, 0), bytesOf(ORV_CTL_MSG()));
    EXPECT_EQ(Bytes(28, 0), bytesOf(ORV_APP_MSG()));
}

TEST(FrameHeader, SizesKeepTheFlag)
{
    const std::uint32_t sizes[] = {0, MAX_TCP_MSG_SIZE - 1, MAX_TCP_MSG_SIZE, 0x7FFFFFFF};
    for (bool flagged : {false, true}) {
        for (std::uint32_t s : sizes) {
            ORV_CTL_MSG ctl;
            ORV_APP_MSG app;
            if (flagged) {
                ctl.setNetworkOrder();
                app.setNetworkOrder();
            }
            ctl.setSize(s);
            app.setAppSize(s);
            EXPECT_EQ(s, ctl.getSize());
            EXPECT_EQ(s, app.getAppSize());
            EXPECT_EQ(flagged, ctl.isNetworkOrder()) << s;
            EXPECT_EQ(flagged, app.isNetworkOrder()) << s;
            ctl.setHostOrder();
            app.setHostOrder();
            EXPECT_EQ(s, ctl.size);
            EXPECT_EQ(s, app.appSize);
        }
    }
    // A host-order size word with bit 31 set reads as flagged and masks.
    ORV_CTL_MSG odd;
    odd.size = 0x80000020;
    EXPECT_TRUE(odd.isNetworkOrder());
    EXPECT_EQ(0x20u, odd.getSize());
}

TEST_F(FrameTest, SizeLimitOfACommand)
{
    const struct {
        int payload;
        bool sendable;
    } cases[] = {{0, true}, {2559935, true}, {2559936, false}};
    for (const auto& c : cases) {
        CrCmd big;
        big.SetCmdCode(CMD_UPDATE);
        big.SetFastData(nullptr, c.payload, false);
        ORV_CTL_MSG ctl(big);
        ORV_APP_MSG app(big);
        EXPECT_EQ(std::uint32_t(c.payload), app.getAppSize());
        EXPECT_EQ(std::uint32_t(c.payload) + 28, ctl.getSize());
        EXPECT_EQ(c.sendable, app.getAppSize() < MAX_TCP_MSG_SIZE) << c.payload;
    }
}

TEST_F(FrameTest, ReceivedResponseKeepsFlagOnlyForUpdateCodes)
{
    const struct {
        std::uint32_t code;
        bool keeps;
    } cases[] = {{70001, true}, {70002, true}, {80001, true}, {10002, false}, {70003, false}};
    for (const auto& c : cases) {
        ORV_APP_MSG hdr;
        hdr.msgType = MSG_RESPONSE;
        hdr.cmdCode = c.code;
        hdr.seqNbr = 9;
        hdr.msgStat = RSP_BUSY;
        hdr.appError = std::uint32_t(I_ERR_SWITCH_NOT_FOUND);
        hdr.setNetworkOrder();
        const unsigned char data[] = {5, 6};
        hdr.setAppSize(sizeof data);
        CrRsp rsp(MGR_UPDT, &hdr, const_cast<unsigned char*>(data));
        EXPECT_EQ(c.keeps, rsp.isNetworkOrder()) << c.code;
        EXPECT_EQ(int(c.code), int(rsp.GetCmdCode()));
        EXPECT_EQ(9, rsp.GetSeqNbr());
        EXPECT_EQ(RSP_BUSY, rsp.GetRspStat());
        EXPECT_EQ(I_ERR_SWITCH_NOT_FOUND, rsp.GetErrorCode());
        EXPECT_EQ(MGR_UPDT, rsp.GetMgrClass());
        EXPECT_EQ(TCP_CLIENT, rsp.GetSourceNet());
        EXPECT_FALSE(rsp.GetMsgAddr().AnySlaveAddr());
        ASSERT_EQ(2, rsp.GetSize());
        EXPECT_EQ(0, std::memcmp(rsp.GetData(), data, 2));
    }
}

} // namespace
