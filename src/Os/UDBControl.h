#pragma once

// The system control block: the class-reference table through which every
// long-lived object is found, sequence numbers and the default response
// time-out. Also the port and sub-port number types.
#include <atomic>
#include <cstdint>
#include <string>

#include "Common/OS/Linux/WinTypes.h"
#include "Common/OS/OsThread.h"
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

// Zero-based chassis/pim/port of one port, plus switch id. The text form is
// one-based "chassis.pim.port".
struct PORT_NUM {
    unsigned char portId;
    unsigned char pimId;
    unsigned char ccId;
    unsigned char swId;

    constexpr PORT_NUM() : PORT_NUM(0xFFFFFFFFu) {}
    // Bytes taken as they are: portId bits 0-7 ... swId bits 24-31.
    constexpr PORT_NUM(unsigned int v)
        : portId(static_cast<unsigned char>(v)),
          pimId(static_cast<unsigned char>(v >> 8)),
          ccId(static_cast<unsigned char>(v >> 16)),
          swId(static_cast<unsigned char>(v >> 24))
    {
    }
    constexpr PORT_NUM(int v) : PORT_NUM(static_cast<unsigned int>(v)) {}
    explicit PORT_NUM(const char* text);

    unsigned int value() const
    {
        return static_cast<unsigned int>(portId) | static_cast<unsigned int>(pimId) << 8 |
               static_cast<unsigned int>(ccId) << 16 | static_cast<unsigned int>(swId) << 24;
    }
    bool operator==(const PORT_NUM& o) const { return value() == o.value(); }
    bool operator!=(const PORT_NUM& o) const { return value() != o.value(); }
    bool operator<(const PORT_NUM& o) const { return value() < o.value(); }

    bool isValid() const;
    // One-based "c.p.p"; "INVALID" and "ALL" for the two constants.
    std::string toString() const;

    static const PORT_NUM INVALID_PORT_NUM;
    static const PORT_NUM ALL_PORT_NUMS;
    static constexpr unsigned MAX_CHASSIS = 8;
    static constexpr unsigned MAX_PIMS = 12;
};
static_assert(sizeof(PORT_NUM) == 4, "PORT_NUM is four bytes");

// Sub-port: zero-based chassis/pim/port and the sub-port (1 rx, 2 tx).
struct SUBPORT_NUM {
    unsigned char portId;
    unsigned char pimId;
    unsigned char ccId;
    unsigned char subportId;

    static constexpr unsigned char SUBPORT_RX = 1;
    static constexpr unsigned char SUBPORT_TX = 2;

    constexpr SUBPORT_NUM() : SUBPORT_NUM(-1) {}
    // Reads one-based bytes and subtracts 1 from every one, the sub-port
    // included: ccId bits 24-31, pimId 16-23, portId 8-15, subportId 0-7.
    // Deliberately unlike PORT_NUM(unsigned).
    constexpr SUBPORT_NUM(int v)
        : portId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 8) - 1)),
          pimId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 16) - 1)),
          ccId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 24) - 1)),
          subportId(static_cast<unsigned char>(static_cast<unsigned int>(v) - 1))
    {
    }
    explicit SUBPORT_NUM(const char* text);

    bool operator==(const SUBPORT_NUM& o) const
    {
        return portId == o.portId && pimId == o.pimId && ccId == o.ccId && subportId == o.subportId;
    }
    bool operator!=(const SUBPORT_NUM& o) const { return !(*this == o); }

    PORT_NUM port() const;
    bool isValid() const { return subportId == SUBPORT_RX || subportId == SUBPORT_TX; }
    // "c.p.p.s": chassis, pim and port one-based, the sub-port as stored.
    std::string toString() const;

    static const SUBPORT_NUM INVALID_SUBPORT_NUM;
};
static_assert(sizeof(SUBPORT_NUM) == 4, "SUBPORT_NUM is four bytes");
