// `boxlane probe` as a user runs it: JSON and text against ffprobe on files from FFmpeg and our writer,
// against itself for every way of cutting the input, its marks of what the parser leaves out, its errors.
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/handmade_h264.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"
#include "tools/common/names.hpp"
#include "tools/probe/model.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace boxlane::test {
namespace {

class ProbeTool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!have_ffmpeg() || tool_path().empty()) return;
    const std::string d = temp_dir() + "/", video = "-f lavfi -i testsrc=size=160x120:rate=25 ";
    const std::string fragments = video + "-f lavfi -i sine=frequency=440:sample_rate=8000 -t 2 -c:v libx264 "
                                          "-pix_fmt yuv420p -bf 2 -x264-params b-adapt=0 -g 12 -c:a aac -b:a 16k ";
    moov_last_ = d + "moov_last.mp4", fast_start_ = d + "fast_start.mp4", fragmented_ = d + "fragmented.mp4";
    moov_and_fragments_ = d + "moov_and_fragments.mp4";
    ready_ = ffmpeg(video + "-f lavfi -i sine=frequency=440:sample_rate=44100 -t 2 -pix_fmt yuv420p -c:v libx264 "
                    "-g 12 -c:a aac -b:a 48k -metadata:s:a:0 language=fra " + shell_quote(moov_last_)) == 0 &&
             ffmpeg(video + "-f lavfi -i sine=frequency=300:sample_rate=48000 -t 1.5 -ac 2 -pix_fmt yuv420p -c:v "
                    "libx264 -profile:v baseline -g 10 -c:a aac -movflags +faststart " + shell_quote(fast_start_)) == 0 &&
             ffmpeg(fragments + "-movflags frag_keyframe+empty_moov " + shell_quote(fragmented_)) == 0 &&
             ffmpeg(fragments + "-movflags frag_keyframe " + shell_quote(moov_and_fragments_)) == 0;
  }

  void SetUp() override {
    BOXLANE_REQUIRE_FFMPEG();
    if (tool_path().empty()) GTEST_SKIP() << "the boxlane program is not built";
    ASSERT_TRUE(ready_) << "FFmpeg could not make the test media";
  }

  static inline std::string moov_last_;           // High profile with B-frames and mono AAC in French, moov last
  static inline std::string fast_start_;          // Constrained Baseline and stereo AAC, moov first
  static inline std::string fragmented_;          // an empty moov, then moof and mdat pairs
  static inline std::string moov_and_fragments_;  // samples in the moov's tables and in fragments
  static inline bool ready_ = false;
};

// The esds's DecoderConfigDescriptor as stored (ISO/IEC 14496-1 §7.2.6.6): object type, stream type, buffer
// size, maximum and average bit rate, each followed by a space.
std::string decoder_config(const std::string& file) {
  const auto b = read_file(file);
  std::size_t at = std::string(b.begin(), b.end()).find("esds") + 9;  // the ES_Descriptor's length
  while (b.at(at++) & 0x80) {}
  for (at += 4; b.at(at++) & 0x80;) {}  // past its id and flags, the DecoderConfigDescriptor's tag and length
  const auto field = [&](int n) {
    uint64_t v = 0;
    while (n--) v = v << 8 | b.at(at++);
    return std::to_string(v) + " ";
  };
  std::string fields;
  for (const int n : {1, 1, 3, 4, 4}) fields += field(n);
  return fields;
}

// probe's report of the track at path t ("tracks.0.") against what ffprobe reads of the stream, edit lists
// ignored (the parser reports the media as stored), and against the esds's bytes.
void expect_stream_like_ffprobe(const Json& j, const std::string& t, const std::string& file) {
  const bool video = j[t + "handler"] == "vide";
  std::string text;
  run("ffprobe -v error -ignore_editlist 1 -of json -show_streams -select_streams " + std::string(video ? "v " : "a ") +
          shell_quote(file), &text);
  const Json ff = Json::parse(text).value_or(Json{});
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.6f", j.num(t + "duration_seconds"));
  const std::string name = j[t + "codec.audio_object_name"];
  std::vector<std::pair<std::string, std::string>> same{
      {"codec_tag_string", j[t + "codec.fourcc"]}, {"nb_frames", j[t + "sample_count"]},
      {"duration_ts", j[t + "duration"]}, {"duration", seconds}, {"time_base", "1/" + j[t + "timescale"]},
      {"tags.language", j[t + "language"]}, {"tags.handler_name", j[t + "handler_name"]},
      // ffprobe's bit rate is the same sum over the mdhd duration, cut to an integer.
      {"bit_rate", std::to_string(static_cast<long long>(j.num(t + "bit_rate")))},
      {"profile", video ? j[t + "codec.profile_name"] : name.substr(name.rfind(' ') + 1)}};
  if (video) {
    // The sample entry's and the track header's sizes.
    same.insert(same.end(), {{"width", j[t + "codec.width"]}, {"height", j[t + "codec.height"]},
                             {"width", j[t + "width"]}, {"height", j[t + "height"]}, {"level", j[t + "codec.level"]}});
  } else {
    same.insert(same.end(), {{"channels", j[t + "codec.config_channels"]},
                             {"sample_rate", j[t + "codec.config_sample_rate"]}});
    std::string fields;
    for (const char* key : {"object_type_indication", "stream_type", "buffer_size", "max_bitrate", "avg_bitrate"})
      fields += j[t + "codec." + key] + " ";
    EXPECT_EQ(fields, decoder_config(file));
  }
  for (const auto& [key, mine] : same) EXPECT_EQ(mine, ff["streams.0." + key]) << key;
}

// Every track's --samples columns equal ffprobe's packets (size, offset, key flag, decode and composition time from
// the first sample and least offset), as do its counts and listed sync samples or, fragmented, the video's rates.
void expect_samples_like_ffprobe(const Json& j, const std::string& file, bool fragmented) {
  const auto packets = packets_by_track(file);
  ASSERT_EQ(j.count("tracks"), packets.size());
  for (std::size_t k = 0; k < packets.size(); ++k) {
    const std::string t = "tracks." + std::to_string(k) + ".", s = t + "samples.";
    SCOPED_TRACE(t);
    const std::vector<PacketRow>& want = packets.at(static_cast<int32_t>(j.num(t + "id")));
    ASSERT_EQ(j.count(s + "size"), want.size());
    const auto at = [&](const char* column, std::size_t i) { return int64_t(j.num(s + column + "." + std::to_string(i))); };
    std::vector<std::array<int64_t, 6>> mine, theirs;
    int64_t bytes = 0, keys = 0;
    std::string sync, stss = j.joined(t + "tables.stss", " ");
    for (std::size_t i = 0; i < want.size(); ++i) {
      const bool last = i + 1 == want.size();
      mine.push_back({at("decode_time", i) - at("decode_time", 0), at("composition_time", i) - at("decode_time", i),
                      last ? 0 : at("duration", i), at("size", i), at("offset", i),
                      j.flag(s + "sync." + std::to_string(i))});
      theirs.push_back({want[i].dts - want[0].dts, want[i].pts - want[i].dts, last ? 0 : want[i + 1].dts - want[i].dts,
                        want[i].size, want[i].pos, want[i].key});
      bytes += want[i].size, keys += want[i].key;
      if (want[i].key) sync += std::to_string(i + 1) + " ";
      if (j.flag(t + "all_sync")) stss += std::to_string(i + 1) + " ";
    }
    for (auto* rows : {&mine, &theirs}) {
      int64_t least = INT64_MAX;
      for (const auto& row : *rows) least = std::min(least, row[1]);
      for (auto& row : *rows) row[1] -= least;
    }
    EXPECT_EQ(mine, theirs);
    EXPECT_EQ(j[t + "sample_count"] + " " + j[t + "sample_bytes"] + " " + j[t + "key_frames"],
              std::to_string(want.size()) + " " + std::to_string(bytes) + " " + std::to_string(keys));
    const double seconds = double(want.back().dts - want[0].dts + want.back().duration) / j.num(t + "timescale");
    // ffprobe gives the last audio packet a whole frame, whatever its trun says.
    if (fragmented && j[t + "handler"] == "vide") {
      EXPECT_NEAR(j.num(t + "frame_rate"), double(want.size()) / seconds, 1e-9);
      EXPECT_NEAR(j.num(t + "bit_rate"), 8.0 * double(bytes) / seconds, 1e-6);
    } else if (!fragmented) {
      EXPECT_EQ(stss, sync);
    }
  }
}

// probe's JSON and text agree with ffprobe: the file type, every sample and, unless the file is fragmented,
// every track's stream values; the text says what each case lists.
TEST_F(ProbeTool, AgreesWithFfprobeOnFilesFromFfmpegAndFromOurWriter) {
  const std::string out = temp_dir() + "/ours", data = source_dir() + "/tests/data/sample.", es = out + ".h265";
  ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=200x120:rate=25:duration=1 -pix_fmt yuv420p10le -c:v libx265 "
                   "-x265-params log-level=error:bframes=3 -f hevc " + shell_quote(es)), 0);
  const std::string mux = shell_quote(tool_path()) + " mux -q ";
  ASSERT_EQ(run(mux + "--video " + shell_quote(data + "h264") + " --audio " + shell_quote(data + "aac") + " -o " +
                shell_quote(out + "1.mp4")), 0);
  ASSERT_EQ(run(mux + "--video " + shell_quote(es) + " -o " + shell_quote(out + "2.mp4")), 0);
  write_file(out + "3.mp4", widen_mdat(read_file(fast_start_)));
  const struct {
    std::string file;
    std::vector<std::string> says;  // lines of its text report
    bool fragmented = false;
  } cases[] = {
      {moov_last_,
       {"  codec:       avc1, H.264 High profile, level 1.1, 160x120, 4-byte NAL lengths, 1 SPS, 1 PPS\n",
        "  frame rate:  25.000 frames/s\n", ", language fra\n", "  codec:       mp4a, AAC LC, 1 channel, 44100 Hz\n",
        " key frames (no stss: every sample is a sync sample)\n",
        "  tables:      agree: 50 samples timed (stts), 50 sized (stsz), 50 placed in"}},
      {fast_start_, {"  codec:       mp4a, AAC LC, 2 channels, 48000 Hz\n"}},
      {out + "1.mp4", {"\ntrack 1: video (handler 'vide', \"VideoHandler\")\n", ", language und\n"}},
      // H.265 at 10 bits from our writer.
      {out + "2.mp4", {"hvc1, H.265 Main 10 profile, Main tier, level 2, 4:2:0, 10-bit, 200x120, 4-byte NAL lengths, "
                       "1 VPS, 1 SPS, 1 PPS\n"}},
      {out + "3.mp4", {"form:        progressive, 1 box with a 64-bit size"}},
      {fragmented_, {"form:        fragmented, ", "  samples:     50, 5 key frames\n", "\ntrack 1 samples: 50 "
                     "(decode_time composition_time duration size offset, K: sync)\n         1: "}, true},
      // -g 12: the moov holds the first group of pictures, 4 fragments the other 38 pictures.
      {moov_and_fragments_, {"form:        fragmented, 4 fragments after samples in the moov\n",
                             "  fragments:   38 samples in 4 track fragments, 12 in the moov\n"}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    std::string text, brands;
    const Json j = probe_json("--samples " + shell_quote(c.file));
    EXPECT_EQ(probe("--samples " + shell_quote(c.file), &text), 0);
    expect_samples_like_ffprobe(j, c.file, c.fragmented);
    run("ffprobe -v error -show_entries format_tags=major_brand,minor_version,compatible_brands -of default=nw=1 " +
        shell_quote(c.file), &brands);
    EXPECT_EQ("TAG:major_brand=" + j["file_type.major_brand"] + "\nTAG:minor_version=" + j["file_type.minor_version"] +
              "\nTAG:compatible_brands=" + j.joined("file_type.compatible_brands", "") + "\n", brands);
    std::vector<std::string> says = c.says;
    for (std::size_t k = 0; k < j.count("tracks"); ++k) {
      const std::string t = "tracks." + std::to_string(k) + ".";
      if (!c.fragmented) expect_stream_like_ffprobe(j, t, c.file);
      EXPECT_TRUE(j.flag(t + "consistency.consistent") && j.flag(t + "complete")) << t;
      char rate[160];
      std::snprintf(rate, sizeof rate, "  bit rate:    %.1f kbit/s (%s bytes of samples)\n", j.num(t + "bit_rate") / 1000,
                    j[t + "sample_bytes"].c_str());
      says.push_back(rate);
      std::string row = "\n         2:";  // the second sample, as the JSON (ffprobe's, above) has it
      for (const char* key : {"decode_time", "composition_time", "duration", "size", "offset"})
        row += " " + j[t + "samples." + key + ".1"];
      says.push_back(row + (j.flag(t + "samples.sync.1") ? " K\n" : "\n"));
    }
    for (const auto& line : says) EXPECT_NE(text.find(line), std::string::npos) << line << " in " << text;
  }
  // Our H.265 file's hvcC (ISO/IEC 14496-15 §8.3.3.1), made to say 8-bit chroma and given an array of 65
  // NAL units more than the parser keeps, in an hev1 entry, field by field as probe's JSON gives it.
  auto hevc = read_file(out + "2.mp4");
  const std::size_t hvcc = std::string(hevc.begin(), hevc.end()).find("hvcC");
  Bytes array = Bytes().u8(39).u16(65);
  for (int i = 0; i < 65; ++i) array.u16(2).u16(0x4E01);
  hevc[hvcc + 22] = 0xF8, ++hevc[hvcc + 26];
  const std::size_t hvcc_end = hvcc - 4 + be32(hevc, hvcc - 4);
  hevc = inserted(hevc, {"moov", "trak", "mdia", "minf", "stbl", "stsd", "hvc1", "hvcC"}, hvcc_end, array);
  std::copy_n("hev1", 4, hevc.begin() + long(std::string(hevc.begin(), hevc.end()).rfind("hvc1", hvcc)));
  write_file(out + "4.mp4", hevc);
  const uint8_t* h = &hevc.at(hvcc + 4);
  std::string flags, got;
  for (const char c : hex(h + 6, 6))
    if (c != ' ') flags += char(std::tolower(c));
  char want[256];
  std::snprintf(want, sizeof want, "%d %d %d %d %u %s %d %d %d %d %d %d %d %s %d", h[0], h[1] >> 6, h[1] >> 5 & 1,
                h[1] & 31, uint32_t(h[2]) << 24 | h[3] << 16 | h[4] << 8 | h[5], flags.c_str(), h[12],
                (h[13] & 15) << 8 | h[14], h[15] & 3, h[16] & 3, (h[17] & 7) + 8, (h[18] & 7) + 8, h[21] >> 3 & 7,
                h[21] & 4 ? "true" : "false", (h[21] & 3) + 1);
  const Json ours = probe_json(shell_quote(out + "4.mp4"));
  EXPECT_EQ(ours["tracks.0.codec.truncated"], "true");
  std::string text;  // the text's bit depth is the luma one
  EXPECT_EQ(probe(shell_quote(out + "4.mp4"), &text), 0);
  EXPECT_NE(text.find("hev1, H.265 Main 10 profile, Main tier, level 2, 4:2:0, 10-bit, 200x120, 4-byte NAL lengths, "
                      "1 VPS, 1 SPS, 1 PPS (description longer than the parser keeps)\n"), std::string::npos) << text;
  for (const char* key : {"configuration_version", "profile_space", "tier", "profile", "compatibility", "constraints",
                          "level", "min_spatial_segmentation", "parallelism_type", "chroma_format", "bit_depth",
                          "bit_depth_chroma", "temporal_layers", "temporal_id_nested", "nal_length_size"})
    got += (got.empty() ? "" : " ") + ours["tracks.0.codec." + std::string(key)];
  EXPECT_EQ(got, want);
  // --strict reads every table before the 64-bit mdat and says where it stopped.
  const Json strict = probe_json("--strict --samples " + shell_quote(out + "3.mp4"));
  expect_samples_like_ffprobe(strict, out + "3.mp4", false);
  EXPECT_EQ(strict["stream_stop.box"], "mdat");
}

// The same report however the input comes: pieces of any size, several pools, a pipe (which cannot seek, so mdat
// payloads are read and thrown away there); an upper-case MDAT is skipped all the same.
TEST_F(ProbeTool, SameJsonForEveryPieceSizeAndFromStandardInput) {
  auto upper = read_file(moov_last_);
  for (const TopBox& box : top_boxes(upper))
    if (box.type == "mdat") std::copy_n("MDAT", 4, upper.begin() + long(box.offset) + 4);
  const std::string upper_file = temp_dir() + "/upper.mp4";
  write_file(upper_file, upper);
  const std::string probe = shell_quote(tool_path()) + " probe --json --samples ";
  for (const std::string& name : {moov_last_, fragmented_}) {
    const std::string file = shell_quote(name);
    std::string whole, again;
    ASSERT_EQ(run(probe + file, &whole), 0);
    for (const std::string& command :
         {probe + "--piece 1 " + file, probe + "--random-pieces 5000 --seed 99 " + file,
          probe + "--random-pieces 1 " + file, probe + "--pools 4 --piece 300 " + file,
          "cat " + file + " | " + probe + "--piece 999 -",
          probe + "--piece 999 " + shell_quote(name == moov_last_ ? upper_file : name)}) {
      EXPECT_EQ(run(command, &again), 0) << command;
      EXPECT_EQ(again, whole) << command;
    }
  }
}

// probe asks for a track's samples 65536 at a time: a track of 70000 comes whole, one tick after another. The
// parser holds 4096 untaken track fragments at most: probe takes each as its moof arrives, so 4100 come whole.
TEST_F(ProbeTool, SamplesPastOneQueryWindowAndFragmentsPastTheParsersBound) {
  const std::string dir = temp_dir() + "/";
  std::vector<HandmadePicture> pictures(70000, {HandmadePicture::kSkipped});
  pictures[0].kind = HandmadePicture::kIdr;
  write_file(dir + "long.h264", handmade_h264(pictures));
  ASSERT_EQ(run(shell_quote(tool_path()) + " mux -q --fps 25 --timescale 25 --video " + shell_quote(dir + "long.h264") +
                " -o " + shell_quote(dir + "long.mp4")), 0);
  const Json j = probe_json("--samples " + shell_quote(dir + "long.mp4"));
  ASSERT_EQ(j.count("tracks.0.samples.decode_time"), 70000u);
  for (const int i : {65535, 65536, 69999})
    EXPECT_EQ(j["tracks.0.samples.decode_time." + std::to_string(i)], std::to_string(i));
  write_file(dir + "idr.h264", handmade_h264(std::vector<HandmadePicture>(4100)));
  ASSERT_EQ(run(shell_quote(tool_path()) + " mux -q --fps 25 --fragment 0.04 --video " + shell_quote(dir + "idr.h264") +
                " -o " + shell_quote(dir + "idr.mp4")), 0);
  const Json f = probe_json(shell_quote(dir + "idr.mp4"));
  EXPECT_EQ(f["tracks.0.track_fragments"] + " " + f["tracks.0.sample_count"] + " " + f["complete"], "4100 4100 true");
}

TEST_F(ProbeTool, ErrorsNameWhatWentWrongAndWhere) {
  const std::string dir = temp_dir() + "/";
  const auto moov_last = read_file(moov_last_), fast = read_file(fast_start_);
  const TopBox moov = top_boxes(moov_last).back(), mdat = top_boxes(fast).back();
  ASSERT_EQ(moov.type + mdat.type, "moovmdat");
  const Bytes ftyp = box("ftyp", Bytes().str("isom").u32(512).str("isom"));
  const auto at = [](uint64_t offset) { return " at offset " + std::to_string(offset); };
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    std::string wanted;
  } cases[] = {
      {"cut_in_moov.mp4", {moov_last.begin(), moov_last.begin() + long(moov.offset + 100)},
       "truncated: box 'moov'" + at(moov.offset) + " declares " + std::to_string(moov.size) + " bytes, 100 present"},
      {"cut_in_header.mp4", {moov_last.begin(), moov_last.begin() + long(moov.offset) + 3},
       "truncated: box header" + at(moov.offset) + " has 3 of its 8 bytes"},
      {"cut_in_large_header.mp4", cat({ftyp, Bytes().u32(1).str("moov").u32(0)}), "truncated: box header" + at(20) +
       " has 12 of its 16 bytes"},
      {"cut_in_large_moov.mp4", cat({ftyp, Bytes().u32(1).str("moov").u64(1000).zeros(10)}),
       "truncated: box 'moov'" + at(20) + " declares 1000 bytes, 26 present"},
      {"cut_in_mdat.mp4", {fast.begin(), fast.begin() + long(mdat.offset) + 100},
       "truncated: box 'mdat'" + at(mdat.offset) + " declares " + std::to_string(mdat.size) + " bytes, 100 present"},
      {"huge_box.mp4", cat({Bytes().u32(0x7F000000).str("junk").zeros(3000)}), "0x091B0006"},
      {"binary.mp4", Bytes().u32(100).u32(0x01020304).zeros(10),
       "truncated: box '\\x01\\x02\\x03\\x04' at offset 0 (not an MP4 stream?) declares 100 bytes, 18 present"},
      // The 64-bit mdat is followed, and nothing else is there.
      {"large_size.mp4", cat({ftyp, Bytes().u32(1).str("mdat").u64(48).zeros(32)}), "no movie header (moov/mvhd) in 68 bytes"},
      // Reading stops at the header of a box of size 7, whatever follows in the piece.
      {"size_seven.mp4", cat({ftyp, Bytes().u32(7).str("free").zeros(20)}),
       "in 28 bytes: not an MP4 file, or a fragment without its movie; box 'free'" + at(20) +
           " has a size below its own header: the parser stopped there (0x091B0007 BOXLANE_ERROR_PARSE_MALFORMED)"},
      {"child_past_parent.mp4", cat({ftyp, box("moov", box("udta", Bytes().zeros(8), 500)), box("free", Bytes().zeros(8))}),
       "the parser still waits for the end of a box"}, {"empty.mp4", {}, "empty input"},
  };
  for (const auto& c : cases) {
    write_file(dir + c.name, c.bytes);
    const std::string file = shell_quote(dir + c.name), probe = shell_quote(tool_path()) + " probe ";
    for (const std::string& command : {probe + "--piece 1 " + file, "cat " + file + " | " + probe + "-"}) {
      SCOPED_TRACE(command);
      std::string out;
      EXPECT_EQ(run(command + " 2>&1", &out), 1);
      EXPECT_EQ(out.rfind("boxlane probe: ", 0), 0u) << "nothing but the error: " << out;
      EXPECT_NE(out.find(c.wanted), std::string::npos) << out;
    }
  }
}

// A handler name with JSON's special characters, a space, control characters with and without short escapes, DEL,
// bytes not UTF-8 (lone, overlong, a cut sequence, a surrogate, past U+10FFFF, a lead byte 0xF5), and UTF-8.
constexpr char kName[] = "T \"\\\n\r\t\b\f\x01\x1F\x7F\xFF\xC0\x80\xE2\x82\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80"
                         "\xF5\x80\x80\x80\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E";

// A movie of one 10-sample video track at 1000 ticks a second in 3 chunks whose stsz, stss, stsc, further
// tables and mdhd duration are given, in Zulu, its handler named kName.
Bytes movie_with_tables(const Bytes& stsz, const Bytes& stss, const char* stsc_rows, const Bytes& more = {},
                        uint32_t duration = 10000) {
  const Bytes mvhd = full_box("mvhd", 0, 0, Bytes().u32(7).u32(8).u32(1000).u32(10000).u32(0x10000).u16(0x100)
                                                .zeros(10 + 36 + 24).u32(2));
  const Bytes tkhd = full_box("tkhd", 0, 3, Bytes().u32(3).u32(4).u32(1).u32(0).u32(10000).zeros(8).u16(1).u16(2)
                                                .u16(0x100).zeros(38).u32(64 << 16).u32(48 << 16));
  const Bytes mdhd = full_box("mdhd", 0, 0, Bytes().u32(5).u32(6).u32(1000).u32(duration).u16(0x6AAC).u16(0));
  const Bytes hdlr = full_box("hdlr", 0, 0, Bytes().u32(0).str("vide").zeros(12).str(kName).u8(0));
  const Bytes stts = full_box("stts", 0, 0, Bytes().u32(1).u32(10).u32(1000));
  const Bytes stco = full_box("stco", 0, 0, Bytes().u32(3).u32(1000).u32(1400).u32(1800));
  const Bytes stbl = box("stbl", cat({stts, stss, full_box("stsc", 0, 0, unhex(stsc_rows)), stsz, stco, more}));
  const Bytes trak = box("trak", cat({tkhd, box("mdia", cat({mdhd, hdlr, box("minf", stbl)}))}));
  return cat({box("ftyp", Bytes().str("isom").u32(0)), box("moov", cat({mvhd, trak})), box("mdat", Bytes().zeros(16))});
}

TEST_F(ProbeTool, PointsOutTablesThatDisagree) {
  const std::string dir = temp_dir() + "/";
  Bytes sizes = Bytes().u32(0).u32(9);
  for (int i = 0; i < 9; ++i) sizes.u32(100);
  const Bytes constant = full_box("stsz", 0, 0, Bytes().u32(100).u32(10));
  const std::string twelve = "the stco chunks hold 12 samples (through stsc) but stts counts 10|";
  Bytes digits = Bytes().u32(0).u32(20).u32(0);  // both sides of every count of decimal digits
  for (uint64_t power = 10; power <= 1000000000; power *= 10) digits.u32(uint32_t(power - 1)).u32(uint32_t(power));
  digits.u32(4294967295u);
  const char *one = "00000001 00000001 00000004 00000001",
             *ten = "00000002 00000001 00000004 00000001 00000003 00000002 00000001";
  const struct {
    const char* name;
    Bytes stsz, stss;
    const char* stsc;
    std::string problems;  // then the notes
    Bytes more = {};
    uint32_t duration = 10000;
  } cases[] = {
      // A sync sample named twice is out of order too; the last stsc entry runs to the last chunk: 3 x 4 samples.
      {"twice", full_box("stsz", 0, 0, sizes), full_box("stss", 0, 0, Bytes().u32(2).u32(3).u32(3)),
       one, "stts counts 10 samples but stsz lists 9 sizes|" + twelve +
           "stss names sample 3, out of order or past the 10 samples|"},
      // The last sample may be a sync sample.
      {"last", constant, full_box("stss", 0, 0, Bytes().u32(1).u32(10)), one, twelve},
      // 4 + 4 + 2 samples: an entry may start at the last chunk.
      {"fits", constant, {}, ten, ""},
      {"same_chunk", constant, {}, "00000002 00000001 00000004 00000001 00000001 00000002 00000001",
       "stsc entry 1 (first chunk 1) is not followed by a later chunk|"},
      {"digits", full_box("stsz", 0, 0, digits), {}, one, "stts counts 10 samples but stsz lists 20 sizes|" + twelve},
      {"no_stsc", constant, {}, "00000000", "stco lists 3 chunks but stsc puts no samples in them|"},
      {"from_chunk_2", constant, {}, "00000001 00000002 00000005 00000001",
       "the first stsc entry starts at chunk 2, not 1|"},
      {"past_stco", constant, {}, "00000003 00000001 00000004 00000001 00000004 00000002 00000001 00000005 00000001 "
       "00000001", "stsc entry 2 starts at chunk 4 but stco has only 3 chunks|"},
      {"ctts_sdtp", constant, {}, ten,
       "ctts covers 9 samples but stts counts 10|sdtp has 11 entries but stts counts 10 samples|",
       cat({full_box("ctts", 0, 0, Bytes().u32(1).u32(9).u32(0)), full_box("sdtp", 0, 0, Bytes().zeros(11))})},
      {"mdhd", constant, {}, ten, "mdhd gives a duration of 9000 but the stts deltas add up to 10000|", {}, 9000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_file(dir + c.name, movie_with_tables(c.stsz, c.stss, c.stsc, c.more, c.duration));
    const Json j = probe_json(shell_quote(dir + c.name));
    EXPECT_EQ(j.joined("tracks.0.consistency.problems") + j.joined("tracks.0.consistency.notes"), c.problems);
    // Bytes that are not UTF-8 come back as the Latin-1 letters they would be.
    EXPECT_EQ(j["tracks.0.handler_name"], "T \"\\\n\r\t\b\f\x01\x1F\x7F\xC3\xBF\xC3\x80\xC2\x80\xC3\xA2\xC2\x82"
                                          "\xC3\xA0\xC2\x80\xC2\x80\xC3\xAD\xC2\xA0\xC2\x80\xC3\xB4\xC2\x90\xC2\x80\xC2\x80"
                                          "\xC3\xB5\xC2\x80\xC2\x80\xC2\x80"
                                          "\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E");
    if (c.name == std::string("digits")) {  // as written, each number in its place
      std::string raw;
      EXPECT_EQ(probe("--json " + shell_quote(dir + c.name), &raw), 0);
      EXPECT_NE(raw.find("\"stsz\": [0, 9, 10, 99, 100, 999, 1000, 9999, 10000, 99999, 100000, 999999, 1000000, "
                         "9999999, 10000000, 99999999, 100000000, 999999999, 1000000000, 4294967295],"),
                std::string::npos) << raw;
    }
  }

  // One size for all (10 samples of 100 bytes in 10 s): the whole text report with tables, and the box tree.
  std::string text;
  const std::string file = dir + "last";
  ASSERT_EQ(probe("--tables --boxes " + shell_quote(file), &text), 0);
  const std::size_t tree = text.find("\nboxes, as the parser walked them:\n");
  EXPECT_NE(text.find("\n         140          92      tkhd (311)  version 0 flags 000003\n", tree), std::string::npos)
      << text;
  // The same movie box with a 64-bit size: its children start 16 bytes in, and the tree stays whole.
  auto wide = read_file(file);
  const TopBox moov = top_boxes(wide).at(1);
  const Bytes large = Bytes().u64(moov.size + 8);
  set_be32(wide, moov.offset, 1);
  wide.insert(wide.begin() + long(moov.offset + 8), large.begin(), large.end());
  write_file(dir + "wide", wide);
  std::string wide_text;
  ASSERT_EQ(probe("--boxes " + shell_quote(dir + "wide"), &wide_text), 0);
  for (const char* line : {"\n         148          92      tkhd (311)  version 0 flags 000003\n",
                           "\n         489          24  mdat (2)\n"})  // the box after the moov, at the top again
    EXPECT_NE(wide_text.find(line), std::string::npos) << line << " in " << wide_text;
  text.erase(tree);
  EXPECT_EQ(text.erase(text.find("  codec:"), text.find("  dimensions:") - text.find("  codec:")),
            file + ": 505 bytes\nfile type:   isom, minor version 0\n"
            "movie:       10.000 s (duration 10000 at time scale 1000), 1 track\nform:        progressive\n\n"
            "track 1: video (handler 'vide', \"T \"\\x5C\\x0A\\x0D\\x09\\x08\\x0C\\x01\\x1F\\x7F\\xFF\\xC0\\x80"
            "\\xE2\\x82\\xE0\\x80\\x80\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80\\xF5\\x80\\x80\\x80"
            "\\xC3\\xA9\\xE2\\x82\\xAC\\xF0\\x9D\\x84\\x9E\")\n"
            "  dimensions:  64x48\n  time scale:  1000\n"
            "  duration:    10.000 s (10000), language zul\n"
            "  samples:     10, 1 key frame\n  frame rate:  1.000 frames/s\n"
            "  bit rate:    0.8 kbit/s (1000 bytes of samples)\n  tables:      DISAGREE, this file is inconsistent:\n"
            "    ! the stco chunks hold 12 samples (through stsc) but stts counts 10\n\ntrack 1 tables:\n"
            "  stts: 1 entry (sample_count sample_delta)\n         1: 10 1000\n"
            "  ctts: 0 entries (sample_count sample_offset)\n"
            "  stsc: 1 entry (first_chunk samples_per_chunk sample_description_index)\n         1: 1 4 1\n"
            "  stsz: sample_size 100 for each of 10 samples\n"
            "  stco: 3 entries (chunk_offset)\n         1: 1000\n         2: 1400\n         3: 1800\n"
            "  stss: 1 entry (sample_number)\n         1: 10\n  sdtp: 0 entries (flags byte)\n");
  // No stss: every sample is a sync sample.
  ASSERT_EQ(probe("--json --boxes " + shell_quote(dir + "fits"), &text), 0);
  const Json j = Json::parse(text).value_or(Json{});
  std::string movie;
  for (const char* key : {"timescale", "duration", "duration_seconds", "rate", "volume", "next_track_id",
                          "creation_time", "modification_time"})
    movie += j[std::string("movie.") + key] + " ";
  EXPECT_EQ(movie, "1000 10000 10 65536 256 2 7 8 ");
  EXPECT_EQ(j["tracks.0.bit_rate"] + " " + j["tracks.0.key_frames"] + " " + j["tracks.0.all_sync"] + " " +
                j["tracks.0.consistency.stco_chunks"] + " " + j["tracks.0.consistency.chunk_samples"],
            "800 10 true 3 10");
  for (const char* line : {"\"tkhd\": {\"creation_time\": 3, \"modification_time\": 4, \"duration\": 10000, \"layer\": 1, "
                           "\"alternate_group\": 2, \"volume\": 256},\n      \"mdhd\": {\"creation_time\": 5, "
                           "\"modification_time\": 6, \"language_code\": 27308},",
                           "\"constant_sample_size\": {\"size\": 100, \"count\": 10}",
                           "{\"type\": \"tkhd\", \"code\": 311, \"offset\": 140, \"size\": 92, \"depth\": 2, "
                           "\"version\": 0, \"flags\": 3},"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in " << text;
  // Each kind of handler by its name, an unknown one too, in a file without ftyp.
  for (const auto& [handler, kind] : {std::pair{"hint", "hint"}, {"meta", "metadata"}, {"text", "text"},
                                      {"sbtl", "text"}, {"abcd", "unknown kind"}}) {
    auto bytes = read_file(file);
    std::copy_n(handler, 4, bytes.begin() + long(std::string(bytes.begin(), bytes.end()).find("vide")));
    write_file(dir + handler, {bytes.begin() + 16, bytes.end()});
    ASSERT_EQ(probe(shell_quote(dir + handler), &text), 0);
    EXPECT_NE(text.find("\nfile type:   none (no ftyp box)\nmovie: "), std::string::npos) << text;
    EXPECT_NE(text.find("\ntrack 1: " + std::string(kind) + " (handler '" + handler + "'"), std::string::npos) << text;
  }
}

// The first occurrence of a fourcc in a file, as the offset of its box.
std::size_t box_at(const std::vector<uint8_t>& file, const char* type, std::size_t from = 0) {
  const std::size_t at = std::string(file.begin(), file.end()).find(type, from);
  EXPECT_NE(at, std::string::npos) << type;
  return at - 4;
}

// Every value the parser's rules keep from the report is marked at the report and at the track it belongs to,
// in text and JSON alike, in either client mode, and probe still exits 0; what is whole is not marked.
TEST_F(ProbeTool, MarksWhatTheParserLeavesOut) {
  const std::string dir = temp_dir() + "/";
  const auto fast = read_file(fast_start_);  // moov (video track 1, audio track 2), then mdat
  const auto changed = [&](auto change) {
    auto bytes = fast;
    change(bytes);
    return bytes;
  };
  const std::size_t moov = box_at(fast, "moov"), second_trak = box_at(fast, "trak", box_at(fast, "trak") + 8);
  // A box with a 64-bit size before the second trak of the movie box.
  const auto nested_large = changed([&](std::vector<uint8_t>& b) {
    const Bytes large = Bytes().u32(1).str("free").u64(16);
    b.insert(b.begin() + long(second_trak), large.begin(), large.end());
    set_be32(b, moov, be32(b, moov) + 16);
  });
  const auto large_mdat = widen_mdat(fast), fragmented = read_file(fragmented_);
  const std::string mdat_at = std::to_string(box_at(large_mdat, "mdat")), end_at = std::to_string(fast.size());
  const Bytes size_four = Bytes().u32(4).str("free").zeros(4);
  const auto with_id = [&](uint32_t id) {
    return changed([&](std::vector<uint8_t>& b) { set_be32(b, box_at(b, "tkhd", box_at(b, "tkhd") + 8) + 20, id); });
  };
  const auto with_brands = [&](uint32_t count) {  // probe reads at most 4096
    Bytes ftyp = Bytes().str("isom").u32(512);
    for (uint32_t i = 0; i < count; ++i) ftyp.str(i % 2 ? "avc1" : "mp41");
    return cat({box("ftyp", ftyp), {fast.begin() + be32(fast, 0), fast.end()}});
  };
  auto first_trun_in_moof = fragmented;  // the first trun's data_offset 0: its data would lie in its moof
  set_be32(first_trun_in_moof, box_at(fragmented, "trun") + 16, 0);
  auto unknown_traf = fragmented;  // the first traf's tfhd names track 99
  set_be32(unknown_traf, box_at(fragmented, "tfhd") + 12, 99);
  auto one_sample = cat({movie_with_tables(full_box("stsz", 0, 0, Bytes().u32(100).u32(1)), {}, "00000001 00000001 "
                                           "00000001 00000001"), box("moof", full_box("mfhd", 0, 0, Bytes().u32(1)))});
  set_be32(one_sample, box_at(one_sample, "stts") + 16, 1);  // one sample in the moov, then a fragment
  const std::string brands = "(ftyp) lists 4097 compatible brands, more than probe reads (4096)";
  const std::string unread = "which --strict does not read: their samples are not counted";
  const std::string moov_stop = "the parser stopped inside the movie box (at offset " + std::to_string(second_trak) + ")";
  const std::string trak_at = "box 'trak' at offset " + std::to_string(second_trak) + " is larger";
  const std::string over = "box 'free' at offset " + end_at + " would take the client past its memory bound: the "
                           "parser stopped there (0x091B0009 BOXLANE_ERROR_PARSE_LIMIT)";

  struct Marks {  // missing at the top, at track 1 and at track 2; tracks listed
    std::vector<std::string> report = {}, track1 = {}, track2 = {};
    std::size_t tracks = 2;
  };
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    Marks extended, strict;
    std::array<const char*, 2> form = {};  // of the text report, without and with --strict
  } cases[] = {
      {"whole.mp4", fast, {}, {}},
      // A movie that declares fragments, without one.
      {"no_fragment.mp4", {fragmented.begin(), fragmented.begin() + long(top_boxes(fragmented).at(2).offset)}, {}, {},
       {"fragmented, no fragment read", "fragmented, no fragment read"}},
      {"fragmented.mp4", fragmented, {}, {{"movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
      {"one_fragment.mp4", cat({fast, box("moof", full_box("mfhd", 0, 0, Bytes().u32(1)))}), {},
       {{"1 movie fragment (moof) is not read with --strict"}, {"the file has 1 movie fragment (moof), " + unread},
        {unread}}},
      {"co64.mp4", with_co64(read_file(moov_last_)), {},
       {{}, {"no chunk offsets: they are 64-bit (co64), which --strict does not read"}, {"(co64), which --strict"}}},
      {"description_2.mp4", changed([&](std::vector<uint8_t>& b) { set_be32(b, box_at(b, "stsc") + 24, 2); }),
       {{}, {"stsc gives samples sample description 2, but the parser hands out only the first"}},
       {{}, {"sample description 2"}}},
      // Only the first fragment's trun of track 1 is wrong: the mark stays through the later ones.
      {"first_trun_in_moof.mp4", first_trun_in_moof, {{}, {"in its fragments: a trun's data lies inside its moof"}},
       {{"movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
      {"unknown_traf.mp4", unknown_traf, {{"1 traf box was left out (no whole tfhd, or a track the movie does not have)"}},
       {{"movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
      {"brands_at_cap.mp4", with_brands(4096), {}, {}},
      {"brands_past_cap.mp4", with_brands(4097), {{brands}}, {{brands}}},
      {"brands_past_cap_then_few.mp4", [&] {  // the largest ftyp counts, not the last
         auto b = with_brands(4097);
         b.insert(b.begin() + be32(b, 0), {0, 0, 0, 16, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm', 0, 0, 2, 0});
         return b;
       }(), {{brands}}, {{brands}}},
      // An mdat ending the file loses nothing, whatever its size form; another box of size 0 may hide what follows.
      {"large_mdat.mp4", large_mdat, {}, {},
       {"progressive, 1 box with a 64-bit size", "progressive, a box with a 64-bit size (not followed with --strict)"}},
      {"empty_large_mdat.mp4", cat({fast, Bytes().u32(1).str("mdat").u64(16)}), {}, {}},
      {"zero_mdat.mp4", changed([&](std::vector<uint8_t>& b) { set_be32(b, box_at(b, "mdat"), 0); }), {}, {}},
      {"zero_MDAT.mp4", changed([&](std::vector<uint8_t>& b) {
         set_be32(b, box_at(b, "mdat"), 0);
         std::copy_n("MDAT", 4, b.begin() + long(box_at(b, "mdat")) + 4);
       }), {}, {}},
      {"one_sample.mp4", one_sample, {{}, {}, {}, 1},
       {{"1 movie fragment (moof) is not read with --strict"}, {"the file has 1 movie fragment (moof), "}, {}, 1},
       {"fragmented, 1 fragment after samples in the moov", "fragmented, 1 fragment (not read with --strict)"}},
      {"zero_free.mp4", cat({fast, box("free", Bytes().zeros(8), 0)}),
       {{"reading stopped early: box 'free' at offset " + end_at + " has size 0"}},
       {{"box 'free' at offset " + end_at + " has size 0"}}},
      {"large_mdat_then_free.mp4", cat({large_mdat, box("free", Bytes().zeros(8))}), {},
       {{"reading stopped early: box 'mdat' at offset " + mdat_at + " has a 64-bit size, which --strict does not follow"}}},
      {"nested_large.mp4", nested_large, {},
       {{"box 'free' at offset " + std::to_string(second_trak) + " has a 64-bit size"}, {moov_stop}, {}, 1}},
      {"nested_huge.mp4", changed([&](std::vector<uint8_t>& b) { set_be32(b, second_trak, 0x10000001); }),
       {{trak_at + " than the parser takes: the parser stopped there (0x091B0006 BOXLANE_ERROR_PARSE_NOTSUPPORT"},
        {moov_stop}, {}, 1},
       {{trak_at}, {moov_stop}, {}, 1}},
      // An empty moov as the first box in the movie box: the stop is still inside the top-level one.
      {"nested_moov.mp4", changed([&](std::vector<uint8_t>& b) {
         b.insert(b.begin() + long(moov) + 8, {0, 0, 0, 8, 'm', 'o', 'o', 'v'});
         set_be32(b, moov, be32(b, moov) + 8), set_be32(b, second_trak + 8, 0x10000001);
       }), {{"than the parser takes"}, {"the parser stopped inside the movie box"}, {}, 1},
       {{"than the parser takes"}, {"the parser stopped inside the movie box"}, {}, 1}},
      // A stop after the movie, even just after it, costs a progressive file's tracks nothing; fragments may be lost.
      {"moov_last_size_four.mp4", cat({read_file(moov_last_), size_four}), {{"has a size below its own header"}},
       {{"has a size below its own header"}}},
      {"size_four.mp4", cat({fast, size_four}),
       {{"box 'free' at offset " + end_at + " has a size below its own header: the parser stopped there (0x091B0007 "
         "BOXLANE_ERROR_PARSE_MALFORMED"}},
       {{"has a size below its own header"}}},
      // 20 MiB, past probe's bound for a file this small.
      {"over_bound.mp4", cat({fast, Bytes().u32(20 << 20).str("free").zeros(100)}), {{over}}, {{over}}},
      {"fragmented_size_four.mp4", cat({fragmented, size_four}),
       {{"has a size below its own header"},
        {"movie fragments after offset " + std::to_string(fragmented.size()) + " are not counted: reading stopped there"},
        {"movie fragments after offset"}},
       {{"has a size below its own header", "movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
  };
  for (const auto& c : cases) {
    write_file(dir + c.name, c.bytes);
    for (const bool strict : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (strict ? " --strict" : ""));
      const Marks& want = strict ? c.strict : c.extended;
      const std::string args = (strict ? "--strict " : "") + shell_quote(dir + c.name);
      std::string text;
      ASSERT_EQ(probe(args, &text), 0);
      if (const char* form = c.form[strict]) {
        EXPECT_NE(text.find("\nform:        " + std::string(form) + "\n"), std::string::npos) << text;
      }
      const Json doc = probe_json("--piece 4096 " + args);  // the same, in pieces a skip steps past
      const bool whole = want.report.empty() && want.track1.empty() && want.track2.empty();
      EXPECT_EQ(doc.flag("complete"), whole);
      EXPECT_EQ(text.find("INCOMPLETE") == std::string::npos, whole) << text;
      const std::string report_missing = doc.joined("missing");
      EXPECT_EQ(report_missing.empty(), want.report.empty()) << report_missing;
      for (const auto& says : want.report) {
        EXPECT_NE(report_missing.find(says), std::string::npos) << says << " in " << report_missing;
        const std::size_t at = text.find(says);
        EXPECT_EQ(text.compare(text.rfind('\n', at) + 1, 13, "INCOMPLETE:  "), 0) << says << " in " << text;
      }
      ASSERT_EQ(doc.count("tracks"), want.tracks);
      for (std::size_t i = 0; i < want.tracks; ++i) {
        const std::string t = "tracks." + std::to_string(i) + ".";
        const auto& wanted = i == 0 ? want.track1 : want.track2;
        const std::string missing = doc.joined(t + "missing");
        EXPECT_EQ(doc.flag(t + "complete"), wanted.empty()) << missing;
        for (const auto& says : wanted) EXPECT_NE(missing.find(says), std::string::npos) << says << " in " << missing;
        // The text says it at the track: its heading, then one line per gap.
        const std::size_t heading = text.find("\ntrack " + doc[t + "id"] + ": ");
        ASSERT_NE(heading, std::string::npos);
        const std::string block = text.substr(heading, text.find("\n  codec:", heading) - heading);
        EXPECT_EQ(block.find(", INCOMPLETE\n  missing:     ") != std::string::npos, !wanted.empty()) << block;
      }
    }
  }
  // --strict names the ids GetTrack leaves out: 10 and 2^31, and not 9; the extended mode has no such gap.
  for (const auto& [id, strict] : {std::pair{9u, true}, {10u, true}, {10u, false}, {0x80000000u, true}}) {
    std::string text;
    write_file(dir + "id.mp4", with_id(id));
    ASSERT_EQ(probe((strict ? "--strict " : "") + shell_quote(dir + "id.mp4"), &text), 0);
    const bool named = id >= 10 && strict;
    EXPECT_EQ(text.find("track id " + std::to_string(id) + " lies outside 0 to 9") != std::string::npos, named) << text;
    EXPECT_EQ(text.find("\nnote:        1 track with ids outside 0 to 9") != std::string::npos, named) << text;
    EXPECT_NE(text.find("\ntrack " + std::to_string(id) + ": audio"), std::string::npos) << text;
    EXPECT_EQ(probe_json(shell_quote(dir + "id.mp4"))["tracks.1.id"], std::to_string(id));
  }
  // An esds without an AudioSpecificConfig: the entry's own numbers.
  std::string text;
  write_file(dir + "no_config.mp4", changed([&](std::vector<uint8_t>& b) { b.at(box_at(b, "esds") + 38) = 6; }));
  ASSERT_EQ(probe(shell_quote(dir + "no_config.mp4"), &text), 0);
  EXPECT_NE(text.find("  codec:       mp4a, object type 0x40, 2 channels, 48000 Hz\n"), std::string::npos) << text;
}

// AudioSpecificConfig (ISO/IEC 14496-3 §1.6.2.1), bits written out by hand: the escaped object type (31, then
// 6 bits more: 32 + 10 = 42) and the explicit 24-bit rate of frequency index 15; a cut config reads as none.
TEST(ProbeAudioConfig, EscapedObjectTypeAndExplicitRate) {
  const struct {
    const char* hex;
    tool::AudioConfig want;
  } cases[] = {
      {"11 90", {true, 2, 48000, 2}}, {"F9 46 40", {true, 42, 48000, 2}},
      {"17 80 2A F8 08", {true, 2, 22000, 1}}, {"17 80 2A F8", {false, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    BOXLANE_CODECINFO codec{};
    const std::vector<uint8_t> config = unhex(c.hex);
    std::copy(config.begin(), config.end(), codec.byAudioCfg);
    codec.nAudioCfgLen = static_cast<int32_t>(config.size());
    const tool::AudioConfig got = tool::read_audio_config(codec);
    EXPECT_EQ(std::tuple(got.valid, got.object_type, got.sample_rate, got.channel_config),
              std::tuple(c.want.valid, c.want.object_type, c.want.sample_rate, c.want.channel_config));
  }
}

// The words probe prints for codec numbers. ISO/IEC 14496-10 Annex A: constraint_set1 narrows Baseline, set4
// makes High progressive and set4 with set5 constrained, set3 makes the High 10, 4:2:2 and 4:4:4 profiles
// Intra; level 1b is level_idc 9, or 11 with set3 below High. ITU-T H.265 Annex A: general_profile_idc, or
// failing that the compatibility flag set, and level_idc 30 times the level. ISO/IEC 14496-3 Table 1.1.
TEST(ProbeNames, AsTheStandardsNameThem) {
  using namespace tool;
  std::string avc, hevc;
  for (const auto& [profile, flags] : {std::pair{66, 0x40}, {66, 0x10}, {77, 0x10}, {88, 0}, {100, 0x0C}, {100, 0x08},
                                       {100, 0x10}, {110, 0}, {110, 0x10}, {122, 0}, {122, 0x10}, {244, 0}, {244, 0x10},
                                       {44, 0x10}, {7, 0}})
    avc += avc_profile_name(uint8_t(profile), uint8_t(flags)) + ", ";
  EXPECT_EQ(avc, "Constrained Baseline, Baseline, Main, Extended, Constrained High, Progressive High, High, High 10, "
                 "High 10 Intra, High 4:2:2, High 4:2:2 Intra, High 4:4:4 Predictive, High 4:4:4 Intra, "
                 "CAVLC 4:4:4 Intra, profile 7, ");
  for (uint8_t profile = 1; profile <= 12; ++profile) hevc += hevc_profile_name(profile, 0) + ", ";
  EXPECT_EQ(hevc + hevc_profile_name(0, 0x20000000) + ", " + hevc_profile_name(0, 0x00100000) + ", " +
                hevc_profile_name(0, 0),
            "Main, Main 10, Main Still Picture, Format Range Extensions, High Throughput, Multiview Main, Scalable "
            "Main, 3D Main, Screen Content Coding, Scalable Format Range Extensions, High Throughput Screen Content "
            "Coding, profile 12, Main 10, High Throughput Screen Content Coding, profile 0");
  EXPECT_EQ(hevc_level_name(0) + " " + hevc_level_name(61) + " " + hevc_level_name(63) + " " + hevc_level_name(90) +
                " " + hevc_level_name(186), "level_idc 0 level_idc 61 2.1 3 6.2");
  EXPECT_EQ(avc_level_name(9, 100, 0) + " " + avc_level_name(11, 66, 0x10) + " " + avc_level_name(11, 100, 0x10) + " " +
                avc_level_name(11, 77, 0) + " " + avc_level_name(10, 66, 0) + " " + avc_level_name(31, 66, 0) + " " +
                avc_level_name(11, 88, 0x10),
            "1b 1b 1.1 1.1 1.0 3.1 1b");
  EXPECT_EQ(chroma_format_name(0) + " " + chroma_format_name(1) + " " + chroma_format_name(2) + " " +
                chroma_format_name(3), "4:0:0 4:2:0 4:2:2 4:4:4");
  std::string aac;
  for (const int type : {1, 2, 3, 4, 5, 29, 0}) aac += aac_object_name(type) + ", ";
  EXPECT_EQ(aac, "AAC Main, AAC LC, AAC SSR, AAC LTP, HE-AAC (SBR), HE-AAC v2 (PS), audio object type 0, ");
  const uint8_t bytes[] = {0x0F, 0xF0, 0xAB};
  EXPECT_EQ(hex_bytes(bytes, sizeof bytes), "0ff0ab");
  // Each library code by its own name.
#define NAMED(code) std::pair<uint64_t, std::string>(code, #code)
  for (const auto& [code, name] :
       {NAMED(BOXLANE_ERROR_PARSE_PARAMETER), NAMED(BOXLANE_ERROR_PARSE_MALLOC), NAMED(BOXLANE_ERROR_PARSE_NOTFOUND),
        NAMED(BOXLANE_ERROR_PARSE_NODATA), NAMED(BOXLANE_ERROR_PARSE_NOTREADY), NAMED(BOXLANE_ERROR_PARSE_BUFFER),
        NAMED(BOXLANE_ERROR_PARSE_LIMIT), NAMED(RENDAVO_ERROR_TASKPOOL_PARAMETER), NAMED(RENDAVO_ERROR_TASKPOOL_TIMEOUT),
        NAMED(RENDAVO_ERROR_TASKPOOL_MALLOC), NAMED(RENDAVO_ERROR_TASKPOOL_CLOSED)})
    EXPECT_EQ(error_name(code).substr(0, error_name(code).find(' ')), name);
#undef NAMED
  EXPECT_EQ(error_name(0x091B00FF), "unknown code");
}

}  // namespace
}  // namespace boxlane::test
