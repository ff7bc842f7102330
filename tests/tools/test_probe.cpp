// `boxlane probe` run as a user runs it: its JSON and text against ffprobe
// on files from FFmpeg and from our own writer, against itself for every
// way of cutting the input, its marks of what the parser's rules leave out,
// and its errors.
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/probe_json.hpp"
#include "tools/common/json_writer.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <sstream>
#include <string>
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

// Node's JSON.parse, a strict reader apart from ours (it refuses NaN, stray
// control bytes and leading zeros), and iconv for the UTF-8 of the bytes.
void expect_valid_json(const std::string& text) {
  const std::string path = binary_dir() + "/test-tmp/doc." + std::to_string(getpid()) + ".json";
  write_file(path, {text.begin(), text.end()});
  EXPECT_EQ(run("node -e 'JSON.parse(require(\"fs\").readFileSync(process.argv[1], \"utf8\"))' " + shell_quote(path) +
                " 2>&1 && iconv -f UTF-8 -t UTF-8 " + shell_quote(path) + " >/dev/null 2>&1"),
            0)
      << text.substr(0, 2000);
}

std::string sorted_lines(std::vector<std::string> lines) {
  std::sort(lines.begin(), lines.end());
  std::string all;
  for (const auto& line : lines) all += line + "\n";
  return all;
}

std::string integer(double v) { return std::to_string(static_cast<long long>(std::floor(v))); }

// What ffprobe reads of a stream, as "key=value" lines, with the edit lists
// ignored (the parser reports the media as stored), and its packets' bytes,
// key flags and 1-based key packet numbers.
std::string ffprobe_view(const std::string& file, char kind) {
  std::string text;
  run("ffprobe -v error -ignore_editlist 1 -select_streams " + std::string(1, kind) + " -show_entries stream="
      "codec_tag_string,profile,level,width,height,channels,sample_rate,nb_frames,duration_ts,duration,time_base,"
      "bit_rate:stream_tags=language,handler_name -of default=nw=1 " + shell_quote(file), &text);
  std::vector<std::string> lines;
  std::istringstream rows(text);
  for (std::string line; std::getline(rows, line);) lines.push_back(line);
  double bytes = 0, keys = 0;
  std::string sync;
  const auto packets = probe_packets(file, kind, true);
  for (const auto& packet : packets) {
    bytes += double(packet.size), keys += packet.key;
    if (packet.key) sync += " " + std::to_string(&packet - packets.data() + 1);
  }
  lines.insert(lines.end(), {"bytes=" + integer(bytes), "keys=" + integer(keys), "packets=" + integer(packets.size()),
                             "sync=" + sync});
  return sorted_lines(lines);
}

// The same from probe's JSON report of the track.
std::string probe_view(const Json& t) {
  const Json& c = t["codec"];
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%.6f", t["duration_seconds"].num());
  std::string sync;
  for (const Json& number : t["tables"]["stss"].items) sync += " " + integer(number.num());
  for (int i = 1; t["all_sync"].flag && i <= t["sample_count"].num(); ++i) sync += " " + std::to_string(i);
  std::vector<std::string> lines{
      "TAG:handler_name=" + t["handler_name"].text, "TAG:language=" + t["language"].text,
      "codec_tag_string=" + c["fourcc"].text, "nb_frames=" + integer(t["sample_count"].num()),
      "packets=" + integer(t["sample_count"].num()), "duration_ts=" + integer(t["duration"].num()),
      "duration=" + std::string(seconds), "time_base=1/" + integer(t["timescale"].num()),
      // ffprobe's bit rate is the same sum over the mdhd duration, cut to an integer.
      "bit_rate=" + integer(t["bit_rate"].num()), "bytes=" + integer(t["sample_bytes"].num()),
      "keys=" + integer(t["key_frames"].num()), "sync=" + sync};
  if (t["handler"].text == "vide") {
    // The sample entry's and the track header's sizes, one line when they agree.
    for (const char* side : {"width", "height"})
      lines.push_back(side + ("=" + integer(c[side].num())) +
                      (c[side].num() == t[side].num() ? "" : " tkhd " + integer(t[side].num())));
    lines.insert(lines.end(), {"profile=" + c["profile_name"].text, "level=" + integer(c["level"].num())});
  } else {
    const std::string name = c["audio_object_name"].text;
    lines.insert(lines.end(), {"profile=" + name.substr(name.rfind(' ') + 1),
                               "channels=" + integer(c["config_channels"].num()),
                               "sample_rate=" + integer(c["config_sample_rate"].num())});
  }
  return sorted_lines(lines);
}

// Every track's --samples columns equal ffprobe's packets in size, offset
// and key flag, and in decode and composition time relative to the track's
// first sample and least composition offset.
void expect_samples_like_ffprobe(const Json& report, const std::string& file) {
  const auto packets = packets_by_track(file);
  ASSERT_EQ(report["tracks"].items.size(), packets.size());
  for (const Json& track : report["tracks"].items) {
    const std::vector<PacketRow>& want = packets.at(static_cast<int32_t>(track["id"].num()));
    const Json& s = track["samples"];
    EXPECT_EQ(track["sample_count"].num(), double(want.size()));
    ASSERT_EQ(s["size"].items.size(), want.size());
    const auto at = [&](const char* column, std::size_t i) { return int64_t(s[column].items.at(i).num()); };
    std::vector<std::array<int64_t, 6>> mine, theirs;
    for (std::size_t i = 0; i < want.size(); ++i) {
      const bool last = i + 1 == want.size();
      mine.push_back({at("decode_time", i) - at("decode_time", 0), at("composition_time", i) - at("decode_time", i),
                      last ? 0 : at("duration", i), at("size", i), at("offset", i), s["sync"].items.at(i).flag});
      theirs.push_back({want[i].dts - want[0].dts, want[i].pts - want[i].dts, last ? 0 : want[i + 1].dts - want[i].dts,
                        want[i].size, want[i].pos, want[i].key});
    }
    for (auto* rows : {&mine, &theirs}) {
      int64_t least = INT64_MAX;
      for (const auto& row : *rows) least = std::min(least, row[1]);
      for (auto& row : *rows) row[1] -= least;
    }
    EXPECT_EQ(mine, theirs) << "track " << track["id"].num();
  }
}

// probe's JSON and text agree with ffprobe: the file type, every sample and,
// unless the file is fragmented, every track's stream values; the text report
// is returned.
std::string expect_agrees_with_ffprobe(const std::string& file, bool fragmented) {
  SCOPED_TRACE(file);
  std::string json_text, text, ff_text, kinds, streams;
  EXPECT_EQ(probe("--json --samples " + shell_quote(file), &json_text), 0);
  expect_valid_json(json_text);
  EXPECT_EQ(probe("--samples " + shell_quote(file), &text), 0);
  const Json mine = parse_json(json_text).value_or(Json{});
  expect_samples_like_ffprobe(mine, file);
  run("ffprobe -v error -show_entries format_tags=major_brand,minor_version,compatible_brands -of default=nw=1 " +
          shell_quote(file), &ff_text);
  std::string brands = "TAG:major_brand=" + mine["file_type"]["major_brand"].text + "\nTAG:minor_version=" +
                       integer(mine["file_type"]["minor_version"].num()) + "\nTAG:compatible_brands=";
  for (const Json& brand : mine["file_type"]["compatible_brands"].items) brands += brand.text;
  EXPECT_EQ(brands + "\n", ff_text);
  for (const Json& t : mine["tracks"].items) {
    const bool video = t["handler"].text == "vide";
    kinds += video ? "video\n" : "audio\n";
    if (!fragmented) {
      EXPECT_EQ(probe_view(t), ffprobe_view(file, video ? 'v' : 'a'));
    }
    EXPECT_TRUE(t["consistency"]["consistent"].flag && t["complete"].flag);
    char says[160];
    std::snprintf(says, sizeof says, "  bit rate:    %.1f kbit/s (%.0f bytes of samples)\n", t["bit_rate"].num() / 1000,
                  t["sample_bytes"].num());
    EXPECT_NE(text.find(says), std::string::npos) << says << " in " << text;
  }
  run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 " + shell_quote(file), &streams);
  EXPECT_EQ(kinds, streams);
  return text;
}

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
        "  tables:      agree: 50 samples timed (stts), 50 sized (stsz), 50 placed in"}},
      {fast_start_, {"  codec:       mp4a, AAC LC, 2 channels, 48000 Hz\n"}},
      {out + "1.mp4", {"\ntrack 1: video (handler 'vide', \"VideoHandler\")\n", ", language und\n"}},
      // H.265 at 10 bits from our writer.
      {out + "2.mp4", {"hvc1, H.265 Main 10 profile, Main tier, level 2, 4:2:0, 10-bit, 200x120, 4-byte NAL lengths, "
                       "1 VPS, 1 SPS, 1 PPS\n"}},
      {out + "3.mp4", {"form:        progressive, 1 box with a 64-bit size"}},
      {fragmented_, {"form:        fragmented, ", "  samples:     50, 5 key frames\n", "\ntrack 1 samples: 50 "
                     "(decode_time composition_time duration size offset, K: sync)\n         1: "}, true},
      {moov_and_fragments_, {"form:        fragmented, "}, true},
  };
  for (const auto& c : cases) {
    const std::string text = expect_agrees_with_ffprobe(c.file, c.fragmented);
    for (const auto& says : c.says) EXPECT_NE(text.find(says), std::string::npos) << says << " in " << text;
  }
  // --strict reads every table before the 64-bit mdat and says where it stopped.
  const Json strict = probe_json("--strict --samples " + shell_quote(out + "3.mp4"));
  expect_samples_like_ffprobe(strict, out + "3.mp4");
  EXPECT_EQ(strict["stream_stop"]["box"].text, "mdat");
}

// The same report however the input comes: in pieces of any size, through
// several pools, through a pipe (which cannot seek, so mdat payloads are read
// and thrown away there); an upper-case MDAT is skipped all the same.
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
          probe + "--pools 4 --piece 300 " + file, "cat " + file + " | " + probe + "--piece 999 -",
          probe + "--piece 999 " + shell_quote(name == moov_last_ ? upper_file : name)}) {
      EXPECT_EQ(run(command, &again), 0) << command;
      EXPECT_EQ(again, whole) << command;
    }
  }
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
      {"cut_in_mdat.mp4", {fast.begin(), fast.begin() + long(mdat.offset) + 100},
       "truncated: box 'mdat'" + at(mdat.offset) + " declares " + std::to_string(mdat.size) + " bytes, 100 present"},
      {"huge_box.mp4", cat({Bytes().u32(0x7F000000).str("junk").zeros(3000)}), "0x091B0006"},
      // The 64-bit mdat is followed, and nothing else is there.
      {"large_size.mp4", cat({ftyp, Bytes().u32(1).str("mdat").u64(48).zeros(32)}), "no movie header (moov/mvhd) in 68 bytes"},
      {"size_four.mp4", cat({ftyp, Bytes().u32(4).str("free").zeros(20)}), "0x091B0007 BOXLANE_ERROR_PARSE_MALFORMED"},
      {"child_past_parent.mp4", cat({ftyp, box("moov", box("udta", Bytes().zeros(8), 500)), box("free", Bytes().zeros(8))}),
       "the parser still waits for the end of a box"},
      {"empty.mp4", {}, "empty input"},
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
  // Options at their limits are taken; one past them is bad usage.
  std::string out;
  for (const std::string good : {"--pools 64", "--piece 67108864", "--random-pieces 67108864 --seed 0"})
    EXPECT_EQ(probe(good + " " + shell_quote(fast_start_) + " 2>&1", &out), 0) << good << ": " << out;
  for (const std::string bad : {"", "--piece 0 x.mp4", "--bogus x.mp4", "--seed 3 x.mp4", "a.mp4 b.mp4", "--pools 65 x.mp4",
                                "--pools 0 x.mp4", "--piece 67108865 x.mp4", "--random-pieces 0 x.mp4"}) {
    EXPECT_EQ(probe(bad + " 2>&1", &out), 2) << bad;
    EXPECT_NE(out.find("usage: boxlane probe"), std::string::npos) << bad;
  }
}

// A movie of one 10-sample video track at 1000 ticks a second in 3 chunks of
// 4 samples whose stsz and stss are given; its handler name holds JSON's
// special characters and a byte that is not UTF-8.
Bytes movie_with_tables(const Bytes& stsz, const Bytes& stss) {
  const Bytes mvhd = full_box("mvhd", 0, 0, Bytes().u32(7).u32(8).u32(1000).u32(10000).u32(0x10000).u16(0x100)
                                                .zeros(10 + 36 + 24).u32(2));
  const Bytes tkhd = full_box("tkhd", 0, 3, Bytes().u32(3).u32(4).u32(1).u32(0).u32(10000).zeros(8).u16(1).u16(2)
                                                .u16(0x100).zeros(38).u32(64 << 16).u32(48 << 16));
  const Bytes mdhd = full_box("mdhd", 0, 0, Bytes().u32(5).u32(6).u32(1000).u32(10000).u16(0x55C4).u16(0));
  const Bytes hdlr = full_box("hdlr", 0, 0, Bytes().u32(0).str("vide").zeros(12).str("T\"\\\n\xFF").u8(0));
  const Bytes stts = full_box("stts", 0, 0, Bytes().u32(1).u32(10).u32(1000));
  const Bytes stsc = full_box("stsc", 0, 0, Bytes().u32(1).u32(1).u32(4).u32(1));
  const Bytes stco = full_box("stco", 0, 0, Bytes().u32(3).u32(1000).u32(1400).u32(1800));
  const Bytes stbl = box("stbl", cat({stts, stss, stsc, stsz, stco}));
  const Bytes trak = box("trak", cat({tkhd, box("mdia", cat({mdhd, hdlr, box("minf", stbl)}))}));
  return cat({box("ftyp", Bytes().str("isom").u32(0)), box("moov", cat({mvhd, trak})), box("mdat", Bytes().zeros(16))});
}

TEST_F(ProbeTool, PointsOutTablesThatDisagree) {
  const std::string dir = temp_dir() + "/";
  // A sync sample named twice is out of order too; the last stsc entry runs
  // to the last chunk, so 3 chunks of 4 hold 12 samples.
  Bytes sizes = Bytes().u32(0).u32(9);
  for (int i = 0; i < 9; ++i) sizes.u32(100);
  write_file(dir + "twice.mp4", movie_with_tables(full_box("stsz", 0, 0, sizes),
                                                  full_box("stss", 0, 0, Bytes().u32(2).u32(3).u32(3))));
  const Json twice = probe_json(shell_quote(dir + "twice.mp4"))["tracks"].items.at(0);
  std::string problems, text;
  for (const Json& problem : twice["consistency"]["problems"].items) problems += problem.text + "|";
  EXPECT_EQ(problems, "stts counts 10 samples but stsz lists 9 sizes|the stco chunks hold 12 samples (through stsc) "
                      "but stts counts 10|stss names sample 3, out of order or past the 10 samples|");
  EXPECT_EQ(twice["handler_name"].text, "T\"\\\n\xC3\xBF");
  // The last sample may be a sync sample: only the chunks disagree.
  write_file(dir + "last.mp4", movie_with_tables(full_box("stsz", 0, 0, Bytes().u32(100).u32(10)),
                                                 full_box("stss", 0, 0, Bytes().u32(1).u32(10))));
  const Json last = probe_json(shell_quote(dir + "last.mp4"))["tracks"].items.at(0)["consistency"]["problems"];
  ASSERT_EQ(last.items.size(), 1u);
  EXPECT_EQ(last.items[0].text, "the stco chunks hold 12 samples (through stsc) but stts counts 10");

  // One size for every sample, no stss: 10 samples of 100 bytes in 10 s,
  // the whole text report with its tables.
  const std::string constant = dir + "constant.mp4";
  write_file(constant, movie_with_tables(full_box("stsz", 0, 0, Bytes().u32(100).u32(10)), Bytes()));
  ASSERT_EQ(probe("--tables " + shell_quote(constant), &text), 0);
  EXPECT_EQ(text.erase(text.find("  codec:"), text.find("  dimensions:") - text.find("  codec:")),
            constant + ": 450 bytes\nfile type:   isom, minor version 0\n"
            "movie:       10.000 s (duration 10000 at time scale 1000), 1 track\nform:        progressive\n\n"
            "track 1: video (handler 'vide', \"T\"\\x5C\\x0A\\xFF\")\n  dimensions:  64x48\n  time scale:  1000\n"
            "  duration:    10.000 s (10000), language und\n"
            "  samples:     10, 10 key frames (no stss: every sample is a sync sample)\n  frame rate:  1.000 frames/s\n"
            "  bit rate:    0.8 kbit/s (1000 bytes of samples)\n  tables:      DISAGREE, this file is inconsistent:\n"
            "    ! the stco chunks hold 12 samples (through stsc) but stts counts 10\n\ntrack 1 tables:\n"
            "  stts: 1 entry (sample_count sample_delta)\n         1: 10 1000\n"
            "  ctts: 0 entries (sample_count sample_offset)\n"
            "  stsc: 1 entry (first_chunk samples_per_chunk sample_description_index)\n         1: 1 4 1\n"
            "  stsz: sample_size 100 for each of 10 samples\n"
            "  stco: 3 entries (chunk_offset)\n         1: 1000\n         2: 1400\n         3: 1800\n"
            "  stss: 0 entries (sample_number)\n  sdtp: 0 entries (flags byte)\n");
  ASSERT_EQ(probe("--json --boxes " + shell_quote(constant), &text), 0);
  const Json same = parse_json(text).value_or(Json{});
  std::string movie;
  for (const Json& v : same["movie"].members) movie += std::to_string(v.num()).substr(0, 8) + " ";
  EXPECT_EQ(movie, "1000.000 10000.00 10.00000 65536.00 256.0000 2.000000 7.000000 8.000000 ");
  EXPECT_EQ(same["tracks"].items.at(0)["bit_rate"].num(), 800);
  for (const char* line : {"\"tkhd\": {\"creation_time\": 3, \"modification_time\": 4, \"duration\": 10000, \"layer\": 1, "
                           "\"alternate_group\": 2, \"volume\": 256},\n      \"mdhd\": {\"creation_time\": 5, "
                           "\"modification_time\": 6, \"language_code\": 21956},",
                           "\"constant_sample_size\": {\"size\": 100, \"count\": 10}",
                           "{\"type\": \"tkhd\", \"code\": 311, \"offset\": 140, \"size\": 92, \"depth\": 2, "
                           "\"version\": 0, \"flags\": 3},"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in " << text;
}

// The first occurrence of a fourcc in a file, as the offset of its box.
std::size_t box_at(const std::vector<uint8_t>& file, const char* type, std::size_t from = 0) {
  const std::size_t at = std::string(file.begin(), file.end()).find(type, from);
  EXPECT_NE(at, std::string::npos) << type;
  return at - 4;
}

uint32_t get32(const std::vector<uint8_t>& file, std::size_t at) {
  return uint32_t{file.at(at)} << 24 | uint32_t{file.at(at + 1)} << 16 | uint32_t{file.at(at + 2)} << 8 | file.at(at + 3);
}

void put32(std::vector<uint8_t>& file, std::size_t at, uint32_t v) {
  for (std::size_t i = 0; i < 4; ++i) file.at(at + i) = uint8_t(v >> (24 - 8 * i));
}

// Every value the parser's rules keep from the report is marked at the
// report and at the track it belongs to, in text and JSON alike, in either
// client mode, and probe still exits 0; what is whole is not marked.
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
    put32(b, moov, get32(b, moov) + 16);
  });
  const auto large_mdat = widen_mdat(fast), fragmented = read_file(fragmented_);
  const std::string mdat_at = std::to_string(box_at(large_mdat, "mdat")), end_at = std::to_string(fast.size());
  const Bytes size_four = Bytes().u32(4).str("free").zeros(4);
  const auto with_id = [&](uint32_t id) {
    return changed([&](std::vector<uint8_t>& b) { put32(b, box_at(b, "tkhd", box_at(b, "tkhd") + 8) + 20, id); });
  };
  const auto with_brands = [&](uint32_t count) {  // probe reads at most 4096
    Bytes ftyp = Bytes().str("isom").u32(512);
    for (uint32_t i = 0; i < count; ++i) ftyp.str(i % 2 ? "avc1" : "mp41");
    return cat({box("ftyp", ftyp), {fast.begin() + get32(fast, 0), fast.end()}});
  };
  const std::string brands = "(ftyp) lists 4097 compatible brands, more than probe reads (4096)";
  const std::string unread = "which --strict does not read: their samples are not counted";
  const std::string moov_stop = "the parser stopped inside the movie box (at offset " + std::to_string(second_trak) + ")";
  const std::string trak_at = "box 'trak' at offset " + std::to_string(second_trak) + " is larger";

  struct Marks {  // missing at the top, at track 1 and at track 2; tracks listed
    std::vector<std::string> report = {}, track1 = {}, track2 = {};
    std::size_t tracks = 2;
  };
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    Marks extended, strict;
  } cases[] = {
      {"whole.mp4", fast, {}, {}},
      {"fragmented.mp4", fragmented, {}, {{"movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
      {"one_fragment.mp4", cat({fast, box("moof", full_box("mfhd", 0, 0, Bytes().u32(1)))}), {},
       {{"1 movie fragment (moof) is not read with --strict"}, {"the file has 1 movie fragment (moof), " + unread},
        {unread}}},
      {"co64.mp4", with_co64(read_file(moov_last_)), {},
       {{}, {"no chunk offsets: they are 64-bit (co64), which --strict does not read"}, {"(co64), which --strict"}}},
      {"description_2.mp4", changed([&](std::vector<uint8_t>& b) { put32(b, box_at(b, "stsc") + 24, 2); }),
       {{}, {"stsc gives samples sample description 2, but the parser hands out only the first"}},
       {{}, {"sample description 2"}}},
      {"brands_at_cap.mp4", with_brands(4096), {}, {}},
      {"brands_past_cap.mp4", with_brands(4097), {{brands}}, {{brands}}},
      // An mdat that ends the file loses nothing however its size is given;
      // another box of size 0 may hold what was not read.
      {"large_mdat.mp4", large_mdat, {}, {}},
      {"zero_mdat.mp4", changed([&](std::vector<uint8_t>& b) { put32(b, box_at(b, "mdat"), 0); }), {}, {}},
      {"zero_free.mp4", cat({fast, box("free", Bytes().zeros(8), 0)}),
       {{"reading stopped early: box 'free' at offset " + end_at + " has size 0"}},
       {{"box 'free' at offset " + end_at + " has size 0"}}},
      {"large_mdat_then_free.mp4", cat({large_mdat, box("free", Bytes().zeros(8))}), {},
       {{"reading stopped early: box 'mdat' at offset " + mdat_at + " has a 64-bit size, which --strict does not follow"}}},
      {"nested_large.mp4", nested_large, {},
       {{"box 'free' at offset " + std::to_string(second_trak) + " has a 64-bit size"}, {moov_stop}, {}, 1}},
      {"nested_huge.mp4", changed([&](std::vector<uint8_t>& b) { put32(b, second_trak, 0x10000001); }),
       {{trak_at + " than the parser takes: the parser stopped there (0x091B0006 BOXLANE_ERROR_PARSE_NOTSUPPORT"},
        {moov_stop}, {}, 1},
       {{trak_at}, {moov_stop}, {}, 1}},
      // A stop after the movie keeps nothing from a progressive file's
      // tracks; a fragmented file's may lack fragments.
      {"size_four.mp4", cat({fast, size_four}),
       {{"box 'free' at offset " + end_at + " has a size below its own header: the parser stopped there (0x091B0007 "
         "BOXLANE_ERROR_PARSE_MALFORMED"}},
       {{"has a size below its own header"}}},
      {"fragmented_size_four.mp4", cat({fragmented, size_four}),
       {{"has a size below its own header"},
        {"movie fragments after offset " + std::to_string(fragmented.size()) + " are not counted: reading stopped there"},
        {"movie fragments after offset"}},
       {{"has a size below its own header", "movie fragments (moof) are not read with --strict"}, {unread}, {unread}}},
  };
  const auto joined = [](const Json& list) {
    std::string all;
    for (const Json& gap : list.items) all += gap.text + "|";
    return all;
  };
  for (const auto& c : cases) {
    write_file(dir + c.name, c.bytes);
    for (const bool strict : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (strict ? " --strict" : ""));
      const Marks& want = strict ? c.strict : c.extended;
      const std::string args = (strict ? "--strict " : "") + shell_quote(dir + c.name);
      std::string text;
      ASSERT_EQ(probe(args, &text), 0);
      const Json doc = probe_json(args);
      const bool whole = want.report.empty() && want.track1.empty() && want.track2.empty();
      EXPECT_EQ(doc["complete"].flag, whole);
      EXPECT_EQ(text.find("INCOMPLETE") == std::string::npos, whole) << text;
      const std::string report_missing = joined(doc["missing"]);
      EXPECT_EQ(report_missing.empty(), want.report.empty()) << report_missing;
      for (const auto& says : want.report) {
        EXPECT_NE(report_missing.find(says), std::string::npos) << says << " in " << report_missing;
        const std::size_t at = text.find(says);
        EXPECT_EQ(text.compare(text.rfind('\n', at) + 1, 13, "INCOMPLETE:  "), 0) << says << " in " << text;
      }
      const auto& tracks = doc["tracks"].items;
      ASSERT_EQ(tracks.size(), want.tracks);
      for (std::size_t i = 0; i < tracks.size(); ++i) {
        const auto& wanted = i == 0 ? want.track1 : want.track2;
        const std::string missing = joined(tracks[i]["missing"]);
        EXPECT_EQ(tracks[i]["complete"].flag, wanted.empty()) << missing;
        for (const auto& says : wanted) EXPECT_NE(missing.find(says), std::string::npos) << says << " in " << missing;
        // The text says it at the track: its heading, then one line per gap.
        const std::size_t heading = text.find("\ntrack " + std::to_string(int(tracks[i]["id"].num())) + ": ");
        ASSERT_NE(heading, std::string::npos);
        const std::string block = text.substr(heading, text.find("\n  codec:", heading) - heading);
        EXPECT_EQ(block.find(", INCOMPLETE\n  missing:     ") != std::string::npos, !wanted.empty()) << block;
      }
    }
  }
  // --strict names the ids GetTrack leaves out: 10, and not 9.
  for (const uint32_t id : {9u, 10u}) {
    std::string text;
    write_file(dir + "id.mp4", with_id(id));
    ASSERT_EQ(probe("--strict " + shell_quote(dir + "id.mp4"), &text), 0);
    EXPECT_EQ(text.find("track id " + std::to_string(id) + " lies outside 0 to 9") != std::string::npos, id == 10) << text;
    EXPECT_NE(text.find("\ntrack " + std::to_string(id) + ": audio"), std::string::npos) << text;
  }
}

// Any bytes and numbers become valid JSON, in a document larger than the
// writer's block.
TEST(JsonWriter, AnyBytesAndNumbersBecomeValidJson) {
  const std::string ascii("q\"b\\s/\x01\x1f\x7f\n\t", 11), utf8 = "\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E", nul(1, '\0');
  // Not UTF-8: a lone byte, an overlong form, a cut sequence, an overlong
  // three-byte form, a surrogate, a code point past U+10FFFF.
  const std::string broken = "\xFF\xC0\x80\xE2\x82\xE0\x80\x80\xED\xA0\x80\xF4\x90\x80\x80", long_text(200000, 'x');
  // Tables are formatted by hand: both sides of every digit count.
  std::vector<uint32_t> column{0};
  for (uint64_t power = 10; power <= 1000000000; power *= 10)
    column.insert(column.end(), {uint32_t(power - 1), uint32_t(power)});
  column.push_back(4294967295u);
  std::string out;
  tool::JsonWriter json(out);
  json.begin_object();
  json.member("text", std::string_view(ascii + utf8 + broken + nul));
  json.key("row");
  json.begin_array(true);
  json.real(std::nan(""));
  json.real(2.5);
  json.number(int64_t{-7});
  json.end_array();
  json.key("column");
  json.table(column, 1, [](uint32_t v, int) { return v; });
  json.key("pairs");
  const std::vector<std::pair<uint32_t, uint32_t>> pairs{{1, 20}};
  json.table(pairs, 2, [](const auto& p, int i) { return i ? p.second : p.first; });
  json.member("long", std::string_view(long_text));
  json.end_object();
  json.flush();
  expect_valid_json(out);
  const auto doc = parse_json(out);
  ASSERT_TRUE(doc) << out.substr(0, 2000);
  // Bytes that are not UTF-8 come back as the Latin-1 letters they would be.
  EXPECT_EQ((*doc)["text"].text, ascii + utf8 + "\xC3\xBF\xC3\x80\xC2\x80\xC3\xA2\xC2\x82\xC3\xA0\xC2\x80\xC2\x80"
                                 "\xC3\xAD\xC2\xA0\xC2\x80\xC3\xB4\xC2\x90\xC2\x80\xC2\x80" + nul);
  EXPECT_EQ((*doc)["long"].text, long_text);
  EXPECT_NE(out.find("\"row\": [null, 2.5, -7],\n  \"column\": [0, 9, 10, 99, 100, 999, 1000, 9999, 10000, 99999, 100000, "
                     "999999, 1000000, 9999999, 10000000, 99999999, 100000000, 999999999, 1000000000, 4294967295],\n"
                     "  \"pairs\": [[1, 20]],\n"),
            std::string::npos)
      << out.substr(0, 2000);
}

}  // namespace
}  // namespace boxlane::test
