#include "Common/Utility/UtlSystem.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "Common/Utility/UtlSysLog.h"
#include "Common/Utility/UtlSystemInternal.h"
#include "Os/UDBServ.h"
#include "TestSupport.h"

using tavro_test::readFile;
using tavro_test::writeFile;

namespace {

// Captures command lines instead of running them; each "returns" status.
struct FakeShell {
    explicit FakeShell(int status = 0)
        : previous(utl_system_internal::setCommandRunner([this, status](const std::string& line) {
              lines.push_back(line);
              return status;
          }))
    {
    }
    ~FakeShell() { utl_system_internal::setCommandRunner(previous); }
    std::vector<std::string> lines;
    utl_system_internal::CommandRunner previous;
};

const c_inaddr LOCAL, LOOPBACK("127.0.0.1"), PEER("10.0.0.5");
const std::string SSH = "ssh -t -o StrictHostKeyChecking=no corvid@10.0.0.5";
const std::string CHECKED = "sudo /bin/sh -c \"if [ -f /x/y ]; then chown corvid:corvid /x/y; fi\"";

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

SYSLOG_REC rec(const char* ip, unsigned short port, ALARM_PRIORITY threshold, bool enabled)
{
    SYSLOG_REC r;
    r.ipv4 = inet_addr(ip);
    r.sysLogPort = port;
    r.alarmThreshold = threshold;
    r.enabled = enabled;
    return r;
}

} // namespace

TEST(UtlSystem, BuildsCommandLinesAndDecodesWaitStatus)
{
    const auto fg = FOREGROUND_SYSTEM_CALL, bg = BACKGROUND_SYSTEM_CALL;
    const auto check = CHANGE_OWNER_MODE_CHECK_FILE_EXIST, nocheck = CHANGE_OWNER_MODE_NO_CHECK;
    auto sys = [](const char* cmd, c_inaddr ip, SYSTEM_CALL_MODE mode) {
        return [=] { return systemCall(cmd, ip, mode, SYS_CALL_DEBUG_ON_ERROR, "t"); };
    };
    auto chown1 = [](c_inaddr ip, CHANGE_OWNER_MODE m) { return [=] { return changeOwnerToCorvid("/x/y", ip, m); }; };
    auto chown2 = [](c_inaddr ip, CHANGE_OWNER_MODE m) {
        return [=] { return changeOwnerToCorvid("/x/", "y", ip, m); };
    };
    const std::pair<std::function<int()>, std::string> cases[] = {
        {sys("ls -l", LOCAL, fg), "ls -l"},
        {sys("ls -l", LOOPBACK, bg), "ls -l &"},
        {sys("ls -l", PEER, fg), SSH + " 'cd /Tessara/Server; ls -l'"},
        {sys("ls -l", PEER, bg), SSH + " 'cd /Tessara/Server; ls -l' &"},
        // A command with its own quotes goes as it stands, without the cd.
        {sys("echo 'hi' > x", PEER, bg), SSH + " echo 'hi' > x &"},
        {sys("ls", c_inaddr("127.0.0.2"), fg),
         "ssh -t -o StrictHostKeyChecking=no corvid@127.0.0.2 'cd /Tessara/Server; ls'"},
        {chown1(PEER, check), SSH + " '" + CHECKED + "'"},
        {chown2(PEER, nocheck), SSH + " 'sudo chown corvid:corvid /x/y'"},
        // Locally the shell must see the sudo command, not one quoted word.
        {chown2(LOCAL, check), CHECKED},
        {chown1(LOOPBACK, nocheck), "sudo chown corvid:corvid /x/y"}};
    for (const auto& [call, line] : cases) {
        FakeShell shell;
        EXPECT_EQ(call(), 0);
        EXPECT_EQ(shell.lines, std::vector<std::string>{line});
    }

    // The wait status decoded, traced by debug mode.
    const std::string always =
        "tag: ipAddr[0.0.0.0]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[false]\n"
        "tag: bRemote[false]\ntag: Executing [cmd]\n";
    const std::tuple<int, SYS_CALL_DEBUG_MODE, int, std::string> statuses[] = {
        // Exit codes and signals through a real shell: RunsRealLocalCommands.
        {0, SYS_CALL_DEBUG_ON_ERROR, 0, ""},
        {3 << 8, SYS_CALL_NO_DEBUG, 3, ""},
        {9, SYS_CALL_NO_DEBUG, -1, ""},
        // Low bits 0x7F are a stop, not a signal death; -1: no shell ran.
        {0x137F, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[4991] from [cmd]\n"},
        {-1, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[-1] from [cmd]\n"},
        {1 << 8, SYS_CALL_DEBUG_ALWAYS, 1, always + "tag ERROR: rc[1] from [cmd]\n"}};
    for (const auto& [status, debug, result, trace] : statuses) {
        FakeShell shell(status);
        testing::internal::CaptureStdout();
        EXPECT_EQ(systemCall("cmd", LOCAL, FOREGROUND_SYSTEM_CALL, debug, "tag"), result) << status;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), trace) << status;
    }
    FakeShell failing(1 << 8);
    testing::internal::CaptureStdout();
    EXPECT_EQ(changeOwnerToCorvid("/x", "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), 1);
    EXPECT_EQ(changeOwnerToCorvid(nullptr, "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "changeOwnerToCorvid ERROR: rc[1] from [" + SSH +
                                                          " 'sudo chown corvid:corvid /xy']\n"
                                                          "Can't change owner to corvid for /xy on 10.0.0.5\n");
    EXPECT_EQ(failing.lines.size(), 1u);
}

TEST(UtlSystem, RunsRealLocalCommands)
{
    tavro_test::ScopedTempDir dir;
    EXPECT_EQ(systemCall("true", LOOPBACK, FOREGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 0);
    EXPECT_EQ(systemCall("echo done > out.txt; exit 7", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 7);
    EXPECT_EQ(readFile("out.txt"), "done\n");
    EXPECT_EQ(systemCall("false", LOCAL, BACKGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 0) << "returns at once";

    testing::internal::CaptureStdout();
    EXPECT_EQ(systemCall("false", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ON_ERROR, "t"), 1);
    EXPECT_EQ(systemCall("kill -TERM $$", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ON_ERROR, "t"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "t ERROR: rc[1] from [false]\nt: KILLED BY SIGNAL [ 15 ]: rc[15] from [kill -TERM $$]\n");
}

TEST(UtlSystem, ReplacesTokensAndSplitsIpSwitchText)
{
    tokenreplace_t tokens[] = {{"$H", "sw1"}, {"$P", "$P$P"}, {"ab", "b"}, {"", ""}, {"x", "y"}};
    const std::tuple<std::string, std::string, int> cases[] = {
        {"$H:$H", "sw1:sw1", 2},
        {"port $P", "port $P$P", 1}, // a replacement is not searched again,
        {"aab", "ab", 1},            // nor what it forms with the text before it
        {"x", "x", 0},               // tokens after the empty one are unused
    };
    for (const auto& [in, out, count] : cases) {
        std::string line = in;
        EXPECT_EQ(replaceLineToken(line, tokens), count) << in;
        EXPECT_EQ(line, out) << in;
    }
    tavro_test::ScopedTempDir dir;
    writeFile("in.cfg", "ip=$H\r\n# $H $H\n\nlast $H");
    ASSERT_TRUE(replaceFileToken("in.cfg", "out.cfg", tokens));
    EXPECT_EQ(readFile("out.cfg"), "ip=sw1\r\n# sw1 sw1\n\nlast sw1");
    ASSERT_TRUE(replaceFileToken("out.cfg", "out.cfg", tokens)) << "in place";
    EXPECT_EQ(readFile("out.cfg"), "ip=sw1\r\n# sw1 sw1\n\nlast sw1");
    EXPECT_FALSE(replaceFileToken("missing.cfg", "x.cfg", tokens));
    EXPECT_FALSE(replaceFileToken("in.cfg", "no/dir/x.cfg", tokens));
    EXPECT_FALSE(exists("x.cfg"));

    char out[IP_SWITCH_STR_MAX + 1][16];
    EXPECT_EQ(GetIpSwitchStr("10.0.0.1, 192.168.001.2;bogus,,255.255.255.255", nullptr, out), 2);
    EXPECT_STREQ(out[1], "255.255.255.255");
    EXPECT_EQ(GetIpSwitchStr("1.1.1.1|2.2.2.2 3.3.3.3", "|", out), 1) << "only the given separators split";
    std::string many;
    for (int i = 0; i <= IP_SWITCH_STR_MAX; ++i) many += "10.0.0." + std::to_string(i) + " ";
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(GetIpSwitchStr(many.c_str(), nullptr, out), IP_SWITCH_STR_MAX);
    EXPECT_EQ(out[IP_SWITCH_STR_MAX][0], '#') << "nothing written beyond the documented room";
}

TEST(UtlSysLog, WritesTheForwardingConfigurationAndRestarts)
{
    EXPECT_STREQ(getSysLogPriorityText(ALARM_PRIORITY_AUDIT_TRAIL_ONLY), "info");
    for (int bad : {-1, 9}) {
        EXPECT_STREQ(getSysLogPriorityText(static_cast<ALARM_PRIORITY>(bad)), "Invalid");
        EXPECT_STREQ(getSysLogFacilityText(bad), "local0");
        EXPECT_EQ(getSysLogFacility(bad), 128);
    }

    tavro_test::ScopedTempDir dir;
    const std::string cfg = dir.path() + "/Tessara.conf";
    utl_system_internal::setSysLogCfgPaths(cfg, dir.path() + "/");
    for (int i = 0; i < 4; ++i) writeFile("log" + std::to_string(i) + ".conf", "old");

    std::string exec = "switchApp";
    std::string* const savedExec = sysParm.pExecFile;
    sysParm.pExecFile = &exec;
    SYSLOG_REC recs[3] = {rec("10.1.2.3", 514, ALARM_PRIORITY_WARNING, true),
                          rec("10.1.2.4", 514, ALARM_PRIORITY_AUDIT_TRAIL_ONLY, false),
                          rec("192.168.0.200", 65535, ALARM_PRIORITY_EMERGENCY, true)};
    EXPECT_TRUE(writeSysLogCfg(3, recs));
    sysParm.pExecFile = savedExec;
    EXPECT_EQ(readFile(cfg),
              "#Generated by switchApp. Do not edit manually.\n"
              ":msg, !contains, \"[TsR]\" ~ \n"
              "$template TessaraFormat,\"<%PRI%> %msg:::sp-if-no-1st-sp%%msg%\"\n"
              "local3.warn @10.1.2.3:514;TessaraFormat\n"
              "#local3.=info @10.1.2.4:514;TessaraFormat\n"
              "local3.emerg @192.168.0.200:65535;TessaraFormat\n");
    EXPECT_FALSE(exists("log0.conf") || exists("log1.conf") || exists("log2.conf"));
    EXPECT_TRUE(exists("log3.conf"));

    // Rewriting truncates; without an executable name the header still forms.
    ASSERT_TRUE(writeSysLogCfg(9, recs));
    const std::string text = readFile(cfg);
    EXPECT_EQ(text.substr(0, 48), "#Generated by . Do not edit manually.\n:msg, !con");
    EXPECT_EQ(text.substr(text.rfind("\n", text.size() - 2)), "\nlocal0.emerg @192.168.0.200:65535;TessaraFormat\n");

    // Unwritable: trace line, false, old files untouched.
    const std::string bad = dir.path() + "/no-dir/Tessara.conf";
    utl_system_internal::setSysLogCfgPaths(bad, dir.path() + "/");
    writeFile("log1.conf", "old");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(writeSysLogCfg(0, recs));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "writeSysLogCfg: Failed to write " + bad + "\n");
    EXPECT_TRUE(exists("log1.conf"));
    utl_system_internal::setSysLogCfgPaths("", "");

    FakeShell shell;
    testing::internal::CaptureStdout();
    EXPECT_EQ(restartSysLog(2), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Reprocess SysLog configuration\n");
    EXPECT_EQ(shell.lines, std::vector<std::string>{"sudo /etc/init.d/rsyslog restart"});
}

TEST(UtlSystemDeathTest, CoreDumpTracesAndAborts)
{
    // The re-executing style cannot work under user-mode emulation (the child
    // would have to exec a foreign binary); this process runs no threads, so a
    // plain fork is safe. In the child stdout goes to stderr, where it looks.
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_DEATH((dup2(2, 1), coreDump("disk full")),
                 "coreDumpTERMINATE!{38}\ncoreDumpdisk full\ncoreDumpTERMINATE!{38}\n");
    EXPECT_DEATH((dup2(2, 1), coreDump(nullptr)), "coreDumpTERMINATE!{38}\ncoreDumpTERMINATE!{38}\n");
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}
