#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "Cr/CrDBCmd.h"
#include "Cr/CrDBTracker.h"
#include "Os/UDBControl.h"

namespace {

std::string text(const SlaveAddr& a)
{
    std::ostringstream os;
    os << a;
    return os.str();
}

std::string text(const Message* m)
{
    std::ostringstream os;
    os << m;
    return os.str();
}

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

TEST(SlaveAddrTest, OutOfRangePositionsAreIgnored)
{
    SlaveAddr a = addrs({-1, 0, 127, 128, 1000});
    EXPECT_EQ(2, a.GetSlaveCount());
    EXPECT_EQ(128, a.GetMaxNumberSlaves());
    for (int i : {-1, 128, 1000}) EXPECT_FALSE(a.SlaveAddrSet(i)) << i;
    a.ClearSlaveAddr(128);
    a.ClearSlaveAddr(-1);
    EXPECT_EQ(2, a.GetSlaveCount());

    const struct {
        int start;
        int next;
    } cases[] = {{-1, -1}, {0, 0}, {1, 127}, {127, 127}, {128, -1}, {5000, -1}};
    for (const auto& c : cases) EXPECT_EQ(c.next, a.GetNextSlaveAddr(c.start)) << c.start;

    a.ClearSlaveAddr(0);
    a.ClearSlaveAddr(127);
    EXPECT_FALSE(a.AnySlaveAddr());
    EXPECT_EQ(-1, a.GetNextSlaveAddr(0));
}

TEST(SlaveAddrTest, EqualityComparesBitsOnly)
{
    EXPECT_TRUE(addrs({1, 64, 100}) == addrs({100, 64, 1}));
    EXPECT_FALSE(addrs({1}) == addrs({1, 2}));
    EXPECT_FALSE(addrs({}) == addrs({127}));
}

TEST(SlaveAddrTest, TextShowsOnlyTheFirstFivePositions)
{
    const struct {
        SlaveAddr addr;
        const char* expected;
    } cases[] = {
        {addrs({}), ""},
        {addrs({1, 2}), " 1 2"},
        {addrs({0, 4, 9}), " 0 4"},
        {addrs({7}), ""},
        {addrs({0, 1, 2, 3, 4}), " 0 1 2 3 4"},
        {addrs({0, 1, 2, 3, 4, 5}), "FIRST FIVE: 0 1 2 3 4"},
        {addrs({5, 6, 7, 8, 9, 10}), "FIRST FIVE:"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, text(c.addr));
}

TEST_F(CrDBCmdTest, SetDataCopiesAndOwns)
{
    unsigned char src[] = {1, 2, 3};
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
}

TEST_F(CrDBCmdTest, SetFastDataTakesThePointerAsItIs)
{
    unsigned char stackBuf[4] = {};
    {
        Message m;
        m.SetData(stackBuf, 4);                    // owned copy, freed by the next call
        m.SetFastData(new unsigned char[8], 8, true); // owned, freed by the destructor
        EXPECT_TRUE(m.OwnsData());
        m.SetFastData(new unsigned char[2], 2, true);
        m.SetFastData(stackBuf, 4, false); // not owned: must never be freed
        EXPECT_EQ(stackBuf, m.GetData());
        EXPECT_EQ(4, m.GetSize());
        EXPECT_FALSE(m.OwnsData());
    }
    Message keep;
    keep.SetFastData(stackBuf, 4, false);
    keep.SetData(stackBuf, 2); // the unowned buffer is dropped, not freed
    EXPECT_NE(static_cast<void*>(stackBuf), keep.GetData());
}

TEST_F(CrDBCmdTest, CommandCodeSetsManagerClassOnlyOnce)
{
    Message m;
    m.SetCmdCode(CMD_PKT_GET_BLADE_RAW_STATS);
    EXPECT_EQ(MGR_PKT_CARD, m.GetMgrClass());
    m.SetCmdCode(CMD_CONN_PORT);
    EXPECT_EQ(CMD_CONN_PORT, m.GetCmdCode());
    EXPECT_EQ(MGR_PKT_CARD, m.GetMgrClass());

    const struct {
        COMMAND_CODE code;
        MGR_CLASS mgr;
    } cases[] = {{CMD_UNDEFINED, MGR_NULL},     {CMD_CONN_PORT, MGR_CONN},        {CMD_HEARTBEAT, MGR_SYMN},
                 {CMD_FABRIC_CHECK, MGR_PKT_CONN}, {CMD_GET_BLADE_RAW_STATS, MGR_PKT_STATS}, {CMD_PCE_GET_STATS, MGR_PCE_PROC}};
    for (const auto& c : cases) {
        Message fresh;
        fresh.SetCmdCode(c.code);
        EXPECT_EQ(c.mgr, fresh.GetMgrClass()) << c.code;
    }
}

TEST_F(CrDBCmdTest, DestinationsAccumulateOrAreReplaced)
{
    Message m;
    m.SetMsgAddr(1);
    m.SetMsgAddr(2);
    EXPECT_EQ(2, m.GetMsgAddr().GetSlaveCount());
    m.SetMsgAddr(addrs({SYS_PCE_PROCESS}));
    EXPECT_EQ(addrs({26}), m.GetMsgAddr());
}

TEST_F(CrDBCmdTest, NewCommandDefaults)
{
    CrCmd cmd;
    EXPECT_EQ(CMD_UNDEFINED, cmd.GetCmdCode());
    EXPECT_FALSE(cmd.GetRspReq());
    EXPECT_TRUE(cmd.GetPriority());
    EXPECT_EQ(CrCmd::DEFAULT_TIMEOUT, cmd.GetRspTimer());
    EXPECT_EQ(TCP_CLIENT, cmd.GetSourceNet());
    EXPECT_EQ(TCP_CLIENT, cmd.GetMsgType());
    EXPECT_EQ(nullptr, cmd.GetTracker());
    EXPECT_EQ(nullptr, cmd.GetFirstRsp());
    EXPECT_EQ(nullptr, cmd.GetNextRsp());
    EXPECT_NE(0, cmd.GetTimeStruct().wYear);
}

TEST_F(CrDBCmdTest, ResponseToACommandKeepsFlagOnlyForUpdateCodes)
{
    const struct {
        COMMAND_CODE code;
        bool keeps;
    } cases[] = {{CMD_UPDT_INIT, true}, {CMD_UPDATE, true}, {CMD_PKT_CARD_INIT, true},
                 {CMD_CONN_PORT, false}, {CMD_UPDATE_RESTORE, false}};
    for (const auto& c : cases) {
        CrCmd cmd;
        cmd.SetCmdCode(c.code);
        cmd.SetSeqNbr(77);
        cmd.SetSourceNet(TCP_POLL);
        cmd.SetMsgAddr(addrs({2, 5}));
        cmd.SetNetworkOrder(true);
        const char payload[] = "xy";
        cmd.SetData(payload, 2);

        CrRsp rsp(&cmd);
        EXPECT_EQ(c.keeps, rsp.isNetworkOrder()) << c.code;
        EXPECT_EQ(c.code, rsp.GetCmdCode());
        EXPECT_EQ(77, rsp.GetSeqNbr());
        EXPECT_EQ(TCP_POLL, rsp.GetSourceNet());
        EXPECT_EQ(addrs({2, 5}), rsp.GetMsgAddr());
        EXPECT_EQ(cmd.GetMgrClass(), rsp.GetMgrClass());
        EXPECT_EQ(0, rsp.GetSize());
        EXPECT_EQ(RSP_OK, rsp.GetRspStat());
        EXPECT_EQ(I_SUCCESS, rsp.GetErrorCode());
    }
}

TEST_F(CrDBCmdTest, CommandAssignmentIsPartial)
{
    CrCmd src;
    src.SetCmdCode(CMD_PKT_GET_BLADE_RAW_STATS);
    src.SetSeqNbr(5);
    src.SetRspTimer(250);
    src.SetPriority(false);
    src.SetNetworkOrder(true);
    src.SetRspReq(true);
    src.SetMsgAddr(9);
    const unsigned char payload[] = {4, 3, 2, 1};
    src.SetData(payload, 4);

    CrCmd dst;
    dst.SetCmdCode(CMD_CONN_PORT);
    dst.SetMsgAddr(1);
    dst.AddToRspList(new CrRsp);
    dst = src;

    EXPECT_EQ(CMD_PKT_GET_BLADE_RAW_STATS, dst.GetCmdCode());
    EXPECT_EQ(5, dst.GetSeqNbr());
    EXPECT_EQ(250, dst.GetRspTimer());
    EXPECT_FALSE(dst.GetPriority());
    EXPECT_TRUE(dst.isNetworkOrder());
    ASSERT_EQ(4, dst.GetSize());
    EXPECT_NE(src.GetData(), dst.GetData());
    EXPECT_EQ(0, std::memcmp(dst.GetData(), payload, 4));
    // Untouched by design.
    EXPECT_FALSE(dst.GetRspReq());
    EXPECT_EQ(MGR_CONN, dst.GetMgrClass());
    EXPECT_EQ(addrs({1}), dst.GetMsgAddr());
    EXPECT_EQ(1, dst.GetRspCount());

    CrCmd empty;
    dst = empty;
    EXPECT_EQ(0, dst.GetSize());
    EXPECT_EQ(nullptr, dst.GetData());
    dst = dst;
    EXPECT_EQ(1, dst.GetRspCount());
}

TEST_F(CrDBCmdTest, ResponseAssignmentKeepsTheTargetsErrorCode)
{
    CrRsp src;
    src.SetCmdCode(CMD_HEARTBEAT);
    src.SetSeqNbr(3);
    src.SetSourceNet(TCP_SERVER);
    src.SetMsgAddr(4);
    src.SetRspStat(RSP_BUSY);
    src.SetErrorCode(I_FAIL);
    src.SetData("abc", 3);

    CrRsp dst;
    dst.SetErrorCode(I_ERR_NO_MEMORY);
    dst = src;
    EXPECT_EQ(CMD_HEARTBEAT, dst.GetCmdCode());
    EXPECT_EQ(3, dst.GetSeqNbr());
    EXPECT_EQ(TCP_SERVER, dst.GetSourceNet());
    EXPECT_EQ(addrs({4}), dst.GetMsgAddr());
    EXPECT_EQ(MGR_SYMN, dst.GetMgrClass());
    EXPECT_EQ(RSP_BUSY, dst.GetRspStat());
    EXPECT_EQ(I_ERR_NO_MEMORY, dst.GetErrorCode());
    ASSERT_EQ(3, dst.GetSize());
    EXPECT_NE(src.GetData(), dst.GetData());
}

TEST_F(CrDBCmdTest, MessageDump)
{
    Message blank;
    EXPECT_EQ("seqNbr[INV] cmdCode[CMD_UNDEFINED] mgrClass[MGR_NULL] 1st dstAddr[INV] ", text(&blank));

    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetSeqNbr(7);
    cmd.SetMsgAddr(12);
    cmd.SetMsgAddr(3);
    EXPECT_EQ("seqNbr[  7] cmdCode[CMD_CONN_PORT] mgrClass[MGR_CONN] 1st dstAddr[3] ", text(&cmd));

    std::unique_ptr<char[]> owned(cmd.ToString());
    EXPECT_STREQ(text(&cmd).c_str(), owned.get());

    cmd.SetSeqNbr(12345);
    cmd.SetMgrClass(MGR_CLASS(40));
    EXPECT_EQ("seqNbr[12345] cmdCode[CMD_CONN_PORT] mgrClass[UNKNOWN MGR_CLASS[40][0x00000028]] 1st dstAddr[3] ",
              text(&cmd));

    // Caller's formatting survives the dump and is not applied inside it.
    std::ostringstream os;
    os << std::hex << std::left << std::setfill('*');
    os << static_cast<const Message*>(&cmd) << 255;
    os.width(4);
    os << 1;
    EXPECT_EQ("seqNbr[12345] cmdCode[CMD_CONN_PORT] mgrClass[UNKNOWN MGR_CLASS[40][0x00000028]] 1st dstAddr[3] ff1***",
              os.str());
}

TEST_F(CrDBCmdTest, ResponseText)
{
    CrRsp rsp;
    rsp.SetCmdCode(CMD_FABRIC_CHECK);
    rsp.SetSeqNbr(12);
    rsp.SetMsgAddr(SYS_ACTIVE_CONTROLLER);
    rsp.SetRspStat(RSP_TIME_OUT);
    rsp.SetErrorCode(I_ERR_PORT_IN_GROUP);
    EXPECT_EQ("seqNbr[ 12] cmdCode[CMD_FABRIC_CHECK] mgrClass[MGR_PKT_CONN] 1st dstAddr[21] "
              "status[RSP_TIME_OUT] errCode[-407]",
              rsp.toString());
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
    for (int i = 0; i < 3; ++i) cmd.AddToRspList(new CrRsp); // freed by the destructor
}

TEST_F(CrDBCmdTest, CommandWithoutTargetIsNotSent)
{
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetRspReq(true);
    cmd.Dispatch(); // returns at once: no destination, no tracker needed
    EXPECT_EQ(nullptr, cmd.GetWaitEvent());
    EXPECT_FALSE(cmd.WaitForRsp());
}

TEST_F(CrDBCmdTest, WaitForRspWithoutResponsesWanted)
{
    CrCmd cmd;
    cmd.SetMsgAddr(1);
    EXPECT_TRUE(cmd.WaitForRsp());
}

TEST_F(CrDBCmdTest, WaitForRspReleasesTheRecordOnceAllAnswered)
{
    CrCmd cmd;
    cmd.SetRspReq(true);
    cmd.SetMsgAddr(2);
    auto* info = new TrackerInfo(&cmd);
    cmd.SetTrackerInfo(info);
    info->GetReceivedRsp().SetSlaveAddr(2);
    ASSERT_TRUE(info->ReceivedAllRsp());
    info->EventNotify();
    EXPECT_TRUE(cmd.WaitForRsp());
    EXPECT_EQ(nullptr, cmd.GetTrackerInfo());

    cmd.SetTrackerInfo(new TrackerInfo(&cmd)); // replaced and freed by the destructor
    cmd.SetTrackerInfo(new TrackerInfo(&cmd));
}

// Dispatch and WaitForRsp against a running tracker; the tracker's body runs
// on a thread the test owns so that it can be joined.
class DispatchTest : public CrDBCmdTest {
protected:
    void SetUp() override
    {
        CrDBCmdTest::SetUp();
        tracker = new CrTracker;
        UDBControl::InsertClassRef(SMN_TRACKER, tracker);
        body = std::thread([this] { tracker->Run(nullptr); });
    }
    void TearDown() override
    {
        tracker->SignalShutdown();
        body.join();
        delete tracker;
        CrDBCmdTest::TearDown();
    }

    CrRsp* answer(CrCmd& cmd, int addr, RSP_STATUS status)
    {
        auto* rsp = new CrRsp(&cmd);
        rsp->SetMsgAddr(SlaveAddr());
        rsp->SetMsgAddr(addr);
        rsp->SetRspStat(status);
        return rsp;
    }

    CrTracker* tracker = nullptr;
    std::thread body;
};

TEST_F(DispatchTest, EveryDestinationAnswers)
{
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetMsgAddr(addrs({1, 2}));
    cmd.SetRspReq(true);
    cmd.SetRspTimer(-1);
    cmd.SetSeqNbr(31);
    ASSERT_EQ(tracker, cmd.GetTracker());
    cmd.Dispatch();
    ASSERT_NE(nullptr, cmd.GetTrackerInfo()) << "registered before Dispatch returns";

    tracker->ReceiveRsp(answer(cmd, 2, RSP_OK));
    tracker->ReceiveRsp(answer(cmd, 2, RSP_ERROR)); // duplicate: orphan, destroyed
    tracker->ReceiveRsp(answer(cmd, 1, RSP_NAK));
    tracker->ReceiveRsp(nullptr);
    EXPECT_TRUE(cmd.WaitForRsp());
    EXPECT_EQ(nullptr, cmd.GetTrackerInfo());
    EXPECT_EQ(2, cmd.GetRspCount());
    EXPECT_EQ(RSP_NAK, cmd.GetRsp(1)->GetRspStat());
    EXPECT_EQ(RSP_OK, cmd.GetRsp(2)->GetRspStat());
}

TEST_F(DispatchTest, MissingAnswersTimeOut)
{
    CrCmd cmd;
    cmd.SetCmdCode(CMD_HEARTBEAT);
    cmd.SetMsgAddr(addrs({3, 40}));
    cmd.SetRspReq(true);
    cmd.SetRspTimer(0);
    cmd.Dispatch();
    EXPECT_TRUE(cmd.WaitForRsp());
    ASSERT_EQ(2, cmd.GetRspCount());
    for (int addr : {3, 40}) {
        CrRsp* rsp = cmd.GetRsp(addr);
        ASSERT_NE(nullptr, rsp) << addr;
        EXPECT_EQ(RSP_TIME_OUT, rsp->GetRspStat());
        EXPECT_EQ(1, rsp->GetMsgAddr().GetSlaveCount());
        EXPECT_EQ(CMD_HEARTBEAT, rsp->GetCmdCode());
    }
}

TEST_F(DispatchTest, CommandWithoutResponsesIsNotListed)
{
    CrCmd cmd;
    cmd.SetCmdCode(CMD_CONN_PORT);
    cmd.SetMsgAddr(5);
    cmd.Dispatch();
    cmd.Dispatch(); // the wait event is made once and reused
    EXPECT_NE(nullptr, cmd.GetWaitEvent());
    EXPECT_EQ(nullptr, cmd.GetTrackerInfo());
    EXPECT_TRUE(cmd.WaitForRsp());
}

} // namespace
