#include "Os/TAVRO.h"

#include <signal.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>

#include "Ap/ApRawStats.h"
#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/OsSocket.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlDebugReports.h"
#include "Cr/CrDBCmd.h"
#include "Io/IoDBClient.h"
#include "Io/IoDBRouter.h"
#include "Os/UDBControl.h"
#include "Os/UDBServ.h"

namespace {

// Service asked for -> our own address towards the switch and its TCP port.
struct SERVICE_XLAT {
    SW_SERVICE_TYPE service;
    SYS_ADDR ownAddr;
    unsigned short port;
};

const SERVICE_XLAT serviceXlat[] = {
    {SW_SERVICE_SNMP, SYS_SNMP_AGENT, 58991},
    {SW_SERVICE_PCE, SYS_PCE_PROCESS, 58992},
};

// Entries of the raw statistics reply: a 6-byte head, then 951 bytes each.
constexpr std::size_t RAW_STATS_HEAD = sizeof(I_RAW_STATS_HEAD);
constexpr std::size_t RAW_STATS_ENTRY = sizeof(I_RAW_PORT_STATS);

tavro_internal::ApiSeams defaultSeams()
{
    return {200, 40, 100, 40, 10000};
}

tavro_internal::ApiSeams g_seams = defaultSeams();

// Not locked: registration and connection changes happen while no traffic
// flows for the codes concerned.
// Never destroyed: a session thread may still dispatch while the process exits.
std::map<COMMAND_CODE, TAVRO_COMMAND_HANDLER>& handlerTable = *new std::map<COMMAND_CODE, TAVRO_COMMAND_HANDLER>;
IoClientMgmt* pSwitchClient = nullptr;

std::mutex initLock;
UDBControl* pControl = nullptr;

void traceLine(const std::string& text)
{
    debugOut(text.c_str());
}

// Only tells the socket layer; the process goes on to end its own way.
void terminationHandler(int)
{
    OsSocket::setProgramTerminating(true);
}

bool installTerminationHandler(int sig, const char* failure)
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = terminationHandler;
    sa.sa_flags = 0;
    sigemptyset(&sa.sa_mask);
    if (sigaction(sig, &sa, nullptr) == 0) return true;
    perror(failure);
    return false;
}

} // namespace

tavro_internal::ApiSeams& tavro_internal::apiSeams()
{
    return g_seams;
}

void tavro_internal::resetApiSeams()
{
    g_seams = defaultSeams();
}

IoClientMgmt* tavro_internal::switchClient()
{
    return pSwitchClient;
}

std::size_t tavro_internal::handlerCount()
{
    return handlerTable.size();
}

bool tavro_internal::hasHandler(COMMAND_CODE code)
{
    return handlerTable.find(code) != handlerTable.end();
}

// ---------------------------------------------------------------------------

TAVRO_EXPORT I_STATUS I_SwitchInitialize()
{
    std::lock_guard<std::mutex> g(initLock);
    if (pControl != nullptr) return I_SUCCESS;

    // Everything below may trace; the writer serialises it from the start.
    UtlDebug::StartDebugThread();
    signal(SIGPIPE, SIG_IGN);
    if (!installTerminationHandler(SIGTERM, "sigaction - SIGTERM")) return I_ERR_UNKNOWN;
    if (!installTerminationHandler(SIGINT, "sigaction - SIGINT")) return I_ERR_UNKNOWN;
    parseCommandArgs();
    enableCoreDump();
    pControl = new UDBControl(&sysParm);
    pControl->StartControlThread(&sysParm);
    return I_SUCCESS;
}

I_STATUS I_SwitchConnect(SW_SERVICE_TYPE serviceType)
{
    const SERVICE_XLAT* row = nullptr;
    for (const SERVICE_XLAT& x : serviceXlat)
        if (x.service == serviceType) row = &x;
    if (row == nullptr) {
        std::ostringstream os;
        os << "I_SwitchConnect"
           << ": Unsupported service type[" << static_cast<int>(serviceType) << "]\n";
        traceLine(os.str());
        return I_ERR_INVALID_PARAMETER;
    }
    if (UDBControl::getIt() == nullptr) {
        traceLine("I_SwitchConnect: library not initialised[I_SwitchInitialize]\n");
        return I_ERR_NO_CONNECTION;
    }
    sysParm.mySysAddr = row->ownAddr;
    pSwitchClient = IoClientMgmt::startClient(1, row->port, DispatchCommand);
    if (pSwitchClient == nullptr) return I_ERR_NO_CONNECTION;
    for (unsigned poll = 0; poll < g_seams.connectPolls; ++poll) {
        if (poll != 0) Sleep(g_seams.connectPollMs);
        if (pSwitchClient->GetProcState() == TCP_NORMAL) return I_SUCCESS;
    }
    return I_ERR_NO_CONNECTION;
}

I_STATUS I_SwitchIsConnected(void)
{
    if (pSwitchClient != nullptr && pSwitchClient->GetProcState() == TCP_NORMAL) return I_SUCCESS;
    return I_ERR_NO_CONNECTION;
}

I_STATUS I_SwitchDisconnect(void)
{
    if (pSwitchClient == nullptr) return I_SUCCESS;
    pSwitchClient->SignalShutdown();
    for (unsigned poll = 0; poll < g_seams.disconnectPolls; ++poll) {
        Sleep(g_seams.disconnectPollMs);
        if (pSwitchClient->GetProcState() == TCP_DISCONNECT) break;
    }
    // The session ends and frees itself; we only let go of it.
    pSwitchClient = nullptr;
    return I_SUCCESS;
}

I_STATUS I_TAVRO_RegisterCommandHandler(COMMAND_CODE commandCode, TAVRO_COMMAND_HANDLER funcPtr)
{
    handlerTable[commandCode] = funcPtr;
    return I_SUCCESS;
}

I_STATUS I_TAVRO_UnRegisterCommandHandler(COMMAND_CODE commandCode)
{
    handlerTable.erase(commandCode);
    return I_SUCCESS;
}

I_STATUS I_TAVRO_SendCommandNoResponse(COMMAND_CODE commandCode, const void* commandData, unsigned int commandDataSize)
{
    CrCmd cmd;
    cmd.SetCmdCode(commandCode);
    cmd.SetMsgAddr(1);
    cmd.SetRspReq(false);
    if (commandDataSize < MAX_TCP_MSG_SIZE) {
        cmd.SetData(commandData, static_cast<int>(commandDataSize));
    } else {
        // The router refuses it (and says so) before reading a byte: no copy.
        const int size = commandDataSize > unsigned(INT_MAX) ? INT_MAX : static_cast<int>(commandDataSize);
        cmd.SetFastData(const_cast<void*>(commandData), size, false);
    }
    cmd.Dispatch();
    return I_SUCCESS;
}

CrRsp* tavro_internal::dispatchAndWait(CrCmd& cmd, int timeoutMs)
{
    cmd.SetMsgAddr(1);
    cmd.SetRspReq(true);
    if (timeoutMs > 0) cmd.SetRspTimer(timeoutMs);
    cmd.Dispatch();
    cmd.WaitForRsp();
    return cmd.GetFirstRsp();
}

TAVRO_EXPORT I_STATUS I_TAVRO_Initialize(void)
{
    return I_SwitchInitialize();
}

void I_TAVRO_Version(int* major, int* minor, int* patch)
{
    if (major != nullptr) *major = TAVRO_VERSION_MAJOR;
    if (minor != nullptr) *minor = TAVRO_VERSION_MINOR;
    if (patch != nullptr) *patch = TAVRO_VERSION_PATCH;
}

void* I_GetRawStats(unsigned short slotNum)
{
    I_RAW_STATS_REQ req;
    req.slotNbr = slotNum;

    CrCmd cmd;
    cmd.SetCmdCode(CMD_GET_BLADE_RAW_STATS);
    cmd.SetData(&req, sizeof req);
    cmd.SetNetworkOrder(false);
    CrRsp* rsp = tavro_internal::dispatchAndWait(cmd, g_seams.rawStatsTimeoutMs);
    if (rsp == nullptr || rsp->GetRspStat() != RSP_OK) return nullptr;
    const auto* payload = static_cast<const unsigned char*>(rsp->GetData());
    const int have = rsp->GetSize();
    if (payload == nullptr || have < int(sizeof(std::uint16_t))) return nullptr;
    std::uint16_t entries;
    std::memcpy(&entries, payload, sizeof entries);
    const std::size_t want = entries * RAW_STATS_ENTRY + RAW_STATS_HEAD;
    if (std::size_t(have) < want) return nullptr;
    void* block = std::malloc(want);
    if (block != nullptr) std::memcpy(block, payload, want);
    return block;
}

I_STATUS I_TAVRO_SetResponseStatus(CrRsp* response, RSP_STATUS status)
{
    if (response == nullptr) return I_ERR_INVALID_PARAMETER;
    response->SetRspStat(status);
    return I_SUCCESS;
}

I_STATUS I_TAVRO_SetResponseError(CrRsp* response, I_STATUS errorCode)
{
    if (response == nullptr) return I_ERR_INVALID_PARAMETER;
    response->SetErrorCode(errorCode);
    return I_SUCCESS;
}

I_STATUS I_TAVRO_SetResponseData(CrRsp* response, const void* data, unsigned int dataSize)
{
    if (response == nullptr || (data == nullptr && dataSize != 0) || dataSize > unsigned(INT_MAX))
        return I_ERR_INVALID_PARAMETER;
    response->SetData(data, static_cast<int>(dataSize));
    return I_SUCCESS;
}

uint32_t I_TAVRO_GetResponseSeqNbr(const CrRsp* response)
{
    return response == nullptr ? 0 : std::uint32_t(response->GetSeqNbr());
}

// ---------------------------------------------------------------------------

void DispatchCommand(CrCmd* cmd)
{
    if (cmd == nullptr) return;
    CrRsp rsp(cmd);
    auto it = handlerTable.find(cmd->GetCmdCode());
    if (it != handlerTable.end()) {
        // A handler registered as null is honoured as "nothing to do".
        if (it->second != nullptr)
            it->second(cmd->GetCmdCode(), cmd->GetData(), static_cast<std::uint32_t>(cmd->GetSize()), &rsp);
        if (cmd->GetRspReq()) {
            IoRouter* router = IoRouter::getIt();
            const int result = router != nullptr ? router->SendRsp(&rsp) : int(IoRouter::SEND_NO_ROUTE);
            std::printf("Send response result=%u\n", static_cast<unsigned>(result));
        }
    } else {
        traceLine("STR_DBG_OUT\n");
        std::puts("GOT AN UNHANDLED COMMAND!!!\n");
    }
    std::fflush(stdout);
}
