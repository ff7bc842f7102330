// `boxlane probe` as a user runs it: JSON and text against ffprobe on files from FFmpeg and our writer. Its
// errors, its marks and its answers for every way of cutting the input are in the transcript (transcript.sh).
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"
#include "tools/common/json_writer.hpp"
#include "tools/common/names.hpp"
#include "tools/probe/model.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
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
  EXPECT_EQ(std::tuple(ours["tracks.0.codec.truncated"], ours["tracks.0.complete"], ours["complete"]),
            std::tuple("true", "false", "false"));
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

// AudioSpecificConfig (ISO/IEC 14496-3 §1.6.2.1), bits written out by hand: the escaped object type (31, then
// 6 bits more: 32 + 10 = 42) and the explicit 24-bit rate of frequency index 15; a cut config reads as none.
TEST(ProbeAudioConfig, EscapedObjectTypeAndExplicitRate) {
  const struct {
    const char* hex;
    tool::AudioConfig want;
  } cases[] = {
      {"11 90", {true, 2, 48000, 2}}, {"13 88", {true, 2, 22050, 1}}, {"F9 46 40", {true, 42, 48000, 2}},
      {"17 80 2A F8 08", {true, 2, 22000, 1}}, {"17 80 2A F8", {false, 0, 0, 0}},
      // Frequency index 13, reserved: no rate. Then indexes 0 to 12 of ISO/IEC 14496-3 Table 1.18, AAC LC stereo.
      {"16 90", {true, 2, 0, 2}}, {"10 10", {true, 2, 96000, 2}}, {"10 90", {true, 2, 88200, 2}},
      {"11 10", {true, 2, 64000, 2}}, {"12 10", {true, 2, 44100, 2}}, {"12 90", {true, 2, 32000, 2}},
      {"13 10", {true, 2, 24000, 2}}, {"13 90", {true, 2, 22050, 2}}, {"14 10", {true, 2, 16000, 2}},
      {"14 90", {true, 2, 12000, 2}}, {"15 10", {true, 2, 11025, 2}}, {"15 90", {true, 2, 8000, 2}},
      {"16 10", {true, 2, 7350, 2}},
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

// Table rows of the widest numbers (a row of three is 38 bytes), with a short one now and then so that rows end
// at every place of the 64 KiB blocks: each row asks for room enough before it is formatted in place.
TEST(ProbeJson, TableRowsOfTheWidestNumbersAcrossBlocks) {
  std::vector<uint32_t> rows(30000, UINT32_MAX);
  for (std::size_t i = 0; i < rows.size(); i += 7) rows[i] = 7;
  for (const int width : {1, 2, 3}) {
    std::string out;
    {
      tool::JsonWriter json(out);
      json.table(rows, width, [](uint32_t v, int) { return v; });
    }
    std::string expected = "[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
      std::string row = std::to_string(rows[i]);
      for (int c = 1; c < width; ++c) row += ", " + std::to_string(rows[i]);
      expected += (i ? ", " : "") + (width > 1 ? "[" + row + "]" : row);
    }
    EXPECT_EQ(out, expected + "]") << width;
  }
}

// A --samples column of 64-bit times and offsets (a tfdt past 2^32 ticks, a sample past 4 GiB) keeps every digit.
// Bytes that do not form UTF-8 (here lead bytes before an ASCII one, or at the end) are taken as Latin-1; UTF-8 stays
// as it is, U+FFFD (lead byte EF) too.
TEST(ProbeJson, SixtyFourBitColumnsAndBytesThatDoNotFormUtf8) {
  const uint64_t wide[] = {4294967295u, 4294967296u, UINT64_MAX};
  const int64_t signed_wide[] = {-4294967297, INT64_MAX};
  std::string out;
  {
    tool::JsonWriter json(out);
    json.column(3, [&](std::size_t i) { return wide[i]; });
    json.column(2, [&](std::size_t i) { return signed_wide[i]; });
    json.string("\xC3" "A \xC3\xA9 \xEF\xBF\xBD \xE2\x82" "A");
    json.string(std::string_view("\xE2\x82\xAC", 2));  // the view ends before the sequence does
  }
  EXPECT_EQ(out, "[4294967295, 4294967296, 18446744073709551615][-4294967297, 9223372036854775807]"
                 "\"\xC3\x83" "A \xC3\xA9 \xEF\xBF\xBD \xC3\xA2\xC2\x82" "A\"\"\xC3\xA2\xC2\x82\"");
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
  // ISO 639-2/T letters packed in 5 bits each from 0x60; a letter outside a-z gives the number.
  EXPECT_EQ(language_text(0x55C4) + " " + language_text(0) + " " + language_text(0x6B5A) + " " + language_text(0x6C21),
            "und code 0 zzz code 27681");
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
