#pragma once

/* Marks what libTAVRO.so exports; everything else is hidden. The library's
 * own headers and the public headers share this one definition (installed
 * as TAVRO/TavroExport.h). C linkage is asked for where it is declared. */
#if defined(__GNUC__)
#define TAVRO_EXPORT __attribute__((visibility("default")))
#else
#define TAVRO_EXPORT
#endif
