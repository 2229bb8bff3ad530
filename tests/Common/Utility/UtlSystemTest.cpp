#include "Common/Utility/UtlSystem.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "Common/Utility/UtlSystemInternal.h"
#include "TestSupport.h"

using tavro_test::readFile;
using tavro_test::writeFile;

namespace {

// Captures command lines instead of running them; each "returns" status.
struct FakeShell {
    explicit FakeShell(int status = 0)
    {
        previous = utl_system_internal::setCommandRunner([this, status](const std::string& line) {
            lines.push_back(line);
            return status;
        });
    }
    ~FakeShell() { utl_system_internal::setCommandRunner(previous); }
    std::vector<std::string> lines;
    utl_system_internal::CommandRunner previous;
};

const c_inaddr LOCAL, LOOPBACK("127.0.0.1"), PEER("10.0.0.5");
const std::string SSH = "ssh -t -o StrictHostKeyChecking=no corvid@10.0.0.5";

} // namespace

TEST(UtlSystem, BuildsCommandLines)
{
    const struct {
        std::string command;
        c_inaddr ip;
        SYSTEM_CALL_MODE mode;
        std::string line;
    } cases[] = {
        {"ls -l", LOCAL, FOREGROUND_SYSTEM_CALL, "ls -l"},
        {"ls -l", LOOPBACK, BACKGROUND_SYSTEM_CALL, "ls -l &"},
        {"ls -l", PEER, FOREGROUND_SYSTEM_CALL, SSH + " 'cd /Tessara/Server; ls -l'"},
        {"ls -l", PEER, BACKGROUND_SYSTEM_CALL, SSH + " 'cd /Tessara/Server; ls -l' &"},
        // A command with its own quotes goes as it stands, without the cd.
        {"echo 'hi' > x", PEER, BACKGROUND_SYSTEM_CALL, SSH + " echo 'hi' > x &"},
        {"ls", c_inaddr("127.0.0.2"), FOREGROUND_SYSTEM_CALL,
         "ssh -t -o StrictHostKeyChecking=no corvid@127.0.0.2 'cd /Tessara/Server; ls'"},
    };
    for (const auto& c : cases) {
        FakeShell shell;
        EXPECT_EQ(systemCall(c.command, c.ip, c.mode, SYS_CALL_DEBUG_ON_ERROR, "t"), 0);
        EXPECT_EQ(shell.lines, std::vector<std::string>{c.line});
    }
}

TEST(UtlSystem, DecodesWaitStatusAndTracesByDebugMode)
{
    const std::string always = "tag: ipAddr[0.0.0.0]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[false]\n"
                               "tag: bRemote[false]\ntag: Executing [cmd]\n";
    const struct {
        int status;
        SYS_CALL_DEBUG_MODE debug;
        int result;
        std::string trace;
    } cases[] = {
        {0, SYS_CALL_DEBUG_ON_ERROR, 0, ""},
        {3 << 8, SYS_CALL_DEBUG_ON_ERROR, 3, "tag ERROR: rc[3] from [cmd]\n"},
        {3 << 8, SYS_CALL_NO_DEBUG, 3, ""},
        {9 | 0x80, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: KILLED BY SIGNAL [ 9 ]: rc[137] from [cmd]\n"},
        {9, SYS_CALL_NO_DEBUG, -1, ""},
        // Low bits 0x7F are a stop, not a signal death; -1: no shell ran.
        {0x137F, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[4991] from [cmd]\n"},
        {-1, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[-1] from [cmd]\n"},
        {0, SYS_CALL_DEBUG_ALWAYS, 0, always},
        {1 << 8, SYS_CALL_DEBUG_ALWAYS, 1, always + "tag ERROR: rc[1] from [cmd]\n"},
    };
    for (const auto& c : cases) {
        FakeShell shell(c.status);
        testing::internal::CaptureStdout();
        EXPECT_EQ(systemCall("cmd", LOCAL, FOREGROUND_SYSTEM_CALL, c.debug, "tag"), c.result) << c.status;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.trace) << c.status;
    }
    FakeShell shell;
    std::stringstream ss;
    ss << "x" << 1;
    testing::internal::CaptureStdout();
    systemCall(ss, PEER, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ALWAYS, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind(
                  "systemCall: ipAddr[10.0.0.5]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[true]\n", 0),
              0u);
    EXPECT_EQ(shell.lines, std::vector<std::string>{SSH + " 'cd /Tessara/Server; x1'"});
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

TEST(UtlSystem, ChangesOwnerThroughSudo)
{
    const std::string checked = "sudo /bin/sh -c \"if [ -f /x/y ]; then chown corvid:corvid /x/y; fi\"";
    const struct {
        c_inaddr ip;
        CHANGE_OWNER_MODE mode;
        std::string line;
    } cases[] = {
        {PEER, CHANGE_OWNER_MODE_CHECK_FILE_EXIST, SSH + " '" + checked + "'"},
        {PEER, CHANGE_OWNER_MODE_NO_CHECK, SSH + " 'sudo chown corvid:corvid /x/y'"},
        // Locally the shell must see the sudo command, not one quoted word.
        {LOCAL, CHANGE_OWNER_MODE_CHECK_FILE_EXIST, checked},
        {LOOPBACK, CHANGE_OWNER_MODE_NO_CHECK, "sudo chown corvid:corvid /x/y"},
    };
    for (const auto& c : cases) {
        FakeShell shell;
        EXPECT_EQ(changeOwnerToCorvid("/x/y", c.ip, c.mode), 0);
        EXPECT_EQ(changeOwnerToCorvid("/x/", "y", c.ip, c.mode), 0);
        EXPECT_EQ(shell.lines, std::vector<std::string>(2, c.line));
    }
    FakeShell failing(1 << 8);
    testing::internal::CaptureStdout();
    EXPECT_EQ(changeOwnerToCorvid("/x", "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), 1);
    EXPECT_EQ(changeOwnerToCorvid(nullptr, "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "changeOwnerToCorvid ERROR: rc[1] from [" + SSH + " 'sudo chown corvid:corvid /xy']\n"
              "Can't change owner to corvid for /xy on 10.0.0.5\n");
    EXPECT_EQ(failing.lines.size(), 1u);
}

TEST(UtlSystem, ReplacesTokens)
{
    tokenreplace_t tokens[] = {{"$H", "sw1"}, {"$P", "$P$P"}, {"ab", "b"}, {"", ""}, {"x", "y"}};
    const struct {
        std::string in, out;
        int count;
    } cases[] = {
        {"$H:$H", "sw1:sw1", 2},
        {"port $P", "port $P$P", 1}, // a replacement is not searched again,
        {"aab", "ab", 1},            // nor what it forms with the text before it
        {"x", "x", 0},               // tokens after the empty one are unused
    };
    for (const auto& c : cases) {
        std::string line = c.in;
        EXPECT_EQ(replaceLineToken(line, tokens), c.count) << c.in;
        EXPECT_EQ(line, c.out) << c.in;
    }

    tavro_test::ScopedTempDir dir;
    writeFile("in.cfg", "ip=$H\r\n# $H $H\n\nlast $H");
    ASSERT_TRUE(replaceFileToken("in.cfg", "out.cfg", tokens));
    EXPECT_EQ(readFile("out.cfg"), "ip=sw1\r\n# sw1 sw1\n\nlast sw1");
    ASSERT_TRUE(replaceFileToken("out.cfg", "out.cfg", tokens)) << "in place";
    EXPECT_EQ(readFile("out.cfg"), "ip=sw1\r\n# sw1 sw1\n\nlast sw1");
    EXPECT_FALSE(replaceFileToken("missing.cfg", "x.cfg", tokens));
    EXPECT_FALSE(replaceFileToken("in.cfg", "no/dir/x.cfg", tokens));
    EXPECT_NE(access("x.cfg", F_OK), 0);
}

TEST(UtlSystem, SplitsIpSwitchText)
{
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

TEST(UtlSystemDeathTest, CoreDumpTracesAndAborts)
{
    // The re-executing style cannot work under user-mode emulation (the
    // child would have to exec a foreign binary); this process runs no
    // threads, so a plain fork is safe.
    GTEST_FLAG_SET(death_test_style, "fast");
    // In the child stdout goes to stderr, where the death test looks.
    EXPECT_DEATH((dup2(2, 1), coreDump("disk full")),
                 "coreDumpTERMINATE!{38}\ncoreDumpdisk full\ncoreDumpTERMINATE!{38}\n");
    EXPECT_DEATH((dup2(2, 1), coreDump(nullptr)), "coreDumpTERMINATE!{38}\ncoreDumpTERMINATE!{38}\n");
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}
