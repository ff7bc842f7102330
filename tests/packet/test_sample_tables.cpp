// The sample tables, read back as bytes after frames have been handed in:
// this is where the frame writers' bookkeeping becomes visible.
#include "writer_fixture.hpp"

#include "packet/box_output.hpp"

#include <cstdint>
#include <vector>

namespace boxlane::test {
namespace {

class SampleTableTest : public WriterTest {
 protected:
  void video(int64_t position, int key, int duration, int cts, int size = 8) {
    std::vector<uint8_t> frame(static_cast<std::size_t>(size), 0x41);
    std::vector<uint8_t> out(frame.size());
    int32_t length = 0;
    ASSERT_TRUE(Boxlane_Packet_FrameVideo(client(), out.data(), &length, frame.data(), size, position, key, duration, cts));
  }
  void audio(int64_t position, int duration, int size = 6) {
    // One spare byte so that an empty frame still has a valid pointer.
    std::vector<uint8_t> frame(static_cast<std::size_t>(size) + 1, 0x21);
    std::vector<uint8_t> out(frame.size());
    int32_t length = 0;
    ASSERT_TRUE(Boxlane_Packet_FrameAudio(client(), out.data(), &length, frame.data(), size, position, duration));
  }
};

TEST_F(SampleTableTest, ClientWithoutFramesGivesEmptyTablesAndNoCompositionOffsets) {
  for (const bool video : {true, false}) {
    EXPECT_EQ(box(Boxlane_Packet_STts, video), bytes_hex("00000010 73747473 00000000 00000000"));
    EXPECT_EQ(box(Boxlane_Packet_STsz, video), bytes_hex("00000014 7374737A 00000000 00000000 00000000"));
    EXPECT_EQ(box(Boxlane_Packet_STco, video), bytes_hex("00000010 7374636F 00000000 00000000"));
  }
  EXPECT_EQ(box(Boxlane_Packet_STss), bytes_hex("00000010 73747373 00000000 00000000"));
  refuses(BOXLANE_ERROR_PACKET_NODATA, Boxlane_Packet_CTts);
}

TEST_F(SampleTableTest, DurationsMergeOnlyWithTheLastRun) {
  // A frame without a duration is still a sample but in no run.
  for (const int duration : {40, 40, 41, 40, 0, -3, 40}) video(0, 0, duration, 0);
  EXPECT_EQ(box(Boxlane_Packet_STts, true), bytes_hex("00000028 73747473 00000000 00000003 "
                                                      "00000002 00000028 00000001 00000029 00000002 00000028"));
  EXPECT_EQ(record().listVideoSample.size(), 7u);
  // Audio keeps its own runs.
  for (const int duration : {1024, 1024, 1024, 960}) audio(0, duration);
  EXPECT_EQ(box(Boxlane_Packet_STts, false), bytes_hex("00000020 73747473 00000000 00000002 00000003 00000400 00000001 000003C0"));
}

// Only positive composition offsets are recorded, one entry each; only key flag 1 marks a sync sample.
TEST_F(SampleTableTest, CompositionOffsetsAndSyncSamples) {
  const std::pair<int, int> frames[] = {{1, 0}, {0, 80}, {2, 0}, {-1, 40}, {1, 40}, {1, -40}};
  for (const auto& [key, cts] : frames) video(0, key, 40, cts);
  EXPECT_EQ(box(Boxlane_Packet_CTts), bytes_hex("00000028 63747473 00000000 00000003 "
                                                "00000001 00000050 00000001 00000028 00000001 00000028"));
  EXPECT_EQ(box(Boxlane_Packet_STss), bytes_hex("0000001C 73747373 00000000 00000003 00000001 00000005 00000006"));
}

TEST_F(SampleTableTest, SizesAndOffsetsPerTrack) {
  video(48, 1, 40, 0, 100);
  audio(148, 1024, 7);
  video(155, 0, 40, 0, 200);
  video((int64_t{1} << 32) + 100, 0, 40, 0, 300);  // stco keeps the low 32 bits
  audio(0x7FFFFFFF, 1024, 0);

  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000020 7374737A 00000000 00000000 00000003 00000064 000000C8 0000012C"));
  EXPECT_EQ(box(Boxlane_Packet_STco, true), bytes_hex("0000001C 7374636F 00000000 00000003 00000030 0000009B 00000064"));
  EXPECT_EQ(box(Boxlane_Packet_STsz, false), bytes_hex("0000001C 7374737A 00000000 00000000 00000002 00000007 00000000"));
  EXPECT_EQ(box(Boxlane_Packet_STco, false), bytes_hex("00000018 7374636F 00000000 00000002 00000094 7FFFFFFF"));
  // Audio has no sync table of its own, and video keys are untouched by it.
  EXPECT_EQ(box(Boxlane_Packet_STss), bytes_hex("00000014 73747373 00000000 00000001 00000001"));
}

// stco while every offset (position + delta) is below 2^32, co64 from the
// first offset at 2^32, chosen per track; the size query agrees with what is
// written.
TEST_F(SampleTableTest, ChunkOffsetsWidenAtFourGibibytes) {
  constexpr int64_t k32 = int64_t{1} << 32;
  const auto size_of = [&](bool video, int64_t delta) {
    int32_t size = -1;
    EXPECT_TRUE(Boxlane_Packet_STco64Size(client(), video, delta, &size));
    return size;
  };
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}), bytes_hex("00000010 7374636F 00000000 00000000"));
  EXPECT_EQ(size_of(true, 0), 16);

  video(48, 1, 40, 0);
  video(k32 - 1, 0, 40, 0);
  audio(100, 1024);
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}), bytes_hex("00000018 7374636F 00000000 00000002 00000030 FFFFFFFF"));
  EXPECT_EQ(size_of(true, 0), 24);
  // One more byte of delta moves the last offset to 2^32.
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{1}),
            bytes_hex("00000020 636F3634 00000000 00000002 00000000 00000031 00000001 00000000"));
  EXPECT_EQ(size_of(true, 1), 32);
  // A delta may move offsets down as far as 0.
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{-48}), bytes_hex("00000018 7374636F 00000000 00000002 00000000 FFFFFFCF"));

  video(k32, 0, 40, 0);
  video(200, 0, 40, 0);  // positions need not grow
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}),
            bytes_hex("00000030 636F3634 00000000 00000004 00000000 00000030 00000000 FFFFFFFF "
                      "00000001 00000000 00000000 000000C8"));
  EXPECT_EQ(size_of(true, 0), 48);
  // The audio track keeps its own 32-bit table.
  EXPECT_EQ(box(Boxlane_Packet_STco64, false, int64_t{0}), bytes_hex("00000014 7374636F 00000000 00000001 00000064"));
  EXPECT_EQ(size_of(false, 0), 20);
  EXPECT_EQ(box(Boxlane_Packet_STco64, false, k32 - 100), bytes_hex("00000018 636F3634 00000000 00000001 00000001 00000000"));
  EXPECT_EQ(size_of(false, k32 - 100), 24);

  // An offset below 0, or one past 63 bits, is refused by both.
  audio(INT64_MAX, 1024);
  for (const auto& [video_track, delta] : {std::pair{true, int64_t{-49}}, std::pair{false, int64_t{1}}}) {
    SCOPED_TRACE(delta);
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STco64, video_track, delta);
    int32_t size = -7;
    EXPECT_FALSE(Boxlane_Packet_STco64Size(client(), video_track, delta, &size));
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
    EXPECT_EQ(size, -7);
  }
  EXPECT_FALSE(Boxlane_Packet_STco64Size(client(), true, 0, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  int32_t size = -7;
  EXPECT_FALSE(Boxlane_Packet_STco64Size("writer/nobody", true, 0, &size));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_NOTFOUND);
  EXPECT_FALSE(Boxlane_Packet_STco64Size(nullptr, true, 0, &size));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_EQ(size, -7);
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
