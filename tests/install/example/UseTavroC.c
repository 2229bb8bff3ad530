/* A C11 application of libTAVRO: the public headers compile as C and the C
 * entry points that need no switch behave. Built with pkg-config. */
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>
#include <TAVRO/TAVRORequest.h>

#include <stdio.h>
#include <string.h>

static void onCommand(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* response)
{
    (void)code, (void)data, (void)size;
    I_TAVRO_SetResponseStatus(response, RSP_OK);
}

int main(void)
{
    int major = -1, minor = -1, patch = -1;
    I_TAVRO_Version(&major, &minor, &patch);
    I_TAVRO_Version(NULL, NULL, NULL);
    TAVRO_RESPONSE rsp;
    memset(&rsp, 0, sizeof rsp);
    int ok = TAVRO_MAKE_VERSION(major, minor, patch) == TAVRO_VERSION && I_TAVRO_Initialize() == I_SUCCESS &&
             I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, onCommand) == I_SUCCESS &&
             I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, NULL, 0, 0, &rsp) == I_ERR_NO_CONNECTION &&
             I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, NULL, 4, 0, &rsp) == I_ERR_INVALID_PARAMETER &&
             I_SwitchDisconnect() == I_SUCCESS;
    I_TAVRO_FreeResponse(&rsp);
    I_TAVRO_FreeResponse(NULL);
    puts(ok ? "UseTavroC: ok" : "UseTavroC: FAILED");
    return ok ? 0 : 1;
}
