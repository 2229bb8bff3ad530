#include "Os/UDBServ.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

// Each test reads its configuration in a private working directory.
class Config : public testing::Test {
protected:
    // Writes TAVRO.CONF (unless null) and runs the whole start-up parse.
    SYS_PARM& load(const char* conf, size_t len = std::string::npos)
    {
        if (conf != nullptr)
            tavro_test::writeFile("TAVRO.CONF", len == std::string::npos ? std::string(conf) : std::string(conf, len));
        parseCommandArgs();
        return sysParm;
    }
    std::string loadCapturing(const std::string& conf)
    {
        testing::internal::CaptureStdout();
        load(conf.c_str());
        return testing::internal::GetCapturedStdout();
    }
    tavro_test::ScopedTempDir dir;
};

// Without a file the log folder is still made.
TEST_F(Config, WithoutFile)
{
    SYS_PARM& p = load(nullptr);
    ASSERT_TRUE(p.pTempDir && p.pBackupDir && p.pLogDir);
    EXPECT_EQ(std::string(p.pLogDir), dir.path() + "/log");
    struct stat st;
    EXPECT_TRUE(stat("log", &st) == 0 && S_ISDIR(st.st_mode));
}

bool macIs(const SYS_PARM& p, std::vector<unsigned char> mac)
{
    return p.pMacAddr && std::memcmp(p.pMacAddr, mac.data(), 6) == 0;
}

TEST_F(Config, KeysAndTheirEdgeCases)
{
    using P = const SYS_PARM&;
    const struct {
        const char* conf;
        std::function<bool(P)> check;
    } cases[] = {
        // clang-format off
        {"  PORT=9000   and a comment", [](P p) { return p.socketPort == htons(9000); }},
        {"PORT=abc\n#PORT=1\n*PORT=1\n #PORT=1\nPORTX=5\n=5\n=\n", [](P p) { return p.socketPort == 0; }},
        {"port=77\n", [](P p) { return p.socketPort == htons(77); }},
        {"PORT=70000\n", [](P p) { return p.socketPort == htons(70000 & 0xFFFF); }},
        {"PORT=9000\r\n", [](P p) { return p.socketPort == htons(9000); }},
        {"", [](P p) { return p.socketPort == 0; }}, {"PORT=9000", [](P p) { return p.socketPort == htons(9000); }},
        {"TELN=23\n", [](P p) { return p.telnetPort == htons(23); }},
        {"TELNET=23\n", [](P p) { return p.telnetPort == htons(35001); }},
        {"RADIUS=1812\nCLIPORT=2323\nSWIPORT=4000\n",
         [](P p) { return p.radius == htons(1812) && p.cliPort == htons(2323) && p.switchPort == htons(4000); }},
        {"EMBEDDED=yes\n", [](P p) { return p.externalServer == 0; }},
        {"EMBEDDED=no\n", [](P p) { return p.externalServer == 1; }},
        {"sim=on\n", [](P p) { return p.simulation; }}, {"SIM=yes\n", [](P p) { return !p.simulation; }},
        {"SPEEDY=On\nNODB=ON\n", [](P p) { return p.makeSpeedy && p.noDbUpdate; }},
        {"REDUNDANCY=no\n", [](P p) { return !p.redundancyEnabled; }},
        {"REDUNDANCY\n", [](P p) { return p.redundancyEnabled; }},
        {"TIMEOUT=off\n", [](P p) { return p.noMsgTimeout; }},
        {"IPSERVER1=10.0.0.1\nIPSERVER2=bad\n",
         [](P p) { return p.ipServer1.s_addr == htonl(0x0A000001) && p.ipServer2.s_addr == 0; }},
        {"TEMP=/tmp/x\nBACKUP=/b\n",
         [](P p) { return std::string(p.pTempDir) == "/tmp/x" && std::string(p.pBackupDir) == "/b"; }},
        {"MAC=1a2b3c\n", [](P p) { return macIs(p, {0, 0, 0, 0x1A, 0x2B, 0x3C}); }},
        {"MAC=0011223344556677\nMAC=AABBCCDDEEFF\n",
         [](P p) { return macIs(p, {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}); }},
        {"MAC=\n", [](P p) { return macIs(p, {0, 0, 0, 0, 0, 0}); }},
        {"PREVIOUS_LABEL=12345678901234567890123456789012345678901234567890123456789\n",
         [](P p) { return std::strlen(p.previousLabel) == 49; }},
        // clang-format on
    };
    for (const auto& c : cases) EXPECT_TRUE(c.check(load(c.conf))) << "configuration:\n" << c.conf;
}

TEST_F(Config, AnnouncedKeysPrintTheirLines)
{
    EXPECT_EQ(loadCapturing("IP2=10.1.1.2\n"), "\tOther BPIM Address:10.1.1.2\n");
    EXPECT_EQ(sysParm.secondIp.s_addr, htonl(0x0A010102));
    EXPECT_EQ(loadCapturing("discover=no\n"), "\n\n\nDISCOVERING OTHER SWITCHES!\n\n\n");
    EXPECT_TRUE(sysParm.bDiscoverSwitches);
    for (const char* ip : {"LOCALIP=10.9.8.7\n", "ip=10.9.8.7\n"}) {
        EXPECT_EQ(loadCapturing(ip), "\n\nOverriding default IP Address selection!  Using 10.9.8.7 instead.\n");
        EXPECT_EQ(sysParm.localIp.s_addr, htonl(0x0A090807));
    }
    EXPECT_EQ(loadCapturing("PORT=1\nSIM=ON\nUNKNOWN=3\n"), "");
}

TEST_F(Config, HostileInput)
{
    // A line far longer than a line buffer: the rest of it is not a new line.
    std::string longLine = "PORT=9000" + std::string(3000, ' ') + "RADIUS=5\nCLIPORT=7\n";
    load(longLine.c_str());
    EXPECT_EQ(sysParm.socketPort, htons(9000));
    EXPECT_EQ(sysParm.radius, 0);
    EXPECT_EQ(sysParm.cliPort, htons(7));
    std::string longWord = std::string(1500, 'a') + "PORT=1234\n";
    EXPECT_EQ(load(longWord.c_str()).socketPort, 0);

    // Over-long key and value.
    std::string longKey = std::string(5000, 'K') + "=1\nTEMP=" + std::string(5000, 'v') + "\n";
    load(longKey.c_str());
    EXPECT_EQ(std::strlen(sysParm.pTempDir), 259u);

    // A zero byte inside a line, and a valid line afterwards (random bytes: the fuzz target).
    static const char zero[] =
        "PORT=9\0"
        "000\nRADIUS=3\n";
    load(zero, sizeof zero - 1);
    EXPECT_EQ(sysParm.socketPort, htons(9));
    EXPECT_EQ(sysParm.radius, htons(3));

    // The argument list is bounded; comments and blank lines take no entry.
    std::string many = "# comment\n";
    for (int i = 1; i <= 300; ++i) many += "RADIUS=" + std::to_string(i) + "\n\n";
    EXPECT_EQ(load(many.c_str()).radius, htons(255));
}

TEST(ConfigDirect, ArgumentsWithoutFile)
{
    SYS_PARM saved = sysParm;
    sysParm = SYS_PARM();
    std::string big = "TEMP=" + std::string(5000, 'x');
    std::string port = "PORT=4242";
    std::vector<char*> argv = {nullptr, nullptr, &big[0], &port[0]};
    getBaseParameters(static_cast<unsigned>(argv.size()), argv.data()); // TEMP skipped: no buffer yet
    EXPECT_EQ(sysParm.pTempDir, nullptr);
    EXPECT_EQ(sysParm.socketPort, htons(4242));
    getBaseParameters(0, nullptr);
    GetBaseConfiguration(nullptr);
    GetBaseConfiguration("/nonexistent/TAVRO.CONF");
    EXPECT_EQ(sysParm.socketPort, htons(4242));
    sysParm = saved;
}

TEST(TextHelpers, SafeStrncpyAndAsciiToString)
{
    char buf[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(SAFE_STRNCPY(buf, "abc", 0), buf);
    EXPECT_EQ(buf[0], '#');
    EXPECT_STREQ(SAFE_STRNCPY(buf, nullptr, 4), "");
    EXPECT_STREQ(SAFE_STRNCPY(buf, "abcdef", 3), "ab");
    EXPECT_EQ(buf[3], '#');
    unsigned char out[2] = {0, 0};
    EXPECT_EQ(AsciiToString("12", 0, out), 0);
    EXPECT_EQ(AsciiToString("1A2", 3, out), 1);
    EXPECT_EQ(std::vector<unsigned char>(out, out + 2), (std::vector<unsigned char>{0x1A, 0x20}));
}

} // namespace
