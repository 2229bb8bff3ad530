#pragma once

// In-memory commands and responses: a Message carries code, payload and
// destinations; a CrCmd adds response handling; a CrRsp adds a status.
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "Ap/ApBase.h"
#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinTypes.h"
#include "Cr/CrOrvMsg.h"

class ApBase;
class TrackerInfo;
class CrTracker;
class CrRsp;

// A set of SYS_ADDR positions. Out-of-range positions are ignored by every
// operation, never an error.
class SlaveAddr {
public:
    static constexpr int MAX_SLAVES = 128;

    SlaveAddr() : size(MAX_SLAVES) {}

    void SetSlaveAddr(int i)
    {
        if (inRange(i)) slaves.set(std::size_t(i));
    }
    void ClearSlaveAddr(int i)
    {
        if (inRange(i)) slaves.reset(std::size_t(i));
    }
    bool SlaveAddrSet(int i) const { return inRange(i) && slaves.test(std::size_t(i)); }
    bool AnySlaveAddr() const { return slaves.any(); }
    int GetSlaveCount() const { return int(slaves.count()); }
    // Lowest set position not below start; -1 when none.
    int GetNextSlaveAddr(int start) const;
    int GetMaxNumberSlaves() const { return MAX_SLAVES; }

    // Only the bits count; size is not compared.
    bool operator==(const SlaveAddr& other) const { return slaves == other.slaves; }
    bool operator!=(const SlaveAddr& other) const { return !(*this == other); }

private:
    bool inRange(int i) const { return i >= 0 && i < size && i < MAX_SLAVES; }

    std::int32_t size;
    std::bitset<MAX_SLAVES> slaves;
};

// Prints "FIRST FIVE:" when more than 5 are set, then only the set positions
// among 0-4; the short scan is how operators have always read it.
std::ostream& operator<<(std::ostream& os, const SlaveAddr& addr);

class Message {
public:
    Message() = default;
    virtual ~Message();

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Copies size bytes of p into an owned buffer; size <= 0 leaves no payload.
    void SetData(const void* p, int size);
    // Takes p as it is; the message frees it (delete[]) only when deleteData.
    void SetFastData(void* p, int size, bool deleteData);

    void* GetData() const { return pData; }
    int GetSize() const { return size; }
    COMMAND_CODE GetCmdCode() const { return cmdCode; }
    // Sets the manager class from the code (code / 10000) only while it is unset.
    void SetCmdCode(COMMAND_CODE code);
    int GetSeqNbr() const { return seqNbr; }
    void SetSeqNbr(int nbr) { seqNbr = nbr; }
    MGR_CLASS GetMgrClass() const { return mgrClass; }
    void SetMgrClass(MGR_CLASS mgr) { mgrClass = mgr; }
    TCP_TYPE GetSourceNet() const { return network; }
    void SetSourceNet(TCP_TYPE net) { network = net; }
    SlaveAddr& GetMsgAddr() { return msgAddr; }
    const SlaveAddr& GetMsgAddr() const { return msgAddr; }
    // Adds one destination; the set is not cleared first.
    void SetMsgAddr(int addr) { msgAddr.SetSlaveAddr(addr); }
    void SetMsgAddr(const SlaveAddr& addr) { msgAddr = addr; }
    bool isNetworkOrder() const { return bDataInNetworkOrder; }
    void SetNetworkOrder(bool inNetworkOrder) { bDataInNetworkOrder = inNetworkOrder; }
    bool OwnsData() const { return deleteData; }

protected:
    void FreeData();
    // Private copy of another message's payload (none when it has none).
    void CopyDataFrom(const Message& src);
    // Payload of a frame: from data, or from the bytes after the header.
    void CopyFrameData(const ORV_APP_MSG* hdr, const void* data);

    COMMAND_CODE cmdCode = CMD_UNDEFINED;
    TCP_TYPE network = TCP_CLIENT;
    std::int32_t size = 0;
    unsigned char* pData = nullptr;
    SlaveAddr msgAddr;
    std::int32_t seqNbr = 0;
    MGR_CLASS mgrClass = MGR_NULL;
    bool deleteData = false;
    bool bDataInNetworkOrder = false;
};

// One-line dump: "seqNbr[  7] cmdCode[...] mgrClass[...] 1st dstAddr[3] ".
std::ostream& operator<<(std::ostream& os, const Message* msg);

class CrCmd : public Message {
public:
    static constexpr int DEFAULT_TIMEOUT = 10000;

    CrCmd();
    // A command received from the wire; data null means the payload follows
    // the header in memory.
    CrCmd(MGR_CLASS mgr, ORV_APP_MSG* hdr, void* data);
    ~CrCmd() override;

    CrCmd(const CrCmd&) = delete;
    // Partial on purpose: rspReq, mgrClass, msgAddr, handles and responses of
    // the target stay as they are.
    CrCmd& operator=(const CrCmd& other);

    void SetRspReq(bool req) { rspReq = req; }
    bool GetRspReq() const { return rspReq; }
    void SetRspTimer(int ms) { rspTimer = ms; }
    int GetRspTimer() const { return rspTimer; }
    bool GetPriority() const { return priority; }
    void SetPriority(bool p) { priority = p; }
    int GetClient() const { return clientIp; }
    void SetClient(int ip) { clientIp = ip; }
    TCP_TYPE GetMsgType() const { return msgType; }
    void SetMsgType(TCP_TYPE t) { msgType = t; }
    ApBase* GetApp() const { return pApp; }
    void SetApp(ApBase* app) { pApp = app; }
    const SYSTEMTIME& GetTimeStruct() const { return timeStruct; }

    // Hands the command to the tracker and returns once it has been sent.
    void Dispatch();
    // Waits until every destination has one response, real or timed out.
    bool WaitForRsp();

    CrRsp* GetFirstRsp();
    CrRsp* GetNextRsp();
    // No lock: only for use after WaitForRsp has returned.
    CrRsp* GetRsp(int addr);
    void AddToRspList(CrRsp* rsp);
    void PurgeRsp();
    void EraseRsp();
    int GetRspCount();
    void LockRspList();
    void UnlockRspList();

    void EventNotify();
    HANDLE GetWaitEvent() const { return waitEvent; }
    TrackerInfo* GetTrackerInfo() const { return pTrackerInfo; }
    // Destroys the present record, if any, and keeps the new one.
    void SetTrackerInfo(TrackerInfo* info);
    CrTracker* GetTracker() const { return pCrTracker; }

    // Newly allocated with new[]; the caller frees it with delete[].
    char* ToString() const;

private:
    void Init();

    ApBase* pApp = nullptr;
    bool rspReq = false;
    bool priority = true;
    std::int32_t rspTimer = DEFAULT_TIMEOUT;
    SYSTEMTIME timeStruct{};
    HANDLE waitEvent = nullptr;
    TrackerInfo* pTrackerInfo = nullptr;
    CrTracker* pCrTracker = nullptr;
    TCP_TYPE msgType = TCP_CLIENT;
    std::int32_t clientIp = 0;
    HANDLE rspLock = nullptr;
    std::vector<CrRsp*> rspList;
    std::size_t rt = 0;
};

class CrRsp : public Message {
public:
    CrRsp() = default;
    // A response to cmd, addressed to cmd's whole destination set.
    explicit CrRsp(CrCmd* cmd);
    CrRsp(MGR_CLASS mgr, ORV_APP_MSG* hdr, void* data);
    ~CrRsp() override;

    CrRsp(const CrRsp&) = delete;
    // Leaves the target's errorCode as it was, on purpose.
    CrRsp& operator=(const CrRsp& other);

    void SetRspStat(RSP_STATUS s) { status = s; }
    RSP_STATUS GetRspStat() const { return status; }
    void SetErrorCode(I_STATUS e) { errorCode = e; }
    I_STATUS GetErrorCode() const { return errorCode; }

    // Message text + "status[...] errCode[n]".
    virtual std::string toString() const;

private:
    RSP_STATUS status = RSP_OK;
    I_STATUS errorCode = I_SUCCESS;
};

// True for the codes whose responses keep the payload's byte-order flag.
bool rspKeepsNetworkOrder(COMMAND_CODE code);
