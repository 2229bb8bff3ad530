// Which neighbours in one tracker batch may leave as one segment: a frame is
// held for its follower only when the follower surely goes down the same
// connections right after it, or the held frame would wait for a timer.
#include <gtest/gtest.h>

#include "Cr/CrDBTracker.h"
#include "Cr/CrOrvMsg.h"

namespace {

CrCmd* command(int addr, TCP_TYPE net = TCP_CLIENT, int client = 0)
{
    auto* cmd = new CrCmd();
    cmd->SetMsgAddr(addr);
    cmd->SetSourceNet(net);
    cmd->SetClient(client);
    return cmd;
}

TEST(TrackerBatch, OnlyAFollowingCommandDownTheSameConnectionsHoldsAFrame)
{
    static char big[1];
    struct Row {
        const char* what;
        CrCmd* next;
        bool together;
    } rows[] = {
        {"same switch, net and client", command(3), true},  {"another switch", command(4), false},
        {"another network", command(3, TCP_SERVER), false}, {"another client", command(3, TCP_CLIENT, 7), false},
        {"largest payload that is sent", command(3), true}, {"payload refused as too large", command(3), false},
    };
    rows[4].next->SetFastData(big, int(MAX_TCP_MSG_SIZE - 1), false);
    rows[5].next->SetFastData(big, int(MAX_TCP_MSG_SIZE), false);
    CrCmd* cur = command(3);
    TrackerMsg curMsg(cur);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        TrackerMsg next(r.next);
        EXPECT_EQ(tavro_internal::sentTogether(&curMsg, &next), r.together);
        delete r.next;
    }

    // Responses are matched, not sent: they neither hold nor are held for.
    auto* rsp = new CrRsp(cur);
    TrackerMsg rspMsg(rsp);
    CrCmd* same = command(3);
    TrackerMsg sameMsg(same);
    EXPECT_FALSE(tavro_internal::sentTogether(&curMsg, &rspMsg));
    EXPECT_FALSE(tavro_internal::sentTogether(&rspMsg, &sameMsg));
    delete rsp;
    delete same;
    delete cur;
}

} // namespace
