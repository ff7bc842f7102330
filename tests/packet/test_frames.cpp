// The frame writers: the sample bytes they return, and refusals that must
// leave buffer, length and record alone.
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"

#include <climits>
#include <cstdint>
#include <vector>

namespace boxlane::test {
namespace {

using FrameTest = WriterTest;

// Everything the sample tables show for the video track, " | " between boxes.
std::string video_tables(const char* client) {
  using Table = bool (*)(const char*, uint8_t*, int32_t*);
  const Table tables[] = {
      [](const char* c, uint8_t* b, int32_t* l) { return Boxlane_Packet_STts(c, b, l, true); }, Boxlane_Packet_STss,
      [](const char* c, uint8_t* b, int32_t* l) { return Boxlane_Packet_STsz(c, b, l, true); },
      [](const char* c, uint8_t* b, int32_t* l) { return Boxlane_Packet_STco(c, b, l, true); }, Boxlane_Packet_CTts};
  std::string all;
  for (const Table table : tables) all += written([&](uint8_t* b, int32_t* l) { return table(client, b, l); }) + " | ";
  return all;
}

TEST_F(FrameTest, VideoStartCodeBecomesTheNalLength) {
  Bytes frame = Bytes().add(unhex("00000001 65")), expected = Bytes().add(unhex("000003E4 65"));
  frame.resize(1000, 0x5A);
  expected.resize(1000, 0x5A);
  EXPECT_EQ(box(Boxlane_Packet_FrameVideo, frame.data(), 1000, 48, 1, 40, 0), hex(expected));
  ASSERT_EQ(record().listVideoSample.size(), 1u);
  EXPECT_EQ(record().listVideoSample[0].nSize, 1000u);

  // The start code is not examined: a 3-byte start code plus a zero byte,
  // or anything else, is replaced all the same. A 4-byte frame is an empty NAL.
  const uint8_t odd[] = {0xAA, 0xBB, 0xCC, 0xDD, 0x41};
  EXPECT_EQ(box(Boxlane_Packet_FrameVideo, odd, 5, 0, 0, 40, 0), bytes_hex("00000001 41"));
  EXPECT_EQ(box(Boxlane_Packet_FrameVideo, odd, 4, 0, 0, 40, 0), bytes_hex("00000000"));
  EXPECT_EQ(record().nVideoCount, 3u);
}

TEST_F(FrameTest, RefusedFramesChangeNothing) {
  const uint8_t frame[] = {0, 0, 0, 1, 0x65, 0x88};
  const uint8_t* const nalus[2] = {frame + 4, frame + 4};
  const int32_t lengths[2] = {2, 2};
  const uint8_t* const with_null[2] = {frame + 4, nullptr};
  const int32_t with_negative[2] = {2, -1};
  const int32_t too_long[2] = {INT_MAX / 2, INT_MAX / 2};  // with 8 length bytes, past INT_MAX

  using Frame = std::pair<const uint8_t*, int>;
  for (const Frame& f : {Frame{frame, 3}, Frame{frame, 0}, Frame{frame, -1}, Frame{frame, INT_MIN}, Frame{nullptr, 6}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameVideo, f.first, f.second, 0, 1, 40, 40);

  struct AccessUnit {
    const uint8_t* const* nalus;
    const int32_t* lengths;
    int count;
  };
  for (const AccessUnit& unit : {AccessUnit{nullptr, lengths, 2}, {nalus, nullptr, 2}, {nalus, lengths, 0},
                                 {nalus, lengths, -1}, {with_null, lengths, 2}, {nalus, with_negative, 2},
                                 {nalus, too_long, 2}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameAccessUnit, unit.nalus, unit.lengths, unit.count,
            int64_t{0}, 1, 40, 40);

  for (const Frame& f : {Frame{frame, -1}, Frame{nullptr, 6}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_FrameAudio, f.first, f.second, int64_t{0}, 1024);

  const QORVANE_MP4PACKET& r = record();
  EXPECT_EQ(r.nVideoCount, 0u);
  EXPECT_TRUE(r.listVideoSTts.empty() && r.listVideoSTss.empty() &&
              r.listVideoSample.empty() && r.listAudioSTts.empty() && r.listAudioSize.empty() &&
              r.listAudioOffset.empty());
}

// A stream fed NAL by NAL through FrameVideo and access unit by access unit
// through FrameAccessUnit gives the same samples and the same tables.
TEST_F(FrameTest, AccessUnitsKeepTheSameBooksAsSingleNalFrames) {
  const std::string other = name_ + ".au";
  ASSERT_TRUE(Boxlane_Packet_Insert(other.c_str()));
  struct Frame {
    int64_t position;
    int key, duration, cts;
    std::vector<uint8_t> nal;
  };
  const Frame frames[] = {
      {48, 1, 40, 80, {0x65, 1, 2, 3}}, {56, 0, 40, 0, {0x41, 9}},    {62, 2, 41, 40, {0x41}},
      {67, 1, 40, -1, {0x65, 7, 7}},    {74, -1, 0, 120, {0x01, 0xFF}},
  };
  for (const Frame& f : frames) {
    Bytes annexb;
    annexb.u32(1).add(f.nal);
    const auto size = static_cast<int32_t>(annexb.size());
    const std::string single = box(Boxlane_Packet_FrameVideo, annexb.data(), size, f.position, f.key, f.duration, f.cts);
    const uint8_t* const nalu[] = {f.nal.data()};
    const int32_t length[] = {static_cast<int32_t>(f.nal.size())};
    const std::string unit = written([&](uint8_t* b, int32_t* l) {
      return Boxlane_Packet_FrameAccessUnit(other.c_str(), b, l, nalu, length, 1, f.position, f.key, f.duration, f.cts);
    });
    EXPECT_EQ(single, unit);
  }
  EXPECT_EQ(video_tables(client()), video_tables(other.c_str()));
  std::string expected;
  for (const char* table :
       {"00000028 73747473 00000000 00000003 00000002 00000028 00000001 00000029 00000001 00000028",
        "00000018 73747373 00000000 00000002 00000001 00000004",
        "00000028 7374737A 00000000 00000000 00000005 00000008 00000006 00000005 00000007 00000006",
        "00000024 7374636F 00000000 00000005 00000030 00000038 0000003E 00000043 0000004A",
        "00000028 63747473 00000000 00000003 00000001 00000050 00000001 00000028 00000001 00000078"})
    expected += bytes_hex(table) + " | ";
  EXPECT_EQ(video_tables(client()), expected);
  EXPECT_TRUE(Boxlane_Packet_Delete(other.c_str()));

  // Several units in one access unit, an empty one too: each gets its own length.
  const uint8_t sei[] = {0x06, 0x05, 0x01}, slice[] = {0x65, 0x88, 0x84, 0x21}, empty[] = {0};
  const uint8_t* const nalus[] = {sei, slice, empty};
  const int32_t lengths[] = {3, 4, 0};
  EXPECT_EQ(box(Boxlane_Packet_FrameAccessUnit, nalus, lengths, 3, int64_t{1000}, 1, 40, 80),
            bytes_hex("00000003 060501 00000004 65888421 00000000"));
  EXPECT_EQ(record().listVideoSample.back().nSize, 19u);
}

TEST_F(FrameTest, AudioDropsTheAdtsHeaderWithOrWithoutCrc) {
  // ADTS headers, AAC-LC 48 kHz stereo (ISO/IEC 14496-3 §1.A.2.2): 371 bytes
  // without CRC, 373 with CRC 1234.
  Bytes plain = Bytes().add(unhex("FFF1 4C80 2E7F FC"));
  Bytes protected_frame = Bytes().add(unhex("FFF0 4C80 2EBF FC 1234"));
  for (int i = 0; i < 364; ++i) plain.u8(uint8_t(i)), protected_frame.u8(uint8_t(i));
  const std::string plain_out = box(Boxlane_Packet_FrameAudio, plain.data(), 371, int64_t{100}, 1024);
  EXPECT_EQ(plain_out, hex(plain.data() + 7, 364));
  EXPECT_EQ(box(Boxlane_Packet_FrameAudio, protected_frame.data(), 373, int64_t{464}, 1024), plain_out);
  // Not ADTS (here: a frame_length past the bytes handed in): stored whole.
  EXPECT_EQ(box(Boxlane_Packet_FrameAudio, plain.data(), 370, int64_t{828}, 1024), hex(plain.data(), 370));
  EXPECT_EQ(record().listAudioSize, (std::vector<uint32_t>{364, 364, 370}));
  EXPECT_EQ(record().listAudioOffset, (std::vector<int64_t>{100, 464, 828}));
}

}  // namespace
}  // namespace boxlane::test
