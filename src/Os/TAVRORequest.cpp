// Commands that wait for their answer: the exported request call.
// The library's own code definitions first, then the public declarations.
#include "Os/TAVRO.h"

#include "TAVRO/TAVRORequest.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "Cr/CrDBCmd.h"
#include "Cr/CrOrvMsg.h"

I_STATUS I_TAVRO_SendCommandWithResponse(COMMAND_CODE commandCode, const void* commandData,
                                         unsigned int commandDataSize, unsigned int timeoutMs, TAVRO_RESPONSE* response)
{
    if (response == nullptr) return I_ERR_INVALID_PARAMETER;
    std::memset(response, 0, sizeof *response);
    // The router would refuse an oversize payload and the caller would sit
    // through the whole time-out for nothing.
    if ((commandData == nullptr && commandDataSize != 0) || commandDataSize >= MAX_TCP_MSG_SIZE ||
        timeoutMs > unsigned(INT_MAX))
        return I_ERR_INVALID_PARAMETER;
    if (I_SwitchIsConnected() != I_SUCCESS) return I_ERR_NO_CONNECTION;

    CrCmd cmd;
    cmd.SetCmdCode(commandCode);
    cmd.SetData(commandData, static_cast<int>(commandDataSize));
    const CrRsp* rsp = tavro_internal::dispatchAndWait(cmd, static_cast<int>(timeoutMs));
    if (rsp == nullptr) {
        // The tracker always leaves one response per destination; be safe.
        response->status = RSP_TIME_OUT;
        return I_SUCCESS;
    }
    const int size = rsp->GetSize();
    if (size > 0 && rsp->GetData() != nullptr) {
        response->data = std::malloc(std::size_t(size));
        if (response->data == nullptr) return I_ERR_UNKNOWN;
        std::memcpy(response->data, rsp->GetData(), std::size_t(size));
        response->dataSize = std::uint32_t(size);
    }
    response->status = rsp->GetRspStat();
    response->errorCode = rsp->GetErrorCode();
    return I_SUCCESS;
}

void I_TAVRO_FreeResponse(TAVRO_RESPONSE* response)
{
    if (response == nullptr) return;
    std::free(response->data);
    std::memset(response, 0, sizeof *response);
}
