#include "Common/Utility/UtlDbgFeature.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <thread>

#include "Common/OS/OsSocketDebug.h"
#include "TestSupport.h"

namespace {

UtlDbgContainer& reg()
{
    return UtlDbgContainer::Instance();
}

struct FeatureFixture : testing::Test {
    void SetUp() override { socketTraceFeature().SetMask(0); }
    void TearDown() override { socketTraceFeature().SetMask(0); }

    // Loads text, returns the trace written.
    static std::string load(const std::string& text, int* applied = nullptr)
    {
        std::istringstream in(text);
        testing::internal::CaptureStdout();
        const int n = reg().LoadDebugCfg(in, "test.cfg");
        if (applied) *applied = n;
        return testing::internal::GetCapturedStdout();
    }
};

} // namespace

// Each line alone, starting from mask 0x1: a line left at 0x1 that is not
// empty or a comment must be reported.
TEST_F(FeatureFixture, LinesAreParsedAloneAndLaterLinesWinAndLateFeaturesGetTheirSetting)
{
    const std::pair<const char*, std::uint32_t> cases[] = {{"SOCKET=0x00000404", 0x404},
                                                           {"  socket = connect | wait  ", 0x404},
                                                           {"SOCKET=1028", 0x404},
                                                           {"SOCKET=0x4,WAIT  # trailing comment", 0x404},
                                                           {"SOCKET = 0XFFFFFFFF", 0xFFFFFFFF},
                                                           {"SOCKET=0", 0},
                                                           {"# SOCKET=0x4", 0x1},
                                                           {"", 0x1},
                                                           {"SOCKET=0x1FFFFFFFF", 0x1},
                                                           {"SOCKET=BOGUS", 0x1},
                                                           {"SOCKET=", 0x1},
                                                           {"SOCKET=0x4 |", 0x1},
                                                           {"SOCKET=0x", 0x1},
                                                           {"SOCKET=-4", 0x1},
                                                           {"SOCKET 0x4", 0x1},
                                                           {"=0x4", 0x1}};
    const std::string prefix = "LoadDebugCfgFile: test.cfg line[1] ";
    for (const auto& [line, mask] : cases) {
        socketTraceFeature().SetMask(0x1);
        const std::string out = load(std::string(line) + "\n");
        EXPECT_EQ(socketTraceFeature().Mask(), mask) << line;
        const bool reported = mask == 0x1 && line[0] != '#' && line[0] != 0;
        EXPECT_EQ(out.substr(0, prefix.size()), reported ? prefix : "") << line << ": " << out;
    }

    int applied = 0;
    EXPECT_EQ(load("SOCKET=WAIT\nnonsense\nSOCKET=OPTIONS|RAW\n", &applied),
              "LoadDebugCfgFile: test.cfg line[2] has no '=': [nonsense]\n");
    EXPECT_EQ(applied, 2);
    EXPECT_EQ(socketTraceFeature().Mask(), static_cast<std::uint32_t>(SOCK_TRACE_OPTIONS | SOCK_TRACE_RAW));

    EXPECT_EQ(load("LateNumeric=0x30\nLATE_NAMED = alpha | 0x8\nLate_Bad=NOPE\n", &applied), "");
    EXPECT_EQ(applied, 3);
    EXPECT_EQ(reg().FeatureRegister("LateNumeric").Mask(), 0x30u);
    EXPECT_EQ(reg().FeatureRegister("late_named", {{0x1, "ALPHA", "first"}}).Mask(), 0x9u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(reg().FeatureRegister("Late_Bad").Mask(), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "FeatureRegister: feature[Late_Bad] setting [NOPE] ignored: unknown bit or bad number [NOPE]\n");
}

TEST_F(FeatureFixture, RegistrationIsByNameAndMaskInitReadsTheFileInTheWorkingDirectory)
{
    EXPECT_EQ(reg().FeatureName(socketTraceFeature().Id()), "SOCKET");
    EXPECT_EQ(reg().Feature("socket"), &socketTraceFeature());
    UtlDbgFeature& a = reg().FeatureRegister("Stable", {{0x2, "TWO", ""}});
    UtlDbgFeature& b = reg().FeatureRegister("STABLE", {{0x4, "FOUR", ""}});
    EXPECT_EQ(&a, &b);
    EXPECT_EQ(a.BitByName("two"), 0x2u);
    EXPECT_EQ(a.BitByName("FOUR"), 0u);
    EXPECT_EQ(reg().Feature(a.Id()), &a);
    EXPECT_TRUE(reg().FeatureMaskSet(a.Id(), 0x6));
    EXPECT_TRUE(reg().FeatureMaskClear(a.Id(), 0x4));
    EXPECT_EQ(reg().FeatureMask(a.Id()), 0x2u);
    for (int bad : {-1, 100000}) {
        EXPECT_FALSE(reg().FeatureMaskSet(bad, 1) || reg().FeatureMaskClear(bad, 1));
        EXPECT_EQ(reg().FeatureMask(bad), 0u);
        EXPECT_EQ(reg().FeatureName(bad) + reg().FeatureMaskBitsDesc(bad), "");
        EXPECT_EQ(reg().Feature(bad), nullptr);
    }

    socketTraceFeature().SetMask(SOCK_TRACE_WAIT | 0x20000000);
    const std::string d = reg().FeatureMaskBitsDesc(socketTraceFeature().Id());
    EXPECT_EQ(d.rfind("SOCKET [0x20000400]\n", 0), 0u) << d;
    EXPECT_NE(d.find("  0x00000400 * WAIT  readiness waits\n"), std::string::npos) << d;
    EXPECT_NE(d.find("  0x00000001   BIND  bind and accept detail\n"), std::string::npos) << d;

    tavro_test::ScopedTempDir dir;
    socketTraceFeature().SetMask(0xFF);
    tavro_test::writeFile("ftrdbgUDBServ.cfg", "# socket trace\nSOCKET=OPTIONS | 0x400\n");
    reg().MaskInit();
    EXPECT_EQ(socketTraceFeature().Mask(), 0x402u);
    EXPECT_TRUE(sockTraceOn(SOCK_TRACE_OPTIONS));
    EXPECT_FALSE(sockTraceOn(SOCK_TRACE_BIND));
    {
        SocketTraceMute mute;
        EXPECT_FALSE(sockTraceOn(SOCK_TRACE_OPTIONS));
        bool otherThread = false;
        std::thread([&] { otherThread = sockTraceOn(SOCK_TRACE_OPTIONS); }).join();
        EXPECT_TRUE(otherThread) << "the mute is per thread";
    }
    EXPECT_TRUE(sockTraceOn(SOCK_TRACE_OPTIONS));

    std::remove("ftrdbgUDBServ.cfg");
    reg().MaskInit(); // no file: everything off
    EXPECT_EQ(socketTraceFeature().Mask(), 0u);
    EXPECT_EQ(reg().LoadDebugCfgFile("missing.cfg"), -1);
    EXPECT_EQ(reg().LoadDebugCfgFile(nullptr), -1);
}
