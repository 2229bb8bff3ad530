// A C++ application built against an installed copy of libTAVRO only.
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>

#include <cstdio>

namespace {

void onCommand(COMMAND_CODE, const void*, uint32_t, CrRsp* response)
{
    I_TAVRO_SetResponseStatus(response, RSP_OK);
}

} // namespace

int main()
{
    const TAVRO_COMMAND_HANDLER handler = onCommand;
    const bool ok = I_SwitchInitialize() == I_SUCCESS && I_SwitchConnect(SW_SERVICE_BLADE) == I_ERR_INVALID_PARAMETER &&
                    I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, handler) == I_SUCCESS &&
                    I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, nullptr, 0) == I_SUCCESS &&
                    TAVRO_RawStatsEntries(nullptr) == -1 && I_SwitchDisconnect() == I_SUCCESS;
    std::puts(ok ? "UseTavro: ok" : "UseTavro: FAILED");
    return ok ? 0 : 1;
}
