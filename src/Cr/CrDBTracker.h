#pragma once

// The command tracker: one thread through which every outgoing command passes
// and every incoming response is matched to the command that asked for it.
#include <cstddef>
#include <list>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
#include "Common/Utility/UtlQueue.h"
#include "Cr/CrDBCmd.h"

enum TRACKER_TYPE {
    TRACKER_NONE = 0,
    TRACKER_CMD = 1,
    TRACKER_RSP = 2,
    TRACKER_TIMEOUT = 3, // defined, never produced
};

// Queue element; the tracker destroys it after handling, never what it points to.
class TrackerMsg {
public:
    explicit TrackerMsg(CrCmd* cmd) : trackerType(TRACKER_CMD), pCmd(cmd) {}
    explicit TrackerMsg(CrRsp* rsp) : trackerType(TRACKER_RSP), pCmd(rsp) {}

    CrCmd* GetCmd() const { return static_cast<CrCmd*>(pCmd); }
    CrRsp* GetRsp() const { return static_cast<CrRsp*>(pCmd); }
    TRACKER_TYPE GetTrackerType() const { return trackerType; }
    void SetTrackerType(TRACKER_TYPE t) { trackerType = t; }

private:
    TRACKER_TYPE trackerType;
    void* pCmd;
};

namespace tavro_internal {
// True when next is a command the router sends right after cur's, down the
// same connections: cur's frame may then wait for it in the kernel.
bool sentTogether(const TrackerMsg* cur, const TrackerMsg* next);
} // namespace tavro_internal

class TrackerQue : public UtlQueue {
public:
    static constexpr int MAX_ENTRIES = 4096;

    TrackerQue() : UtlQueue("TrackerQue", MAX_ENTRIES) {}
    // Destroys the wrappers still queued, not the commands or responses.
    ~TrackerQue() override;
};

// One per command awaiting responses; owned by the command.
class TrackerInfo {
public:
    explicit TrackerInfo(CrCmd* cmd);
    ~TrackerInfo();

    TrackerInfo(const TrackerInfo&) = delete;
    TrackerInfo& operator=(const TrackerInfo&) = delete;

    CrCmd* GetCmd() const { return pCmd; }
    SlaveAddr& GetReceivedRsp() { return receivedRsp; }
    const SlaveAddr& GetExpectedRsp() const { return expectedRsp; }
    bool ExpectedRsp(int addr) const { return expectedRsp.SlaveAddrSet(addr); }
    bool ReceivedAllRsp() const { return receivedRsp == expectedRsp; }
    void Lock();
    void Unlock();
    void EventNotify();
    // Waits for every answer; on time-out makes up the missing ones and waits
    // for them to pass through the tracker too.
    void WaitForRsp(int timeoutMs);
    void TimeoutAction();

private:
    CrCmd* pCmd;
    SlaveAddr expectedRsp;
    SlaveAddr receivedRsp;
    HANDLE rspEvent;
    HANDLE infoLock;
};

class CrTracker : public OsThread {
public:
    static constexpr unsigned STACK_SIZE = 262144;
    static constexpr DWORD POLL_MS = 100;

    CrTracker();
    ~CrTracker() override;

    void* Execute(void* arg) override;

    // The tracker registered with the control block (SMN_TRACKER).
    static CrTracker* getIt();

    // Blocks while the queue is full.
    bool AddToQueue(TrackerMsg* msg);
    // Entry point for responses; the tracker owns rsp from here on.
    void ReceiveRsp(CrRsp* rsp);
    // On the sender's thread: waits with the command's time-out, then
    // detaches and destroys the record.
    void WaitForRsp(TrackerInfo* info);

    // One queued message, as the thread handles it (also drives tests).
    void ProcessMsg(TrackerMsg* msg);

    // The destructor sets ev (when given) as its last act on shared state,
    // so whoever stops the tracker can tell when it is gone.
    void SetExitNotify(HANDLE ev) { hExitNotify = ev; }
    // Records awaiting responses.
    std::size_t PendingCount();

private:
    void ProcessCmdMsg(CrCmd* cmd);
    void ProcessRspMsg(CrRsp* rsp);

    HANDLE listLock;
    UtlQueue* pTracker;
    std::list<TrackerInfo*> trackerList;
    HANDLE hExitNotify = nullptr;
};
