// The Wireshark dissector as tshark runs it, on captures the simulator writes:
// every frame tshark shows is compared with the frame the simulator read or
// sent, its names with the library's own code texts. Cross builds skip it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "Ap/ApBase.h"
#include "Io/IoDBClient.h"
#include "Io/LoopbackPeer.h"
#include "Os/TAVRO.h"
#include "SwitchSimulator.h"
#include "TestSupport.h"

namespace lp = loopback_peer;
using switchsim::SimFrame;
using switchsim::SwitchSimulator;
using tavro_test::text;

namespace {

constexpr auto kWait = std::chrono::seconds(30);
constexpr std::uint16_t kPcePort = 58992;
constexpr std::uint64_t kStatsSeconds = 100;

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    std::string cur;
    std::istringstream in(s);
    while (std::getline(in, cur, sep)) out.push_back(cur);
    if (!s.empty() && s.back() == sep) out.emplace_back();
    return out;
}

std::vector<std::string> lines(const std::string& s)
{
    std::vector<std::string> out = split(s, '\n');
    out.erase(std::remove(out.begin(), out.end(), ""), out.end());
    return out;
}

#if defined(TAVRO_TSHARK) && defined(TAVRO_WIRESHARK_DIR)
const char* const kTshark = TAVRO_TSHARK;
const char* const kDissectorDir = TAVRO_WIRESHARK_DIR;
#else
const char* const kTshark = nullptr; // a cross build, or no tshark on the build host
const char* const kDissectorDir = nullptr;
#endif

// tshark with the built dissector and none of the user's Wireshark set-up;
// its own lines about running as root are dropped.
std::string tshark(const std::string& args)
{
    if (kTshark == nullptr || kDissectorDir == nullptr) return "";
    const std::string cmd = std::string("HOME=\"$PWD\" XDG_CONFIG_HOME=\"$PWD\" ") + kTshark +
                            " -n -X lua_script:" + kDissectorDir + "/tavro.lua " + args + " 2>&1";
    std::string out, kept;
    if (FILE* p = ::popen(cmd.c_str(), "r")) {
        char buf[4096];
        for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        ::pclose(p);
    }
    for (const std::string& line : lines(out))
        if (line.rfind("Running as user", 0) != 0) kept += line + '\n';
    return kept;
}

struct Pdu {
    unsigned packet = 0, stream = 0;
    bool toSwitch = false;
    std::string info, marker, order, manager, cmd, src, apperr, appsize;
};

std::string infoOf(const SimFrame& f)
{
    std::string s = std::string(f.isCommand() ? "CMD:" : "RSP:") + ' ' + text(COMMAND_CODE(std::int32_t(f.cmdCode))) +
                    " seq=" + std::to_string(f.seqNbr) + ' ';
    if (f.isCommand()) return s + text(CMD_CONTROL(std::int32_t(f.msgStat)));
    s += text(RSP_STATUS(std::int32_t(f.msgStat)));
    if (f.appError == std::uint32_t(I_ERR_UNKNOWN)) s += " err=I_ERR_UNKNOWN";
    return s;
}

std::string hex(std::uint32_t v)
{
    char b[16];
    std::snprintf(b, sizeof b, "0x%08x", unsigned(v));
    return b;
}

class Dissector : public testing::Test {
protected:
    void SetUp() override
    {
        if (!kTshark) GTEST_SKIP() << "no tshark on this build host, or a cross build";
        dir.reset(new tavro_test::ScopedTempDir);
        ::mkdir("log", 0755);
        pcap = dir->path() + "/traffic.pcap";
        tavro_internal::clientSeams().connectDelayMs = [](int) { return DWORD(20); };
    }
    void TearDown() override
    {
        sim.stop();
        tavro_internal::resetClientSeams();
    }

    void startSim(bool reverse, unsigned segment)
    {
        switchsim::Options o;
        o.snmpPort = -1;
        o.pcePort = kPcePort;
        o.heartbeatMs = 0;
        o.faults.reverse = reverse;
        o.statsClock = [] { return kStatsSeconds; };
        o.pcap = pcap;
        o.pcapSegment = segment;
        std::string error;
        ASSERT_TRUE(sim.start(o, &error)) << error;
    }

    std::vector<Pdu> decode()
    {
        const std::string out = tshark("-r " + pcap +
                                       " -Y tavro -T fields -E separator=/t -E occurrence=a -E aggregator=,"
                                       " -e frame.number -e tcp.dstport -e _ws.col.Info -e tavro.marker"
                                       " -e tavro.order -e tavro.manager -e tavro.cmd -e tavro.src -e tavro.apperr"
                                       " -e tavro.appsize -e tcp.stream");
        std::vector<Pdu> pdus;
        for (const std::string& line : lines(out)) {
            const auto c = split(line, '\t');
            if (c.size() != 11) {
                ADD_FAILURE() << "unexpected tshark line: " << line;
                continue;
            }
            // A packet's frames: markers tell which fields each one has.
            const auto infos = split(c[2], '|');
            std::vector<std::vector<std::string>> lists;
            std::vector<std::size_t> next(c.size(), 0);
            for (const auto& col : c) lists.push_back(split(col, ','));
            auto take = [&](std::size_t i) { return next[i] < lists[i].size() ? lists[i][next[i]++] : "?"; };
            for (std::size_t k = 0; k < lists[3].size(); ++k) {
                Pdu p;
                p.packet = unsigned(std::stoul(c[0]));
                p.stream = unsigned(std::stoul(c[10]));
                p.toSwitch = c[1] == std::to_string(kPcePort);
                p.info = k < infos.size() ? infos[k] : "?";
                p.info.erase(0, p.info.find_first_not_of(' ')).erase(p.info.find_last_not_of(' ') + 1);
                p.marker = take(3);
                const bool frame = p.marker == hex(lp::kMarker);
                if (frame || p.marker == hex(lp::kTest)) {
                    p.order = take(4);
                    p.manager = take(5);
                }
                if (frame) {
                    p.cmd = take(6);
                    p.src = take(7);
                    p.apperr = take(8);
                    p.appsize = take(9);
                }
                pdus.push_back(p);
            }
        }
        return pdus;
    }

    // One direction at a time, the capture equals what the simulator read and sent.
    void expectFramesMatchTheSimulator(const std::vector<Pdu>& pdus)
    {
        std::vector<SimFrame> want[2] = {sim.sentFrames(), sim.receivedFrames()};
        std::size_t at[2] = {0, 0};
        unsigned linkTests = 0;
        for (const Pdu& p : pdus) {
            if (p.marker == hex(lp::kTest)) {
                EXPECT_TRUE(p.toSwitch);
                EXPECT_EQ(p.manager, std::to_string(lp::kLink));
                EXPECT_EQ(p.info, "TST: link test MGR_LINK");
                ++linkTests;
                continue;
            }
            if (p.marker != hex(lp::kMarker)) continue; // bad headers: checked by the test
            std::vector<SimFrame>& list = want[p.toSwitch];
            std::size_t& i = at[p.toSwitch];
            SCOPED_TRACE("packet " + std::to_string(p.packet) + ": " + p.info);
            ASSERT_LT(i, list.size()) << "a frame the simulator did not " << (p.toSwitch ? "read" : "send");
            const SimFrame& f = list[i++];
            const bool big = lp::orderOf(f.order == switchsim::WireOrder::Reversed) == lp::Order::Big;
            const std::string got[] = {p.order, p.manager, p.cmd, p.src, p.apperr, p.appsize, p.info};
            const std::string expected[] = {big ? "big-endian" : "little-endian",
                                            std::to_string(f.manager),
                                            std::to_string(f.cmdCode),
                                            std::to_string(f.srcAddr),
                                            text(std::int32_t(f.appError)),
                                            std::to_string(f.appSize),
                                            infoOf(f)};
            for (std::size_t k = 0; k < std::size(got); ++k) EXPECT_EQ(got[k], expected[k]) << "field " << k;
        }
        EXPECT_EQ(at[0], want[0].size()) << "frames sent but not in the capture";
        EXPECT_EQ(at[1], want[1].size()) << "frames read but not in the capture";
        EXPECT_EQ(linkTests, sim.counters().linkTests);
    }

    SwitchSimulator sim;
    std::unique_ptr<tavro_test::ScopedTempDir> dir;
    std::string pcap;
};

std::atomic<unsigned> g_flashChecks{0};

void answerFlashCheck(COMMAND_CODE, const void*, uint32_t, CrRsp* rsp)
{
    ++g_flashChecks;
    I_TAVRO_SetResponseStatus(rsp, RSP_BUSY);
    I_TAVRO_SetResponseError(rsp, I_ERR_UNKNOWN);
    I_TAVRO_SetResponseData(rsp, "ok", 2);
}

// The library's traffic, answered in the opposite order in 100-byte segments:
// the statistics reply (7654 bytes) is rebuilt from 77 packets.
TEST_F(Dissector, LibraryTrafficAndItsRawStatisticsDecodeAsTheSimulatorSawThem)
{
    startSim(true, 100);
    ASSERT_EQ(I_SwitchInitialize(), I_SUCCESS);
    ASSERT_EQ(I_TAVRO_RegisterCommandHandler(CMD_UPDATE_CHECK_FLASH_FPGA, answerFlashCheck), I_SUCCESS);
    ASSERT_EQ(I_SwitchConnect(SW_SERVICE_PCE), I_SUCCESS);
    ASSERT_TRUE(sim.waitForLinkTests(1, kWait));

    std::free(I_GetRawStats(3));  // the library reads a reversed reply as too short: null
    std::free(I_GetRawStats(25)); // no such slot: RSP_NO_DEVICE
    const char beat[] = {1, 2};
    I_TAVRO_SendCommandNoResponse(CMD_HEARTBEAT, beat, sizeof beat);
    ASSERT_NE(sim.sendCommand(sim.openConnections().at(0), CMD_UPDATE_CHECK_FLASH_FPGA, {0xAB}, true), 0u);
    ASSERT_TRUE(sim.waitFor([&] { return sim.counters().answered == 1 && sim.counters().framesReceived == 4; }, kWait));
    I_SwitchDisconnect();
    sim.stop();
    ASSERT_EQ(g_flashChecks, 1u);

    const std::vector<Pdu> pdus = decode();
    ASSERT_EQ(pdus.size(), 1u + 4u + 3u) << "link test, 4 frames from the library, 3 from the switch";
    expectFramesMatchTheSimulator(pdus);

    // The statistics reply, port by port, against the simulator's counters.
    const std::string stats = tshark("-r " + pcap +
                                     " -Y tavro.stats.entries -T fields -E occurrence=a -E aggregator=,"
                                     " -e tavro.stats.slot -e tavro.stats.entries -e tavro.stats.format"
                                     " -e tavro.stats.port -e tavro.stats.link -e tavro.stats.speed"
                                     " -e tavro.stats.rx -e tavro.stats.tx -e tcp.reassembled.length");
    const auto found = lines(stats);
    ASSERT_EQ(found.size(), 1u) << stats.substr(0, 2000);
    const auto col = split(found[0], '\t');
    ASSERT_EQ(col.size(), 9u) << stats.substr(0, 2000);
    std::string want[9] = {"3", "8", "1", "", "", "", "", "", "7654"};
    for (unsigned p = 1; p <= 8; ++p) {
        const char* sep = p == 1 ? "" : ",";
        want[3] += sep + std::to_string(p);
        want[4] += sep + std::string(SwitchSimulator::statsLinkUp(3, p) ? "1" : "0");
        want[5] += sep + std::to_string(SwitchSimulator::statsSpeedMbps(3, p));
        for (unsigned i = 0; i < SwitchSimulator::kStatsCounters; ++i) {
            const char* csep = p == 1 && i == 0 ? "" : ",";
            want[6] += csep + std::to_string(SwitchSimulator::statsCounter(3, p, i, false, kStatsSeconds));
            want[7] += csep + std::to_string(SwitchSimulator::statsCounter(3, p, i, true, kStatsSeconds));
        }
    }
    for (std::size_t i = 0; i < col.size(); ++i) EXPECT_EQ(col[i], want[i]) << "column " << i;

    // The tree names codes as the library does, errors included.
    const std::string tree = tshark("-r " + pcap + " -V -Y tavro");
    for (const char* line : {"Command code: CMD_GET_BLADE_RAW_STATS (100005)", "Response status: RSP_NO_DEVICE (2)",
                             "Application error: I_ERR_UNKNOWN (-1999)", "Command control: CMD_WITH_RSP (1)",
                             "Manager class: MGR_PKT_STATS (10)", "Message type: MSG_RESPONSE (0x5253503a)"})
        EXPECT_NE(tree.find(line), std::string::npos) << line;
    EXPECT_EQ(tree.find("Lua Error"), std::string::npos);
}

// A plain client: a link test and a frame in one write, a frame in the other
// order over three writes, one with a flag and a size that disagree; then
// refused headers, each on its own connection (the simulator closes on them).
TEST_F(Dissector, PackedSplitFlaggedAndRefusedFramesFromPlainClients)
{
    const struct {
        std::uint32_t marker, size;
        std::size_t bytes;
        const char *info, *message;
    } refused[] = {
        {0x21444142, 28, 40, "Bad marker 0x42414421", // "BAD!" as bytes
         "Not a frame start: marker 0x42414421 (40 bytes dropped)"},
        {lp::kMarker, 0, 20, "Bad size 0", "Size 0: the application header is missing"},
        {lp::kMarker, 0x7FFFFFFF, 40, "Bad size 2147483647",
         "Size 2147483647 exceeds the library's 2559936-byte receive buffer"},
        {lp::kMarker, 20, 32, "Short frame", "Size 20 leaves no room for the 28-byte application header"},
    };
    startSim(false, 0);
    lp::Peer client;
    ASSERT_TRUE(client.connectTo(kPcePort));
    ASSERT_TRUE(sim.waitForConnections(1, kWait));
    const std::uint64_t conn = sim.openConnections().at(0);
    std::size_t written = 0;
    auto write = [&](const lp::Bytes& b) {
        ASSERT_TRUE(client.write(b));
        written += b.size();
        // Each write is read whole before the next: one packet in the capture.
        ASSERT_TRUE(sim.waitFor([&] { return sim.receivedBytes(conn).size() == written; }, kWait));
    };

    lp::Bytes packed = lp::linkTestBytes(lp::Order::Big);
    const lp::Bytes connPort =
        lp::Frame{lp::kMarker, 1, lp::kCommand, CMD_CONN_PORT, 7, 1, 9, 0, {1, 2, 3}}.encode(lp::Order::Big);
    packed.insert(packed.end(), connPort.begin(), connPort.end());
    write(packed);
    EXPECT_EQ(client.readFrame(lp::Order::Big).size(), 40u); // the answer, so that only the close is left

    const lp::Bytes cardInit =
        lp::Frame{lp::kMarker, 2, lp::kCommand, CMD_CARD_INIT, 8, 0, 9, 0, {5, 6, 7, 8, 9}}.encode(lp::Order::Little);
    write(lp::Bytes(cardInit.begin(), cardInit.begin() + 5));
    write(lp::Bytes(cardInit.begin() + 5, cardInit.begin() + 25));
    write(lp::Bytes(cardInit.begin() + 25, cardInit.end()));

    // The in-memory flag on the wire, and a payload size that disagrees.
    lp::Frame flagged{lp::kMarker, 2, lp::kCommand, CMD_CARD_AUTOTRIM, 9, 0, 9, 0, {1}};
    flagged.sizeOverride = 0x80000000u | 29;
    flagged.appSizeOverride = 2;
    write(flagged.encode(lp::Order::Big));
    for (const auto& c : refused) {
        lp::Peer other;
        ASSERT_TRUE(other.connectTo(kPcePort));
        lp::Bytes b;
        for (std::uint32_t w : {c.marker, 1u, c.size}) lp::putWord(b, w, lp::Order::Little);
        b.resize(c.bytes, 0xEE);
        ASSERT_TRUE(other.write(b));
        ASSERT_TRUE(other.seesClose()) << c.info;
    }
    sim.stop();

    const std::vector<Pdu> pdus = decode();
    ASSERT_EQ(pdus.size(), 5u + std::size(refused)) << "link test, three commands, an answer, refused headers";
    // The first connection's frames: another reader thread may have captured a refused header first.
    std::vector<Pdu> first;
    std::copy_if(pdus.begin(), pdus.end(), std::back_inserter(first), [](const Pdu& p) { return p.stream == 0; });
    ASSERT_EQ(first.size(), 5u);
    expectFramesMatchTheSimulator(first);
    // Two frames of one packet share it and its info line.
    EXPECT_EQ(first[0].packet, first[1].packet);
    // The split frame shows up once, in the packet of its last piece.
    EXPECT_EQ(first[3].cmd, std::to_string(CMD_CARD_INIT));
    EXPECT_EQ(first[3].packet, first[2].packet + 3);
    const std::string warnings = tshark("-r " + pcap +
                                        " -Y 'tavro.flag_on_wire && tavro.appsize_mismatch'"
                                        " -T fields -e tavro.cmd -e tavro.size.flag -e tavro.appsize.flag");
    EXPECT_EQ(warnings, std::to_string(CMD_CARD_AUTOTRIM) + "\t1\t\n");
    const std::string tree = tshark("-r " + pcap + " -V -Y tavro");
    EXPECT_NE(tree.find("Payload: 0506070809"), std::string::npos);
    EXPECT_NE(tree.find("Payload size 2, but the frame carries 1 bytes"), std::string::npos);
    EXPECT_EQ(tree.find("Lua Error"), std::string::npos);
    const auto got = lines(tshark("-r " + pcap + " -Y 'tavro.bad_marker || tavro.bad_size || tavro.short_frame'" +
                                  " -T fields -e _ws.col.Info -e _ws.expert.message"));
    ASSERT_EQ(got.size(), std::size(refused));
    for (std::size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], std::string(refused[i].info) + '\t' + refused[i].message);
}

} // namespace
