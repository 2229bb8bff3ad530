#pragma once

// The Win32 vocabulary the handle layer speaks.
#include <cstdint>

typedef void* HANDLE;
typedef std::uint32_t DWORD;
typedef std::int32_t BOOL;
typedef std::int32_t LONG;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

constexpr DWORD INFINITE = 0xFFFFFFFFu;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 32;

struct SECURITY_ATTRIBUTES {
    BOOL bInheritHandle;
};
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;

union _LARGE_INTEGER {
    std::int64_t QuadPart;
};
typedef _LARGE_INTEGER LARGE_INTEGER;
