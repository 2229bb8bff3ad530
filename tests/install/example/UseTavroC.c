/* A C11 application of libTAVRO: the public headers compile as C and every
 * C entry point that needs no switch behaves. Built with pkg-config. */
#include <TAVRO/TAVRO.h>
#include <TAVRO/TAVRORawStats.h>
#include <TAVRO/TAVRORequest.h>

#include <stdio.h>

static int failures = 0;

static void expect(int ok, const char* what)
{
    if (ok) return;
    fprintf(stderr, "FAILED: %s\n", what);
    ++failures;
}

static void onCommand(COMMAND_CODE code, const void* data, uint32_t size, CrRsp* response)
{
    (void)code, (void)data, (void)size;
    I_TAVRO_SetResponseStatus(response, RSP_OK);
}

int main(void)
{
    int major = -1, minor = -1, patch = -1;
    I_TAVRO_Version(&major, &minor, &patch);
    expect(TAVRO_MAKE_VERSION(major, minor, patch) == TAVRO_VERSION, "I_TAVRO_Version matches the headers");
    I_TAVRO_Version(NULL, NULL, NULL);

    expect(I_TAVRO_Initialize() == I_SUCCESS, "I_TAVRO_Initialize");
    expect(I_SwitchConnect(SW_SERVICE_BLADE) == I_ERR_INVALID_PARAMETER, "I_SwitchConnect(SW_SERVICE_BLADE)");
    expect(I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, onCommand) == I_SUCCESS, "register");

    TAVRO_RESPONSE rsp;
    expect(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, NULL, 0, 0, &rsp) == I_ERR_NO_CONNECTION,
           "request without a connection");
    expect(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, NULL, 4, 0, &rsp) == I_ERR_INVALID_PARAMETER,
           "request with null data");
    expect(I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, NULL, 0, 0, NULL) == I_ERR_INVALID_PARAMETER,
           "request without a response");
    I_TAVRO_FreeResponse(&rsp);
    I_TAVRO_FreeResponse(NULL);

    expect(TAVRO_RawStatsEntries(NULL) == -1, "raw statistics reader");
    expect(I_SwitchDisconnect() == I_SUCCESS, "I_SwitchDisconnect");
    if (failures == 0) puts("UseTavroC: ok");
    return failures == 0 ? 0 : 1;
}
