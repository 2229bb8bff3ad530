#include "Cr/CrDBCmd.h"

#include <cstring>
#include <iomanip>
#include <sstream>

#include "Common/OS/Linux/HandlePool.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlFormatGuard.h"
#include "Cr/CrDBTracker.h"
#include "Os/UDBControl.h"

// ---------------------------------------------------------------- SlaveAddr

int SlaveAddr::GetNextSlaveAddr(int start) const
{
    if (start < 0) return -1;
    for (int i = start; i < size && i < MAX_SLAVES; ++i) {
        if (slaves.test(std::size_t(i))) return i;
    }
    return -1;
}

std::ostream& operator<<(std::ostream& os, const SlaveAddr& addr)
{
    if (addr.GetSlaveCount() > 5) os << "FIRST FIVE:";
    for (int i = 0; i < 5; ++i) {
        if (addr.SlaveAddrSet(i)) os << ' ' << i;
    }
    return os;
}

// ---------------------------------------------------------------- Message

Message::~Message()
{
    FreeData();
}

void Message::FreeData()
{
    if (deleteData) delete[] pData;
    pData = nullptr;
    size = 0;
    deleteData = false;
}

void Message::SetData(const void* p, int sz)
{
    if (deleteData) FreeData();
    if (sz > 0 && p != nullptr) {
        pData = new unsigned char[std::size_t(sz)];
        std::memcpy(pData, p, std::size_t(sz));
        size = sz;
        deleteData = true;
    }
}

void Message::SetFastData(void* p, int sz, bool owns)
{
    if (deleteData) FreeData();
    pData = static_cast<unsigned char*>(p);
    size = sz;
    deleteData = owns;
}

void Message::SetCmdCode(COMMAND_CODE code)
{
    cmdCode = code;
    if (mgrClass == MGR_NULL) mgrClass = MGR_CLASS(code / 10000);
}

void Message::CopyDataFrom(const Message& src)
{
    if (deleteData) FreeData();
    pData = nullptr;
    deleteData = false;
    size = src.size;
    if (src.pData != nullptr && src.size > 0) {
        pData = new unsigned char[std::size_t(src.size)];
        std::memcpy(pData, src.pData, std::size_t(src.size));
        deleteData = true;
    }
}

void Message::CopyFrameData(const ORV_APP_MSG* hdr, const void* data)
{
    const std::uint32_t len = hdr->getAppSize();
    if (len == 0) return;
    const void* src = data ? data : reinterpret_cast<const unsigned char*>(hdr) + sizeof(ORV_APP_MSG);
    SetData(src, int(len));
}

std::ostream& operator<<(std::ostream& os, const Message* msg)
{
    if (msg == nullptr) return os << "NULL";
    UtlFormatGuard guard(os);
    if (msg->GetSeqNbr() != 0) {
        os << "seqNbr[" << std::dec << std::right << std::setfill(' ') << std::setw(3) << msg->GetSeqNbr() << "] ";
    } else {
        os << "seqNbr[INV] ";
    }
    os << "cmdCode[" << msg->GetCmdCode() << "] mgrClass[" << msg->GetMgrClass() << "] ";
    const int first = msg->GetMsgAddr().GetNextSlaveAddr(0);
    if (first >= 0) {
        os << "1st dstAddr[" << std::dec << first << "] ";
    } else {
        os << "1st dstAddr[INV] ";
    }
    return os;
}

// ---------------------------------------------------------------- CrCmd

void CrCmd::Init()
{
    rspTimer = UDBControl::GetDefaultMsgTimeout();
    GetSystemTime(&timeStruct);
    rspLock = CreateMutex(nullptr, FALSE, nullptr);
    pCrTracker = static_cast<CrTracker*>(UDBControl::GetClassRef(SMN_TRACKER));
}

CrCmd::CrCmd()
{
    Init();
}

CrCmd::CrCmd(MGR_CLASS mgr, ORV_APP_MSG* hdr, void* data)
{
    Init();
    mgrClass = mgr;
    if (hdr == nullptr) return;
    seqNbr = std::int32_t(hdr->getSeqNbr());
    cmdCode = hdr->getCmdCode();
    rspReq = hdr->getCmdControl() == CMD_WITH_RSP;
    bDataInNetworkOrder = hdr->isNetworkOrder();
    CopyFrameData(hdr, data);
}

CrCmd::~CrCmd()
{
    tavro_internal::returnEvent(waitEvent, false);
    if (rspLock != nullptr) {
        PurgeRsp();
        CloseHandle(rspLock);
    }
    SetTrackerInfo(nullptr);
}

CrCmd& CrCmd::operator=(const CrCmd& other)
{
    if (this == &other) return *this;
    seqNbr = other.seqNbr;
    cmdCode = other.cmdCode;
    rspTimer = other.rspTimer;
    priority = other.priority;
    bDataInNetworkOrder = other.bDataInNetworkOrder;
    CopyDataFrom(other);
    return *this;
}

void CrCmd::Dispatch()
{
    if (!msgAddr.AnySlaveAddr()) {
        debugOutf("  CMD: %x has no target address\r\n", unsigned(cmdCode));
        return;
    }
    if (pCrTracker == nullptr) pCrTracker = static_cast<CrTracker*>(UDBControl::GetClassRef(SMN_TRACKER));
    if (pCrTracker == nullptr) {
        debugOutf("  CMD: %x no tracker, not sent\r\n", unsigned(cmdCode));
        return;
    }
    if (waitEvent == nullptr) waitEvent = tavro_internal::borrowEvent(false);

    auto* msg = new TrackerMsg(this);
    if (!pCrTracker->AddToQueue(msg)) {
        delete msg;
        debugOutf("  CMD: %x tracker queue refused it, not sent\r\n", unsigned(cmdCode));
        return;
    }
    WaitForSingleObject(waitEvent, INFINITE);
}

bool CrCmd::WaitForRsp()
{
    if (!rspReq) return true;
    if (pTrackerInfo == nullptr) return false;
    if (pCrTracker != nullptr) {
        pCrTracker->WaitForRsp(pTrackerInfo);
    } else {
        pTrackerInfo->WaitForRsp(rspTimer);
        SetTrackerInfo(nullptr);
    }
    return true;
}

CrRsp* CrCmd::GetFirstRsp()
{
    LockRspList();
    rt = 0;
    CrRsp* rsp = rspList.empty() ? nullptr : rspList[0];
    UnlockRspList();
    return rsp;
}

CrRsp* CrCmd::GetNextRsp()
{
    LockRspList();
    if (rt < rspList.size()) ++rt;
    CrRsp* rsp = rt < rspList.size() ? rspList[rt] : nullptr;
    UnlockRspList();
    return rsp;
}

CrRsp* CrCmd::GetRsp(int addr)
{
    for (CrRsp* rsp : rspList) {
        if (rsp->GetMsgAddr().SlaveAddrSet(addr)) return rsp;
    }
    return nullptr;
}

void CrCmd::AddToRspList(CrRsp* rsp)
{
    LockRspList();
    rspList.push_back(rsp);
    UnlockRspList();
}

void CrCmd::PurgeRsp()
{
    LockRspList();
    for (CrRsp* rsp : rspList) delete rsp;
    rspList.clear();
    rt = 0;
    UnlockRspList();
}

void CrCmd::EraseRsp()
{
    LockRspList();
    rspList.clear();
    rt = 0;
    UnlockRspList();
}

int CrCmd::GetRspCount()
{
    LockRspList();
    const int n = int(rspList.size());
    UnlockRspList();
    return n;
}

void CrCmd::LockRspList()
{
    if (rspLock != nullptr) WaitForSingleObject(rspLock, INFINITE);
}

void CrCmd::UnlockRspList()
{
    if (rspLock != nullptr) ReleaseMutex(rspLock);
}

void CrCmd::EventNotify()
{
    if (waitEvent != nullptr) SetEvent(waitEvent);
}

void CrCmd::SetTrackerInfo(TrackerInfo* info)
{
    if (pTrackerInfo != nullptr && pTrackerInfo != info) delete pTrackerInfo;
    pTrackerInfo = info;
}

char* CrCmd::ToString() const
{
    std::ostringstream os;
    os << static_cast<const Message*>(this);
    const std::string text = os.str();
    char* out = new char[text.size() + 1];
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

// ---------------------------------------------------------------- CrRsp

bool rspKeepsNetworkOrder(COMMAND_CODE code)
{
    return code == CMD_UPDT_INIT || code == CMD_UPDATE || code == CMD_PKT_CARD_INIT;
}

CrRsp::CrRsp(CrCmd* cmd)
{
    if (cmd == nullptr) return;
    seqNbr = cmd->GetSeqNbr();
    cmdCode = cmd->GetCmdCode();
    network = cmd->GetSourceNet();
    msgAddr = cmd->GetMsgAddr();
    mgrClass = cmd->GetMgrClass();
    bDataInNetworkOrder = rspKeepsNetworkOrder(cmdCode) && cmd->isNetworkOrder();
}

CrRsp::CrRsp(MGR_CLASS mgr, ORV_APP_MSG* hdr, void* data)
{
    mgrClass = mgr;
    network = TCP_CLIENT;
    if (hdr == nullptr) return;
    seqNbr = std::int32_t(hdr->getSeqNbr());
    cmdCode = hdr->getCmdCode();
    status = hdr->getRspStatus();
    errorCode = hdr->getAppError();
    bDataInNetworkOrder = rspKeepsNetworkOrder(cmdCode) && hdr->isNetworkOrder();
    CopyFrameData(hdr, data);
}

CrRsp::~CrRsp() = default;

CrRsp& CrRsp::operator=(const CrRsp& other)
{
    if (this == &other) return *this;
    seqNbr = other.seqNbr;
    cmdCode = other.cmdCode;
    network = other.network;
    msgAddr = other.msgAddr;
    mgrClass = other.mgrClass;
    bDataInNetworkOrder = other.bDataInNetworkOrder;
    status = other.status;
    CopyDataFrom(other);
    return *this;
}

std::string CrRsp::toString() const
{
    std::ostringstream os;
    os << static_cast<const Message*>(this) << "status[" << status << "] errCode[" << std::int32_t(errorCode) << "]";
    return os.str();
}
