// Uses every part of the public interface that needs no switch.
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>

#include <cstdio>

namespace {

int failures = 0;

void expect(bool ok, const char* what)
{
    if (ok) return;
    std::fprintf(stderr, "FAILED: %s\n", what);
    ++failures;
}

void onCommand(COMMAND_CODE, const void*, uint32_t, CrRsp* response)
{
    I_TAVRO_SetResponseStatus(response, RSP_OK);
}

} // namespace

int main()
{
    const TAVRO_COMMAND_HANDLER handler = onCommand;
    expect(I_SwitchInitialize() == I_SUCCESS, "I_SwitchInitialize");
    expect(I_SwitchInitialize() == I_SUCCESS, "I_SwitchInitialize again");
    expect(I_SwitchConnect(SW_SERVICE_BLADE) == I_ERR_INVALID_PARAMETER, "I_SwitchConnect(SW_SERVICE_BLADE)");
    expect(I_SwitchIsConnected() == I_ERR_NO_CONNECTION, "I_SwitchIsConnected");
    expect(I_TAVRO_RegisterCommandHandler(CMD_CONN_PORT, handler) == I_SUCCESS, "register");
    expect(I_TAVRO_UnRegisterCommandHandler(CMD_CONN_PORT) == I_SUCCESS, "unregister");
    expect(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, nullptr, 0) == I_SUCCESS, "send without switch");
    expect(I_TAVRO_SetResponseStatus(nullptr, RSP_OK) == I_ERR_INVALID_PARAMETER, "null response");
    expect(I_SwitchDisconnect() == I_SUCCESS, "I_SwitchDisconnect");
    if (failures == 0) std::puts("UseTavro: ok");
    return failures == 0 ? 0 : 1;
}
