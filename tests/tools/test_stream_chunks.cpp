// The parts of `boxlane mux` that work alone: the live stream cutters of --fragment, however
// the input arrives (a byte at a time, a few, all at once), the choice of stco or co64, and the
// words of the summary line (remux's too).
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <tuple>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/paths.hpp"
#include "tools/common/chunk_offsets.hpp"
#include "tools/common/summary_text.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/mux/stream_chunks.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::test {
namespace {

using namespace tool;

// Each piece of `path` read `piece` bytes at a time: its offset and the key flags of its units.
std::vector<std::pair<uint64_t, std::vector<bool>>> cut_video(const std::string& path, std::size_t piece) {
  LiveInput in(path);
  VideoChunker chunker(in);
  std::vector<std::pair<uint64_t, std::vector<bool>>> cuts;
  for (VideoChunk chunk; !chunker.finished();) {
    in.read_some(piece);
    while (chunker.next(chunk)) {
      cuts.push_back({chunk.input_offset, {}});
      for (const auto& u : chunk.stream.units) cuts.back().second.push_back(u.key);
    }
  }
  return cuts;
}

// H.264 is cut where the access unit of each IDR picture begins.
TEST(StreamChunks, VideoIsCutWhereEachIdrAccessUnitBegins) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string path = temp_dir() + "/aud.h264";  // AUDs and SEI before every picture, sets before IDRs
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=64x48:rate=25:duration=1.2 -c:v libx264 -g 8 -bf 2 "
                   "-x264-params aud=1 -f h264 " + shell_quote(path)),
            0);
  const auto bytes = read_file(path);
  const auto reference = cut_video(path, 0);
  EXPECT_EQ(reference.size(), 4u);  // 30 frames, a key frame every 8
  for (const auto& [offset, keys] : reference) {  // each opens with the AUD of its one key frame, an IDR
    ASSERT_LT(offset + 4, bytes.size());
    EXPECT_EQ(hex(bytes.data() + offset, 5), "00 00 00 01 09") << "piece at " << offset;
    EXPECT_TRUE(keys.front());
    EXPECT_EQ(std::count(keys.begin(), keys.end(), true), 1);
  }
  for (const std::size_t piece : {1, 2, 3, 5, 7, 64, 1000})
    EXPECT_EQ(cut_video(path, piece), reference) << "read " << piece << " bytes at a time";
}

// A prefix unit (type 14, which SVC and MVC encoders put before each base-layer slice) opens the access unit of the
// IDR picture it comes before, here where no delimiter, SEI or parameter set does.
TEST(StreamChunks, APrefixUnitOpensTheAccessUnitOfItsPicture) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string plain = temp_dir() + "/plain.h264", path = temp_dir() + "/prefix.h264";
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=64x48:rate=25:duration=1.2 -c:v libx264 -g 8 -bf 2 -f h264 " +
                   shell_quote(plain)),
            0);
  // Its units, each from its 3-byte start code on; the sets after the first IDR picture go.
  const auto in = read_file(plain);
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i + 3 < in.size(); ++i)
    if (in[i] == 0 && in[i + 1] == 0 && in[i + 2] == 1) starts.push_back(i);
  starts.push_back(in.size());
  std::vector<uint8_t> bytes, bare;  // with a prefix unit before each IDR slice, and without
  std::size_t before_idr = 0;  // in `bare`: where the last NAL unit before the second IDR picture starts
  for (std::size_t u = 0, idrs = 0; u + 1 < starts.size(); ++u) {
    const uint8_t type = in[starts[u] + 3] & 0x1F;
    if ((type == 7 || type == 8) && idrs) continue;
    if (type == 5) idrs++, bytes.insert(bytes.end(), {0, 0, 0, 1, 0x0E, 0x80, 0x80, 0x80, 0});
    if (type == 5 && idrs == 2) bare.resize(before_idr + 5);  // that unit cut to its header and one byte
    if (type != 5 && idrs < 2) before_idr = bare.size();
    bytes.insert(bytes.end(), in.begin() + long(starts[u]), in.begin() + long(starts[u + 1]));
    bare.insert(bare.end(), in.begin() + long(starts[u]), in.begin() + long(starts[u + 1]));
  }
  write_file(path, bytes);
  const auto cuts = cut_video(path, 0);
  ASSERT_EQ(cuts.size(), 4u);
  for (std::size_t c = 1; c < cuts.size(); ++c) EXPECT_EQ(hex(bytes.data() + cuts[c].first, 5), "00 00 00 01 0E") << c;
  // Without them, the damaged slice just before an IDR slice is the first piece's last unit: in mid-stream it is
  // refused, not taken as where the input stopped.
  write_file(path, bare);
  std::string refused;
  try { cut_video(path, 0); } catch (const ToolError& e) { refused = e.what(); }
  EXPECT_NE(refused.find("slice header at byte " + std::to_string(before_idr + 3) + " "), std::string::npos) << refused;
}

// `bytes` read `piece` bytes at a time (0: all at once): the frames of chunks that each start
// where the one before ended, and where a cut frame starts.
std::pair<std::size_t, std::optional<uint64_t>> cut_audio(const std::vector<uint8_t>& bytes, std::size_t piece) {
  const std::string path = temp_dir() + "/in.aac";
  write_file(path, bytes);
  LiveInput in(path);
  AudioChunker chunker(in);
  AudioChunk chunk;
  std::size_t frames = 0;
  for (uint64_t next = 0; !chunker.finished();) {
    in.read_some(piece);
    for (; chunker.next(chunk); next += chunk.bytes.size()) {
      EXPECT_EQ(chunk.input_offset, next);
      frames += chunk.stream.frames.size();
    }
  }
  return {frames, chunker.cut_short() ? std::optional(chunker.cut_at()) : std::nullopt};
}

// ADTS comes in whole frames, after an ID3 tag too; a frame cut short is
// reported; a later frame that changes the configuration is refused.
TEST(StreamChunks, AudioComesInWholeFrames) {
  const auto plain = read_file(source_dir() + "/tests/data/sample.aac");
  AudioStream whole;
  scan_audio(plain.data(), plain.size(), "whole", whole);
  const std::size_t n = whole.frames.size(), second = whole.frames[0].size;
  // An ID3v2.4 tag of 200 bytes (syncsafe size 01 48) and its footer.
  auto tag = unhex("49 44 33 04 00 10 00 00 01 48");
  tag.resize(210);
  const std::vector<uint8_t> tagged = cat({tag, unhex("33 44 49 04 00 10 00 00 01 48"), plain});
  for (const auto* bytes : {&plain, &tagged}) {
    const uint64_t last = bytes->size() - whole.frames.back().size;
    for (const std::size_t piece : {1, 6, 7, 100, 0}) {
      SCOPED_TRACE(std::to_string(bytes->size()) + " bytes read " + std::to_string(piece) + " at a time");
      EXPECT_EQ(cut_audio(*bytes, piece), std::pair(n, std::optional<uint64_t>()));
      EXPECT_EQ(cut_audio({bytes->begin(), bytes->end() - 5}, piece), std::pair(n - 1, std::optional(last)));
    }
  }
  // A last frame of its 7-byte header alone (frame_length 7) is a whole frame, refused as empty, not a cut one.
  std::vector<uint8_t> header_only(plain.begin(), plain.begin() + 7);
  header_only[1] |= 0x01, header_only[3] &= 0xFC, header_only[4] = 0, header_only[5] = (header_only[5] & 0x1F) | 0xE0;
  for (const std::size_t piece : {7, 0}) {
    std::string refused;
    try { cut_audio(cat({plain, header_only}), piece); } catch (const ToolError& e) { refused = e.what(); }
    EXPECT_NE(refused.find("empty ADTS frame at byte " + std::to_string(plain.size())), std::string::npos) << refused;
  }
  // The second frame's sampling_frequency_index, channel_configuration, profile.
  for (const auto& [at, bit] : {std::pair{2, 0x04}, {3, 0x40}, {2, 0x40}}) {
    auto changed = plain;
    changed[second + at] ^= bit;
    std::string refused;  // stays empty when the change is accepted
    try { cut_audio(changed, 7); } catch (const ToolError& e) { refused = e.what(); }
    EXPECT_NE(refused.find("at byte " + std::to_string(second) + " changes the sample"), std::string::npos) << refused;
  }
}

// Each track's table widens when its last sample reaches 2^32, on both sides,
// and where a moov placed first grows and carries the other track past it; the
// mdat's own header widens at its limit.
TEST(ChunkOffsets, EachTrackWidensWhenItsLastSampleReachesTwoToThe32) {
  constexpr uint64_t k4GiB = uint64_t{1} << 32, kHeaders = 32 + 16;  // ftyp and a 64-bit mdat header
  constexpr uint64_t kMoov = 100000, kPast = k4GiB - kHeaders - kMoov;  // the moov with 32-bit tables
  const struct {
    bool moov_first;
    std::optional<uint64_t> last_video, last_audio;  // in the mdat payload
    OffsetTables expected;
  } cases[] = {
      {false, k4GiB - kHeaders - 1, 0, {false, false}},
      {false, k4GiB - kHeaders, 0, {true, false}},
      {false, 0, k4GiB - kHeaders, {false, true}},
      {true, kPast - 1, 0, {false, false}},
      {true, kPast, 0, {true, false}},
      // Audio's co64 adds 8000 bytes to the moov: video 5000 bytes short is
      // carried past 2^32 too, 8001 short is not; with the moov last nothing moves.
      {true, kPast - 5000, kPast, {true, true}},
      {false, kPast - 5000, kPast, {false, false}},
      {true, kPast - 8001, kPast, {false, true}},
      // A track the movie lacks never gets a table.
      {true, std::nullopt, k4GiB, {false, true}},
      {false, k4GiB, std::nullopt, {true, false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.moov_first << " " << c.last_video.value_or(0) << " " << c.last_audio.value_or(0));
    int rounds = 0;
    const auto payload_at = [&](OffsetTables t) {  // 1000 video and 2000 audio samples
      ++rounds;
      return kHeaders + (c.moov_first ? kMoov + (t.video_wide ? 4000 : 0) + (t.audio_wide ? 8000 : 0) : 0);
    };
    EXPECT_EQ(choose_offset_tables(payload_at, c.last_video, c.last_audio), c.expected);
    EXPECT_LE(rounds, 3);
  }
  // The mdat takes a 64-bit size once its 8-byte header and payload would pass 2^32 - 1 bytes.
  EXPECT_EQ(std::tuple(mdat_header_size(k4GiB - 9), mdat_header_size(k4GiB - 8)), std::tuple(8u, 16u));
}

// ITU-T H.264 §7.4.1.2.4: a slice past macroblock 0 opens a new picture only when a field it lists differs from the
// picture's first slice; the picture order fields count under the POC type that sends them (none under type 2).
TEST(NewPicture, EachFieldThatTellsPicturesApart) {
  using Slice = h264::SliceHeader;
  Slice first;
  first.nal_type = h264::kNalSlice, first.nal_ref_idc = 2, first.first_mb = 0, first.pps_id = 1, first.frame_num = 3;
  first.idr_pic_id = 4, first.poc_lsb = 6, first.delta_poc_bottom = 1, first.delta_poc = {2, 3};
  const struct {
    const char* what;
    void (*change)(Slice&);
    std::array<bool, 3> by_poc_type;
  } rows[] = {
      {"nothing", [](Slice&) {}, {false, false, false}},
      {"first_mb_in_slice 0", [](Slice& s) { s.first_mb = 0; }, {true, true, true}},
      {"frame_num", [](Slice& s) { s.frame_num = 4; }, {true, true, true}},
      {"pic_parameter_set_id", [](Slice& s) { s.pps_id = 2; }, {true, true, true}},
      {"field_pic_flag", [](Slice& s) { s.field_pic = true; }, {true, true, true}},
      {"bottom_field_flag", [](Slice& s) { s.bottom_field = true; }, {true, true, true}},
      {"nal_ref_idc 0", [](Slice& s) { s.nal_ref_idc = 0; }, {true, true, true}},
      {"nal_ref_idc 3, a reference still", [](Slice& s) { s.nal_ref_idc = 3; }, {false, false, false}},
      {"an IDR slice", [](Slice& s) { s.nal_type = h264::kNalIdrSlice; }, {true, true, true}},
      {"idr_pic_id outside an IDR", [](Slice& s) { s.idr_pic_id = 5; }, {false, false, false}},
      {"pic_order_cnt_lsb", [](Slice& s) { s.poc_lsb = 7; }, {true, false, false}},
      {"delta_pic_order_cnt_bottom", [](Slice& s) { s.delta_poc_bottom = 2; }, {true, false, false}},
      {"delta_pic_order_cnt[0]", [](Slice& s) { s.delta_poc[0] = 0; }, {false, true, false}},
      {"delta_pic_order_cnt[1]", [](Slice& s) { s.delta_poc[1] = 0; }, {false, true, false}},
      {"a redundant picture at macroblock 0", [](Slice& s) { s.first_mb = 0, s.redundant_pic_cnt = 1; },
       {false, false, false}},
  };
  h264::Sps sps;
  for (const auto& row : rows) {
    Slice next = first;
    next.first_mb = 8;
    row.change(next);
    for (const uint32_t type : {0u, 1u, 2u}) {
      sps.poc_type = type;
      EXPECT_EQ(starts_new_picture(first, next, sps), row.by_poc_type[type]) << row.what << ", POC type " << type;
    }
  }
  // Two IDR pictures in a row differ in idr_pic_id.
  first.nal_type = h264::kNalIdrSlice;
  Slice next = first;
  next.first_mb = 8, next.idr_pic_id = 5;
  sps.poc_type = 2;
  EXPECT_TRUE(starts_new_picture(first, next, sps));
}

// A rate from a stream's VUI is taken from half a frame a second to 1000, in lowest terms of at most 1000000 each.
TEST(VuiRate, PlausibleFromHalfAFrameToAThousandASecond) {
  const struct {
    uint64_t num, den;
    uint32_t taken_num, taken_den;  // 0/0: refused
  } rows[] = {{1, 2, 1, 2},          {1, 3, 0, 0},           {1000, 1, 1000, 1},         {1001, 1, 0, 0},
              {2000000, 2000, 1000, 1}, {1000003, 2000, 0, 0}, {999999, 1000003, 0, 0}, {60000, 2002, 30000, 1001},
              {0, 1, 0, 0},          {1, 0, 0, 0}};
  for (const auto& r : rows) {
    FrameRate got{0, 0};
    const bool ok = plausible_rate(r.num, r.den, got);
    EXPECT_EQ(std::tuple(ok, got.num, got.den), std::tuple(r.taken_num != 0, r.taken_num, r.taken_den))
        << r.num << "/" << r.den;
  }
}

// Each side of where a size changes its unit; channel layouts by name where they have one.
TEST(SummaryText, SizesCountsAndLayoutsAtTheirEdges) {
  for (const auto& [bytes, says] : {std::pair{10239ull, "10239 bytes"}, {10240ull, "10.0 KiB"},
                                    {10485759ull, "10240.0 KiB"}, {10485760ull, "10.0 MiB"}})
    EXPECT_EQ(size_text(bytes), says);
  EXPECT_EQ(count_text(0, "frame", "frames") + count_text(1, "frame", "frames"), "0 frames1 frame");
  std::string layouts;
  for (const uint32_t channels : {1, 2, 3, 6, 7, 8}) layouts += channels_text(1, channels) + ",";
  EXPECT_EQ(layouts + channels_text(0, 6), "mono,stereo,3 channels,5.1,7 channels,7.1,6 channels (program_config_element)");
}

}  // namespace
}  // namespace boxlane::test
