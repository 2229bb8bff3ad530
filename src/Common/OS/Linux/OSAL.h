#pragma once

// Win32/CRT-style thread and OS helpers.
#include <cstdint>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/TavroExport.h"

struct _SYSTEMTIME {
    std::uint16_t wYear;
    std::uint16_t wMonth;
    std::uint16_t wDayOfWeek;
    std::uint16_t wDay;
    std::uint16_t wHour;
    std::uint16_t wMinute;
    std::uint16_t wSecond;
    std::uint16_t wMilliseconds;
};
typedef _SYSTEMTIME SYSTEMTIME;

// Returned by _beginthread when no thread could be created.
constexpr uintptr_t OSAL_BEGINTHREAD_FAILED = 0xFFFFFFFFu;
constexpr unsigned OSAL_MIN_STACK_SIZE = 0x20000;

TAVRO_C_EXPORT uintptr_t _beginthread(void (*start)(void*), unsigned stackSize, void* arg);
TAVRO_C_EXPORT void _endthread();
TAVRO_C_EXPORT void Sleep(DWORD ms);
TAVRO_C_EXPORT DWORD GetCurrentThreadId();
TAVRO_C_EXPORT int set_thread_name(char* name);
TAVRO_C_EXPORT long long get_ticks();
TAVRO_C_EXPORT void GetSystemTime(_SYSTEMTIME* st);
TAVRO_C_EXPORT DWORD elapseTime(_SYSTEMTIME* a, _SYSTEMTIME* b);
TAVRO_C_EXPORT DWORD GetCurrentDirectory(DWORD size, char* buf);
TAVRO_C_EXPORT char* strupr(char* s);
TAVRO_C_EXPORT int strnicmp(const char* a, const char* b, unsigned n);
