#pragma once

// Marks what libTAVRO.so exports; everything else is hidden.
#define TAVRO_EXPORT __attribute__((visibility("default")))
#ifdef __cplusplus
#define TAVRO_C_EXPORT extern "C" TAVRO_EXPORT
#else
#define TAVRO_C_EXPORT TAVRO_EXPORT
#endif
