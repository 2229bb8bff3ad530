#pragma once

// Win32-style waitable handles on POSIX threads: the exported function table.
// The handle classes live in CWinEventHandle.h and CWinMutexHandle.h.
#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/TavroExport.h"

TAVRO_C_EXPORT HANDLE CreateEvent(SECURITY_ATTRIBUTES* attr, BOOL bManualReset, BOOL bInitialState,
                                  const char* name);
TAVRO_C_EXPORT HANDLE OpenEvent(DWORD access, BOOL inherit, const char* name);
TAVRO_C_EXPORT BOOL SetEvent(HANDLE h);
TAVRO_C_EXPORT BOOL ResetEvent(HANDLE h);
TAVRO_C_EXPORT BOOL PulseEvent(HANDLE h);
TAVRO_C_EXPORT DWORD WaitForSingleObject(HANDLE h, DWORD ms);
TAVRO_C_EXPORT DWORD WaitForMultipleObjects(DWORD count, HANDLE const* handles, BOOL waitAll, DWORD ms);
TAVRO_C_EXPORT BOOL CloseHandle(HANDLE h);
TAVRO_C_EXPORT HANDLE CreateMutex(SECURITY_ATTRIBUTES* attr, BOOL bInitialOwner, const char* name);
TAVRO_C_EXPORT HANDLE OpenMutex(DWORD access, BOOL inherit, const char* name);
TAVRO_C_EXPORT BOOL ReleaseMutex(HANDLE h);
TAVRO_C_EXPORT DWORD GetTickCount();
