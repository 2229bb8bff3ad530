#include "Common/OS/OsThread.h"

#include <cxxabi.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <sstream>
#include <typeinfo>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/Utility/UtlDebug.h"

OsThread::OsThread(unsigned size)
{
    SetThreadName(nullptr);
    ConstructOsThread(size);
}

OsThread::OsThread(const char* name, unsigned size)
{
    SetThreadName(name);
    ConstructOsThread(size);
}

void OsThread::ConstructOsThread(unsigned size)
{
    pArg = nullptr;
    originalPriority = getpriority(PRIO_PROCESS, 0);
    evntShutdownThread = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    bThreadTerminating = true;
    stackSize = size;
}

OsThread::~OsThread()
{
    if (!bThreadTerminating) {
        std::ostringstream os;
        os << "~OsThread"
           << ": CALLED OUTSIDE OF EXECUTION THREAD FOR APP TYPE[" << typeid(*this).name() << "]!";
        debugOut(os.str().c_str());
    }
    CloseHandle(evntShutdownThread);
}

void* OsThread::Execute(void*)
{
    return nullptr;
}

BOOL OsThread::SignalShutdown()
{
    return SetEvent(evntShutdownThread);
}

bool OsThread::Start(void* arg)
{
    pArg = arg;
    return _beginthread(ThreadTrampoline, stackSize, this) != OSAL_BEGINTHREAD_FAILED;
}

void OsThread::ThreadTrampoline(void* self)
{
    EntryPoint(static_cast<OsThread*>(self));
}

void OsThread::EntryPoint(OsThread* thread)
{
    thread->bThreadTerminating = false;
    if (thread->threadName[0] == '\0') {
        const char* mangled = typeid(*thread).name();
        int status = 0;
        char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
        thread->SetThreadName(status == 0 && demangled ? demangled : mangled);
        free(demangled);
    }
    thread->Execute(thread->pArg);
    thread->bThreadTerminating = true;
    delete thread;
    _endthread();
}

void* OsThread::Run(void* arg)
{
    Setup();
    return Execute(arg);
}

bool OsThread::Shuttingdown()
{
    return WaitForSingleObject(evntShutdownThread, 0) == WAIT_OBJECT_0;
}

bool OsThread::SetPriorityHigh()
{
    return setpriority(PRIO_PROCESS, 0, -10) != 0;
}

bool OsThread::SetPriorityNormal()
{
    return setpriority(PRIO_PROCESS, 0, originalPriority) != 0;
}

void OsThread::SetThreadName(const char* name)
{
    memset(threadName, 0, sizeof threadName);
    if (name == nullptr) return;
    strncpy(threadName, name, sizeof threadName - 1);
}
