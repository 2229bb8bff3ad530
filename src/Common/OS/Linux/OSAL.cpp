#include "Common/OS/Linux/OSAL.h"

#include <ctype.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "Common/OS/Linux/WinEvent.h"

static_assert(sizeof(uintptr_t) >= sizeof(pthread_t), "_beginthread returns the pthread_t in a uintptr_t");

namespace {
struct ThreadStart {
    void (*start)(void*);
    void* arg;
};

void* threadStart(void* p)
{
    const ThreadStart ts = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    ts.start(ts.arg);
    return nullptr;
}
} // namespace

uintptr_t _beginthread(void (*start)(void*), unsigned stackSize, void* arg)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stackSize > OSAL_MIN_STACK_SIZE ? stackSize : OSAL_MIN_STACK_SIZE);
    pthread_t tid;
    ThreadStart* ts = new ThreadStart{start, arg};
    const int rc = pthread_create(&tid, &attr, threadStart, ts);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete ts;
        printf("pthread_create() failed: rc[%d]\r\n", rc);
        fflush(stdout);
        return OSAL_BEGINTHREAD_FAILED;
    }
    const int drc = pthread_detach(tid);
    if (drc != 0) {
        printf("pthread_detach() failed: rc[%d]\r\n", drc);
        fflush(stdout);
    }
    return static_cast<uintptr_t>(tid);
}

void _endthread()
{
    pthread_exit(nullptr);
}

// Never signalled: Sleep is a timed wait on it.
static HANDLE sleepEvent()
{
    static HANDLE ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    return ev;
}

namespace {
struct SleepEventInit {
    SleepEventInit() { sleepEvent(); }
} s_sleepEventInit;
} // namespace

void Sleep(DWORD ms)
{
    WaitForSingleObject(sleepEvent(), ms);
}

DWORD GetCurrentThreadId()
{
    return static_cast<DWORD>(pthread_self());
}

int set_thread_name(char* name)
{
    if (name == nullptr || name[0] == '\0') return pthread_setname_np(pthread_self(), "----------");
    char buf[16];
    strncpy(buf, name, 15);
    buf[15] = '\0';
    return pthread_setname_np(pthread_self(), buf);
}

long long get_ticks()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000LL + ts.tv_nsec / 1000;
}

void GetSystemTime(_SYSTEMTIME* st)
{
    const time_t now = time(nullptr);
    tm t;
    localtime_r(&now, &t);
    st->wYear = static_cast<std::uint16_t>(t.tm_year + 1900);
    st->wMonth = static_cast<std::uint16_t>(t.tm_mon); // zero-based, kept as callers expect
    st->wDayOfWeek = static_cast<std::uint16_t>(t.tm_wday);
    st->wDay = static_cast<std::uint16_t>(t.tm_mday);
    st->wHour = static_cast<std::uint16_t>(t.tm_hour);
    st->wMinute = static_cast<std::uint16_t>(t.tm_min);
    st->wSecond = static_cast<std::uint16_t>(t.tm_sec);
    st->wMilliseconds = 0;
}

DWORD elapseTime(_SYSTEMTIME*, _SYSTEMTIME*)
{
    return 0;
}

DWORD GetCurrentDirectory(DWORD size, char* buf)
{
    if (buf == nullptr || size == 0 || getcwd(buf, size) == nullptr) return 0;
    return static_cast<DWORD>(strlen(buf));
}

char* strupr(char* s)
{
    if (s == nullptr) return s;
    for (char* p = s; *p; ++p) *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    return s;
}

int strnicmp(const char* a, const char* b, unsigned n)
{
    int diff = 0;
    for (unsigned i = 0; i < n; ++i) {
        const int ca = toupper(static_cast<unsigned char>(a[i]));
        const int cb = toupper(static_cast<unsigned char>(b[i]));
        diff = ca - cb;
        if (diff != 0 || ca == 0) break;
    }
    return diff;
}
