#include "Ap/ApEvents.h"
#include "Ap/ApRecords.h"
#include "Ap/ApRecordsPacket.h"
#include "ApSwapCheck.h"

#include <algorithm>

using namespace apcheck;

namespace {

// ---- the primitives -----------------------------------------------------------

TEST(ApSwapPrimitives, ReverseBytesWhateverTheHostOrder)
{
    EXPECT_EQ(swaps(0x0102), 0x0201);
    EXPECT_EQ(swaps(0xFF00), 0x00FF);
    EXPECT_EQ(swapl(0x01020304u), 0x04030201u);
    EXPECT_EQ(swapl(0x80000000u), 0x00000080u);
    EXPECT_EQ(swapll(0x0102030405060708ull), 0x0807060504030201ull);
    EXPECT_EQ(swapll(0xFF00000000000000ull), 0x00000000000000FFull);

    // The in-memory bytes come out mirrored, on either kind of host.
    const unsigned int v = 0x11223344u;
    const unsigned int s = swapl(v);
    unsigned char a[4], r[4];
    std::memcpy(a, &v, 4);
    std::memcpy(r, &s, 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(r[i], a[3 - i]);
}

TEST(ApSwapPrimitives, SwapfReversesTheRepresentationAndRoundTripsEveryPattern)
{
    // Patterns whose reversal is +inf, a signalling NaN, a quiet NaN, a
    // denormal, or negative zero: none may be altered on the way.
    const std::uint32_t patterns[] = {0x3F800000u, 0x0000807Fu, 0x0100807Fu, 0x0100C07Fu,
                                      0x01000000u, 0x00000080u, 0x12345678u, 0xFFFFFFFFu};
    for (std::uint32_t bits : patterns) {
        SCOPED_TRACE(bits);
        float f;
        std::memcpy(&f, &bits, 4);
        const float once = swapf(f);
        std::uint32_t onceBits;
        std::memcpy(&onceBits, &once, 4);
        EXPECT_EQ(onceBits, swapl(bits));
        const float twice = swapf(once);
        std::uint32_t twiceBits;
        std::memcpy(&twiceBits, &twice, 4);
        EXPECT_EQ(twiceBits, bits);
    }
}

TEST(ApSwapPrimitives, ValueHelperFollowsWidthAndKeepsSignedAndEnumTypes)
{
    EXPECT_EQ(ApSwap::value(std::int16_t{0x0180}), std::int16_t{-32767}); // 0x8001
    EXPECT_EQ(ApSwap::value(std::int32_t{-2}), std::int32_t(0xFEFFFFFFu));
    EXPECT_EQ(ApSwap::value(std::int64_t{1}), std::int64_t{1} << 56);
    EXPECT_EQ(ApSwap::value(I_EVENT_TYPE_SWITCH), static_cast<I_EVENT_TYPE>(0x01000000));
}

// ---- every record against its layout ----------------------------------------

const std::string MEMBER = U32 + U16 + b(1) + b(1) + PORT_ADDR;
const std::string SUBPORT_ENTRY = U16 + rep(U32, 4) + b(1) + b(1) + U32 + U32 + F32 + F32 + b(28);
const std::string ASSOCIATION = U32 + b(64) + b(128) + rep(U32, 4) + b(1) + b(1) + U16 + TIME_STAMP +
                                rep(U32, 3) + U64 + U64 + b(1);
const std::string PACKET_FIELD = b(24) + U16 + b(1) + b(1) + U32 + U64 + U64;
const std::string PACKET_FRAME = U16 + U16 + U32 + b(2040);

std::vector<RecordCase> allRecords()
{
    return {
        recordCase<I_PORT_ADDR>("I_PORT_ADDR", 16, PORT_ADDR),
        recordCase<I_TIME_STAMP>("I_TIME_STAMP", 8, TIME_STAMP),
        recordCase<I_MEMBER>("I_MEMBER", 24, MEMBER),
        recordCase<I_REF_MEMBER>("I_REF_MEMBER", 20, U32 + U32 + U16 + U16 + U32 + U32),
        recordCase<I_ORDERED_MEMBER>("I_ORDERED_MEMBER", 28,
                                     rep(U32, 4) + TIME_STAMP + b(1) + b(1) + U16),
        recordCase<I_PROGRESS>("I_PROGRESS", 8, U32 + U32),
        recordCase<I_SWITCH>("I_SWITCH", 919,
                             U32 + b(64) + b(128) + b(64) + b(64) + b(32) + b(32) + b(32) + b(32) +
                                 rep(U32, 3) + b(6) + U16 + U32 + U32 + b(1) + b(1) + U16 + U16 +
                                 U32 + TIME_STAMP + TIME_STAMP + U64 + F32 + rep(U32, 4) + b(32) +
                                 b(64) + b(128) + b(1) + b(160)),
        recordCase<I_PIM>("I_PIM", 296,
                          U32 + U16 + U16 + b(128) + b(16) + b(16) + U32 + U32 + U16 + U32 + b(1) +
                              b(1) + F32 + F32 + TIME_STAMP + U64 + b(64) + b(24)),
        recordCase<I_PORT>("I_PORT", 1054,
                           PORT_ADDR + U32 + b(64) + b(256) + b(32) + rep(U32, 5) + b(4) + U16 + U16 +
                               rep(F32, 3) + b(1) + b(96) + U32 + b(6) + rep(U32, 3) + TIME_STAMP +
                               rep(U64, 6) + b(256) + rep(U32, 32) + U16 + b(80) + b(1)),
        recordCase<I_SUBPORT_ENTRY>("I_SUBPORT_ENTRY", 64, SUBPORT_ENTRY),
        recordCase<I_SUBPORT>("I_SUBPORT", 4224,
                              PORT_ADDR + rep(U32, 3) + U16 + b(64) + b(34) + rep(SUBPORT_ENTRY, 64)),
        recordCase<I_BOARD_INFO>("I_BOARD_INFO", 190,
                                 U16 + U32 + b(32) + b(24) + b(24) + b(8) + b(16) + b(16) + U32 + U16 +
                                     b(2) + F32 + F32 + TIME_STAMP + U64 + b(6) + U32 + b(16) +
                                     rep(U16, 3)),
        recordCase<I_CHASSIS>("I_CHASSIS", 55,
                              U32 + b(24) + b(16) + U16 + b(1) + b(1) + b(4) + U16 + b(1)),
        recordCase<I_HARDWARE_ALARM>("I_HARDWARE_ALARM", 256,
                                     rep(U32, 3) + U16 + U16 + TIME_STAMP + b(1) + F32 + F32 + b(32) +
                                         b(191)),
        recordCase<I_BACKPLANE_STATE>("I_BACKPLANE_STATE", 59,
                                      U16 + U16 + U32 + b(1) + b(16) + U32 + TIME_STAMP + U32 + U64 +
                                          F32 + U16 + U32),
        recordCase<I_GROUP>("I_GROUP", 252,
                            U32 + b(64) + b(128) + U32 + U32 + U16 + U16 + U32 + U32 + b(2) +
                                TIME_STAMP + b(24) + U16),
        recordCase<I_SUPERGROUP>("I_SUPERGROUP", 279,
                                 U32 + b(64) + b(128) + U32 + U16 + rep(U32, 16) + b(1) + TIME_STAMP +
                                     U32),
        recordCase<I_CONNECTION>("I_CONNECTION", 436,
                                 U32 + U32 + PORT_ADDR + PORT_ADDR + U32 + U32 + b(64) + b(128) +
                                     b(32) + rep(TIME_STAMP, 3) + rep(U32, 3) + b(3) + U16 +
                                     rep(PORT_ADDR, 4) + U64 + b(51)),
        recordCase<I_CIRCUIT>("I_CIRCUIT", 268,
                              U32 + b(64) + b(128) + U32 + U32 + U16 + rep(U32, 8) + TIME_STAMP + U32 +
                                  b(16) + b(1) + b(1)),
        recordCase<I_CONNECTION_SET>("I_CONNECTION_SET", 570,
                                     U32 + b(64) + b(256) + U32 + U16 + rep(U32, 48) + TIME_STAMP +
                                         b(2) + b(32) + U32 + U16),
        recordCase<I_ALARM>("I_ALARM", 563,
                            rep(U32, 5) + PORT_ADDR + TIME_STAMP + TIME_STAMP + b(2) + b(32) + b(256) +
                                b(128) + U32 + b(89)),
        recordCase<I_TRANLOG>("I_TRANLOG", 344,
                              U32 + TIME_STAMP + b(32) + b(28) + rep(U32, 4) + b(256)),
        recordCase<I_MAINTENANCE>("I_MAINTENANCE", 776,
                                  U32 + b(64) + b(256) + U32 + U32 + TIME_STAMP + TIME_STAMP + U32 +
                                      b(32) + U16 + rep(PORT_ADDR, 24) + b(2) + U32),
        recordCase<I_DIAG_BAD_PATH>("I_DIAG_BAD_PATH", 12, rep(U16, 4) + U32),
        recordCase<I_DATAGEN_RESULTS>("I_DATAGEN_RESULTS", 36, U32 + PORT_ADDR + U64 + U64),
        recordCase<I_SERVER_SHUTDOWN>("I_SERVER_SHUTDOWN", 161,
                                      U32 + U32 + TIME_STAMP + b(32) + b(112) + b(1)),
        recordCase<I_RESTORE_STANDBY_DB>("I_RESTORE_STANDBY_DB", 288,
                                         rep(U32, 3) + TIME_STAMP + TIME_STAMP + U32 + b(64) + b(128) +
                                             b(32) + U64 + U64 + b(16)),
        recordCase<I_RECONCILE>("I_RECONCILE", 4, U32),
        recordCase<I_USER>("I_USER", 1283,
                           U32 + b(32) + b(64) + b(64) + b(32) + b(64) + U32 + U32 + rep(U32, 32) +
                               b(2) + U16 + TIME_STAMP + TIME_STAMP + U32 + b(256) + b(600) + U32 +
                               U16 + b(1)),
        recordCase<I_DOMAIN>("I_DOMAIN", 72, U32 + b(32) + U16 + U16 + U32 + TIME_STAMP + b(20)),
        recordCase<I_EQUIPMENT>("I_EQUIPMENT", 106,
                                U32 + b(32) + b(24) + b(24) + U32 + U32 + U16 + U32 + TIME_STAMP),
        recordCase<I_XSL_ASSOCIATION>("I_XSL_ASSOCIATION", 20,
                                      U32 + U16 + U16 + U32 + U16 + U16 + b(2) + U16),
        recordCase<I_XSL_COUNTS>("I_XSL_COUNTS", 16, rep(U32, 4)),
        // packet side
        recordCase<I_PACKET_COUNTS>("I_PACKET_COUNTS", 12, rep(U32, 3)),
        recordCase<I_PACKET_STATUS>("I_PACKET_STATUS", 8, U32 + U16 + U16),
        recordCase<I_PACKET_ASSOCIATION>("I_PACKET_ASSOCIATION", 253, ASSOCIATION),
        recordCase<I_PACKET_ASSOCIATION_EVT>("I_PACKET_ASSOCIATION_EVT", 259, ASSOCIATION + U32 + U16),
        recordCase<I_INGRESS>("I_INGRESS", 589,
                              U32 + b(64) + b(128) + U32 + U32 + U16 + rep(PORT_ADDR, 16) + U32 + U32 +
                                  b(2) + U16 + b(1) + TIME_STAMP + b(32) + U32 + rep(U64, 3) + b(46)),
        recordCase<I_SUPERINGRESS>("I_SUPERINGRESS", 325,
                                   U32 + b(64) + b(128) + U16 + rep(U32, 24) + U32 + b(1) + TIME_STAMP +
                                       b(16) + U16),
        recordCase<I_FILTER>("I_FILTER", 331,
                             U32 + b(64) + b(128) + U32 + U32 + U16 + rep(U32, 24) + b(3) + U32 +
                                 TIME_STAMP + U64 + U32 + U16),
        recordCase<I_FILTER_MEMBER>("I_FILTER_MEMBER", 44, U32 + U32 + U16 + b(2) + b(32)),
        recordCase<I_SUPERFILTER>("I_SUPERFILTER", 1117,
                                  U32 + b(64) + b(256) + U32 + U16 + rep(U32, 64) + b(1) + U32 +
                                      TIME_STAMP + rep(U64, 64) + U16 + U32),
        recordCase<I_EGRESS>("I_EGRESS", 123,
                             U32 + b(64) + U32 + U32 + U16 + b(2) + U32 + U32 + TIME_STAMP + U64 + U64 +
                                 U16 + b(2) + U32 + U16 + b(1)),
        recordCase<I_SUPEREGRESS>("I_SUPEREGRESS", 289,
                                  U32 + b(64) + b(128) + U16 + rep(U32, 16) + U32 + b(1) + TIME_STAMP +
                                      U16 + b(12)),
        recordCase<I_RULE>("I_RULE", 264,
                           U32 + b(64) + U32 + b(2) + b(64) + rep(U16, 7) + b(12) + b(2) + U32 + U32 +
                               b(90)),
        recordCase<I_DPI_PROTOCOL>("I_DPI_PROTOCOL", 420,
                                   U32 + b(64) + b(128) + b(2) + U16 + rep(U16, 32) + b(128) + U32 +
                                       TIME_STAMP + U64 + U32 + U32),
        recordCase<I_DPI_PROTOCOL_ENTRY>("I_DPI_PROTOCOL_ENTRY", 44,
                                         U32 + rep(U16, 3) + b(2) + b(32)),
        recordCase<I_PORT_STATISTICS>("I_PORT_STATISTICS", 324,
                                      PORT_ADDR + U32 + TIME_STAMP + rep(U64, 36) + F32 + F32),
        recordCase<I_TRAFFIC_COUNTERS>("I_TRAFFIC_COUNTERS", 52, U32 + rep(U64, 5) + F32 + F32),
        recordCase<I_THRESHOLD>("I_THRESHOLD", 107,
                                U32 + b(32) + U32 + U64 + U64 + U32 + b(2) + PORT_ADDR + TIME_STAMP +
                                    U32 + b(1) + b(16)),
        recordCase<I_UTILIZATION>("I_UTILIZATION", 283,
                                  U32 + b(32) + PORT_ADDR + U32 + TIME_STAMP + rep(F32, 4) + U64 + U64 +
                                      rep(F32, 46) + b(1) + U16),
        recordCase<I_PCE_PORT>("I_PCE_PORT", 40,
                               U32 + PORT_ADDR + rep(U32, 3) + U16 + b(2) + U32),
        recordCase<I_PCE_STATISTICS>("I_PCE_STATISTICS", 300,
                                     U32 + TIME_STAMP + F32 + F32 + rep(U64, 35)),
        recordCase<I_XSL_TRUNK>("I_XSL_TRUNK", 322,
                                U32 + b(64) + b(128) + U32 + U16 + b(2) + U16 + U32 + TIME_STAMP +
                                    rep(U64, 4) + rep(U16, 32) + U32 + U32),
        recordCase<I_IMPAIRMENT>("I_IMPAIRMENT", 329,
                                 U32 + b(64) + b(128) + U32 + rep(F32, 6) + U32 + b(2) + U32 +
                                     TIME_STAMP + U32 + U64 + b(32) + U32 + b(39)),
        recordCase<I_PACKET_FIELD>("I_PACKET_FIELD", 48, PACKET_FIELD),
        recordCase<I_PACKET_FRAME>("I_PACKET_FRAME", 2048, PACKET_FRAME),
        recordCase<I_PACKET_DEFINITION>("I_PACKET_DEFINITION", 48125,
                                        U32 + b(64) + b(256) + U32 + rep(U16, 3) +
                                            rep(PACKET_FIELD, 256) + rep(PACKET_FRAME, 17) + U32 +
                                            TIME_STAMP + b(2) + b(32) + b(641)),
        recordCase<I_STREAM>("I_STREAM", 305,
                             U32 + b(64) + b(128) + U32 + U16 + U32 + U64 + U32 + U32 + b(2) +
                                 PORT_ADDR + TIME_STAMP + U64 + U64 + U32 + b(32) + U32 + b(1)),
        recordCase<I_PROBE>("I_PROBE", 313,
                            U32 + b(64) + b(128) + U32 + U32 + b(2) + U16 + rep(PORT_ADDR, 4) + U32 +
                                TIME_STAMP + b(24) + U32 + b(1)),
        recordCase<I_SERVER_CLOCK>("I_SERVER_CLOCK", 314,
                                   TIME_STAMP + U32 + b(2) + U16 + b(256) + U32 + F32 + F32 + b(30)),
        recordCase<I_SYSTEM_PARAMETERS>("I_SYSTEM_PARAMETERS", 2130,
                                        b(64) + b(64) + rep(U32, 3) + rep(U32, 8) + rep(U16, 6) + b(1) +
                                            b(64) + rep(U32, 8) + U16 + b(1) + U32 + b(256) + b(1) +
                                            b(1024) + b(192) + rep(U32, 4) + U64 + rep(F32, 3) +
                                            b(333)),
        recordCase<I_STICKY_NOTE>("I_STICKY_NOTE", 489,
                                  rep(U32, 3) + b(32) + TIME_STAMP + TIME_STAMP + U32 + b(1) + b(64) +
                                      b(360)),
        recordCase<I_DEVICE>("I_DEVICE", 254,
                             U32 + b(64) + b(128) + U32 + U16 + U32 + b(7) + U32 + TIME_STAMP + b(24) +
                                 U32 + b(1)),
        recordCase<I_PACKET_RESERVATION>("I_PACKET_RESERVATION", 531,
                                         U32 + b(224) + TIME_STAMP + TIME_STAMP + U32 + U32 + U16 +
                                             rep(U32, 32) + U32 + b(1) + b(128) + TIME_STAMP + U32 +
                                             U32),
        recordCase<I_REMOTE_SERVER>("I_REMOTE_SERVER", 96,
                                    U32 + b(32) + b(40) + U16 + b(2) + U32 + TIME_STAMP + U32),
        recordCase<I_REMOTE_EXEC>("I_REMOTE_EXEC", 2314,
                                  U32 + U32 + b(256) + b(32) + TIME_STAMP + TIME_STAMP + rep(U32, 4) +
                                      b(1984) + b(2)),
        recordCase<I_APP_STATUS>("I_APP_STATUS", 55, U32 + U16 + b(1) + b(16) + b(32)),
        recordCase<I_DEVICE_APP>("I_DEVICE_APP", 2300,
                                 U32 + U32 + b(64) + b(16) + b(32) + b(256) + U32 + b(2) + U16 + U32 +
                                     F32 + TIME_STAMP + TIME_STAMP + b(1892)),
        recordCase<API_HDR>("API_HDR", 4, U32),
        recordCase<API_UNSOLICITED_HDR>("API_UNSOLICITED_HDR", 8, U32 + U32),
    };
}

TEST(ApRecords, EveryRecordHasItsWireSizeAndConvertsExactlyItsNumbers)
{
    for (const RecordCase& c : allRecords())
        checkRecord(c);
}

TEST(ApRecords, AssociationTrunkIdsBeyondTheFirstAreConvertedOnRequestOnly)
{
    // Room for three ids: the record's own one and two more behind it.
    const std::size_t size = I_PACKET_ASSOCIATION_EVT::sizeofThis(3);
    Bytes buf = pattern(size + 2); // one guard id that must stay as it is
    const Bytes original = buf;
    auto* rec = reinterpret_cast<I_PACKET_ASSOCIATION_EVT*>(buf.data());

    rec->Swap(); // fixed part only
    EXPECT_TRUE(std::equal(buf.begin() + 259, buf.end(), original.begin() + 259));
    rec->Swap();
    ASSERT_TRUE(buf == original);

    rec->Swap(3);
    for (std::size_t at = 257; at < size; at += 2) {
        EXPECT_EQ(buf[at], original[at + 1]) << at;
        EXPECT_EQ(buf[at + 1], original[at]) << at;
    }
    EXPECT_EQ(buf[size], original[size]);
    EXPECT_EQ(buf[size + 1], original[size + 1]);
    rec->Swap(3);
    EXPECT_TRUE(buf == original);
}

TEST(ApRecords, AssociationSizeGrowsByTwoPerTrunkAfterTheFirst)
{
    struct {
        unsigned int trunks;
        unsigned int size;
    } const cases[] = {{0, 259}, {1, 259}, {2, 261}, {3, 263}, {100, 457}};
    for (const auto& c : cases)
        EXPECT_EQ(I_PACKET_ASSOCIATION_EVT::sizeofThis(c.trunks), c.size) << c.trunks;
    // Hostile counts saturate rather than wrap to something small.
    EXPECT_EQ(I_PACKET_ASSOCIATION_EVT::sizeofThis(0xFFFFFFFFu), 0xFFFFFFFFu);
    EXPECT_GT(I_PACKET_ASSOCIATION_EVT::sizeofThis(0x80000000u), sizeof(API_EVENT_PKT));
}

TEST(ApRecords, UnsolicitedHeaderStartsAsMinusOneAndConvertsCategoryThenSize)
{
    API_UNSOLICITED_HDR h;
    EXPECT_EQ(val(h.apiHdr.iCategory), -1);
    h.apiHdr.iCategory = 0x01020304;
    h.iDataSize = 0x0A0B0C0D;
    EXPECT_EQ(h.Swap(), 1);
    EXPECT_EQ(val(h.apiHdr.iCategory), 0x04030201);
    EXPECT_EQ(val(h.iDataSize), 0x0D0C0B0A);
}

} // namespace
