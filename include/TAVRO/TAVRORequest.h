#pragma once

/*
 * Commands that wait for their answer.
 *
 * I_TAVRO_SendCommandWithResponse sends a command to the switch asking for a
 * response, waits for it and hands back the first one. Several threads may
 * wait at once; each waits only for its own command.
 *
 *     TAVRO_RESPONSE rsp;
 *     if (I_TAVRO_SendCommandWithResponse(CMD_CONN_PORT, &req, sizeof req, 0, &rsp) == I_SUCCESS) {
 *         if (rsp.status == RSP_OK) use(rsp.data, rsp.dataSize);
 *         I_TAVRO_FreeResponse(&rsp);
 *     }
 */
#include "TAVRO/TAVRO.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The first response to a command. data is a copy of its payload (null when
 * it had none), owned by the caller until I_TAVRO_FreeResponse. */
typedef struct TAVRO_RESPONSE {
    RSP_STATUS status;  /* RSP_OK, the switch's status, or RSP_TIME_OUT when
                           no answer came within the time-out */
    I_STATUS errorCode; /* the switch's application error code */
    void* data;
    uint32_t dataSize;
} TAVRO_RESPONSE;

/* Sends commandCode with commandDataSize bytes of commandData and waits up to
 * timeoutMs milliseconds (0: the library's default of 10 s) for the answer.
 * Returns I_SUCCESS with *response filled in (a time-out is a response with
 * status RSP_TIME_OUT), I_ERR_NO_CONNECTION when the library is not
 * connected to the switch (nothing is sent), or I_ERR_INVALID_PARAMETER for a
 * null response, null data with a non-zero size, a payload too large for a
 * frame or a time-out above INT32_MAX. On failure *response is zeroed. */
TAVRO_EXPORT I_STATUS I_TAVRO_SendCommandWithResponse(COMMAND_CODE commandCode, const void* commandData,
                                                      unsigned int commandDataSize, unsigned int timeoutMs,
                                                      TAVRO_RESPONSE* response);

/* Frees the payload copy and zeroes *response; a null pointer or an already
 * freed response is fine. */
TAVRO_EXPORT void I_TAVRO_FreeResponse(TAVRO_RESPONSE* response);

#ifdef __cplusplus
} /* extern "C" */
#endif
