// An application returning from main while the library's threads still run
// ends with status 0 and no sanitizer report. It is a forked copy of this
// process, made before any thread exists here.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Common/OS/Linux/OSAL.h"
#include "Os/TAVRO.h"
#include "SwitchSimulator.h"
#include "TestSupport.h"

namespace {

std::atomic<int> g_heartbeats{0};

void answerHeartbeat(COMMAND_CODE, const void*, uint32_t, CrRsp* rsp)
{
    I_TAVRO_SetResponseStatus(rsp, RSP_OK);
    ++g_heartbeats;
}

void application()
{
    ASSERT_EQ(I_SwitchInitialize(), I_SUCCESS);
    ASSERT_EQ(I_TAVRO_RegisterCommandHandler(CMD_HEARTBEAT, answerHeartbeat), I_SUCCESS);
    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_SNMP), I_SUCCESS);
    const unsigned char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(I_TAVRO_SendCommandNoResponse(CMD_CONN_PORT, data, sizeof data), I_SUCCESS);
    void* stats = I_GetRawStats(1);
    EXPECT_NE(stats, nullptr);
    std::free(stats);
    // The second heartbeat is handled only after the first was answered.
    for (int i = 0; i < 3000 && g_heartbeats.load() < 2; ++i) Sleep(10);
    EXPECT_GE(g_heartbeats.load(), 2);
}

TEST(ProcessExit, ReturningFromMainWhileTheLibraryRunsIsClean)
{
    ::mkdir("log", 0755);
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child waits for the switch, then returns from the test and from main.
        ::close(go[1]);
        const int fd = ::open("child.err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) ::dup2(fd, 2);
        char b;
        if (::read(go[0], &b, 1) != 1) ::_exit(3);
        application();
        return;
    }
    ::close(go[0]);
    switchsim::SwitchSimulator sim;
    switchsim::Options o;
    o.pcePort = -1;
    o.heartbeatMs = 20; // switch commands keep coming until the very end
    std::string error;
    EXPECT_TRUE(sim.start(o, &error)) << error;
    // Without a switch the child fails on its own.
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    ::close(go[1]);

    int status = 0;
    bool ended = false;
    for (int i = 0; i < 12000 && !(ended = ::waitpid(pid, &status, WNOHANG) == pid); ++i) Sleep(10);
    if (!ended) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    const switchsim::Counters seen = sim.counters();
    sim.stop();
    ASSERT_TRUE(ended) << "the application did not end within 120 s";
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string err = tavro_test::readFile("child.err");
    EXPECT_TRUE(err.find("Sanitizer") == err.npos && err.find("runtime error") == err.npos) << err;
    // It really worked with the switch before it ended.
    EXPECT_TRUE(seen.linkTests >= 1 && seen.framesReceived >= 2 && seen.answered >= 1);
}

} // namespace
