#include "Cr/CrDBTracker.h"

#include <sstream>
#include <vector>

#include "Common/OS/Linux/HandlePool.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsSocket.h"
#include "Common/Utility/UtlDebug.h"
#include "Io/IoDBRouter.h"
#include "Os/UDBControl.h"

// ---------------------------------------------------------------- TrackerQue

TrackerQue::~TrackerQue()
{
    while (!Empty()) delete static_cast<TrackerMsg*>(GetNext(true));
}

// ---------------------------------------------------------------- TrackerInfo

TrackerInfo::TrackerInfo(CrCmd* cmd)
    : pCmd(cmd), rspEvent(tavro_internal::borrowEvent(true)), infoLock(CreateMutex(nullptr, FALSE, nullptr))
{
    if (cmd != nullptr) expectedRsp = cmd->GetMsgAddr();
}

TrackerInfo::~TrackerInfo()
{
    tavro_internal::returnEvent(rspEvent, true);
    CloseHandle(infoLock);
}

void TrackerInfo::Lock()
{
    WaitForSingleObject(infoLock, INFINITE);
}

void TrackerInfo::Unlock()
{
    ReleaseMutex(infoLock);
}

void TrackerInfo::EventNotify()
{
    SetEvent(rspEvent);
}

void TrackerInfo::WaitForRsp(int timeoutMs)
{
    if (WaitForSingleObject(rspEvent, DWORD(timeoutMs)) == WAIT_TIMEOUT) {
        TimeoutAction();
        WaitForSingleObject(rspEvent, INFINITE);
    }
    ResetEvent(rspEvent);
}

void TrackerInfo::TimeoutAction()
{
    std::ostringstream os;
    os << "TimeoutAction"
       << " TIMED OUT WAITING FOR RESPONSE: " << static_cast<const Message*>(pCmd) << "\n";
    debugOut(os.str().c_str());

    CrTracker* tracker = pCmd->GetTracker() ? pCmd->GetTracker() : CrTracker::getIt();
    Lock();
    for (int i = 0; i < expectedRsp.GetMaxNumberSlaves(); ++i) {
        if (!expectedRsp.SlaveAddrSet(i) || receivedRsp.SlaveAddrSet(i)) continue;
        auto* rsp = new CrRsp(pCmd);
        SlaveAddr only;
        only.SetSlaveAddr(i);
        rsp->SetMsgAddr(only);
        rsp->SetRspStat(RSP_TIME_OUT);
        if (tracker != nullptr) {
            tracker->ReceiveRsp(rsp);
        } else {
            delete rsp;
        }
    }
    Unlock();
}

// ---------------------------------------------------------------- CrTracker

bool tavro_internal::sentTogether(const TrackerMsg* cur, const TrackerMsg* next)
{
    if (cur->GetTrackerType() != TRACKER_CMD || next->GetTrackerType() != TRACKER_CMD) return false;
    const CrCmd* a = cur->GetCmd();
    const CrCmd* b = next->GetCmd();
    return a != nullptr && b != nullptr && a->GetMsgAddr() == b->GetMsgAddr() &&
           a->GetSourceNet() == b->GetSourceNet() && a->GetClient() == b->GetClient() && IoRouter::FitsOnWire(*b);
}

CrTracker::CrTracker()
    : OsThread("CrTracker", STACK_SIZE), listLock(CreateMutex(nullptr, FALSE, nullptr)), pTracker(new TrackerQue)
{
}

CrTracker::~CrTracker()
{
    delete pTracker;
    for (TrackerInfo* info : trackerList) delete info;
    trackerList.clear();
    CloseHandle(listLock);
    if (hExitNotify != nullptr) SetEvent(hExitNotify);
}

std::size_t CrTracker::PendingCount()
{
    WaitForSingleObject(listLock, INFINITE);
    const std::size_t n = trackerList.size();
    ReleaseMutex(listLock);
    return n;
}

CrTracker* CrTracker::getIt()
{
    return static_cast<CrTracker*>(UDBControl::GetClassRef(SMN_TRACKER));
}

bool CrTracker::AddToQueue(TrackerMsg* msg)
{
    return pTracker->AddToQueue(msg, UtlQueue::WAIT_IF_OVERFLOW);
}

void CrTracker::ReceiveRsp(CrRsp* rsp)
{
    if (rsp == nullptr) {
        debugOut("  Tracker: Received bad message\r\n");
        return;
    }
    auto* msg = new TrackerMsg(rsp);
    if (!AddToQueue(msg)) {
        delete msg;
        delete rsp;
    }
}

void CrTracker::WaitForRsp(TrackerInfo* info)
{
    if (info == nullptr) return;
    CrCmd* cmd = info->GetCmd();
    info->WaitForRsp(cmd->GetRspTimer());
    cmd->SetTrackerInfo(nullptr);
}

void* CrTracker::Execute(void*)
{
    // Everything that waits is taken in one go: one wake-up and one lock for
    // a burst of commands and responses, handled in queue order.
    std::vector<void*> batch;
    while (ContinueRunning()) {
        if (!pTracker->WaitNotEmpty(POLL_MS)) continue;
        pTracker->TakeAll(batch);
        std::size_t i = 0;
        while (i < batch.size()) {
            auto* msg = static_cast<TrackerMsg*>(batch[i++]);
            const tavro_internal::FrameFollows follows(
                i < batch.size() && tavro_internal::sentTogether(msg, static_cast<TrackerMsg*>(batch[i])));
            ProcessMsg(msg);
            if (!ContinueRunning()) break;
        }
        // Stopped half-way: the rest goes as the queue's destructor takes it.
        for (; i < batch.size(); ++i) delete static_cast<TrackerMsg*>(batch[i]);
        batch.clear();
    }
    return nullptr;
}

void CrTracker::ProcessMsg(TrackerMsg* msg)
{
    if (msg == nullptr) return;
    switch (msg->GetTrackerType()) {
    case TRACKER_CMD: ProcessCmdMsg(msg->GetCmd()); break;
    case TRACKER_RSP: ProcessRspMsg(msg->GetRsp()); break;
    default: debugOut("  Tracker: Unknown Cmd Type\n"); break;
    }
    delete msg;
}

void CrTracker::ProcessCmdMsg(CrCmd* cmd)
{
    if (cmd == nullptr) return;
    if (cmd->GetRspReq()) {
        auto* info = new TrackerInfo(cmd);
        cmd->SetTrackerInfo(info);
        WaitForSingleObject(listLock, INFINITE);
        trackerList.push_back(info);
        ReleaseMutex(listLock);
    }
    // Sent or dropped, the command goes to the router either way; a command
    // that nobody reached simply times out.
    IoRouter* router = IoRouter::getIt();
    if (router != nullptr) router->SendCmd(cmd);
    // Releases the sender, who may destroy cmd at once: the last touch.
    cmd->EventNotify();
}

void CrTracker::ProcessRspMsg(CrRsp* rsp)
{
    const int addr = rsp->GetMsgAddr().GetNextSlaveAddr(0);
    bool taken = false;

    WaitForSingleObject(listLock, INFINITE);
    for (auto it = trackerList.begin(); it != trackerList.end(); ++it) {
        TrackerInfo* info = *it;
        CrCmd* cmd = info->GetCmd();
        if (cmd->GetCmdCode() != rsp->GetCmdCode() || cmd->GetSeqNbr() != rsp->GetSeqNbr() ||
            !info->ExpectedRsp(addr)) {
            continue;
        }
        bool complete = false;
        info->Lock();
        if (!info->GetReceivedRsp().SlaveAddrSet(addr)) {
            info->GetReceivedRsp().SetSlaveAddr(addr);
            cmd->AddToRspList(rsp);
            taken = true;
            complete = info->ReceivedAllRsp();
        }
        info->Unlock();
        if (complete) {
            // The sender destroys the record as soon as it wakes: signal last.
            trackerList.erase(it);
            info->EventNotify();
        }
        break;
    }
    ReleaseMutex(listLock);

    if (!taken) {
        debugOutf("  Orphan RSP: %x, Swi: %d, Status: %x\r\n", unsigned(rsp->GetCmdCode()), addr,
                  unsigned(rsp->GetRspStat()));
        delete rsp;
    }
}
