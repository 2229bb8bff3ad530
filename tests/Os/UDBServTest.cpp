#include "Os/UDBServ.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

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

TEST_F(Config, DefaultsWithoutFile)
{
    SYS_PARM& p = load(nullptr);
    EXPECT_EQ(p.socketPort, 0);
    EXPECT_EQ(p.telnetPort, htons(35001));
    EXPECT_EQ(p.switchPort, htons(3500));
    EXPECT_EQ(p.switchModel, SW_MODEL_R723);
    EXPECT_EQ(p.slotNbr, SYS_ADDR_UNDEFINED);
    EXPECT_TRUE(p.redundancyEnabled);
    EXPECT_FALSE(p.simulation);
    EXPECT_FALSE(p.noMsgTimeout);
    EXPECT_FALSE(p.bDiscoverSwitches);
    EXPECT_EQ(p.externalServer, 0);
    EXPECT_EQ(p.localIp.s_addr, 0u);
    EXPECT_EQ(p.pMacAddr, nullptr);
    ASSERT_NE(p.pTempDir, nullptr);
    ASSERT_NE(p.pBackupDir, nullptr);
    EXPECT_STREQ(p.pTempDir, "");
    EXPECT_STREQ(p.pBackupDir, "");

    ASSERT_NE(p.pLogDir, nullptr);
    EXPECT_EQ(std::string(p.pLogDir), dir.path() + "/log");
    struct stat st;
    ASSERT_EQ(stat("log", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(Config, DefaultMemberValuesMatchStartUp)
{
    SYS_PARM fresh;
    SYS_PARM& p = load(nullptr);
    EXPECT_EQ(fresh.telnetPort, p.telnetPort);
    EXPECT_EQ(fresh.switchPort, p.switchPort);
    EXPECT_EQ(fresh.switchModel, p.switchModel);
    EXPECT_EQ(fresh.slotNbr, p.slotNbr);
    EXPECT_EQ(fresh.redundancyEnabled, p.redundancyEnabled);
}

struct KeyCase {
    const char* conf;
    std::function<bool(const SYS_PARM&)> check;
};

class ConfigKeys : public Config, public testing::WithParamInterface<size_t> {};

const std::vector<KeyCase>& keyCases()
{
    static const std::vector<KeyCase> cases = {
        {"  PORT=9000   and a comment", [](const SYS_PARM& p) { return p.socketPort == htons(9000); }},
        {"#PORT=1\n*PORT=1\n", [](const SYS_PARM& p) { return p.socketPort == 0; }},
        {" #PORT=1\n", [](const SYS_PARM& p) { return p.socketPort == 0; }},
        {"PORTX=5\n", [](const SYS_PARM& p) { return p.socketPort == 0; }},
        {"port=77\n", [](const SYS_PARM& p) { return p.socketPort == htons(77); }},
        {"PORT=abc\n", [](const SYS_PARM& p) { return p.socketPort == 0; }},
        {"PORT=70000\n", [](const SYS_PARM& p) { return p.socketPort == htons(70000 & 0xFFFF); }},
        {"PORT=1\nPORT=2\n", [](const SYS_PARM& p) { return p.socketPort == htons(2); }},
        {"PORT=9000\r\n", [](const SYS_PARM& p) { return p.socketPort == htons(9000); }},
        {"PORT=9000\tcomment\n", [](const SYS_PARM& p) { return p.socketPort == htons(9000); }},
        {"TELN=23\n", [](const SYS_PARM& p) { return p.telnetPort == htons(23); }},
        {"TELNET=23\n", [](const SYS_PARM& p) { return p.telnetPort == htons(35001); }},
        {"RADIUS=1812\n", [](const SYS_PARM& p) { return p.radius == htons(1812); }},
        {"CLIPORT=2323\n", [](const SYS_PARM& p) { return p.cliPort == htons(2323); }},
        {"SWIPORT=4000\n", [](const SYS_PARM& p) { return p.switchPort == htons(4000); }},
        {"EMBEDDED=yes\n", [](const SYS_PARM& p) { return p.externalServer == 0; }},
        {"EMBEDDED=no\n", [](const SYS_PARM& p) { return p.externalServer == 1; }},
        {"sim=on\n", [](const SYS_PARM& p) { return p.simulation; }},
        {"SIM=yes\n", [](const SYS_PARM& p) { return !p.simulation; }},
        {"SPEEDY=On\nNODB=ON\n", [](const SYS_PARM& p) { return p.makeSpeedy && p.noDbUpdate; }},
        {"REDUNDANCY=no\n", [](const SYS_PARM& p) { return !p.redundancyEnabled; }},
        {"REDUNDANCY=\n", [](const SYS_PARM& p) { return p.redundancyEnabled; }},
        {"REDUNDANCY\n", [](const SYS_PARM& p) { return p.redundancyEnabled; }},
        {"REDUNDANCY=maybe\n", [](const SYS_PARM& p) { return p.redundancyEnabled; }},
        {"TIMEOUT=off\n", [](const SYS_PARM& p) { return p.noMsgTimeout; }},
        {"TIMEOUT=on\n", [](const SYS_PARM& p) { return !p.noMsgTimeout; }},
        {"IPSERVER1=10.0.0.1\nIPSERVER2=bad\n",
         [](const SYS_PARM& p) { return p.ipServer1.s_addr == htonl(0x0A000001) && p.ipServer2.s_addr == 0; }},
        {"TEMP=/tmp/x\nBACKUP=/b\n",
         [](const SYS_PARM& p) { return std::string(p.pTempDir) == "/tmp/x" && std::string(p.pBackupDir) == "/b"; }},
        {"MAC=1a2b3c\n",
         [](const SYS_PARM& p) {
             const unsigned char e[6] = {0x00, 0x00, 0x00, 0x1A, 0x2B, 0x3C};
             return p.pMacAddr && std::memcmp(p.pMacAddr, e, 6) == 0;
         }},
        {"MAC=0011223344556677\nMAC=AABBCCDDEEFF\n",
         [](const SYS_PARM& p) {
             const unsigned char e[6] = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
             return p.pMacAddr && std::memcmp(p.pMacAddr, e, 6) == 0;
         }},
        {"MAC=\n",
         [](const SYS_PARM& p) {
             const unsigned char e[6] = {0, 0, 0, 0, 0, 0};
             return p.pMacAddr && std::memcmp(p.pMacAddr, e, 6) == 0;
         }},
        {"PREVIOUS_LABEL=release-7\n", [](const SYS_PARM& p) { return std::string(p.previousLabel) == "release-7"; }},
        {"PREVIOUS_LABEL=12345678901234567890123456789012345678901234567890123456789\n",
         [](const SYS_PARM& p) { return std::strlen(p.previousLabel) == 49; }},
        {"=5\n=\n", [](const SYS_PARM& p) { return p.socketPort == 0; }},
    };
    return cases;
}

TEST_P(ConfigKeys, Apply)
{
    const KeyCase& c = keyCases()[GetParam()];
    SYS_PARM& p = load(c.conf);
    EXPECT_TRUE(c.check(p)) << "configuration:\n" << c.conf;
}

INSTANTIATE_TEST_SUITE_P(Table, ConfigKeys, testing::Range<size_t>(0, keyCases().size()));

TEST_F(Config, AnnouncedKeysPrintTheirLines)
{
    EXPECT_EQ(loadCapturing("IP2=10.1.1.2\n"), "\tOther BPIM Address:10.1.1.2\n");
    EXPECT_EQ(sysParm.secondIp.s_addr, htonl(0x0A010102));

    EXPECT_EQ(loadCapturing("DISCOVER\n"), "\n\n\nDISCOVERING OTHER SWITCHES!\n\n\n");
    EXPECT_TRUE(sysParm.bDiscoverSwitches);
    EXPECT_EQ(loadCapturing("discover=no\n"), "\n\n\nDISCOVERING OTHER SWITCHES!\n\n\n");
    EXPECT_TRUE(sysParm.bDiscoverSwitches);

    const char* override = "\n\nOverriding default IP Address selection!  Using 10.9.8.7 instead.\n";
    EXPECT_EQ(loadCapturing("LOCALIP=10.9.8.7\n"), override);
    EXPECT_EQ(sysParm.localIp.s_addr, htonl(0x0A090807));
    EXPECT_EQ(loadCapturing("ip=10.9.8.7\n"), override);
    EXPECT_EQ(sysParm.localIp.s_addr, htonl(0x0A090807));

    EXPECT_EQ(loadCapturing("PORT=1\nSIM=ON\nUNKNOWN=3\n"), "");
}

TEST_F(Config, HostileInput)
{
    // Empty file and a file without a final line end.
    EXPECT_EQ(load("").socketPort, 0);
    EXPECT_EQ(load("PORT=9000").socketPort, htons(9000));

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

    // Binary bytes, a zero byte inside a line, and a valid line afterwards.
    std::string binary;
    unsigned x = 12345;
    for (int i = 0; i < 20000; ++i) {
        x = x * 1103515245u + 12345u;
        binary.push_back(static_cast<char>(x >> 16));
    }
    static const char tail[] = "\nPORT=9\0" "000\nRADIUS=3\n";
    binary.append(tail, sizeof tail - 1);
    load(binary.data(), binary.size());
    EXPECT_EQ(sysParm.socketPort, htons(9));
    EXPECT_EQ(sysParm.radius, htons(3));
}

TEST_F(Config, ArgumentListIsBounded)
{
    std::string conf = "# comments take no entry\n";
    for (int i = 1; i <= 300; ++i) conf += "RADIUS=" + std::to_string(i) + "\n\n";
    EXPECT_EQ(load(conf.c_str()).radius, htons(255));
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
    getBaseParameters(5, nullptr);
    GetBaseConfiguration(nullptr);
    GetBaseConfiguration("/nonexistent/TAVRO.CONF");
    EXPECT_EQ(sysParm.socketPort, htons(4242));
    sysParm = saved;
}

TEST(BladeAddress, Plan)
{
    struct Case {
        SWITCH_MODEL model;
        NET_CHANNEL net;
        int chassis;
        int slot;
        const char* expected;
    } cases[] = {
        {SW_MODEL_R723, NETWORK_A, 2, 0, "192.168.2.1"},
        {SW_MODEL_R723, NETWORK_B, 3, 4, "172.16.3.5"},
        {SW_MODEL_R732, NETWORK_B, 3, 4, "172.16.3.5"},
        {SW_MODEL_R723, NETWORK_PEER, 3, 4, "0.0.0.0"},
        {SW_MODEL_R723, NETWORK_EXTERNAL, 3, 4, "0.0.0.0"},
        {SW_MODEL_R721, NETWORK_B, 3, 4, "127.0.0.1"},
        {SW_MODEL_R721_R, NETWORK_A, 1, 1, "127.0.0.1"},
        {SW_MODEL_R721, NETWORK_PEER, 1, 1, "127.0.0.1"},
        {SW_MODEL_R723, NETWORK_A, SYS_PARM::THIS_CHASSIS, SYS_PARM::THIS_SLOT, "192.168.5.10"},
        {SW_MODEL_R723, NETWORK_A, 300, 0, "0.0.0.0"}, // not an address
    };
    for (const auto& c : cases) {
        SYS_PARM p;
        p.switchModel = c.model;
        p.chassisNbr = 5;
        p.slotNbr = SLOT_9;
        EXPECT_EQ(p.createIpAddress(c.net, c.chassis, c.slot).toString(), c.expected)
            << c.model << " " << c.net << " " << c.chassis << " " << c.slot;
    }
}

TEST(TextHelpers, SafeStrncpy)
{
    struct Case {
        const char* src;
        unsigned n;
        const char* expected;
    } cases[] = {
        {"abcdef", 4, "abc"}, {"abc", 4, "abc"}, {"abc", 1, ""}, {"", 4, ""}, {nullptr, 4, ""}, {"abcd", 5, "abcd"},
    };
    for (const auto& c : cases) {
        char buf[8];
        std::memset(buf, '#', sizeof buf);
        EXPECT_EQ(SAFE_STRNCPY(buf, c.src, c.n), buf);
        EXPECT_STREQ(buf, c.expected);
        for (unsigned i = c.n; i < sizeof buf; ++i) EXPECT_EQ(buf[i], '#') << "wrote past n=" << c.n;
    }
    char untouched[2] = {'#', '#'};
    SAFE_STRNCPY(untouched, "abc", 0);
    EXPECT_EQ(untouched[0], '#');

    char dst[16];
    EXPECT_EQ(tcharToChar(dst, "hello"), 5);
    EXPECT_STREQ(dst, "hello");
}

TEST(TextHelpers, AsciiToString)
{
    struct Case {
        const char* hex;
        int count;
        int produced;
        std::vector<unsigned char> bytes;
    } cases[] = {
        {"1A2b", 4, 2, {0x1A, 0x2B}},
        {"00ff", 4, 2, {0x00, 0xFF}},
        {"1A2", 3, 1, {0x1A, 0x20}},
        {"9:", 2, 1, {0x93}}, // ':' (58) - 7 = '3'
        {"GZ", 2, 1, {0x03}}, // nothing is rejected
        {"12", 0, 0, {}},
        {"12", -4, 0, {}},
    };
    for (const auto& c : cases) {
        unsigned char out[8] = {0};
        EXPECT_EQ(AsciiToString(c.hex, c.count, out), c.produced) << c.hex;
        EXPECT_EQ(std::vector<unsigned char>(out, out + c.bytes.size()), c.bytes) << c.hex;
    }
}

} // namespace
