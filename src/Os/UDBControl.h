#pragma once

// The system control block: the class-reference table through which every
// long-lived object is found, sequence numbers and the default response
// time-out. Also the port and sub-port number types.
#include <atomic>
#include <cstdint>
#include <string>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
#include "Os/UDBPortNum.h"
#include "Os/UDBServ.h"

enum CLASS_TYPE {
    SMN_UNUSED = 0,
    SMN_ERR = 1,
    SMN_SYS_PARM = 2,
    SMN_API_TABLE = 3,
    SMN_SWI_TABLE = 4,
    SMN_DISPATCH = 5,
    SMN_TRACKER = 6,
    SMN_IOR = 7,
    SMN_DBM = 8,
    SMN_CLIENT_ID = 9,
    SMN_LOGON_CTL = 10,
    SMN_SPARE = 11,
    SMN_SWI_MGMT = 12,
    SMN_SRVMGMT = 13,
    SMN_CLI = 14,
    SMN_BERT_PORTS = 15,
    SMN_TELNET = 16,
    SMN_DIAG_PORTS = 17,
    SMN_SSH = 18,
    SMN_PORT_LOCKING = 19,
    SMN_SERIAL = 20,
    SMN_SCHEDULER = 21,
    SMN_BK_SRV_MGMT = 22,
    SMN_GLORT_MGR = 23,
    SMN_POLLMGMT = 24,
    SMN_POLL_TABLE = 25,
    SMN_NUM_CLASSES = 26,
};

enum CTL_STATE {
    CTL_INITIAL = 0,
    CTL_INIT = 1,
};

class UDBControl : public OsThread {
public:
    static constexpr std::uint32_t INVALID_SEQ_NUMBER = 0;
    static constexpr unsigned STACK_SIZE = 262144;
    static constexpr int DEFAULT_MSG_TIMEOUT = 10000;

    // Whether the constructor runs PrepareSystem. Tests build a bare control
    // block with SKIP_PREPARE so that no route tables or threads appear.
    enum PREPARE_MODE { PREPARE_SYSTEM, SKIP_PREPARE };

    explicit UDBControl(SYS_PARM* parm, PREPARE_MODE mode = PREPARE_SYSTEM);
    ~UDBControl() override;

    void* Execute(void* arg) override;
    // Creates the three route tables, then the router and the tracker, each
    // started and registered in that order.
    void PrepareSystem();
    // Runs the control block's thread body on a thread object of its own:
    // a started OsThread deletes itself when its body returns, and the
    // control block must outlive that. False when no thread could be made.
    bool StartControlThread(void* arg);
    // Stops the tracker and the router, waits up to waitMs for each to be
    // gone, then frees the route tables and empties their slots. The library
    // never stops on its own; this is for tests and tools. False when a
    // thread did not end in time (nothing is freed then).
    bool StopSystem(DWORD waitMs);

    static UDBControl* getIt() { return pTheUdbControl.load(std::memory_order_acquire); }

    // Null for an empty slot or a type out of range.
    static void* GetClassRef(CLASS_TYPE t);
    static void InsertClassRef(CLASS_TYPE t, void* p);

    void SetCtlState(CTL_STATE s);
    CTL_STATE GetCtlState() const { return ctlState; }
    static const char* CtlStateName(CTL_STATE s);

    // Never returns INVALID_SEQ_NUMBER; lock-free.
    static std::uint32_t GenSeqNbr();
    // 10000 ms, or -1 (wait for ever) when noMsgTimeout is set.
    static int GetDefaultMsgTimeout() { return defaultMsgTimeout.load(std::memory_order_relaxed); }

    HANDLE GetEventLock() const { return eventlock; }
    SYS_PARM* GetSysParm() const { return pSysParm; }
    std::uint32_t GetStartTime() const { return startTime; }
    bool IsFailedOver() const { return failedover; }

    // The argument the control block's thread was last started with.
    static void* GetExecuteArg() { return pExecuteArg.load(std::memory_order_acquire); }

    // Test seams (not exported): set the last sequence number handed out, and
    // clear the class table and the default time-out.
    static void SetSeqNbrForTest(std::uint32_t last) { seqNumber.store(last, std::memory_order_relaxed); }
    static void ResetStaticsForTest();

    HANDLE eventlock;

private:
    CTL_STATE ctlState;
    SYS_PARM* pSysParm;
    std::uint32_t startTime;
    bool failedover;

    static std::atomic<void*> systemClasses[SMN_NUM_CLASSES];
    static std::atomic<int> defaultMsgTimeout;
    static std::atomic<std::uint32_t> seqNumber;
    static const char* const pCtlState[];
    static std::atomic<UDBControl*> pTheUdbControl;
    static std::atomic<void*> pExecuteArg;
};
