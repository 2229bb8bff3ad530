#include "Io/IoDBRouter.h"

#include <cstring>
#include <sstream>

#include "Common/OS/Linux/WinEvent.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlTraceLine.h"
#include "Common/Utility/UtlQueue.h"
#include "Io/IoRouteTable.h"
#include "Os/UDBControl.h"

namespace {

// Largest payload a message may carry.
constexpr std::uint32_t MAX_APP_SIZE = MAX_TCP_MSG_SIZE - 1;

// Both headers go out in the peer's order when the payload already is.
void headersToNetwork(ORV_CTL_MSG& ctl, ORV_APP_MSG& app)
{
    ctl.setHostOrder();
    app.setHostOrder();
    ctl.toNetwork();
    app.toNetwork();
}

} // namespace

// ---------------------------------------------------------------- LogonList

LogonCtl::~LogonCtl()
{
    for (API_EVENT_PKT* pkt : pendingEvents) delete pkt;
}

LogonList::~LogonList()
{
    for (LogonCtl* logon : logons) delete logon;
}

// ---------------------------------------------------------------- IoRouter

IoRouter::IoRouter()
    : OsThread("IoRouter", STACK_SIZE), pUDBCtl(UDBControl::getIt()), pApiRoute(RouteTable::getIt(SMN_API_TABLE)),
      pSwiRoute(RouteTable::getIt(SMN_SWI_TABLE)), pPollRoute(RouteTable::getIt(SMN_POLL_TABLE)),
      pEventQue(new UtlQueue("EventQueue", EVENT_QUEUE_SIZE))
{
}

IoRouter::IoRouter(RouteTable* api, RouteTable* swi, RouteTable* poll)
    : OsThread("IoRouter", STACK_SIZE), pUDBCtl(UDBControl::getIt()), pApiRoute(api), pSwiRoute(swi), pPollRoute(poll),
      pEventQue(new UtlQueue("EventQueue", EVENT_QUEUE_SIZE))
{
}

IoRouter::~IoRouter()
{
    // The queue would free leftovers as raw storage; they are commands.
    while (!pEventQue->Empty()) delete static_cast<CrCmd*>(pEventQue->GetNext(true));
    delete pEventQue;
    if (hExitNotify != nullptr) SetEvent(hExitNotify);
}

IoRouter* IoRouter::getIt()
{
    return static_cast<IoRouter*>(UDBControl::GetClassRef(SMN_IOR));
}

void IoRouter::establishTcpBufferDescriptors(TCP_BD* bd, ORV_CTL_MSG& ctl, ORV_APP_MSG& app, void* data,
                                             const char* caller)
{
    (void)caller;
    const std::uint32_t appSize = app.getAppSize();
    bd[0].pBuf = &ctl;
    bd[0].size = sizeof(ORV_CTL_MSG);
    bd[0].pNextBD = &bd[1];
    bd[1].pBuf = &app;
    bd[1].size = sizeof(ORV_APP_MSG);
    bd[1].pNextBD = (appSize != 0 && data != nullptr) ? &bd[2] : nullptr;
    bd[2].pBuf = data;
    bd[2].size = static_cast<std::int32_t>(appSize);
    bd[2].pNextBD = nullptr;
}

int IoRouter::SendCmd(CrCmd* cmd)
{
    if (cmd == nullptr) return SEND_NULL;
    return SendR700Cmd(cmd);
}

bool IoRouter::FitsOnWire(const CrCmd& cmd)
{
    // The size ORV_APP_MSG(cmd) takes, without drawing a sequence number.
    return std::uint32_t(cmd.GetSize()) <= MAX_APP_SIZE;
}

int IoRouter::SendR700Cmd(CrCmd* cmd)
{
    ORV_CTL_MSG ctl(*cmd);
    ORV_APP_MSG app(*cmd);
    if (app.getAppSize() > MAX_APP_SIZE) {
        UTL_TRACE("SendR700Cmd"
                  << ": MESSAGE TOO LARGE.  appSize[" << app.getAppSize() << "] greater than MAX_TCP_MSG_SIZE["
                  << MAX_TCP_MSG_SIZE << "].  MESSAGE NOT SENT!\n");
        return SEND_TOO_LARGE;
    }
    TCP_BD bd[3];
    establishTcpBufferDescriptors(bd, ctl, app, cmd->GetData(), "SendR700Cmd");
    if (ctl.isNetworkOrder()) headersToNetwork(ctl, app);
    return SendMsg(bd, cmd->GetMsgAddr(), cmd->GetSourceNet(), cmd->GetClient());
}

int IoRouter::SendRsp(CrRsp* rsp)
{
    if (rsp == nullptr) return SEND_NULL;
    return SendR700Rsp(rsp);
}

int IoRouter::SendR700Rsp(CrRsp* rsp)
{
    ORV_CTL_MSG ctl(*rsp);
    ORV_APP_MSG app(*rsp);
    // Responses to API and telnet clients are not limited, and an oversized
    // one to anybody else is dropped without a word.
    const TCP_TYPE net = rsp->GetSourceNet();
    if (net != TCP_SERVER && net != TCP_TELNET && app.getAppSize() > MAX_APP_SIZE) return SEND_TOO_LARGE;
    TCP_BD bd[3];
    establishTcpBufferDescriptors(bd, ctl, app, rsp->GetData(), "SendR700Rsp");
    if (ctl.isNetworkOrder()) headersToNetwork(ctl, app);
    // Responses always resolve by switch number.
    return SendMsg(bd, rsp->GetMsgAddr(), net, 0);
}

int IoRouter::SendMsg(TCP_BD* chain, const SlaveAddr& dst, TCP_TYPE type, int client)
{
    int result = SEND_NO_ROUTE;
    if (!dst.AnySlaveAddr()) return result;
    SlaveAddr left = dst;
    for (int nbr = left.GetNextSlaveAddr(0); left.AnySlaveAddr(); nbr = left.GetNextSlaveAddr(0)) {
        left.ClearSlaveAddr(nbr);
        NetSocketHdl hdl(this);
        hdl.SelectSocket(type, client, nbr);
        if (hdl.TcpSend(chain)) result = SEND_OK;
    }
    return result;
}

int IoRouter::SendEvent(void* data, int size)
{
    auto* cmd = new CrCmd();
    cmd->SetCmdCode(CMD_API_EVENT);
    cmd->SetRspReq(false);
    cmd->SetData(data, size);
    if (!pEventQue->AddToQueue(cmd, UtlQueue::WAIT_IF_OVERFLOW)) delete cmd;
    return 0;
}

void* IoRouter::Execute(void*)
{
    auto* logons = static_cast<LogonList*>(UDBControl::GetClassRef(SMN_LOGON_CTL));
    while (ContinueRunning()) {
        if (!pEventQue->WaitNotEmpty(POLL_MS)) continue;
        auto* item = static_cast<CrCmd*>(pEventQue->GetNext(true));
        if (item == nullptr) continue;
        HANDLE eventlock = pUDBCtl != nullptr ? pUDBCtl->GetEventLock() : nullptr;
        if (eventlock != nullptr) WaitForSingleObject(eventlock, INFINITE);
        FanOutEvent(item, logons);
        if (eventlock != nullptr) ReleaseMutex(eventlock);
        delete item;
    }
    return nullptr;
}

void IoRouter::FanOutEvent(CrCmd* item, LogonList* logons)
{
    // Shorter items are padded, so the packet and the item's payload are
    // always whole packets for the conversions below.
    API_EVENT_PKT pkt;
    std::memset(static_cast<void*>(&pkt), 0, sizeof pkt);
    const int have = item->GetSize();
    if (item->GetData() != nullptr && have > 0)
        std::memcpy(static_cast<void*>(&pkt), item->GetData(), have < int(sizeof pkt) ? std::size_t(have) : sizeof pkt);
    if (have != int(sizeof pkt)) item->SetData(&pkt, int(sizeof pkt));
    if (logons == nullptr) return;

    const SlaveAddr& hostOrder = logons->GetBroadcastEndian(false);
    if (hostOrder.AnySlaveAddr()) {
        item->SetNetworkOrder(false);
        item->SetMsgAddr(hostOrder);
        item->SetSourceNet(TCP_SERVER);
        item->SetRspReq(false);
        SendCmd(item);
    }
    const SlaveAddr& netOrder = logons->GetBroadcastEndian(true);
    if (netOrder.AnySlaveAddr()) {
        static_cast<API_EVENT_PKT*>(item->GetData())->Swap();
        item->SetNetworkOrder(true);
        item->SetMsgAddr(netOrder);
        item->SetSourceNet(TCP_SERVER);
        item->SetRspReq(false);
        SendCmd(item);
    }
    for (LogonCtl* logon : logons->Logons()) {
        if (!logon->logonInProgress || logon->tcpType == TCP_TELNET) continue;
        auto* copy = new API_EVENT_PKT;
        std::memcpy(static_cast<void*>(copy), &pkt, sizeof pkt);
        logon->pendingEvents.push_back(copy);
    }
}
