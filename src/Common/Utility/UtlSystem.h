#pragma once

// Functions that reach outside the process: shell commands run locally or on
// a peer over ssh, file owner changes, token replacement in text files, and
// ending the process with a diagnostic. They run on the caller's thread and
// report through the debug trace.
#include <sstream>
#include <string>

#include "TavroExport.h"
#include "Common/Utility/UtlIp.h"
#include "Common/Utility/UtlSysLog.h"

enum SYSTEM_CALL_MODE {
    FOREGROUND_SYSTEM_CALL = 0,
    BACKGROUND_SYSTEM_CALL = 2, // " &" is appended; the call returns at once
};

enum CHANGE_OWNER_MODE {
    CHANGE_OWNER_MODE_CHECK_FILE_EXIST = 0, // only an existing file is changed
    CHANGE_OWNER_MODE_NO_CHECK = 1,
};

enum SYS_CALL_DEBUG_MODE {
    SYS_CALL_DEBUG_ALWAYS = 0,   // address decision, command line and failures
    SYS_CALL_DEBUG_ON_ERROR = 1, // failures only
    SYS_CALL_NO_DEBUG = 2,       // nothing
};

struct tokenreplace_t {
    std::string aSrcToken;
    std::string aReplaceToken;
};

// Runs command through the shell: locally when ip is 0 or 127.0.0.1, else as
// corvid@ip over ssh (in /Tessara/Server unless the command holds a single
// quote, in which case it is passed as it stands). Returns the exit code, or
// -1 when the shell did not exit normally (signal, or the shell could not be
// started). caller tags the trace lines (null: "systemCall").
TAVRO_EXPORT int systemCall(const std::string& command, const c_inaddr& ip = c_inaddr(),
                            SYSTEM_CALL_MODE mode = FOREGROUND_SYSTEM_CALL,
                            SYS_CALL_DEBUG_MODE debug = SYS_CALL_DEBUG_ON_ERROR, const char* caller = nullptr);
TAVRO_EXPORT int systemCall(const std::stringstream& command, const c_inaddr& ip = c_inaddr(),
                            SYSTEM_CALL_MODE mode = FOREGROUND_SYSTEM_CALL,
                            SYS_CALL_DEBUG_MODE debug = SYS_CALL_DEBUG_ON_ERROR, const char* caller = nullptr);

// Makes corvid:corvid the owner of path on ip (through sudo); returns the
// result of systemCall. The second form joins dir and file as they are (no
// separator added) and returns -1 when either is null.
TAVRO_EXPORT int changeOwnerToCorvid(const std::string& path, const c_inaddr& ip = c_inaddr(),
                                     CHANGE_OWNER_MODE mode = CHANGE_OWNER_MODE_CHECK_FILE_EXIST);
TAVRO_EXPORT int changeOwnerToCorvid(const char* dir, const char* file, const c_inaddr& ip = c_inaddr(),
                                     CHANGE_OWNER_MODE mode = CHANGE_OWNER_MODE_CHECK_FILE_EXIST);

// tokens is an array ended by an entry whose aSrcToken is empty (a null
// pointer means no tokens). Each source token, in array order, is replaced by
// its replacement at every place in the line, left to right; replaced text is
// not searched again. Returns the number of replacements.
TAVRO_EXPORT int replaceLineToken(std::string& line, tokenreplace_t* tokens);
// Copies inFile to outFile line by line through replaceLineToken. Line ends
// (LF, CR LF) and a missing final line end are kept; inFile may equal
// outFile. False when inFile cannot be read or outFile cannot be written.
TAVRO_EXPORT bool replaceFileToken(const char* inFile, const char* outFile, tokenreplace_t* tokens);

// Most addresses GetIpSwitchStr writes: out must have room for this many.
constexpr int IP_SWITCH_STR_MAX = 8;
// Splits text at any of the separator characters (null or empty: blanks,
// tabs, commas and semicolons) and writes each piece that is an IPv4 address
// to out[n] in canonical dotted form. Other pieces are skipped. Returns the
// number of addresses written (at most IP_SWITCH_STR_MAX), or -1 when text or
// out is null.
TAVRO_EXPORT int GetIpSwitchStr(const char* text, const char* separators, char (*out)[16]);

// Traces the reason between two TERMINATE lines and aborts.
[[noreturn]] TAVRO_EXPORT void coreDump(const char* reason);
