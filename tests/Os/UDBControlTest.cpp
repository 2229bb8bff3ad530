#include "Os/UDBControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlQueue.h"
#include "Io/IoDBRouter.h"
#include "Io/IoRouteTable.h"

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

class Control : public testing::Test {
protected:
    void SetUp() override { UDBControl::ResetStaticsForTest(); }
    void TearDown() override
    {
        delete ctl;
        UDBControl::ResetStaticsForTest();
    }
    // Builds a control block and returns what it traced.
    std::string build(SYS_PARM& parm, bool prepare = false)
    {
        CaptureStdout();
        ctl = new UDBControl(&parm, prepare ? UDBControl::PREPARE_SYSTEM : UDBControl::SKIP_PREPARE);
        return GetCapturedStdout();
    }
    UDBControl* ctl = nullptr;
};

// Discovery mode, read at each change, silences the state trace.
TEST_F(Control, ConstructionRegistersTheParametersAndTracesItsState)
{
    for (bool quiet : {false, true}) {
        int other = 0;
        UDBControl::InsertClassRef(SMN_TRACKER, &other); // cleared by construction
        SYS_PARM parm;
        parm.noMsgTimeout = parm.bDiscoverSwitches = quiet;
        EXPECT_EQ(build(parm).find("SetCtlState:   CTL: state[CTL_INITIAL]") == std::string::npos, quiet);
        EXPECT_EQ(std::make_tuple(UDBControl::getIt(), UDBControl::GetClassRef(SMN_SYS_PARM), SYS_PARM::getIt(),
                                  UDBControl::GetClassRef(SMN_TRACKER)),
                  std::make_tuple(ctl, static_cast<void*>(&parm), &parm, static_cast<void*>(nullptr)));
        EXPECT_EQ(std::make_tuple(ctl->GetCtlState(), UDBControl::GetDefaultMsgTimeout(), ctl->IsFailedOver()),
                  std::make_tuple(CTL_INITIAL, quiet ? -1 : 10000, false));
        EXPECT_NE(ctl->GetEventLock(), nullptr);
        parm.bDiscoverSwitches = !quiet;
        CaptureStdout();
        ctl->SetCtlState(CTL_INIT);
        EXPECT_EQ(ctl->GetCtlState(), CTL_INIT);
        EXPECT_EQ(GetCapturedStdout().find("SetCtlState:   CTL: state[CTL_INIT]") == std::string::npos, !quiet);
        delete ctl;
        ctl = nullptr;
        EXPECT_EQ(UDBControl::getIt(), nullptr);
    }
}

TEST_F(Control, ClassTableRange)
{
    int object = 0;
    UDBControl::InsertClassRef(SMN_POLL_TABLE, &object);
    EXPECT_EQ(UDBControl::GetClassRef(SMN_POLL_TABLE), &object);
    for (int type : {26, -1}) {
        CaptureStdout();
        UDBControl::InsertClassRef(static_cast<CLASS_TYPE>(type), &object);
        EXPECT_THAT(GetCapturedStdout(),
                    HasSubstr("ORVControl::InsertClassRef( type[" + std::to_string(type) + "] ): out of range"));
        EXPECT_EQ(UDBControl::GetClassRef(static_cast<CLASS_TYPE>(type)), nullptr);
    }
}

TEST_F(Control, SequenceNumbersSkipZeroAndAreUniqueAcrossThreads)
{
    const struct {
        std::uint32_t last;
        std::vector<std::uint32_t> next;
    } cases[] = {{0, {1, 2, 3}}, {4294967294u, {4294967295u, 1, 2}}, {4294967295u, {1}}};
    EXPECT_EQ(UDBControl::GenSeqNbr(), 1u) << "the first number of a process";
    for (const auto& c : cases) {
        UDBControl::SetSeqNbrForTest(c.last);
        for (std::uint32_t expected : c.next) EXPECT_EQ(UDBControl::GenSeqNbr(), expected) << c.last;
    }

    UDBControl::SetSeqNbrForTest(4294967295u - 5000);
    constexpr int kThreads = 4, kEach = 5000;
    std::vector<std::vector<std::uint32_t>> got(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&got, t] {
            for (int i = 0; i < kEach; ++i) got[t].push_back(UDBControl::GenSeqNbr());
        });
    for (auto& t : threads) t.join();
    std::vector<std::uint32_t> all;
    for (auto& g : got) all.insert(all.end(), g.begin(), g.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_EQ(all.front(), 1u) << "zero is never handed out";
}

TEST_F(Control, PrepareSystemStartsTheRouterAndTrackerOnItsTables)
{
    SYS_PARM parm;
    build(parm, true);
    const struct {
        CLASS_TYPE slot;
        TCP_TYPE type;
    } tables[] = {{SMN_API_TABLE, TCP_SERVER}, {SMN_SWI_TABLE, TCP_CLIENT}, {SMN_POLL_TABLE, TCP_POLL}};
    for (const auto& t : tables) {
        ASSERT_NE(RouteTable::getIt(t.slot), nullptr) << t.slot;
        EXPECT_EQ(RouteTable::getIt(t.slot)->GetTableType(), t.type);
    }
    // The router's loop runs (the tables it found carry every end-to-end send).
    IoRouter* router = IoRouter::getIt();
    ASSERT_NE(router, nullptr);
    EXPECT_EQ(router->pUDBCtl, ctl); // whose eventlock the loop takes
    char event[16] = {};
    router->SendEvent(event, sizeof event);
    for (int i = 0; i < 10000 && !router->GetEventQueue()->Empty(); ++i) Sleep(1);
    EXPECT_TRUE(router->GetEventQueue()->Empty());

    EXPECT_TRUE(ctl->StopSystem(30000));
    for (CLASS_TYPE t : {SMN_API_TABLE, SMN_SWI_TABLE, SMN_POLL_TABLE, SMN_IOR, SMN_TRACKER})
        EXPECT_EQ(UDBControl::GetClassRef(t), nullptr) << t;
}

TEST(PortNum, SubportWordsAndValidity)
{
    // Sub-port words are one-based in every byte, the sub-port too.
    const SUBPORT_NUM s(0x01020304), wrap(0);
    EXPECT_EQ(std::vector<int>({s.ccId, s.pimId, s.portId, s.subportId}), std::vector<int>({0, 1, 2, 3}));
    EXPECT_EQ(std::vector<int>({wrap.ccId, wrap.subportId}), std::vector<int>({255, 255}));

    const unsigned valid[][4] = {{0, 0, 0, 1}, {7, 11, 200, 1}, {8, 0, 0, 0}, {0, 12, 0, 0}, {7, 11, 255, 1}};
    for (const auto& v : valid)
        EXPECT_EQ(PORT_NUM(v[2] | v[1] << 8 | v[0] << 16).isValid(), v[3] != 0) << v[0] << "." << v[1] << "." << v[2];
    EXPECT_FALSE(PORT_NUM::INVALID_PORT_NUM.isValid());
    EXPECT_TRUE(PORT_NUM::ALL_PORT_NUMS.isValid());
    EXPECT_EQ(PORT_NUM::ALL_PORT_NUMS.value(), 0xFFFFFFFEu); // as it goes on the wire
    EXPECT_TRUE(SUBPORT_NUM("1.1.1.1").isValid() && SUBPORT_NUM("1.1.1.2").isValid());
    EXPECT_FALSE(SUBPORT_NUM("1.1.1.3").isValid() || SUBPORT_NUM::INVALID_SUBPORT_NUM.isValid());
}

TEST(PortNum, Text)
{
    // One-based text, zero-based bytes; anything malformed is INVALID (the
    // common forms: the XML loader's test).
    const std::string padded = std::string(60, ' ') + "1.2.3", fits = std::string(58, ' ') + "1.2.3";
    const struct {
        const char* text;
        unsigned value;
    } ports[] = {
        // clang-format off
        {"01.02.03", 0x000102}, {fits.c_str(), 0x000102},
        {padded.c_str(), ~0u}, // only the first 63 characters count
        {"1.1.256", ~0u}, {"0.2.3", ~0u}, {"1.0.3", ~0u}, {"1.2.0", ~0u}, {"1.2", ~0u}, {"1.2.3.4", ~0u},
        {"1.2.3.", ~0u}, {"1..23", ~0u}, {"-1.2.3", ~0u},
        {"99999999999999999999.1.1", ~0u},
        // clang-format on
    };
    for (const auto& c : ports) EXPECT_EQ(PORT_NUM(c.text).value(), c.value) << (c.text ? c.text : "(null)");
    EXPECT_EQ(PORT_NUM("3.4.5").toString(), "3.4.5");
    EXPECT_EQ(PORT_NUM::INVALID_PORT_NUM.toString(), "INVALID");
    EXPECT_EQ(PORT_NUM::ALL_PORT_NUMS.toString(), "ALL");

    const struct {
        const char* text;
        std::vector<int> parts; // cc, pim, port, sub-port
    } subports[] = {
        {"1.1.1.2", {0, 0, 0, 2}},       {"2.3.4.1", {1, 2, 3, 1}},           {"2.3.4.0", {1, 2, 3, 0}},
        {"1.1.1", {254, 254, 254, 254}}, {"1.1.1.2.3", {254, 254, 254, 254}}, {"0.1.1.1", {254, 254, 254, 254}},
        {nullptr, {254, 254, 254, 254}},
    };
    for (const auto& c : subports) {
        const SUBPORT_NUM s(c.text);
        EXPECT_EQ(std::vector<int>({s.ccId, s.pimId, s.portId, s.subportId}), c.parts) << (c.text ? c.text : "(null)");
    }
    EXPECT_EQ(SUBPORT_NUM("2.3.4.1").toString(), "2.3.4.1");
    EXPECT_EQ(SUBPORT_NUM("2.3.4.1").port(), PORT_NUM("2.3.4"));
}

} // namespace
