// The header boxes against bytes written out by hand from ISO/IEC 14496-12.
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"

#include <climits>
#include <ctime>

namespace boxlane::test {
namespace {

using HeaderBoxTest = WriterTest;

constexpr const char* kMatrix =
    "00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000";

TEST_F(HeaderBoxTest, FixedBoxesEditListsAndZeroTimes) {
  EXPECT_EQ(box(Boxlane_Packet_FTyp), bytes_hex("00 00 00 20 66 74 79 70 69 73 6F 6D 00 00 02 00 "
                                                "69 73 6F 6D 69 73 6F 32 61 76 63 31 6D 70 34 31"));
  EXPECT_EQ(box(Boxlane_Packet_DInf), bytes_hex("00 00 00 24 64 69 6E 66 00 00 00 1C 64 72 65 66 00 00 00 00 "
                                                "00 00 00 01 00 00 00 0C 75 72 6C 20 00 00 00 01"));
  EXPECT_EQ(box(Boxlane_Packet_VMhd), bytes_hex("00 00 00 14 76 6D 68 64 00 00 00 01 00 00 00 00 00 00 00 00"));
  EXPECT_EQ(box(Boxlane_Packet_SMhd, 0), bytes_hex("00 00 00 10 73 6D 68 64 00 00 00 00 00 00 00 00"));
  EXPECT_EQ(box(Boxlane_Packet_SMhd, -256), bytes_hex("00 00 00 10 73 6D 68 64 00 00 00 00 FF 00 00 00"));
  EXPECT_EQ(box(Boxlane_Packet_STsc), bytes_hex("0000001C 73747363 00000000 00000001 00000001 00000001 00000001"));
  // Before any mvhd the times are zero.
  EXPECT_EQ(box(Boxlane_Packet_MDhd, 0),
            bytes_hex("00000020 6D646864 00000000 00000000 00000000 00000000 00000000 0000 0000"));
  EXPECT_EQ(box(Boxlane_Packet_EDts, 2000, 40),
            bytes_hex("00000024 65647473 0000001C 656C7374 00000000 00000001 000007D0 00000028 0001 0000"));
  // media_time -1 is an empty edit (ISO/IEC 14496-12 §8.6.6.3).
  EXPECT_EQ(box(Boxlane_Packet_EDts, 0xFFFFFFFF, -1),
            bytes_hex("00000024 65647473 0000001C 656C7374 00000000 00000001 FFFFFFFF FFFFFFFF 0001 0000"));
}

TEST_F(HeaderBoxTest, BoxHeaderWithAndWithoutPayload) {
  const uint8_t payload[] = {0xDE, 0xAD, 0xBE, 0xEF};
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "moov", nullptr, 1000), bytes_hex("00 00 03 F0 6D 6F 6F 76"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "free", payload, 4), bytes_hex("00 00 00 0C 66 72 65 65 DE AD BE EF"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "mdat", payload, 0), bytes_hex("00 00 00 08 6D 64 61 74"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "mdat", nullptr, INT_MAX - 8), bytes_hex("7F FF FF FF 6D 64 61 74"));

  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, nullptr, payload, 4);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, "free", payload, -1);
  // The size field must stay within a signed 32-bit length.
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, "mdat", nullptr, INT_MAX - 7);
}

TEST_F(HeaderBoxTest, HandlerTypes) {
  const std::string head = "68646C72 00000000 00000000";
  const std::string reserved = " 00000000 00000000 00000000 ";
  EXPECT_EQ(box(Boxlane_Packet_HDlr, 0), bytes_hex("0000002D" + head + "76696465" + reserved +
                                                   "56 69 64 65 6F 48 61 6E 64 6C 65 72 00"));  // "VideoHandler"
  EXPECT_EQ(box(Boxlane_Packet_HDlr, 4), bytes_hex("0000002C" + head + "74657874" + reserved +
                                                   "54 65 78 74 48 61 6E 64 6C 65 72 00"));  // "TextHandler"
  for (const uint8_t type : {5, 255}) refuses(BOXLANE_ERROR_PACKET_NOTSUPPORT, Boxlane_Packet_HDlr, type);
  // The lookup comes first: an unknown client is reported whatever the type.
  expect_refused([](uint8_t* b, int32_t* l) { return Boxlane_Packet_HDlr("writer/nobody", b, l, 9); },
                 BOXLANE_ERROR_PACKET_NOTFOUND);
}

// mvhd, tkhd and mdhd pass the creation time, time scale, track numbering and
// durations through the record.
TEST_F(HeaderBoxTest, MovieTrackAndMediaHeadersShareTheirValues) {
  const auto before = static_cast<uint32_t>(std::time(nullptr) + 2082844800LL);
  const std::string mvhd = box(Boxlane_Packet_MVhd, 90000, 1000);
  const auto after = static_cast<uint32_t>(std::time(nullptr) + 2082844800LL);
  const uint32_t stamp = record().nCreateTime;
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  Bytes stamp_bytes;
  stamp_bytes.u32(stamp);
  std::string times = " ";  // built by appends: GCC 12 at -O3 misreads " " + string (-Wrestrict)
  times += hex(stamp_bytes);
  times += ' ';
  times += hex(stamp_bytes);
  times += ' ';

  EXPECT_EQ(mvhd, bytes_hex("0000006C 6D766864 00000000" + times + "000003E8 00015F90 00010000 0100" +
                            " 00000000 00000000 0000 " + kMatrix + std::string(48, '0') + " 00000002"));

  // A visual track: track 1, 1920x1080, its duration kept for mdhd.
  EXPECT_EQ(box(Boxlane_Packet_TKhd, 0, 1920, 1080, 5000),
            bytes_hex("0000005C 746B6864 00000003" + times + "00000001 00000000 00001388 00000000 00000000" +
                      " 0000 0000 0000 0000 " + kMatrix + " 07800000 04380000"));
  // A sound track: track 2, full volume; its duration does not reach mdhd.
  EXPECT_EQ(box(Boxlane_Packet_TKhd, 0x0100, 0, 0, 7000),
            bytes_hex("0000005C 746B6864 00000003" + times + "00000002 00000000 00001B58 00000000 00000000" +
                      " 0000 0000 0100 0000 " + kMatrix + " 00000000 00000000"));
  EXPECT_EQ(record().nAudioDuration, 7000u);
  EXPECT_EQ(record().nVolume, 0x0100);
  EXPECT_EQ(record().nWidth, 0);

  // 0x55C4 packs "und" (ISO 639-2/T, ISO/IEC 14496-12 §8.4.2.3).
  EXPECT_EQ(box(Boxlane_Packet_MDhd, 0x55C4),
            bytes_hex("00000020 6D646864 00000000" + times + "000003E8 00001388 55C4 0000"));
  EXPECT_EQ(box(Boxlane_Packet_MDhdEx, 0x15C7, 7000),
            bytes_hex("00000020 6D646864 00000000" + times + "000003E8 00001B58 15C7 0000"));
  // MDhdEx leaves the record alone.
  EXPECT_EQ(record().nVideoDuration, 5000u);
  EXPECT_EQ(record().nTrackID, 3u);
}

// The 64-bit forms on both sides of each limit: the version 0 bytes while a
// value fits its 32-bit field, version 1 (64-bit times and durations) from
// the first value that does not.
TEST_F(HeaderBoxTest, SixtyFourBitFormsOnBothSidesOfTheirLimits) {
  constexpr uint64_t k32 = uint64_t{1} << 32;
  const auto stamp = [&](bool wide) {
    Bytes b;
    if (wide) b.u32(0);
    b.u32(record().nCreateTime);
    const std::string one = hex(b);
    std::string both = " ";  // built by appends, as above
    both += one;
    both += ' ';
    both += one;
    both += ' ';
    return both;
  };
  const std::string movie_tail = " 00010000 0100 00000000 00000000 0000 " + std::string(kMatrix) +
                                 std::string(48, '0') + " 00000002";
  std::string mvhd = box(Boxlane_Packet_MVhd64, k32 - 1, 90000);
  EXPECT_EQ(mvhd, bytes_hex("0000006C 6D766864 00000000" + stamp(false) + "00015F90 FFFFFFFF" + movie_tail));
  mvhd = box(Boxlane_Packet_MVhd64, k32, 90000);
  EXPECT_EQ(mvhd, bytes_hex("00000078 6D766864 01000000" + stamp(true) + "00015F90 00000001 00000000" + movie_tail));
  // Unlike MVhd, a zero duration is written as given.
  mvhd = box(Boxlane_Packet_MVhd64, 0, 1000);
  EXPECT_EQ(mvhd, bytes_hex("0000006C 6D766864 00000000" + stamp(false) + "000003E8 00000000" + movie_tail));
  EXPECT_EQ(record().nTimeScale, 1000);

  const std::string track_tail = std::string(kMatrix) + " 02800000 01E00000";
  EXPECT_EQ(box(Boxlane_Packet_TKhd64, 0, 640, 480, k32 - 1),
            bytes_hex("0000005C 746B6864 00000003" + stamp(false) + "00000001 00000000 FFFFFFFF 00000000 00000000" +
                      " 0000 0000 0000 0000 " + track_tail));
  EXPECT_EQ(record().nVideoDuration, 0xFFFFFFFFu);
  EXPECT_EQ(box(Boxlane_Packet_TKhd64, 0x0100, 640, 480, k32 + 0x1234),
            bytes_hex("00000068 746B6864 01000003" + stamp(true) + "00000002 00000000 00000001 00001234" +
                      " 00000000 00000000 0000 0000 0100 0000 " + track_tail));
  // The record keeps what a 32-bit MDhd can write: the most it can hold.
  EXPECT_EQ(record().nAudioDuration, 0xFFFFFFFFu);
  EXPECT_EQ(record().nTrackID, 3u);
  EXPECT_EQ(record().nWidth, 640);

  EXPECT_EQ(box(Boxlane_Packet_MDhd64, 0x55C4, k32 - 1),
            bytes_hex("00000020 6D646864 00000000" + stamp(false) + "000003E8 FFFFFFFF 55C4 0000"));
  EXPECT_EQ(box(Boxlane_Packet_MDhd64, 0x55C4, ~uint64_t{0}),
            bytes_hex("0000002C 6D646864 01000000" + stamp(true) + "000003E8 FFFFFFFF FFFFFFFF 55C4 0000"));

  const struct {
    uint64_t segment;
    int64_t media_time;
    const char* elst;  // from the version byte on
  } edits[] = {
      {k32 - 1, INT32_MAX, "00000000 00000001 FFFFFFFF 7FFFFFFF 0001 0000"},
      {k32 - 1, -1, "00000000 00000001 FFFFFFFF FFFFFFFF 0001 0000"},
      {k32, 0, "01000000 00000001 00000001 00000000 00000000 00000000 0001 0000"},
      {5, int64_t{INT32_MAX} + 1, "01000000 00000001 00000000 00000005 00000000 80000000 0001 0000"},
      {k32, -1, "01000000 00000001 00000001 00000000 FFFFFFFF FFFFFFFF 0001 0000"},
  };
  for (const auto& e : edits) {
    SCOPED_TRACE(e.elst);
    const bool wide = e.elst[1] == '1';
    const std::string head = wide ? "0000002C 65647473 00000024 656C7374 " : "00000024 65647473 0000001C 656C7374 ";
    EXPECT_EQ(box(Boxlane_Packet_EDts64, e.segment, e.media_time), bytes_hex(head + e.elst));
  }
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_EDts64, uint64_t{5}, int64_t{-2});
}

TEST_F(HeaderBoxTest, LargeSizeBoxHeader) {
  EXPECT_EQ(box(Boxlane_Packet_HDRBox64, "mdat", uint64_t{0}), bytes_hex("00000001 6D646174 00000000 00000010"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox64, "mdat", uint64_t{0xFFFFFFF0}), bytes_hex("00000001 6D646174 00000001 00000000"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox64, "free", ~uint64_t{0} - 16), bytes_hex("00000001 66726565 FFFFFFFF FFFFFFFF"));
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox64, "mdat", ~uint64_t{0} - 15);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox64, nullptr, uint64_t{0});
}

}  // namespace
}  // namespace boxlane::test
