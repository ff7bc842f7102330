// The parts of `boxlane mux` that work alone: the live stream cutters of --fragment, however
// the input arrives (a byte at a time, a few, all at once), the choice of stco or co64, and the
// words of the summary line (remux's too).
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <tuple>

#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/handmade_h264.hpp"
#include "support/hevc_units.hpp"
#include "support/paths.hpp"
#include "tools/common/chunk_offsets.hpp"
#include "tools/common/summary_text.hpp"
#include "tools/common/tool_error.hpp"
#include "tools/mux/stream_chunks.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::test {
namespace {

using namespace tool;

// What `f` returns, or the message it is refused with.
template <typename F>
std::string said(F f) {
  try { return f(); } catch (const ToolError& e) { return e.what(); }
}

// Bytes [from, to) of `b`.
std::vector<uint8_t> part(const std::vector<uint8_t>& b, std::size_t from, std::size_t to) {
  return std::vector<uint8_t>(b.begin() + long(from), b.begin() + long(to));
}

// `b` with a NAL unit (its bytes in hex) after a 4-byte start code put in at byte `at`.
std::vector<uint8_t> unit_at(const std::vector<uint8_t>& b, std::size_t at, const std::string& unit) {
  return cat({part(b, 0, at), unhex("00 00 00 01"), unhex(unit), part(b, at, b.size())});
}

// Each piece of `path` read `piece` bytes at a time: its offset and the key flags of its units.
std::vector<std::pair<uint64_t, std::vector<bool>>> cut_video(const std::string& path, std::size_t piece,
                                                               VideoCodec codec = VideoCodec::kH264) {
  LiveInput in(path);
  VideoChunker chunker(in);
  chunker.set_codec(codec);
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
                   "-x264-params aud=1 -f h264 " + shell_quote(path)), 0);
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
                   shell_quote(plain)), 0);
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
  const std::string refused = said([&] { return std::to_string(cut_video(path, 0).size()); });
  EXPECT_NE(refused.find("slice header at byte " + std::to_string(before_idr + 3) + " "), std::string::npos) << refused;
}

// Where a stream is cut, and what is refused in a piece: the byte of the input named, and a unit that cannot be
// read taken for where the input stopped only when it is the piece's last one at the end of the input.
TEST(StreamChunks, CutsAndRefusalsInTheInputsOwnBytes) {
  using P = HandmadePicture;
  const std::vector<uint8_t> one = handmade_h264({{}});  // SPS, PPS 0, PPS 1, an IDR picture
  std::vector<uint8_t> one3;  // the same with 3-byte start codes (Annex B.1.2: no zero_byte)
  for (std::size_t i = 0; i < one.size(); ++i)
    if (i + 4 > one.size() || one[i] || one[i + 1] || one[i + 2] || one[i + 3] != 1) one3.push_back(one[i]);
  const auto h265 = read_file(source_dir() + "/tests/data/main10_cra.h265");  // the second GOP's sets at 3484
  const auto before_gop2 = [&](const char* unit) {  // a unit after a 4-byte start code at 3484
    return unit_at(h265, 3484, unit);
  };
  const std::string after_one = std::to_string(one.size() + 4);
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    VideoCodec codec;
    std::string says;  // each piece's offset and pictures, or the refusal
  } rows[] = {
      {"3-byte start codes", cat({one3, one3}), VideoCodec::kH264, "0:1 " + std::to_string(one3.size()) + ":1"},
      {"an SPS of 2 bytes before the second picture", cat({one, unhex("00 00 00 01 67 42"), one}), VideoCodec::kH264,
       "cannot read the sequence parameter set at byte " + after_one},
      {"a PPS of its header alone before the second picture", cat({one, unhex("00 00 00 01 68"), one}),
       VideoCodec::kH264, "cannot read the picture parameter set at byte " + after_one},
      {"a VPS of 2 bytes before the second GOP", before_gop2("40 01"), VideoCodec::kH265,
       "cannot read the video parameter set at byte 3488"},
      {"an SPS of 2 bytes before the second GOP", before_gop2("42 01"), VideoCodec::kH265,
       "cannot read the sequence parameter set at byte 3488"},
      {"a PPS of 2 bytes before the second GOP", before_gop2("44 01"), VideoCodec::kH265,
       "cannot read the picture parameter set at byte 3488"},
      {"an auxiliary picture (type 19) after the first picture stays in its piece",
       cat({one, unhex("00 00 00 01 13 FF"), one}), VideoCodec::kH264, "0:1 " + std::to_string(one.size() + 6) + ":1"},
      {"a damaged unit before the last one", cat({one, unhex("00 00 00 01 85 88 80 00 00 00 01 0C FF")}),
       VideoCodec::kH264, "damaged NAL unit (forbidden_zero_bit set) at byte " + after_one},
      {"P pictures alone", handmade_h264({{P::kSkipped}, {P::kSkipped}}), VideoCodec::kH264,
       "no IDR picture or recovery point found, so none of its 2 pictures"},
      {"an end of bitstream before the CRA picture: its 2 RASL pictures go", before_gop2("4A 01"), VideoCodec::kH265,
       "0:10 3490:12"},
  };
  const std::string path = temp_dir() + "/cut.bin";
  for (const auto& row : rows) {
    write_file(path, row.bytes);
    const std::string got = said([&] {
      std::string pieces;
      for (const auto& [offset, keys] : cut_video(path, 0, row.codec))
        pieces.append(pieces.empty() ? "" : " ").append(std::to_string(offset)).append(":").append(std::to_string(keys.size()));
      return pieces;
    });
    EXPECT_NE(got.find(row.says), std::string::npos) << row.what << ": " << got;
  }
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
    const std::string refused = said([&] { return std::to_string(cut_audio(cat({plain, header_only}), piece).first); });
    EXPECT_NE(refused.find("empty ADTS frame at byte " + std::to_string(plain.size())), std::string::npos) << refused;
  }
  // The second frame's sampling_frequency_index, channel_configuration, profile.
  for (const auto& [at, bit] : {std::pair{2, 0x04}, {3, 0x40}, {2, 0x40}}) {
    auto changed = plain;
    changed[second + at] ^= bit;
    const std::string refused = said([&] { return std::to_string(cut_audio(changed, 7).first); });
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

// What scan_audio makes of the bytes around ADTS frames: a tag only under its whole name and within the file, the
// bytes after the last frame as where the recording stopped only when they start like a frame (ISO/IEC 14496-3
// §1.A.2.2.1), and the header fields an MP4 track cannot take.
TEST(ScanAudio, TagsTailsAndHeadersItRefuses) {
  const auto aac = read_file(source_dir() + "/tests/data/sample.aac");
  AudioStream whole;
  scan_audio(aac.data(), aac.size(), "a", whole);
  const std::size_t n = whole.frames.size(), last = aac.size() - whole.frames.back().size;
  const auto first_header = [&](uint8_t and2, uint8_t or2, uint8_t and3) {  // sample.aac: FF F1 4C 80
    auto b = aac;
    b[2] = uint8_t((b[2] & and2) | or2), b[3] &= and3;
    return b;
  };
  const std::string not_adts = "ADTS sync lost at byte 0; this is not an AAC ADTS stream";
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    std::string says;  // a refusal, or the frames taken and where the last one was cut
  } rows[] = {
      {"a tag named IX3", cat({unhex("49 58 33 04 00 00 00 00 00 00"), aac}), not_adts},
      {"a tag named IDX", cat({unhex("49 44 58 04 00 00 00 00 00 00"), aac}), not_adts},
      {"a tag of 2^28 - 1 bytes, past the end", cat({unhex("49 44 33 04 00 00 7F 7F 7F 7F"), aac}), not_adts},
      {"the byte FF alone", unhex("FF"), not_adts},
      {"a header's first 3 bytes after the last frame", cat({aac, unhex("FF F1 50")}),
       std::to_string(n) + " frames, cut at " + std::to_string(aac.size())},
      {"3 bytes without a sync word after the last frame", cat({aac, unhex("FF 01 50")}),
       "ADTS sync lost at byte " + std::to_string(aac.size())},
      {"the last frame without its last 5 bytes", {aac.begin(), aac.end() - 5},
       std::to_string(n - 1) + " frames, cut at " + std::to_string(last)},
      {"sampling_frequency_index 15", first_header(0xC3, 0x3C, 0xFF),
       "ADTS frame at byte 0 gives sampling_frequency_index 15, an explicit sample rate, which ADTS does not allow"},
      {"channel_configuration 0 before a channel pair element", first_header(0xFE, 0, 0x3F),
       "the first ADTS frame gives channel_configuration 0 but does not start with the program_config_element"},
  };
  for (const auto& row : rows) {
    const std::string got = said([&] {
      AudioStream s;
      scan_audio(row.bytes.data(), row.bytes.size(), "a", s);
      return std::to_string(s.frames.size()) + " frames, cut at " + (s.cut_at ? std::to_string(*s.cut_at) : "none");
    });
    EXPECT_NE(got.find(row.says), std::string::npos) << row.what << ": " << got;
  }
}

// What a scan makes of a stream: its refusal, or how many pictures it took and left out.
std::string scanned(const std::vector<uint8_t>& bytes, bool h265) {
  return said([&] {
    VideoStream s;
    if (h265) scan_hevc(bytes.data(), bytes.size(), "v", s);
    else scan_video(bytes.data(), bytes.size(), "v", s);
    return std::to_string(s.units.size()) + " pictures, " +
           std::to_string(h265 ? s.skipped_before_parameter_sets : s.dropped_leading) + " left out";
  });
}

// Parameter sets the scans cannot read, cannot find or see change, and the units they leave alone.
TEST(ScanVideo, ParameterSetsAndUnitsAroundThePictures) {
  // One IDR picture: SPS, PPS 0, PPS 1, the slice. The SPS's bytes after its NAL header: profile_idc, the
  // constraint flags, level_idc (ISO/IEC 14496-10 §7.3.2.1.1).
  const std::vector<uint8_t> one = handmade_h264({{}}), start = {0, 0, 0, 1};
  std::vector<std::size_t> at;  // where each NAL unit's start code begins
  for (std::size_t i = 0; i + 4 <= one.size(); ++i)
    if (std::equal(start.begin(), start.end(), one.begin() + long(i))) at.push_back(i);
  ASSERT_EQ(at.size(), 4u);
  auto other_level = part(one, 0, at[1]);
  other_level[7] ^= 1;
  // Main 10: VPS, SPS at 28, PPS at 73, an IDR picture and 9 trailing ones, then the sets again (at 3484) and a CRA
  // picture with 2 RASL and 11 trailing pictures.
  const auto h265 = read_file(source_dir() + "/tests/data/main10_cra.h265");
  const auto padded = [](std::vector<uint8_t> nal, std::size_t size) {  // bytes 0x11 after its trailing bits
    nal.resize(size, 0x11);
    return nal;
  };
  // Offsets name the NAL unit after its start code.
  const std::string after = std::to_string(one.size() + 4), after265 = std::to_string(h265.size() + 4);
  const struct {
    const char* what;
    bool h265;
    std::vector<uint8_t> bytes;
    std::string says;
  } rows[] = {
      {"no PPS", false, cat({part(one, 0, at[1]), part(one, at[3], one.size())}),
       "no picture parameter set (PPS) found"},
      {"an SPS of 2 bytes", false, cat({unhex("00 00 00 01 67 42"), one}),
       "cannot read the sequence parameter set at byte 4 (damaged or cut short)"},
      {"a PPS of its header alone", false, cat({one, unhex("00 00 00 01 68")}),
       "cannot read the picture parameter set at byte " + after},
      {"the SPS again with another level", false, cat({one, other_level}),
       "the sequence parameter set changes at byte " + after + " (the same id with other contents)"},
      {"two zero bytes before the first start code", false, cat({{0, 0}, one}), "1 pictures, 0 left out"},
      {"a slice of its NAL header alone before the sets", false, cat({unhex("00 00 00 01 21"), one}),
       "1 pictures, 0 left out"},
      {"H.264 read as H.265", true, one, "the NAL unit at byte 4 does not read as H.265 (it would be of layer 40)"},
      {"no VPS", true, part(h265, 28, 3484), "no video parameter set (VPS) found"},
      {"no SPS", true, cat({part(h265, 0, 28), part(h265, 73, 3484)}), "no sequence parameter set (SPS) found"},
      {"a VPS of its NAL header alone", true, cat({unhex("00 00 00 01 40 01"), h265}),
       "cannot read the video parameter set at byte 4 (damaged or cut short)"},
      {"PPS 0 again, a byte longer", true, cat({h265, part(h265, 73, 83), {0x80}}),
       "the picture parameter set 0 changes at byte " + after265},
      {"a unit of reserved VCL type 10 (RSV_VCL_N10)", true, cat({h265, unhex("00 00 00 01 14 01 AF")}),
       "24 pictures, 0 left out"},
      {"an end of bitstream before the second GOP: its RASL pictures go", true, unit_at(h265, 3484, "4A 01"),
       "22 pictures, 2 left out"},
      {"a slice of PPS 5 (never sent) before the IDR picture", true, unit_at(h265, 2374, "02 01 9A"),
       "24 pictures, 1 left out"},
      {"the same slice, not a picture's first segment", true, unit_at(h265, 2374, "02 01 1A"),
       "24 pictures, 0 left out"},
      // The stream's sets take 83 bytes, with a 4-byte start code each; with PPS 1 they may reach 65536 bytes.
      {"PPS 1 of 65449 bytes", true, cat({h265, start, padded(hand_pps(1), 65449)}), "24 pictures, 0 left out"},
      {"PPS 1 of 65450 bytes", true, cat({h265, start, padded(hand_pps(1), 65450)}),
       "more parameter sets than one sample description holds (64, in 64 KiB) at byte " + after265},
  };
  for (const auto& row : rows)
    EXPECT_NE(scanned(row.bytes, row.h265).find(row.says), std::string::npos)
        << row.what << ": " << scanned(row.bytes, row.h265);
}

// ITU-T H.264 §3.30, §3.31: a field joins the unpaired field before it in one sample only when their parities
// differ, their frame_num is the same, both or neither are reference fields, and it is neither an IDR picture nor
// carries memory_management_control_operation 5. Under POC type 2 both fields of a frame count the same.
TEST(ScanVideo, FieldsPairOnlyAsTheStandardSays) {
  const std::vector<uint8_t> start = {0, 0, 0, 1};
  // Main profile, 16x32, frame_num in 4 bits, POC type 2, two reference frames, frame_mbs_only_flag 0; its PPS.
  const auto sps = Bits().u(8, 77).u(8, 0).u(8, 30).ue(0).ue(0).ue(2).ue(2).u(1, 0).ue(0).ue(0).u(5, 0b00100).nal(3, 7);
  const auto pps =
      Bits().ue(0).ue(0).u(1, 0).u(1, 0).ue(0).ue(0).ue(0).u(1, 0).u(2, 0).se(0).se(0).se(0).u(3, 0).nal(3, 8);
  // The header of an I slice (slice_type 7) of a top (0) or bottom (1) field or of a frame (-1).
  const auto slice = [&](bool idr, bool ref, uint32_t frame_num, int field, bool mmco5 = false, uint32_t idr_id = 0) {
    Bits b;
    b.ue(0).ue(7).ue(0).u(4, frame_num).u(1, field >= 0);
    if (field >= 0) b.u(1, uint64_t(field));
    if (idr) b.ue(idr_id).u(2, 0);  // no_output_of_prior_pics_flag, long_term_reference_flag
    if (!idr && ref) b.u(1, mmco5);  // adaptive_ref_pic_marking_mode_flag
    if (!idr && ref && mmco5) b.ue(5).ue(0);
    return cat({start, b.se(0).nal(ref ? 2 : 0, idr ? 5 : 1)});
  };
  const auto idr_frame = slice(true, true, 0, -1);
  const std::string same_poc = "two pictures have the same picture order count";
  const struct {
    const char* what;
    std::vector<uint8_t> pictures;
    std::string says;
  } rows[] = {
      {"top and bottom field of frame_num 1", cat({idr_frame, slice(false, true, 1, 0), slice(false, true, 1, 1)}),
       "2 pictures, 0 left out"},
      {"a frame after a bottom field", cat({idr_frame, slice(false, true, 1, 1), slice(false, true, 1, -1)}), same_poc},
      {"two top fields", cat({idr_frame, slice(false, true, 1, 0), slice(false, true, 1, 0)}), same_poc},
      {"frame_num 1, then 2", cat({idr_frame, slice(false, true, 1, 0), slice(false, true, 2, 1)}),
       "3 pictures, 0 left out"},
      {"a non-reference second field", cat({idr_frame, slice(false, true, 1, 0), slice(false, false, 1, 1)}),
       "3 pictures, 0 left out"},
      {"an IDR second field", cat({slice(true, true, 0, 0), slice(true, true, 0, 1, false, 1)}),
       "2 pictures, 0 left out"},
      {"mmco 5 in the second field", cat({idr_frame, slice(false, true, 1, 0), slice(false, true, 1, 1, true)}),
       "3 pictures, 0 left out"},
  };
  for (const auto& row : rows) {
    const std::string got = scanned(cat({start, sps, start, pps, row.pictures}), false);
    EXPECT_NE(got.find(row.says), std::string::npos) << row.what << ": " << got;
  }
}

// The codec is the first parameter set of either standard that reads as one, among the first 256 NAL units.
TEST(DetectCodec, FirstReadableSetAmongTheFirst256Units) {
  const auto h265 = read_file(source_dir() + "/tests/data/main10_cra.h265");
  const std::vector<uint8_t> one = handmade_h264({{}});
  const auto delimiters = [&](int n) {  // H.265 access unit delimiters (type 35), then the stream
    std::vector<uint8_t> b;
    for (int i = 0; i < n; ++i) b = cat({b, unhex("00 00 00 01 46 01 50")});
    return cat({b, h265});
  };
  const std::vector<uint8_t> pps_code = {0, 0, 0, 1, 0x68};
  const auto pps = std::search(one.begin(), one.end(), pps_code.begin(), pps_code.end());
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    VideoCodec codec;
  } rows[] = {
      {"255 delimiters first", delimiters(255), VideoCodec::kH265},
      {"256 delimiters first", delimiters(256), VideoCodec::kUnknown},
      {"an H.265 SPS alone", part(h265, 28, 73), VideoCodec::kH265},
      {"an H.265 PPS alone", part(h265, 73, 83), VideoCodec::kH265},
      {"a VPS of its header alone, then H.264", cat({unhex("00 00 00 01 40 01"), one}), VideoCodec::kH264},
      {"H.264 from its first PPS on", {pps, one.end()}, VideoCodec::kH264},
      {"an H.264 SPS of its header alone, then H.265", cat({unhex("00 00 00 01 67"), h265}), VideoCodec::kH265},
  };
  for (const auto& row : rows) EXPECT_EQ(detect_codec(row.bytes.data(), row.bytes.size()), row.codec) << row.what;
}

}  // namespace
}  // namespace boxlane::test
