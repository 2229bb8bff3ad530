#pragma once

// Internal seams of the system utilities (not exported): tests capture
// command lines instead of running them and redirect the syslog
// configuration into a scratch directory.
#include <functional>
#include <string>

namespace utl_system_internal {

// Runs a shell command line and returns its wait status, as system() does.
using CommandRunner = std::function<int(const std::string& commandLine)>;

// Installs runner for every shell command of the system utilities and
// returns the previous one; an empty runner restores system().
CommandRunner setCommandRunner(CommandRunner runner);
int runCommand(const std::string& commandLine);

// The configuration file writeSysLogCfg writes and the directory holding the
// old per-server files ("log<n>.conf"); empty texts restore the defaults.
void setSysLogCfgPaths(const std::string& cfgFile, const std::string& oldFileDir);
std::string sysLogCfgFile();
std::string sysLogOldFileDir();

} // namespace utl_system_internal
