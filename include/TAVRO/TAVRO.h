#pragma once

/*
 * libTAVRO: control of a chassis-based network test-access switch.
 *
 * Call I_SwitchInitialize() once, connect to one service of the switch,
 * register handlers for the commands the switch sends, send commands, and
 * disconnect. Results are I_STATUS codes: I_SUCCESS (0) or a negative error.
 *
 * Build:  find_package(TAVRO REQUIRED)
 *         target_link_libraries(app PRIVATE TAVRO::TAVRO)
 *    or:  cc app.c $(pkg-config --cflags --libs TAVRO)
 *
 * The header compiles as C11 and as C++17. C programs and foreign-function
 * bindings start the library with I_TAVRO_Initialize().
 */
#include <stdint.h>

#include "TAVRO/TAVROVersion.h"

/* The library compiles this header against its own code definitions; an
 * application gets the generated copy of them. */
#ifndef TAVRO_INTERNAL_CODES
#include "TAVRO/TAVROCodes.h"
#endif

#include "TAVRO/TavroExport.h"

/* Services of the switch a connection can be made to. Only SNMP and PCE are
 * served; the others are refused with I_ERR_INVALID_PARAMETER. */
enum SW_SERVICE_TYPE {
    SW_SERVICE_INVALID = 0,
    SW_SERVICE_BLADE = 1,
    SW_SERVICE_UDBSERV = 2,
    SW_SERVICE_SNMP = 3, /* TCP port 58991 */
    SW_SERVICE_PCE = 4   /* TCP port 58992 */
};

/* The response a handler fills in. It starts with status RSP_OK, error code
 * I_SUCCESS and no payload; see the I_TAVRO_SetResponse* functions. C sees
 * it as an opaque struct. */
#ifdef __cplusplus
class CrRsp;
#else
typedef enum SW_SERVICE_TYPE SW_SERVICE_TYPE;
typedef struct CrRsp CrRsp;
#endif

/* Receives one command the switch sent, on the library's session thread;
 * commands are handled one at a time, so a handler that blocks stalls the
 * connection. commandData (commandDataSize bytes) is valid only during the
 * call. The response is sent when the switch asked for one. */
typedef void (*TAVRO_COMMAND_HANDLER)(COMMAND_CODE commandCode, const void* commandData, uint32_t commandDataSize,
                                      CrRsp* response);

#ifdef __cplusplus
/* Starts the library's threads; reads ./TAVRO.CONF. Later calls do nothing. */
TAVRO_EXPORT I_STATUS I_SwitchInitialize();

extern "C" {
#endif

/* The same as I_SwitchInitialize(), under a C name. */
TAVRO_EXPORT I_STATUS I_TAVRO_Initialize(void);

/* The library's version, as TAVRO_VERSION_MAJOR/MINOR/PATCH were when it was
 * built; any pointer may be null. */
TAVRO_EXPORT void I_TAVRO_Version(int* major, int* minor, int* patch);

/* Connects to a service of the switch on this host and waits up to about 8 s
 * for the link. I_ERR_NO_CONNECTION leaves the connection trying in the
 * background; I_SwitchIsConnected tells when it is up. */
TAVRO_EXPORT I_STATUS I_SwitchConnect(SW_SERVICE_TYPE serviceType);
TAVRO_EXPORT I_STATUS I_SwitchIsConnected(void);
/* Waits up to about 4 s for the connection to close; always I_SUCCESS. */
TAVRO_EXPORT I_STATUS I_SwitchDisconnect(void);

/* One handler per code; a later registration replaces the earlier one.
 * Register before traffic for the code starts: the table is not locked. */
TAVRO_EXPORT I_STATUS I_TAVRO_RegisterCommandHandler(COMMAND_CODE commandCode, TAVRO_COMMAND_HANDLER funcPtr);
TAVRO_EXPORT I_STATUS I_TAVRO_UnRegisterCommandHandler(COMMAND_CODE commandCode);

/* Sends a command without waiting for a response; returns once it has been
 * sent or dropped. Always I_SUCCESS. */
TAVRO_EXPORT I_STATUS I_TAVRO_SendCommandNoResponse(COMMAND_CODE commandCode, const void* commandData,
                                                    unsigned int commandDataSize);

/* Raw counters of the blade in slotNum, waiting up to 10 s: a malloc'ed block
 * of 6 + 951 * n bytes (a head whose first 16-bit word is n, then n port
 * entries), as the switch sent it. Free it with free(). Null on any failure. */
TAVRO_EXPORT void* I_GetRawStats(unsigned short slotNum);

/* For handlers: fill in the response. I_ERR_INVALID_PARAMETER for a null
 * response (or null data with a non-zero size). The data is copied. */
TAVRO_EXPORT I_STATUS I_TAVRO_SetResponseStatus(CrRsp* response, RSP_STATUS status);
TAVRO_EXPORT I_STATUS I_TAVRO_SetResponseError(CrRsp* response, I_STATUS errorCode);
TAVRO_EXPORT I_STATUS I_TAVRO_SetResponseData(CrRsp* response, const void* data, unsigned int dataSize);
/* The sequence number of the command being answered (0 for a null response),
 * for handlers that log what they answer. */
TAVRO_EXPORT uint32_t I_TAVRO_GetResponseSeqNbr(const CrRsp* response);

#ifdef __cplusplus
} /* extern "C" */
#endif
