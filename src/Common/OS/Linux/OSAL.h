#pragma once

// Win32/CRT-style thread and OS helpers.
#include <cstdint>

#include "Common/OS/Linux/WinTypes.h"
#include "TavroExport.h"

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

extern "C" TAVRO_EXPORT uintptr_t _beginthread(void (*start)(void*), unsigned stackSize, void* arg);
extern "C" TAVRO_EXPORT void _endthread();
extern "C" TAVRO_EXPORT void Sleep(DWORD ms);
extern "C" TAVRO_EXPORT DWORD GetCurrentThreadId();
extern "C" TAVRO_EXPORT int set_thread_name(char* name);
extern "C" TAVRO_EXPORT long long get_ticks();
extern "C" TAVRO_EXPORT void GetSystemTime(_SYSTEMTIME* st);
extern "C" TAVRO_EXPORT DWORD elapseTime(_SYSTEMTIME* a, _SYSTEMTIME* b);
extern "C" TAVRO_EXPORT DWORD GetCurrentDirectory(DWORD size, char* buf);
extern "C" TAVRO_EXPORT char* strupr(char* s);
extern "C" TAVRO_EXPORT int strnicmp(const char* a, const char* b, unsigned n);
