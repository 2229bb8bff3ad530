#include "Common/Utility/UtlSystem.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "Common/Utility/UtlSystemInternal.h"
#include "TestSupport.h"

using tavro_test::readFile;
using tavro_test::ScopedTempDir;
using tavro_test::writeFile;

namespace {

// Captures command lines instead of running them; each returns `status` as
// a wait status.
class FakeShell {
public:
    explicit FakeShell(int status = 0) : status_(status)
    {
        previous_ = utl_system_internal::setCommandRunner([this](const std::string& line) {
            lines.push_back(line);
            return status_;
        });
    }
    ~FakeShell() { utl_system_internal::setCommandRunner(previous_); }
    FakeShell(const FakeShell&) = delete;
    FakeShell& operator=(const FakeShell&) = delete;

    std::vector<std::string> lines;

private:
    int status_;
    utl_system_internal::CommandRunner previous_;
};

const c_inaddr LOCAL;
const c_inaddr LOOPBACK("127.0.0.1");
const c_inaddr PEER("10.0.0.5");
const std::string SSH = "ssh -t -o StrictHostKeyChecking=no corvid@10.0.0.5";

} // namespace

TEST(UtlSystem, BuildsLocalAndRemoteCommandLines)
{
    struct Case {
        std::string command;
        c_inaddr ip;
        SYSTEM_CALL_MODE mode;
        std::string line;
    } cases[] = {
        {"ls -l", LOCAL, FOREGROUND_SYSTEM_CALL, "ls -l"},
        {"ls -l", LOOPBACK, FOREGROUND_SYSTEM_CALL, "ls -l"},
        {"ls -l", LOCAL, BACKGROUND_SYSTEM_CALL, "ls -l &"},
        {"ls -l", PEER, FOREGROUND_SYSTEM_CALL, SSH + " 'cd /Tessara/Server; ls -l'"},
        {"ls -l", PEER, BACKGROUND_SYSTEM_CALL, SSH + " 'cd /Tessara/Server; ls -l' &"},
        // A quoted command is passed as it stands, without the change of directory.
        {"'echo hi' > /tmp/x", PEER, FOREGROUND_SYSTEM_CALL, SSH + " 'echo hi' > /tmp/x"},
        {"echo 'hi'", PEER, BACKGROUND_SYSTEM_CALL, SSH + " echo 'hi' &"},
        {"ls", c_inaddr("127.0.0.2"), FOREGROUND_SYSTEM_CALL,
         "ssh -t -o StrictHostKeyChecking=no corvid@127.0.0.2 'cd /Tessara/Server; ls'"},
    };
    for (const Case& c : cases) {
        FakeShell shell;
        testing::internal::CaptureStdout();
        EXPECT_EQ(systemCall(c.command, c.ip, c.mode, SYS_CALL_DEBUG_ON_ERROR, "test"), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "success is silent";
        ASSERT_EQ(shell.lines.size(), 1u);
        EXPECT_EQ(shell.lines[0], c.line);
    }

    FakeShell shell;
    std::stringstream ss;
    ss << "echo " << 42;
    systemCall(ss, PEER);
    EXPECT_EQ(shell.lines.at(0), SSH + " 'cd /Tessara/Server; echo 42'");
}

TEST(UtlSystem, DecodesWaitStatusAndTracesByDebugMode)
{
    struct Case {
        int status;
        SYS_CALL_DEBUG_MODE debug;
        int result;
        std::string trace;
    } cases[] = {
        {0, SYS_CALL_DEBUG_ON_ERROR, 0, ""},
        {3 << 8, SYS_CALL_DEBUG_ON_ERROR, 3, "tag ERROR: rc[3] from [cmd]\n"},
        {3 << 8, SYS_CALL_NO_DEBUG, 3, ""},
        {9, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: KILLED BY SIGNAL [ 9 ]: rc[9] from [cmd]\n"},
        {9 | 0x80, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: KILLED BY SIGNAL [ 9 ]: rc[137] from [cmd]\n"}, // core dumped
        {9, SYS_CALL_NO_DEBUG, -1, ""},
        // 0x7F in the low bits is a stop, not a signal death; -1 is a shell that never ran.
        {0x137F, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[4991] from [cmd]\n"},
        {-1, SYS_CALL_DEBUG_ON_ERROR, -1, "tag: ABNORMAL TERMINATION: rc[-1] from [cmd]\n"},
        {0, SYS_CALL_DEBUG_ALWAYS, 0,
         "tag: ipAddr[0.0.0.0]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[false]\n"
         "tag: bRemote[false]\n"
         "tag: Executing [cmd]\n"},
        {1 << 8, SYS_CALL_DEBUG_ALWAYS, 1,
         "tag: ipAddr[0.0.0.0]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[false]\n"
         "tag: bRemote[false]\n"
         "tag: Executing [cmd]\n"
         "tag ERROR: rc[1] from [cmd]\n"},
    };
    for (const Case& c : cases) {
        FakeShell shell(c.status);
        testing::internal::CaptureStdout();
        EXPECT_EQ(systemCall("cmd", LOCAL, FOREGROUND_SYSTEM_CALL, c.debug, "tag"), c.result) << c.status;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.trace) << c.status;
    }

    FakeShell shell(2 << 8);
    testing::internal::CaptureStdout();
    systemCall("x", PEER, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ALWAYS, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "systemCall: ipAddr[10.0.0.5]  LOCAL_CALL_IPADDR [127.0.0.1]  remote[true]\n"
              "systemCall: bRemote[true]\n"
              "systemCall: Executing [" + SSH + " 'cd /Tessara/Server; x']\n"
              "systemCall ERROR: rc[2] from [" + SSH + " 'cd /Tessara/Server; x']\n");
}

TEST(UtlSystem, RunsRealLocalCommands)
{
    ScopedTempDir dir;
    EXPECT_EQ(systemCall("true", LOOPBACK, FOREGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 0);
    EXPECT_EQ(systemCall("exit 7", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 7);
    EXPECT_EQ(systemCall("echo done > out.txt", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 0);
    EXPECT_EQ(readFile("out.txt"), "done\n");

    testing::internal::CaptureStdout();
    EXPECT_EQ(systemCall("false", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ON_ERROR, "t"), 1);
    // The shell itself dies of the signal.
    EXPECT_EQ(systemCall("kill -TERM $$", LOCAL, FOREGROUND_SYSTEM_CALL, SYS_CALL_DEBUG_ON_ERROR, "t"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "t ERROR: rc[1] from [false]\n"
              "t: KILLED BY SIGNAL [ 15 ]: rc[15] from [kill -TERM $$]\n");

    // In the background the shell returns at once, whatever the command does.
    EXPECT_EQ(systemCall("false", LOCAL, BACKGROUND_SYSTEM_CALL, SYS_CALL_NO_DEBUG, "t"), 0);
}

TEST(UtlSystem, ChangesOwnerThroughSudo)
{
    const std::string checked = "sudo /bin/sh -c \"if [ -f /x/y ]; then chown corvid:corvid /x/y; fi\"";
    struct Case {
        c_inaddr ip;
        CHANGE_OWNER_MODE mode;
        std::string line;
    } cases[] = {
        {PEER, CHANGE_OWNER_MODE_CHECK_FILE_EXIST, SSH + " '" + checked + "'"},
        {PEER, CHANGE_OWNER_MODE_NO_CHECK, SSH + " 'sudo chown corvid:corvid /x/y'"},
        // Locally the shell must see the sudo command itself, not one quoted word.
        {LOCAL, CHANGE_OWNER_MODE_CHECK_FILE_EXIST, checked},
        {LOOPBACK, CHANGE_OWNER_MODE_NO_CHECK, "sudo chown corvid:corvid /x/y"},
    };
    for (const Case& c : cases) {
        FakeShell shell;
        EXPECT_EQ(changeOwnerToCorvid("/x/y", c.ip, c.mode), 0);
        EXPECT_EQ(shell.lines, std::vector<std::string>{c.line});
        FakeShell joined;
        EXPECT_EQ(changeOwnerToCorvid("/x/", "y", c.ip, c.mode), 0);
        EXPECT_EQ(joined.lines, shell.lines);
    }

    FakeShell failing(1 << 8);
    testing::internal::CaptureStdout();
    EXPECT_EQ(changeOwnerToCorvid("/x", "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "changeOwnerToCorvid ERROR: rc[1] from [" + SSH + " 'sudo chown corvid:corvid /xy']\n"
              "Can't change owner to corvid for /xy on 10.0.0.5\n");

    FakeShell none;
    EXPECT_EQ(changeOwnerToCorvid(nullptr, "y", PEER, CHANGE_OWNER_MODE_NO_CHECK), -1);
    EXPECT_EQ(changeOwnerToCorvid("/x", nullptr, PEER, CHANGE_OWNER_MODE_NO_CHECK), -1);
    EXPECT_TRUE(none.lines.empty());
}

TEST(UtlSystem, ReplacesTokensInLines)
{
    tokenreplace_t tokens[] = {{"$HOST", "sw1"}, {"$PORT", "$PORT$PORT"}, {"ab", "b"}, {"", "ignored"}, {"x", "y"}};
    struct Case {
        std::string in, out;
        int count;
    } cases[] = {
        {"connect $HOST", "connect sw1", 1},
        {"$HOST:$HOST", "sw1:sw1", 2},
        {"port $PORT", "port $PORT$PORT", 1}, // a replacement is not searched again
        {"aab", "ab", 1},                     // nor what it forms with the text before it
        {"x stays", "x stays", 0},            // tokens after the empty one are not used
        {"", "", 0},
    };
    for (const Case& c : cases) {
        std::string line = c.in;
        EXPECT_EQ(replaceLineToken(line, tokens), c.count) << c.in;
        EXPECT_EQ(line, c.out) << c.in;
    }
    std::string line = "$HOST";
    EXPECT_EQ(replaceLineToken(line, nullptr), 0);
    EXPECT_EQ(line, "$HOST");
}

TEST(UtlSystem, ReplacesTokensInFiles)
{
    ScopedTempDir dir;
    tokenreplace_t tokens[] = {{"@IP@", "10.1.2.3"}, {"", ""}};
    writeFile("in.cfg", "server=@IP@\r\n# @IP@ twice @IP@\n\nlast @IP@");
    ASSERT_TRUE(replaceFileToken("in.cfg", "out.cfg", tokens));
    EXPECT_EQ(readFile("out.cfg"), "server=10.1.2.3\r\n# 10.1.2.3 twice 10.1.2.3\n\nlast 10.1.2.3");

    writeFile("same.cfg", "a @IP@\n");
    ASSERT_TRUE(replaceFileToken("same.cfg", "same.cfg", tokens));
    EXPECT_EQ(readFile("same.cfg"), "a 10.1.2.3\n");

    writeFile("empty.cfg", "");
    ASSERT_TRUE(replaceFileToken("empty.cfg", "empty.out", tokens));
    EXPECT_EQ(readFile("empty.out"), "");

    EXPECT_FALSE(replaceFileToken("missing.cfg", "x.cfg", tokens));
    EXPECT_NE(access("x.cfg", F_OK), 0) << "no output without input";
    EXPECT_FALSE(replaceFileToken("in.cfg", "no/such/dir/out.cfg", tokens));
    EXPECT_FALSE(replaceFileToken(nullptr, "x.cfg", tokens));
}

TEST(UtlSystem, SplitsIpSwitchText)
{
    char out[IP_SWITCH_STR_MAX + 1][16];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(GetIpSwitchStr("10.0.0.1, 192.168.001.2;bogus,,255.255.255.255", nullptr, out), 2);
    EXPECT_STREQ(out[0], "10.0.0.1");
    EXPECT_STREQ(out[1], "255.255.255.255");

    EXPECT_EQ(GetIpSwitchStr("1.1.1.1|2.2.2.2 3.3.3.3", "|", out), 1) << "only the given separators split";
    EXPECT_STREQ(out[0], "1.1.1.1");

    std::string many;
    for (int i = 0; i < IP_SWITCH_STR_MAX + 3; ++i) many += "10.0.0." + std::to_string(i) + " ";
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(GetIpSwitchStr(many.c_str(), " ", out), IP_SWITCH_STR_MAX);
    EXPECT_STREQ(out[IP_SWITCH_STR_MAX - 1], "10.0.0.7");
    EXPECT_EQ(out[IP_SWITCH_STR_MAX][0], '#') << "nothing written beyond the documented room";

    EXPECT_EQ(GetIpSwitchStr("", nullptr, out), 0);
    EXPECT_EQ(GetIpSwitchStr(nullptr, nullptr, out), -1);
    EXPECT_EQ(GetIpSwitchStr("1.1.1.1", nullptr, nullptr), -1);
}

TEST(UtlSystemDeathTest, CoreDumpTracesAndAborts)
{
    // stdout goes to stderr in the child so that the death test sees the trace.
    EXPECT_DEATH(
        {
            dup2(2, 1);
            coreDump("disk full");
        },
        "coreDumpTERMINATE!{38}\ncoreDumpdisk full\ncoreDumpTERMINATE!{38}\n");
    EXPECT_DEATH(
        {
            dup2(2, 1);
            coreDump(nullptr);
        },
        "coreDumpTERMINATE!{38}\ncoreDumpTERMINATE!{38}\n");
}
