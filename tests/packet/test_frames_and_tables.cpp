// The frame writers: the sample bytes each returns, its bookkeeping read back through the tables, and refusals.
#include "writer_fixture.hpp"

#include "packet/box_output.hpp"
#include "support/box_builder.hpp"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

// Every allocation of this program fails while g_no_memory is set, as when memory runs out. Not inlined, so that
// the compiler never pairs a new it sees with a free.
std::atomic<bool> g_no_memory{false};
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* p = g_no_memory.load() ? nullptr : std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  return p;
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace boxlane::test {
namespace {

using FrameTest = WriterTest;
using SampleTableTest = WriterTest;
constexpr int64_t k32 = int64_t{1} << 32;

// The start code, unexamined, becomes the NAL length (4 bytes: an empty unit); an ADTS header goes, CRC or not.
TEST_F(FrameTest, SampleBytesOfVideoAndAudio) {
  EXPECT_EQ(video(1000, 1, 40, 0, 48), bytes_hex("000003E4") + " " + hex(std::vector<uint8_t>(996, 0x41)));
  const uint8_t odd[] = {0xAA, 0xBB, 0xCC, 0xDD, 0x41};
  EXPECT_EQ(box(Boxlane_Packet_FrameVideo, odd, 4, int64_t{0}, 0, 40, 0), bytes_hex("00000000"));
  // A client with video frames stays a movie.
  EXPECT_TRUE(!Boxlane_Packet_FragmentMode(client(), 1, 2, 0, 0) && Boxlane_GetLastError(nullptr) == BOXLANE_ERROR_PACKET_ORDER);
  // AAC-LC 48 kHz stereo (ISO/IEC 14496-3 §1.A.2.2): 371 bytes without CRC, 373 with CRC 1234.
  Bytes plain = Bytes().add(unhex("FFF1 4C80 2E7F FC")), with_crc = Bytes().add(unhex("FFF0 4C80 2EBF FC 1234"));
  for (int i = 0; i < 364; ++i) plain.u8(uint8_t(i)), with_crc.u8(uint8_t(i));
  const std::string plain_out = box(Boxlane_Packet_FrameAudio, plain.data(), 371, int64_t{100}, 1024);
  EXPECT_EQ(plain_out, hex(plain.data() + 7, 364));
  EXPECT_EQ(box(Boxlane_Packet_FrameAudio, with_crc.data(), 373, int64_t{464}, 1024), plain_out);
  // All header (frame_length 7): an empty sample, not a refusal.
  EXPECT_EQ(box(Boxlane_Packet_FrameAudio, unhex("FFF1 4C80 00FF FC").data(), 7, int64_t{828}, 1024), "");
  // Not ADTS (here: a frame_length past the bytes handed in): stored whole.
  EXPECT_EQ(box(Boxlane_Packet_FrameAudio, plain.data(), 370, int64_t{828}, 1024), hex(plain.data(), 370));
}

TEST_F(FrameTest, RefusedFramesChangeNothing) {
  const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
  const uint8_t* const nalus[2] = {frame + 4, frame + 4};
  const uint8_t* const with_null[2] = {frame + 4, nullptr};
  const int32_t lengths[2] = {2, 2}, with_negative[2] = {2, -1};
  const int32_t too_long[2] = {INT_MAX / 2, INT_MAX / 2};  // with 8 length bytes, past INT_MAX
  const int32_t one_too_long[1] = {INT_MAX - 3};           // with its length, one past INT_MAX
  for (const auto& [bytes, length] : {std::pair<const uint8_t*, int>{frame, 3}, {frame, -1}, {nullptr, 6}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameVideo, bytes, length, int64_t{0}, 1, 40, 40);
  for (const auto& [units, lengths_of, count] : {std::tuple<const uint8_t* const*, const int32_t*, int>{nalus, lengths, 0},
           {with_null, lengths, 2}, {nalus, with_negative, 2}, {nalus, too_long, 2}, {nalus, one_too_long, 1},
           {nalus, nullptr, 2}, {nullptr, lengths, 2}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameAccessUnit, units, lengths_of, count, int64_t{0}, 1, 40, 40);
  for (const auto& [bytes, length] : {std::pair<const uint8_t*, int>{frame, -1}, {nullptr, 6}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameAudio, bytes, length, int64_t{0}, 1024);
  EXPECT_TRUE(record().nVideoCount == 0 && record().listVideoSample.empty() && record().listAudioSize.empty());
  // A client with audio frames alone stays a movie too.
  audio(6, 1024);
  EXPECT_TRUE(!Boxlane_Packet_FragmentMode(client(), 0, 2, 0, 0) && Boxlane_GetLastError(nullptr) == BOXLANE_ERROR_PACKET_ORDER);
}

// Out of memory, a frame is refused with MALLOC and the record stays as it was: every list grows before any changes.
TEST_F(FrameTest, RefusedWhenMemoryRunsOut) {
  EXPECT_EQ(box(Boxlane_Packet_STts, true), bytes_hex("00000010 73747473 00000000 00000000"));  // the thread's slot
  const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
  uint8_t out[8];
  int32_t length = -7;
  for (const int key : {0, 1}) {  // a sync sample grows its list first
    g_no_memory = true;
    const bool ok = Boxlane_Packet_FrameVideo(client(), out, &length, frame, 6, int64_t{0}, key, 40, 40);
    g_no_memory = false;
    EXPECT_EQ(std::tuple(ok, Boxlane_GetLastError(nullptr), length),
              std::tuple(false, uint64_t{BOXLANE_ERROR_PACKET_MALLOC}, -7));
    EXPECT_TRUE(record().nVideoCount == 0 && record().listVideoSample.empty() && record().listVideoSTss.empty());
  }
  EXPECT_EQ(video(6, 1, 40, 40) + " " + audio(2, 1024), bytes_hex("00000002 4141 2121"));
  // An audio frame whose lists all have room needs no memory. A duration that closes the open run needs room for a
  // closed run too, on either track; a client needs room for its record.
  g_no_memory = true;
  const bool audio_ok = Boxlane_Packet_FrameAudio(client(), out, &length, frame, 6, int64_t{6}, 1024);
  const bool ok = Boxlane_Packet_FrameVideo(client(), out, &length, frame, 6, int64_t{6}, 0, 41, 0) ||
                  Boxlane_Packet_FrameAudio(client(), out, &length, frame, 6, int64_t{6}, 960);
  const uint64_t frame_error = Boxlane_GetLastError(nullptr);
  const bool inserted = Boxlane_Packet_Insert("writer/no memory");
  g_no_memory = false;
  EXPECT_EQ(std::tuple(audio_ok, ok, frame_error, inserted, Boxlane_GetLastError(nullptr), record().listVideoSample.size()),
            std::tuple(true, false, uint64_t{BOXLANE_ERROR_PACKET_MALLOC}, false, uint64_t{BOXLANE_ERROR_PACKET_MALLOC},
                       std::size_t{1}));
}

// A duration merges only with the last run (none: in no run); positive composition offsets get a ctts entry each;
// key flag 1 marks a sync sample; stco keeps a position's low 32 bits; each NAL unit of an access unit a length.
TEST_F(SampleTableTest, TablesOfBothTracks) {
  refuses(BOXLANE_ERROR_PACKET_NODATA, Boxlane_Packet_CTts);
  video(10, 1, 40, 0, 48);
  video(9, 0, 40, 80, 58);
  audio(7, 1024, 67);
  video(8, 2, 41, 40, 74);
  video(7, -1, 40, 40, 82);
  video(6, 1, 0, -40, k32 + 100);
  audio(0, 1024, 0x7FFFFFFF);
  const uint8_t sei[] = {0x06, 0x05, 0x01}, slice[] = {0x65, 0x88, 0x84, 0x21};
  const uint8_t* const nalus[] = {sei, slice, sei};
  const int32_t lengths[] = {3, 4, 0};
  EXPECT_EQ(box(Boxlane_Packet_FrameAccessUnit, nalus, lengths, 3, int64_t{100}, 1, -3, 0),
            bytes_hex("00000003 060501 00000004 65888421 00000000"));
  video(4, 0, 40, 0, 110);
  audio(3, 960, 200);
  EXPECT_EQ(box(Boxlane_Packet_STts, true),
            bytes_hex("00000028 73747473 00000000 00000003 00000002 00000028 00000001 00000029 00000002 00000028"));
  EXPECT_EQ(box(Boxlane_Packet_CTts),
            bytes_hex("00000028 63747473 00000000 00000003 00000001 00000050 00000001 00000028 00000001 00000028"));
  EXPECT_EQ(box(Boxlane_Packet_STss), bytes_hex("0000001C 73747373 00000000 00000003 00000001 00000005 00000006"));
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000030 7374737A 00000000 00000000 00000007 0000000A 00000009 "
                                                      "00000008 00000007 00000006 00000013 00000004"));
  EXPECT_EQ(box(Boxlane_Packet_STco, true), bytes_hex("0000002C 7374636F 00000000 00000007 00000030 0000003A 0000004A "
                                                      "00000052 00000064 00000064 0000006E"));
  EXPECT_EQ(box(Boxlane_Packet_STts, false),
            bytes_hex("00000020 73747473 00000000 00000002 00000002 00000400 00000001 000003C0"));
  EXPECT_EQ(box(Boxlane_Packet_STsz, false),
            bytes_hex("00000020 7374737A 00000000 00000000 00000003 00000007 00000000 00000003"));
  EXPECT_EQ(box(Boxlane_Packet_STco, false), bytes_hex("0000001C 7374636F 00000000 00000003 00000043 7FFFFFFF 000000C8"));
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}).substr(4 * 3, 11), "63 6F 36 34");  // co64, whole positions
}

// Per track, co64 once the highest offset (position + delta) reaches 2^32, as the size query says; below 0 or past
// 63 bits is refused by both (the query leaving the size alone).
TEST_F(SampleTableTest, ChunkOffsetsWidenAtFourGibibytes) {
  const auto size_of = [&](bool video, int64_t delta) {
    int32_t size = -7;
    const bool ok = Boxlane_Packet_STco64Size(client(), video, delta, &size);
    return ok || size != -7 ? int(size) : -int(Boxlane_GetLastError(nullptr));
  };
  video(8, 1, 40, 0, k32 - 1);
  video(8, 0, 40, 0, 48);
  audio(6, 1024, 100);
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{0}),
            bytes_hex("00000018 7374636F 00000000 00000002 FFFFFFFF 00000030"));
  EXPECT_EQ(size_of(true, 0), 24);
  EXPECT_FALSE(Boxlane_Packet_STco64Size(client(), true, 0, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{1}),
            bytes_hex("00000020 636F3634 00000000 00000002 00000001 00000000 00000000 00000031"));
  EXPECT_EQ(std::pair(size_of(true, 1), size_of(true, k32)), std::pair(32, 32));
  EXPECT_EQ(box(Boxlane_Packet_STco64, true, int64_t{-48}),  // the lowest offset, 0
            bytes_hex("00000018 7374636F 00000000 00000002 FFFFFFCF 00000000"));
  EXPECT_EQ(box(Boxlane_Packet_STco64, false, int64_t{0}), bytes_hex("00000014 7374636F 00000000 00000001 00000064"));
  audio(6, 1024, INT64_MAX);
  for (const auto& [video_track, delta] : {std::pair{true, int64_t{-49}}, std::pair{false, int64_t{1}}}) {
    SCOPED_TRACE(delta);
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STco64, video_track, delta);
    EXPECT_EQ(size_of(video_track, delta), -int(BOXLANE_ERROR_PACKET_PARAMETER));
  }
}

// The largest count whose table fits the signed 32-bit length, worked out by hand for stsz, and one more.
TEST(TableSize, LargestCountThatFitsTheLength) {
  EXPECT_TRUE(packet::fits_length(20, 536870906, 4));
  EXPECT_FALSE(packet::fits_length(20, 536870907, 4));
}

}  // namespace
}  // namespace boxlane::test
