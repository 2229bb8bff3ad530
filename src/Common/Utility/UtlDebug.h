#pragma once

// The debug trace: every diagnostic line of the library goes through
// debugOut. Once the writer thread runs, callers only stamp and queue their
// text; one thread writes it to "log/Test.Debug.log", optionally to syslog and
// stdout, and to every registered listener socket.
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <mutex>
#include <string>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
#include "TavroExport.h"

class OsSocket;
class UtlQueue;

// One queued line, stamped in the caller's thread.
struct DEBUG_MSG {
    DEBUG_MSG(const char* text, bool logToSysLog);
    // With a chosen stamp and thread id (replaying or testing the line format).
    DEBUG_MSG(const char* text, bool logToSysLog, const timeval& timeStamp, std::uint32_t threadId);
    virtual ~DEBUG_MSG();

    DEBUG_MSG(const DEBUG_MSG&) = delete;
    DEBUG_MSG& operator=(const DEBUG_MSG&) = delete;

    std::string* m_pstrMessage;
    timeval m_timeStamp;
    std::uint32_t m_threadId;
    bool m_bLogToSysLog;
};

// The log line: a banner or date line when the UTC day changed since the
// previous line of the process, the prefix, then the text as it is.
std::ostream& operator<<(std::ostream& os, const DEBUG_MSG& msg);

class UtlDebug : public OsThread {
public:
    static constexpr int MAX_PENDING = 4096;
    static constexpr unsigned STACK_SIZE = 0x40000;
    static constexpr DWORD POLL_MS = 100;

    // Creates the process's instance on first use; does not start it.
    static UtlDebug* GetTheUtlDebug();
    // Starts the process's writer once; later and concurrent calls only
    // report whether it runs. Until then debugOut writes directly.
    static bool StartDebugThread();
    // For the process's instance the same as StartDebugThread, so that
    // debugOut queues to the writer however its owner started it; any other
    // instance just starts its thread.
    bool Start(void* arg);
    static bool IsDebugThreadRunning();

    // Replaces time stamps and thread ids by fixed markers in the log file.
    static void SetUnitTestFriendly(bool on) { m_bUnitTestFriendly.store(on); }
    static bool IsUnitTestFriendly() { return m_bUnitTestFriendly.load(); }

    // Normally only GetTheUtlDebug constructs; a separate instance is useful
    // where one must control its writer (it is then not the process's trace).
    UtlDebug();
    ~UtlDebug() override;

    void* Execute(void* arg) override;

    // Queues the text; blocks while MAX_PENDING messages wait for the writer.
    void DebugOut(const char* text, bool logToSysLog);

    void Register(OsSocket* listener);
    void Deregister(OsSocket* listener);

    // Waits until every message queued so far has been written (or dropped as
    // empty). False on time-out.
    bool WaitUntilDrained(DWORD ms);

private:
    // Writes one message to the file, syslog and the listeners, and frees it.
    void Write(DEBUG_MSG* msg);
    void Done();

    std::list<OsSocket*>* pDbgList;
    UtlQueue* pMsgQue;
    HANDLE lock;

    std::mutex pendingLock;
    std::condition_variable pendingDone;
    unsigned pending = 0;

    static std::atomic<UtlDebug*> theUtlDebug;
    static std::atomic<bool> m_bUnitTestFriendly;
    static std::atomic<bool> writerRunning;
};

// Last UTC day (seconds / 86400) written by a DEBUG_MSG line; 0 before the
// first line of the process. Exposed so that the line format can be checked.
long long debugLastDay();
void debugSetLastDay(long long day);

TAVRO_EXPORT void debugOut(const char* text, bool logToSysLog = false);
// printf-style; formats into a buffer that grows to fit, never truncates.
TAVRO_EXPORT void debugOutf(const char* format, ...) __attribute__((format(printf, 1, 2)));
