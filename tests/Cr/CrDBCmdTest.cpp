#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>

#include "Cr/CrDBCmd.h"
#include "Cr/CrDBTracker.h"
#include "Cr/CrOrvMsg.h"
#include "Os/UDBControl.h"
#include "TestSupport.h"

using tavro_test::text;

namespace {

SlaveAddr addrs(std::initializer_list<int> positions)
{
    SlaveAddr a;
    for (int p : positions) a.SetSlaveAddr(p);
    return a;
}

class CrDBCmdTest : public ::testing::Test {
protected:
    void SetUp() override { UDBControl::ResetStaticsForTest(); }
    void TearDown() override { UDBControl::ResetStaticsForTest(); }
};

TEST(SlaveAddrTest, OutOfRangePositionsAreIgnoredAndEqualityComparesBits)
{
    SlaveAddr a = addrs({-1, 0, 127, 128, 1000});
    EXPECT_EQ(2, a.GetSlaveCount());
    EXPECT_EQ(128, a.GetMaxNumberSlaves());
    for (int i : {-1, 128, 1000}) EXPECT_FALSE(a.SlaveAddrSet(i)) << i;
    a.ClearSlaveAddr(128);
    a.ClearSlaveAddr(-1);
    EXPECT_EQ(2, a.GetSlaveCount());
    const int next[][2] = {{-1, -1}, {0, 0}, {1, 127}, {127, 127}, {128, -1}, {5000, -1}};
    for (const auto& c : next) EXPECT_EQ(c[1], a.GetNextSlaveAddr(c[0])) << c[0];
    a.ClearSlaveAddr(0);
    a.ClearSlaveAddr(127);
    EXPECT_FALSE(a.AnySlaveAddr());
    EXPECT_EQ(-1, a.GetNextSlaveAddr(0));

    EXPECT_TRUE(addrs({1, 64, 100}) == addrs({100, 64, 1}));
    EXPECT_FALSE(addrs({1}) == addrs({1, 2}));
    EXPECT_FALSE(addrs({}) == addrs({127}));

    // The text shows only the first five positions.
    const std::pair<SlaveAddr, const char*> texts[] = {{addrs({}), ""},
                                                       {addrs({1, 2}), " 1 2"},
                                                       {addrs({0, 4, 9}), " 0 4"},
                                                       {addrs({0, 1, 2, 3, 4}), " 0 1 2 3 4"},
                                                       {addrs({0, 1, 2, 3, 4, 5}), "FIRST FIVE: 0 1 2 3 4"},
                                                       {addrs({5, 6, 7, 8, 9, 10}), "FIRST FIVE:"}};
    for (const auto& c : texts) EXPECT_EQ(c.second, text(c.first));
}

TEST_F(CrDBCmdTest, DataOwnershipCommandCodeAndDestinations)
{
    unsigned char src[] = {1, 2, 3};
    {
        Message m;
        m.SetData(src, sizeof src);
        src[0] = 9;
        ASSERT_EQ(3, m.GetSize());
        EXPECT_TRUE(m.OwnsData());
        EXPECT_EQ(1, static_cast<unsigned char*>(m.GetData())[0]) << "a copy, not the caller's buffer";
        for (int empty : {0, -4}) {
            m.SetData(src, sizeof src);
            m.SetData(src, empty);
            EXPECT_EQ(nullptr, m.GetData());
            EXPECT_EQ(0, m.GetSize());
            EXPECT_FALSE(m.OwnsData());
        }
        m.SetData(src, 3);                            // owned copy, freed by the next call
        m.SetFastData(new unsigned char[8], 8, true); // owned, freed by the next call
        EXPECT_TRUE(m.OwnsData());
        m.SetFastData(src, 3, false); // not owned: must never be freed
        EXPECT_EQ(src, m.GetData());
        EXPECT_EQ(3, m.GetSize());
        EXPECT_FALSE(m.OwnsData());
    }
    Message keep;
    keep.SetFastData(src, 3, false);
    keep.SetData(src, 2); // the unowned buffer is dropped, not freed
    EXPECT_NE(static_cast<void*>(src), keep.GetData());
    keep.SetFastData(new unsigned char[2], 2, true); // freed by the destructor

    Message m;
    m.SetCmdCode(CMD_PKT_GET_BLADE_RAW_STATS);
    m.SetCmdCode(CMD_CONN_PORT);
    EXPECT_EQ(CMD_CONN_PORT, m.GetCmdCode());
    EXPECT_EQ(MGR_PKT_CARD, m.GetMgrClass());
    m.SetMsgAddr(1);
    m.SetMsgAddr(2);
    EXPECT_EQ(addrs({1, 2}), m.GetMsgAddr());
    m.SetMsgAddr(addrs({SYS_PCE_PROCESS}));
    EXPECT_EQ(addrs({26}), m.GetMsgAddr());
}

// A response keeps the network-order flag only for update and packet-card
// initialisation codes, whether made for a command or received.
TEST_F(CrDBCmdTest, ResponseKeepsTheOrderFlagOnlyForUpdateCodes)
{
    const std::pair<COMMAND_CODE, bool> cases[] = {
        {CMD_UPDT_INIT, true}, {CMD_UPDATE, true}, {CMD_PKT_CARD_INIT, true}, {CMD_UPDATE_RESTORE, false}};
    for (const auto& [code, keeps] : cases) {
        SCOPED_TRACE(code);
        CrCmd cmd;
        cmd.SetCmdCode(code);
        cmd.SetSeqNbr(77);
        cmd.SetSourceNet(TCP_POLL);
        cmd.SetMsgAddr(addrs({2, 5}));
        cmd.SetNetworkOrder(true);
        cmd.SetData("xy", 2);
        CrRsp rsp(&cmd);
        EXPECT_EQ(keeps, rsp.isNetworkOrder());
        EXPECT_EQ("seqNbr[ 77] cmdCode[" + text(code) + "] mgrClass[" + text(cmd.GetMgrClass()) +
                      "] 1st dstAddr[2] status[RSP_OK] errCode[0]",
                  rsp.toString());
        EXPECT_EQ(addrs({2, 5}), rsp.GetMsgAddr());
        EXPECT_EQ(std::make_tuple(rsp.GetSourceNet(), rsp.GetSize()), std::make_tuple(TCP_POLL, 0));
        ORV_APP_MSG hdr;
        hdr.msgType = MSG_RESPONSE;
        hdr.cmdCode = code;
        hdr.seqNbr = 9;
        hdr.msgStat = RSP_BUSY;
        hdr.appError = std::uint32_t(I_ERR_SWITCH_NOT_FOUND);
        hdr.setNetworkOrder();
        unsigned char data[] = {5, 6};
        hdr.setAppSize(sizeof data);
        CrRsp got(MGR_UPDT, &hdr, data);
        EXPECT_EQ(keeps, got.isNetworkOrder());
        EXPECT_EQ("seqNbr[  9] cmdCode[" + text(code) +
                      "] mgrClass[MGR_UPDT] 1st dstAddr[INV] status[RSP_BUSY] errCode[-201]",
                  got.toString());
        EXPECT_EQ(TCP_CLIENT, got.GetSourceNet());
        ASSERT_EQ(2, got.GetSize());
        EXPECT_EQ(0, std::memcmp(got.GetData(), data, 2));
    }
}

TEST_F(CrDBCmdTest, AssignmentsArePartial)
{
    CrCmd src;
    src.SetCmdCode(CMD_PKT_GET_BLADE_RAW_STATS);
    src.SetSeqNbr(5);
    src.SetRspTimer(250);
    src.SetPriority(false);
    src.SetNetworkOrder(true);
    src.SetRspReq(true);
    src.SetMsgAddr(9);
    src.SetData("\4\3\2\1", 4);
    CrCmd dst;
    dst.SetCmdCode(CMD_CONN_PORT);
    dst.SetMsgAddr(1);
    dst.AddToRspList(new CrRsp);
    dst = src;
    // Code, sequence, time-out, priority, order and payload are copied; the
    // rest (rspReq, manager class, destinations, responses) by design not.
    EXPECT_EQ("seqNbr[  5] cmdCode[CMD_PKT_GET_BLADE_RAW_STATS] mgrClass[MGR_CONN] 1st dstAddr[1] ", text(&dst));
    EXPECT_EQ(addrs({1}), dst.GetMsgAddr());
    EXPECT_EQ(std::make_tuple(dst.GetRspTimer(), dst.GetPriority(), dst.isNetworkOrder(), dst.GetRspReq(),
                              dst.GetRspCount(), dst.GetSize()),
              std::make_tuple(250, false, true, false, 1, 4));
    EXPECT_NE(src.GetData(), dst.GetData());
    EXPECT_EQ(0, std::memcmp(dst.GetData(), "\4\3\2\1", 4));
    dst = CrCmd();
    EXPECT_EQ(std::make_tuple(dst.GetSize(), dst.GetData()), std::make_tuple(0, static_cast<void*>(nullptr)));
    dst = dst;
    EXPECT_EQ(1, dst.GetRspCount());

    CrRsp rsrc;
    rsrc.SetCmdCode(CMD_HEARTBEAT);
    rsrc.SetSeqNbr(3);
    rsrc.SetSourceNet(TCP_SERVER);
    rsrc.SetMsgAddr(4);
    rsrc.SetRspStat(RSP_BUSY);
    rsrc.SetErrorCode(I_FAIL);
    rsrc.SetData("abc", 3);
    CrRsp rdst;
    rdst.SetErrorCode(I_ERR_NO_MEMORY);
    rdst = rsrc; // the target keeps its error code
    EXPECT_EQ("seqNbr[  3] cmdCode[CMD_HEARTBEAT] mgrClass[MGR_SYMN] 1st dstAddr[4] status[RSP_BUSY] errCode[-227]",
              rdst.toString());
    EXPECT_EQ(std::make_tuple(rdst.GetSourceNet(), rdst.GetSize()), std::make_tuple(TCP_SERVER, 3));
    EXPECT_NE(rsrc.GetData(), rdst.GetData());
}

TEST_F(CrDBCmdTest, MessageText)
{
    Message blank;
    EXPECT_EQ("seqNbr[INV] cmdCode[CMD_UNDEFINED] mgrClass[MGR_NULL] 1st dstAddr[INV] ", text(&blank));

    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetSeqNbr(7);
    cmd.SetMsgAddr(12);
    cmd.SetMsgAddr(0); // the lowest address is a destination like any other
    EXPECT_EQ("seqNbr[  7] cmdCode[CMD_CONN_PORT] mgrClass[MGR_CONN] 1st dstAddr[0] ", text(&cmd));
    std::unique_ptr<char[]> owned(cmd.ToString());
    EXPECT_STREQ(text(&cmd).c_str(), owned.get());

    // Caller's formatting survives the dump and is not applied inside it.
    cmd.SetSeqNbr(12345);
    cmd.SetMgrClass(MGR_CLASS(40));
    std::ostringstream os;
    os << std::hex << std::left << std::setfill('*');
    os << static_cast<const Message*>(&cmd) << 255;
    os.width(4);
    os << 1;
    EXPECT_EQ("seqNbr[12345] cmdCode[CMD_CONN_PORT] mgrClass[UNKNOWN MGR_CLASS[40][0x00000028]] 1st dstAddr[0] ff1***",
              os.str());
}

TEST_F(CrDBCmdTest, ResponseListIsIteratedAndOwned)
{
    CrCmd cmd;
    for (int addr : {4, 1, 9}) {
        auto* rsp = new CrRsp;
        rsp->SetMsgAddr(addr);
        cmd.AddToRspList(rsp);
    }
    std::string order;
    for (CrRsp* r = cmd.GetFirstRsp(); r != nullptr; r = cmd.GetNextRsp())
        order += std::to_string(r->GetMsgAddr().GetNextSlaveAddr(0)) + ",";
    EXPECT_EQ("4,1,9,", order);
    EXPECT_EQ(nullptr, cmd.GetNextRsp()) << "stays at the end";
    EXPECT_EQ(1, cmd.GetRsp(1)->GetMsgAddr().GetNextSlaveAddr(0));
    EXPECT_EQ(nullptr, cmd.GetRsp(2));

    // EraseRsp hands the responses over to the caller.
    std::unique_ptr<CrRsp> taken[] = {std::unique_ptr<CrRsp>(cmd.GetRsp(4)), std::unique_ptr<CrRsp>(cmd.GetRsp(1)),
                                      std::unique_ptr<CrRsp>(cmd.GetRsp(9))};
    cmd.EraseRsp();
    EXPECT_EQ(0, cmd.GetRspCount());
    EXPECT_EQ(nullptr, cmd.GetRsp(4));

    // Emptied either way, the list is walked again from its start.
    const auto refill = [&cmd] {
        CrRsp* second = nullptr;
        for (int i = 0; i < 3; ++i) {
            auto* r = new CrRsp; // freed by PurgeRsp or the destructor
            if (i == 1) second = r;
            cmd.AddToRspList(r);
        }
        return second;
    };
    CrRsp* second = refill();
    EXPECT_EQ(second, cmd.GetNextRsp()) << "after EraseRsp";
    while (cmd.GetNextRsp() != nullptr) {
    }
    cmd.PurgeRsp();
    second = refill();
    EXPECT_EQ(second, cmd.GetNextRsp()) << "after PurgeRsp";
}

TEST_F(CrDBCmdTest, CommandWithoutTargetIsNotSentAndOneFromAFrameGetsTheDefaults)
{
    CrTracker tracker; // never started: a command queued to it would hang Dispatch
    UDBControl::InsertClassRef(SMN_TRACKER, &tracker);
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetRspReq(true);
    testing::internal::CaptureStdout();
    cmd.Dispatch();
    EXPECT_EQ("  CMD: 2712 has no target address\r\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(nullptr, cmd.GetWaitEvent());
    EXPECT_FALSE(cmd.WaitForRsp());
    EXPECT_EQ(0u, tracker.PendingCount());

    // A command made from a received frame is a command like any other: the
    // default time-out, the registered tracker, and a response list it frees
    // (LeakSanitizer watches).
    ORV_APP_MSG hdr;
    hdr.msgType = MSG_COMMAND;
    hdr.cmdCode = CMD_CONN_PORT;
    hdr.seqNbr = 5;
    hdr.msgStat = CMD_WITH_RSP;
    unsigned char data[] = {1, 2, 3};
    hdr.setAppSize(sizeof data);
    CrCmd got(MGR_CONN, &hdr, data);
    EXPECT_EQ(std::make_tuple(UDBControl::GetDefaultMsgTimeout(), &tracker, 5, true, 3),
              std::make_tuple(got.GetRspTimer(), got.GetTracker(), got.GetSeqNbr(), got.GetRspReq(), got.GetSize()));
    EXPECT_EQ(0, std::memcmp(got.GetData(), data, 3));
    for (int i = 0; i < 3; ++i) got.AddToRspList(new CrRsp);
    EXPECT_EQ(3, got.GetRspCount());
}

} // namespace
