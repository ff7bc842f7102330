// The sample tables, read back as bytes after frames have been handed in:
// where the frame writers' bookkeeping becomes visible.
#include "writer_fixture.hpp"

#include "packet/box_output.hpp"

#include <cstdint>

namespace boxlane::test {
namespace {

using SampleTableTest = WriterTest;

// A duration merges only with the last run, and a frame without one is in
// no run; only positive composition offsets get a ctts entry, one each; only
// key flag 1 marks a sync sample; stco keeps the low 32 bits of a position.
TEST_F(SampleTableTest, TablesOfBothTracks) {
  video(10, 1, 40, 0, 48);
  video(9, 0, 40, 80, 58);
  audio(7, 1024, 67);
  video(8, 2, 41, 40, 74);
  video(7, -1, 40, 40, 82);
  video(6, 1, 0, -40, (int64_t{1} << 32) + 100);
  audio(0, 1024, 0x7FFFFFFF);
  video(5, 1, -3, 0, 100);
  video(4, 0, 40, 0, 110);
  audio(3, 960, 200);
  EXPECT_EQ(box(Boxlane_Packet_STts, true),
            bytes_hex("00000028 73747473 00000000 00000003 00000002 00000028 00000001 00000029 00000002 00000028"));
  EXPECT_EQ(box(Boxlane_Packet_CTts),
            bytes_hex("00000028 63747473 00000000 00000003 00000001 00000050 00000001 00000028 00000001 00000028"));
  EXPECT_EQ(box(Boxlane_Packet_STss), bytes_hex("0000001C 73747373 00000000 00000003 00000001 00000005 00000006"));
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000030 7374737A 00000000 00000000 00000007 0000000A 00000009 "
                                                      "00000008 00000007 00000006 00000005 00000004"));
  EXPECT_EQ(box(Boxlane_Packet_STco, true), bytes_hex("0000002C 7374636F 00000000 00000007 00000030 0000003A 0000004A "
                                                      "00000052 00000064 00000064 0000006E"));
  EXPECT_EQ(box(Boxlane_Packet_STts, false),
            bytes_hex("00000020 73747473 00000000 00000002 00000002 00000400 00000001 000003C0"));
  EXPECT_EQ(box(Boxlane_Packet_STsz, false),
            bytes_hex("00000020 7374737A 00000000 00000000 00000003 00000007 00000000 00000003"));
  EXPECT_EQ(box(Boxlane_Packet_STco, false), bytes_hex("0000001C 7374636F 00000000 00000003 00000043 7FFFFFFF 000000C8"));
}

// stco while every offset (position + delta) is below 2^32, co64 from the
// first offset at 2^32, chosen per track; the size query agrees.
TEST_F(SampleTableTest, ChunkOffsetsWidenAtFourGibibytes) {
  constexpr int64_t k32 = int64_t{1} << 32;
  const auto size_of = [&](bool video, int64_t delta) {
    int32_t size = -7;
    if (!Boxlane_Packet_STco64Size(client(), video, delta, &size)) return -int(Boxlane_GetLastError(nullptr));
    return int(size);
  };
  video(8, 1, 40, 0, 48);
  video(8, 0, 40, 0, k32 - 1);
  audio(6, 1024, 100);
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}),
            bytes_hex("00000018 7374636F 00000000 00000002 00000030 FFFFFFFF"));
  EXPECT_EQ(size_of(true, 0), 24);
  // One more byte of delta moves the last offset to 2^32.
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{1}),
            bytes_hex("00000020 636F3634 00000000 00000002 00000000 00000031 00000001 00000000"));
  EXPECT_EQ(size_of(true, 1), 32);
  // The audio track keeps its own table.
  EXPECT_EQ(box(Boxlane_Packet_STco64, false, int64_t{0}), bytes_hex("00000014 7374636F 00000000 00000001 00000064"));
  // An offset below 0, or one past 63 bits, is refused by both.
  audio(6, 1024, INT64_MAX);
  for (const auto& [video_track, delta] : {std::pair{true, int64_t{-49}}, std::pair{false, int64_t{1}}}) {
    SCOPED_TRACE(delta);
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STco64, video_track, delta);
    EXPECT_EQ(size_of(video_track, delta), -int(BOXLANE_ERROR_PACKET_PARAMETER));
  }
}

// A table is refused only when its box would not fit the signed 32-bit
// length: the largest count that fits, worked out by hand, and one more.
TEST(TableSize, LargestCountThatFitsTheLength) {
  const struct {
    uint64_t head, each, most;
  } tables[] = {{16, 8, 268435453}, {16, 4, 536870907}, {20, 4, 536870906}};  // stts/ctts, stss/stco, stsz
  for (const auto& t : tables) {
    EXPECT_TRUE(boxlane::packet::fits_length(t.head, t.most, t.each)) << t.most;
    EXPECT_FALSE(boxlane::packet::fits_length(t.head, t.most + 1, t.each)) << t.most;
  }
}

}  // namespace
}  // namespace boxlane::test
