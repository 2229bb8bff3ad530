#include "Ap/ApEvents.h"
#include "Ap/ApRecords.h"
#include "Ap/ApRecordsPacket.h"
#include "ApSwapCheck.h"

#include <algorithm>

using namespace apcheck;

namespace {

// Field layouts written from the record declarations, one per record.
const std::string SUB = "(2 4x4 b1 b1 4x4 b28)";
const std::string ASSOC = "4 b64 b128 4x4 b1 b1 2 T 4x3 8 8 b1";
const std::string FIELD = "(b24 2 b1 b1 4 8 8)";
const std::string FRAME = "(2 2 4 b2040)";

// Patterns whose reversal is +inf, a signalling NaN, a quiet NaN, a denormal
// or negative zero must come through both float conversions unaltered (the
// integer widths are covered by every record below).
TEST(ApRecords, FloatsAndEveryRecordConvertExactlyTheirNumbers)
{
    for (std::uint32_t bits :
         {0x3F800000u, 0x0000807Fu, 0x0100807Fu, 0x0100C07Fu, 0x01000000u, 0x00000080u, 0x12345678u, 0xFFFFFFFFu}) {
        float f;
        std::memcpy(&f, &bits, 4);
        for (float once : {swapf(f), ApSwap::value(f)}) {
            const float twice = swapf(once);
            EXPECT_EQ(getAt<std::uint32_t>(reinterpret_cast<const unsigned char*>(&once)), swapl(bits)) << bits;
            EXPECT_EQ(getAt<std::uint32_t>(reinterpret_cast<const unsigned char*>(&twice)), bits) << bits;
        }
    }

    const RecordCase cases[] = {
        AP_RECORD(I_PORT_ADDR, 16, "P"),
        AP_RECORD(I_TIME_STAMP, 8, "T"),
        AP_RECORD(I_MEMBER, 24, "4 2 b1 b1 P"),
        AP_RECORD(I_REF_MEMBER, 20, "4 4 2 2 4 4"),
        AP_RECORD(I_ORDERED_MEMBER, 28, "4x4 T b1 b1 2"),
        AP_RECORD(I_PROGRESS, 8, "4 4"),
        AP_RECORD(I_SWITCH, 919, "4 b64 b128 b64 b64 b32x4 4x3 b6 2 4 4 b1 b1 2 2 4 T T 8 4 4x4 b32 b64 b128 b1 b160"),
        AP_RECORD(I_PIM, 296, "4 2 2 b128 b16 b16 4 4 2 4 b1 b1 4 4 T 8 b64 b24"),
        AP_RECORD(I_PORT, 1054, "P 4 b64 b256 b32 4x5 b4 2 2 4x3 b1 b96 4 b6 4x3 T 8x6 b256 4x32 2 b80 b1"),
        AP_RECORD(I_SUBPORT_ENTRY, 64, SUB),
        AP_RECORD(I_SUBPORT, 4224, "P 4x3 2 b64 b34 " + SUB + "x64"),
        AP_RECORD(I_BOARD_INFO, 190, "2 4 b32 b24 b24 b8 b16 b16 4 2 b2 4 4 T 8 b6 4 b16 2x3"),
        AP_RECORD(I_CHASSIS, 55, "4 b24 b16 2 b1 b1 b4 2 b1"),
        AP_RECORD(I_HARDWARE_ALARM, 256, "4x3 2 2 T b1 4 4 b32 b191"),
        AP_RECORD(I_BACKPLANE_STATE, 59, "2 2 4 b1 b16 4 T 4 8 4 2 4"),
        AP_RECORD(I_GROUP, 252, "4 b64 b128 4 4 2 2 4 4 b2 T b24 2"),
        AP_RECORD(I_SUPERGROUP, 279, "4 b64 b128 4 2 4x16 b1 T 4"),
        AP_RECORD(I_CONNECTION, 436, "4 4 P P 4 4 b64 b128 b32 Tx3 4x3 b3 2 Px4 8 b51"),
        AP_RECORD(I_CIRCUIT, 268, "4 b64 b128 4 4 2 4x8 T 4 b16 b1 b1"),
        AP_RECORD(I_CONNECTION_SET, 570, "4 b64 b256 4 2 4x48 T b2 b32 4 2"),
        AP_RECORD(I_ALARM, 563, "4x5 P T T b2 b32 b256 b128 4 b89"),
        AP_RECORD(I_TRANLOG, 344, "4 T b32 b28 4x4 b256"),
        AP_RECORD(I_MAINTENANCE, 776, "4 b64 b256 4 4 T T 4 b32 2 Px24 b2 4"),
        AP_RECORD(I_DIAG_BAD_PATH, 12, "2x4 4"),
        AP_RECORD(I_DATAGEN_RESULTS, 36, "4 P 8 8"),
        AP_RECORD(I_SERVER_SHUTDOWN, 161, "4 4 T b32 b112 b1"),
        AP_RECORD(I_RESTORE_STANDBY_DB, 288, "4x3 T T 4 b64 b128 b32 8 8 b16"),
        AP_RECORD(I_RECONCILE, 4, "4"),
        AP_RECORD(I_USER, 1283, "4 b32 b64 b64 b32 b64 4 4 4x32 b2 2 T T 4 b256 b600 4 2 b1"),
        AP_RECORD(I_DOMAIN, 72, "4 b32 2 2 4 T b20"),
        AP_RECORD(I_EQUIPMENT, 106, "4 b32 b24 b24 4 4 2 4 T"),
        AP_RECORD(I_XSL_ASSOCIATION, 20, "4 2 2 4 2 2 b2 2"),
        AP_RECORD(I_XSL_COUNTS, 16, "4x4"),
        AP_RECORD(I_PACKET_COUNTS, 12, "4x3"),
        AP_RECORD(I_PACKET_STATUS, 8, "4 2 2"),
        AP_RECORD(I_PACKET_ASSOCIATION, 253, ASSOC),
        AP_RECORD(I_PACKET_ASSOCIATION_EVT, 259, ASSOC + " 4 2"),
        AP_RECORD(I_INGRESS, 589, "4 b64 b128 4 4 2 Px16 4 4 b2 2 b1 T b32 4 8x3 b46"),
        AP_RECORD(I_SUPERINGRESS, 325, "4 b64 b128 2 4x24 4 b1 T b16 2"),
        AP_RECORD(I_FILTER, 331, "4 b64 b128 4 4 2 4x24 b3 4 T 8 4 2"),
        AP_RECORD(I_FILTER_MEMBER, 44, "4 4 2 b2 b32"),
        AP_RECORD(I_SUPERFILTER, 1117, "4 b64 b256 4 2 4x64 b1 4 T 8x64 2 4"),
        AP_RECORD(I_EGRESS, 123, "4 b64 4 4 2 b2 4 4 T 8 8 2 b2 4 2 b1"),
        AP_RECORD(I_SUPEREGRESS, 289, "4 b64 b128 2 4x16 4 b1 T 2 b12"),
        AP_RECORD(I_RULE, 264, "4 b64 4 b2 b64 2x7 b12 b2 4 4 b90"),
        AP_RECORD(I_DPI_PROTOCOL, 420, "4 b64 b128 b2 2 2x32 b128 4 T 8 4 4"),
        AP_RECORD(I_DPI_PROTOCOL_ENTRY, 44, "4 2x3 b2 b32"),
        AP_RECORD(I_PORT_STATISTICS, 324, "P 4 T 8x36 4 4"),
        AP_RECORD(I_TRAFFIC_COUNTERS, 52, "4 8x5 4 4"),
        AP_RECORD(I_THRESHOLD, 107, "4 b32 4 8 8 4 b2 P T 4 b1 b16"),
        AP_RECORD(I_UTILIZATION, 283, "4 b32 P 4 T 4x4 8 8 4x46 b1 2"),
        AP_RECORD(I_PCE_PORT, 40, "4 P 4x3 2 b2 4"),
        AP_RECORD(I_PCE_STATISTICS, 300, "4 T 4 4 8x35"),
        AP_RECORD(I_XSL_TRUNK, 322, "4 b64 b128 4 2 b2 2 4 T 8x4 2x32 4 4"),
        AP_RECORD(I_IMPAIRMENT, 329, "4 b64 b128 4 4x6 4 b2 4 T 4 8 b32 4 b39"),
        AP_RECORD(I_PACKET_FIELD, 48, FIELD),
        AP_RECORD(I_PACKET_FRAME, 2048, FRAME),
        AP_RECORD(I_PACKET_DEFINITION, 48125, "4 b64 b256 4 2x3 " + FIELD + "x256 " + FRAME + "x17 4 T b2 b32 b641"),
        AP_RECORD(I_STREAM, 305, "4 b64 b128 4 2 4 8 4 4 b2 P T 8 8 4 b32 4 b1"),
        AP_RECORD(I_PROBE, 313, "4 b64 b128 4 4 b2 2 Px4 4 T b24 4 b1"),
        AP_RECORD(I_SERVER_CLOCK, 314, "T 4 b2 2 b256 4 4 4 b30"),
        AP_RECORD(I_SYSTEM_PARAMETERS, 2130, "b64 b64 4x3 4x8 2x6 b1 b64 4x8 2 b1 4 b256 b1 b1024 b192 4x4 8 4x3 b333"),
        AP_RECORD(I_STICKY_NOTE, 489, "4x3 b32 T T 4 b1 b64 b360"),
        AP_RECORD(I_DEVICE, 254, "4 b64 b128 4 2 4 b7 4 T b24 4 b1"),
        AP_RECORD(I_PACKET_RESERVATION, 531, "4 b224 T T 4 4 2 4x32 4 b1 b128 T 4 4"),
        AP_RECORD(I_REMOTE_SERVER, 96, "4 b32 b40 2 b2 4 T 4"),
        AP_RECORD(I_REMOTE_EXEC, 2314, "4 4 b256 b32 T T 4x4 b1984 b2"),
        AP_RECORD(I_APP_STATUS, 55, "4 2 b1 b16 b32"),
        AP_RECORD(I_DEVICE_APP, 2300, "4 4 b64 b16 b32 b256 4 b2 2 4 4 T T b1892"),
        AP_RECORD(API_HDR, 4, "4"),
        AP_RECORD(API_UNSOLICITED_HDR, 8, "4 4"),
    };
    for (const RecordCase& c : cases) checkRecord(c);
    EXPECT_EQ(val(API_UNSOLICITED_HDR().apiHdr.iCategory), -1);
}

TEST(ApRecords, AssociationTrunkIdsBeyondTheFirstAreConvertedOnRequestOnly)
{
    // Room for three ids (the record's own and two behind it), plus a guard.
    const std::size_t size = I_PACKET_ASSOCIATION_EVT::sizeofThis(3);
    Bytes buf = pattern(size + 2);
    const Bytes original = buf;
    auto* rec = reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(buf.data());

    rec->Swap(); // fixed part only
    EXPECT_TRUE(std::equal(buf.begin() + 259, buf.end(), original.begin() + 259));
    rec->Swap();
    ASSERT_TRUE(buf == original);

    rec->Swap(3);
    Bytes expected = original;
    applyLayout(ASSOC + " 4 2x3", expected.data(), expected.size());
    EXPECT_TRUE(buf == expected);
    rec->Swap(3);
    EXPECT_TRUE(buf == original);

    const unsigned sizes[][2] = {{0, 259}, {1, 259}, {2, 261}, {3, 263}, {100, 457}};
    for (const auto& s : sizes) EXPECT_EQ(I_PACKET_ASSOCIATION_EVT::sizeofThis(s[0]), s[1]) << s[0];
    // Hostile counts saturate rather than wrap to something small.
    EXPECT_EQ(I_PACKET_ASSOCIATION_EVT::sizeofThis(0xFFFFFFFFu), 0xFFFFFFFFu);
    EXPECT_GT(I_PACKET_ASSOCIATION_EVT::sizeofThis(0x80000000u), sizeof(API_EVENT_PKT));
}

} // namespace
