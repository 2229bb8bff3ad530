#include "Common/Utility/UtlDebug.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <ostream>

#include "Common/OS/Linux/OSAL.h"
#include "Common/OS/Linux/WinEvent.h"
#include "Common/OS/OsSocket.h"
#include "Common/Utility/UtlQueue.h"
#include "Common/Utility/UtlTime.h"

namespace {

const char kLogFile[] = "log/Test.Debug.log";
const char kApplication[] = "Unknown Application";
constexpr long long kSecondsPerDay = 86400;

std::atomic<long long> s_lastDay{0};
// debugOut's looked-up instance.
std::atomic<UtlDebug*> s_cached{nullptr};
std::mutex s_createLock;
std::mutex s_startLock;

void writeDirect(const char* text, bool logToSysLog)
{
    if (logToSysLog)
        syslog(LOG_INFO, "%s", text);
    else
        std::fputs(text, stdout);
}

} // namespace

std::atomic<UtlDebug*> UtlDebug::theUtlDebug{nullptr};
std::atomic<bool> UtlDebug::m_bUnitTestFriendly{false};
std::atomic<bool> UtlDebug::writerRunning{false};

long long debugLastDay()
{
    return s_lastDay.load();
}

void debugSetLastDay(long long day)
{
    s_lastDay.store(day);
}

DEBUG_MSG::DEBUG_MSG(const char* text, bool logToSysLog)
    : m_pstrMessage(new std::string(text ? text : "")), m_timeStamp{}, m_threadId(GetCurrentThreadId()),
      m_bLogToSysLog(logToSysLog)
{
    gettimeofday(&m_timeStamp, nullptr);
}

DEBUG_MSG::DEBUG_MSG(const char* text, bool logToSysLog, const timeval& timeStamp, std::uint32_t threadId)
    : m_pstrMessage(new std::string(text ? text : "")), m_timeStamp(timeStamp), m_threadId(threadId),
      m_bLogToSysLog(logToSysLog)
{
}

DEBUG_MSG::~DEBUG_MSG()
{
    delete m_pstrMessage;
}

std::ostream& operator<<(std::ostream& os, const DEBUG_MSG& msg)
{
    const std::ios::fmtflags flags = os.flags();
    const char fill = os.fill();
    const std::streamsize width = os.width(0);
    const bool fixed = UtlDebug::IsUnitTestFriendly();

    const long long day = static_cast<long long>(msg.m_timeStamp.tv_sec) / kSecondsPerDay;
    const long long lastDay = s_lastDay.load();
    if (day != lastDay) {
        os << '\n';
        if (lastDay == 0) {
            if (fixed)
                os << "[] -- ";
            else
                os << "[" << msg.m_timeStamp << "] -- ";
            os << kApplication << " STARTUP";
        } else if (fixed) {
            os << "[New Day]";
        } else {
            os << date(msg.m_timeStamp) << " ";
        }
        os << "\n\n";
        s_lastDay.store(day);
    }
    if (fixed)
        os << "[][] ";
    else
        os << monthDay(msg.m_timeStamp) << " " << timeofday(msg.m_timeStamp) << " " << std::dec << std::right
           << std::setfill('0') << std::setw(4) << msg.m_threadId << " ";
    if (msg.m_pstrMessage) os << *msg.m_pstrMessage;

    os.flags(flags);
    os.fill(fill);
    os.width(width);
    return os;
}

UtlDebug::UtlDebug()
    : OsThread("UtlDebug", STACK_SIZE), pDbgList(new std::list<OsSocket*>()),
      pMsgQue(new UtlQueue("UtlDebug", MAX_PENDING)), lock(CreateMutex(nullptr, FALSE, nullptr))
{
}

UtlDebug::~UtlDebug()
{
    UtlDebug* self = this;
    if (theUtlDebug.compare_exchange_strong(self, nullptr)) writerRunning.store(false);
    self = this;
    s_cached.compare_exchange_strong(self, nullptr);
    // The queue would free leftovers as raw storage; they own strings.
    while (!pMsgQue->Empty()) delete static_cast<DEBUG_MSG*>(pMsgQue->GetNext(true));
    delete pMsgQue;
    delete pDbgList;
    CloseHandle(lock);
}

UtlDebug* UtlDebug::GetTheUtlDebug()
{
    UtlDebug* d = theUtlDebug.load();
    if (d != nullptr) return d;
    std::lock_guard<std::mutex> g(s_createLock);
    d = theUtlDebug.load();
    if (d == nullptr) {
        d = new UtlDebug();
        theUtlDebug.store(d);
    }
    return d;
}

bool UtlDebug::StartDebugThread()
{
    return GetTheUtlDebug()->Start(nullptr);
}

bool UtlDebug::Start(void* arg)
{
    if (this != theUtlDebug.load()) return OsThread::Start(arg);
    std::lock_guard<std::mutex> g(s_startLock);
    if (writerRunning.load()) return true; // one writer per instance
    if (!OsThread::Start(arg)) return false;
    writerRunning.store(true);
    return true;
}

bool UtlDebug::IsDebugThreadRunning()
{
    return writerRunning.load();
}

void UtlDebug::DebugOut(const char* text, bool logToSysLog)
{
    DEBUG_MSG* msg = new DEBUG_MSG(text, logToSysLog);
    {
        std::lock_guard<std::mutex> g(pendingLock);
        ++pending;
    }
    if (!pMsgQue->AddToQueue(static_cast<void*>(msg), UtlQueue::WAIT_IF_OVERFLOW)) {
        delete msg;
        Done();
    }
}

void UtlDebug::Register(OsSocket* listener)
{
    if (listener == nullptr) return;
    Deregister(listener);
    WaitForSingleObject(lock, INFINITE);
    pDbgList->push_front(listener);
    ReleaseMutex(lock);
}

void UtlDebug::Deregister(OsSocket* listener)
{
    if (listener == nullptr) return;
    const int fd = listener->GetSocket();
    WaitForSingleObject(lock, INFINITE);
    pDbgList->remove_if([fd](const OsSocket* s) { return s->GetSocket() == fd; });
    ReleaseMutex(lock);
}

bool UtlDebug::WaitUntilDrained(DWORD ms)
{
    std::unique_lock<std::mutex> g(pendingLock);
    if (ms == INFINITE) {
        pendingDone.wait(g, [this] { return pending == 0; });
        return true;
    }
    return pendingDone.wait_for(g, std::chrono::milliseconds(ms), [this] { return pending == 0; });
}

void UtlDebug::Done()
{
    std::lock_guard<std::mutex> g(pendingLock);
    if (pending > 0 && --pending == 0) pendingDone.notify_all();
}

void UtlDebug::Write(DEBUG_MSG* msg)
{
    const std::string& text = *msg->m_pstrMessage;
    WaitForSingleObject(lock, INFINITE);
    {
        std::ofstream file(kLogFile, std::ios::out | std::ios::app);
        if (file) file << *msg;
    }
    if (msg->m_bLogToSysLog) {
        syslog(LOG_INFO, "%s", text.c_str());
        std::printf("%s", text.c_str());
    }
    for (OsSocket* s : *pDbgList) s->Send(text.data(), static_cast<unsigned>(text.size()));
    delete msg;
    ReleaseMutex(lock);
}

void* UtlDebug::Execute(void*)
{
    auto takeOne = [this] {
        DEBUG_MSG* msg = static_cast<DEBUG_MSG*>(pMsgQue->GetNext(true));
        if (msg == nullptr) {
            std::fputs("  BAD Debug message\n", stdout);
            return;
        }
        if (msg->m_pstrMessage == nullptr || msg->m_pstrMessage->empty()) {
            std::fputs("  EMPTY Debug message\n", stdout);
            delete msg;
        } else {
            Write(msg);
        }
        Done();
    };
    while (!Shuttingdown()) {
        if (pMsgQue->WaitNotEmpty(POLL_MS)) takeOne();
    }
    // What was queued before the stop still belongs in the log.
    while (!pMsgQue->Empty()) takeOne();
    return nullptr;
}

void debugOut(const char* text, bool logToSysLog)
{
    if (text == nullptr) text = "";
    UtlDebug* d = s_cached.load();
    if (d == nullptr) {
        d = UtlDebug::GetTheUtlDebug();
        s_cached.store(d);
    }
    if (UtlDebug::IsDebugThreadRunning())
        d->DebugOut(text, logToSysLog);
    else
        writeDirect(text, logToSysLog);
}

void debugOutf(const char* format, ...)
{
    if (format == nullptr) return;
    char small[256];
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    const int n = std::vsnprintf(small, sizeof small, format, ap);
    va_end(ap);
    if (n < 0) {
        va_end(again);
        return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        va_end(again);
        debugOut(small, false);
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(&big[0], big.size(), format, again);
    va_end(again);
    big.resize(static_cast<size_t>(n));
    debugOut(big.c_str(), false);
}
