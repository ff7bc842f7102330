// `boxlane probe` run as a user runs it: its JSON is checked against ffprobe
// on files from FFmpeg and from our own writer, against itself for every way
// of cutting the input, and its errors against offsets read straight from
// the file bytes.
#include "support/box_builder.hpp"
#include "support/paths.hpp"
#include "tools/json_writer.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace boxlane::test {
namespace {

// A strict reader for the JSON that probe and ffprobe print: anything that
// is not RFC 8259 JSON fails, so a stray byte in probe's output shows.
struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  bool flag = false;
  double number = 0;
  std::string text;
  std::vector<Json> items;
  std::vector<std::pair<std::string, Json>> members;

  const Json& operator[](std::string_view key) const {
    static const Json missing;
    for (const auto& [name, value] : members)
      if (name == key) return value;
    return missing;
  }
  const Json& operator[](std::size_t i) const {
    static const Json missing;
    return i < items.size() ? items[i] : missing;
  }
  // ffprobe prints some numbers as strings.
  double num() const { return kind == kString ? std::stod(text) : number; }
};

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : t_(text) {}

  std::optional<Json> document() {
    Json v;
    if (!value(v, 0)) return std::nullopt;
    space();
    if (i_ != t_.size()) return std::nullopt;
    return v;
  }

 private:
  void space() {
    while (i_ < t_.size() && (t_[i_] == ' ' || t_[i_] == '\n' || t_[i_] == '\r' || t_[i_] == '\t')) ++i_;
  }
  bool eat(char c) {
    space();
    if (i_ < t_.size() && t_[i_] == c) return ++i_, true;
    return false;
  }
  bool word(std::string_view w) {
    if (t_.substr(i_, w.size()) != w) return false;
    i_ += w.size();
    return true;
  }
  bool value(Json& v, int depth) {
    if (depth > 64) return false;
    space();
    if (i_ >= t_.size()) return false;
    const char c = t_[i_];
    if (c == '{') {
      v.kind = Json::kObject;
      ++i_;
      if (eat('}')) return true;
      do {
        std::string key;
        space();
        if (!string(key) || !eat(':')) return false;
        Json member;
        if (!value(member, depth + 1)) return false;
        v.members.emplace_back(std::move(key), std::move(member));
      } while (eat(','));
      return eat('}');
    }
    if (c == '[') {
      v.kind = Json::kArray;
      ++i_;
      if (eat(']')) return true;
      do {
        Json item;
        if (!value(item, depth + 1)) return false;
        v.items.push_back(std::move(item));
      } while (eat(','));
      return eat(']');
    }
    if (c == '"') return v.kind = Json::kString, string(v.text);
    if (word("true")) return v.kind = Json::kBool, v.flag = true, true;
    if (word("false")) return v.kind = Json::kBool, true;
    if (word("null")) return true;
    std::size_t end = i_;
    if (end < t_.size() && t_[end] == '-') ++end;
    const std::size_t digits = end;
    while (end < t_.size() && std::string_view("0123456789.eE+-").find(t_[end]) != std::string_view::npos) ++end;
    if (end == digits) return false;
    v.kind = Json::kNumber;
    v.number = std::stod(std::string(t_.substr(i_, end - i_)));
    i_ = end;
    return true;
  }
  bool string(std::string& out) {
    if (i_ >= t_.size() || t_[i_] != '"') return false;
    for (++i_; i_ < t_.size(); ++i_) {
      const auto c = static_cast<unsigned char>(t_[i_]);
      if (c == '"') return ++i_, true;
      if (c < 0x20) return false;
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      if (++i_ >= t_.size()) return false;
      const char e = t_[i_];
      const std::string_view simple = "\"\\/bfnrt", meaning = "\"\\/\b\f\n\r\t";
      if (const auto k = simple.find(e); k != std::string_view::npos) {
        out += meaning[k];
      } else if (e == 'u' && i_ + 4 < t_.size()) {
        const unsigned code = std::stoul(std::string(t_.substr(i_ + 1, 4)), nullptr, 16);
        i_ += 4;
        if (code < 0x80) {
          out += static_cast<char>(code);
        } else if (code < 0x800) {
          out += static_cast<char>(0xC0 | code >> 6);
          out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
          out += static_cast<char>(0xE0 | code >> 12);
          out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
          out += static_cast<char>(0x80 | (code & 0x3F));
        }
      } else {
        return false;
      }
    }
    return false;
  }

  std::string_view t_;
  std::size_t i_ = 0;
};

std::string q(const std::string& path) { return "'" + path + "'"; }

int probe(const std::string& args, std::string* out) {
  return run(q(tool_path()) + " probe " + args, out);
}

Json probe_json(const std::string& args) {
  std::string out;
  EXPECT_EQ(probe("--json " + args, &out), 0) << args;
  auto doc = JsonReader(out).document();
  EXPECT_TRUE(doc) << "not valid JSON from probe " << args << ":\n" << out;
  return doc.value_or(Json{});
}

struct TopBox {
  std::string type;
  uint64_t offset;
  uint64_t size;
};

// The top-level boxes, read straight from the bytes.
std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file) {
  std::vector<TopBox> boxes;
  uint64_t at = 0;
  while (at + 8 <= file.size()) {
    const uint64_t size = uint64_t{file[at]} << 24 | file[at + 1] << 16 | file[at + 2] << 8 | file[at + 3];
    boxes.push_back({std::string(file.begin() + at + 4, file.begin() + at + 8), at, size});
    if (size < 8) break;
    at += size;
  }
  return boxes;
}

TopBox find_top(const std::vector<uint8_t>& file, const std::string& type) {
  for (const auto& box : top_boxes(file))
    if (box.type == type) return box;
  ADD_FAILURE() << "no " << type;
  return {};
}

bool ffmpeg(const std::string& args) {
  return run("ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " 2>&1") == 0;
}

struct Media {
  std::string dir;
  std::string moov_last;   // High profile with B-frames and mono AAC, moov after mdat
  std::string fast_start;  // Constrained Baseline and stereo AAC, moov first
  std::string annexb, adts;
};

class ProbeTool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!have_ffmpeg() || tool_path().empty()) return;
    media_.dir = temp_dir();
    const std::string d = media_.dir + "/";
    media_.moov_last = d + "moov_last.mp4";
    media_.fast_start = d + "fast_start.mp4";
    media_.annexb = d + "video.h264";
    media_.adts = d + "audio.aac";
    const std::string video = "-f lavfi -i testsrc=size=160x120:rate=25 ";
    ready_ = ffmpeg(video + "-f lavfi -i sine=frequency=440:sample_rate=44100 -t 2 -pix_fmt yuv420p "
                    "-c:v libx264 -g 12 -c:a aac -b:a 48k " + q(media_.moov_last)) &&
             ffmpeg(video + "-f lavfi -i sine=frequency=300:sample_rate=48000 -t 1.5 -ac 2 -pix_fmt yuv420p "
                    "-c:v libx264 -profile:v baseline -g 10 -c:a aac -movflags +faststart " + q(media_.fast_start)) &&
             ffmpeg(video + "-t 1 -pix_fmt yuv420p -c:v libx264 -g 10 -bsf:v h264_mp4toannexb -f h264 " +
                    q(media_.annexb)) &&
             ffmpeg("-f lavfi -i sine=frequency=500:sample_rate=48000 -t 1 -c:a aac -f adts " + q(media_.adts));
  }

  void SetUp() override {
    BOXLANE_REQUIRE_FFMPEG();
    if (tool_path().empty()) GTEST_SKIP() << "the boxlane program is not built";
    ASSERT_TRUE(ready_) << "FFmpeg could not make the test media";
  }

  static inline Media media_;
  static inline bool ready_ = false;
};

// Compares probe's JSON with what ffprobe reads from the same file, track by
// track. The edit lists are ignored on ffprobe's side, because the parser
// reports the media as stored.
void expect_agrees_with_ffprobe(const std::string& file) {
  SCOPED_TRACE(file);
  const Json mine = probe_json(q(file));
  std::string streams_text, packets_text;
  ASSERT_EQ(run("ffprobe -v error -ignore_editlist 1 -show_entries stream=index,codec_type,profile,level,width,"
                "height,channels,sample_rate,nb_frames,duration_ts,time_base -of json " + q(file),
                &streams_text), 0);
  ASSERT_EQ(run("ffprobe -v error -ignore_editlist 1 -show_entries packet=stream_index,size,flags -of csv=p=0 " +
                q(file), &packets_text), 0);
  const auto streams = JsonReader(streams_text).document();
  ASSERT_TRUE(streams);

  struct Totals {
    uint64_t packets = 0, bytes = 0, keys = 0;
  };
  std::vector<Totals> totals(8);
  std::istringstream lines(packets_text);
  for (std::string line; std::getline(lines, line);) {
    unsigned index = 0;
    unsigned long long size = 0;
    char flags[8] = {};
    if (std::sscanf(line.c_str(), "%u,%llu,%7s", &index, &size, flags) != 3 || index >= totals.size()) continue;
    ++totals[index].packets;
    totals[index].bytes += size;
    totals[index].keys += flags[0] == 'K';
  }

  const auto& tracks = mine["tracks"].items;
  ASSERT_EQ(tracks.size(), (*streams)["streams"].items.size());
  for (const Json& stream : (*streams)["streams"].items) {
    const bool video = stream["codec_type"].text == "video";
    const auto index = static_cast<std::size_t>(stream["index"].num());
    SCOPED_TRACE(stream["codec_type"].text);
    const Json* track = nullptr;
    for (const Json& t : tracks)
      if (t["handler"].text == (video ? "vide" : "soun")) track = &t;
    ASSERT_NE(track, nullptr);
    const Json& t = *track;
    EXPECT_EQ(t["sample_count"].num(), stream["nb_frames"].num());
    EXPECT_EQ(t["sample_count"].num(), totals[index].packets);
    EXPECT_EQ(t["sample_bytes"].num(), totals[index].bytes);
    EXPECT_EQ(t["key_frames"].num(), totals[index].keys);
    EXPECT_EQ(t["duration"].num(), stream["duration_ts"].num());
    EXPECT_EQ("1/" + std::to_string(static_cast<uint64_t>(t["timescale"].num())), stream["time_base"].text);
    EXPECT_TRUE(t["consistency"]["consistent"].flag);
    const Json& codec = t["codec"];
    if (video) {
      EXPECT_EQ(codec["fourcc"].text, "avc1");
      EXPECT_EQ(codec["profile_name"].text, stream["profile"].text);
      EXPECT_EQ(codec["level"].num(), stream["level"].num());
      EXPECT_EQ(codec["width"].num(), stream["width"].num());
      EXPECT_EQ(codec["height"].num(), stream["height"].num());
      EXPECT_EQ(t["width"].num(), stream["width"].num());
      EXPECT_EQ(codec["sps"].items.size(), 1u);
    } else {
      EXPECT_EQ(codec["fourcc"].text, "mp4a");
      EXPECT_EQ(codec["audio_object_name"].text, "AAC " + stream["profile"].text);
      EXPECT_EQ(codec["config_channels"].num(), stream["channels"].num());
      EXPECT_EQ(codec["config_sample_rate"].num(), stream["sample_rate"].num());
    }
  }

  // The box tree's top level sits where the bytes say.
  std::vector<TopBox> expected = top_boxes(read_file(file));
  std::vector<TopBox> walked;
  for (const Json& box : mine["boxes"].items)
    if (box["depth"].num() == 0)
      walked.push_back({box["type"].text, uint64_t(box["offset"].num()), uint64_t(box["size"].num())});
  ASSERT_EQ(walked.size(), expected.size());
  for (std::size_t i = 0; i < walked.size(); ++i) {
    EXPECT_EQ(walked[i].offset, expected[i].offset);
    EXPECT_EQ(walked[i].size, expected[i].size);
    if (!walked[i].type.empty()) {
      EXPECT_EQ(walked[i].type, expected[i].type);
    }
  }
  EXPECT_EQ(mine["stream_bytes"].num(), read_file(file).size());
}

TEST_F(ProbeTool, JsonAgreesWithFfprobeOnFfmpegFiles) {
  expect_agrees_with_ffprobe(media_.moov_last);
  expect_agrees_with_ffprobe(media_.fast_start);

  std::string text;
  ASSERT_EQ(probe(q(media_.moov_last), &text), 0);
  EXPECT_NE(text.find("H.264 High profile, level 1.1, 160x120"), std::string::npos) << text;
  EXPECT_NE(text.find("frame rate:  25.000 frames/s"), std::string::npos) << text;
  EXPECT_NE(text.find("AAC LC, 1 channel, 44100 Hz"), std::string::npos) << text;
  EXPECT_NE(text.find("tables:      agree: 50 samples timed (stts), 50 sized (stsz), 50 placed in"),
            std::string::npos)
      << text;
}

TEST_F(ProbeTool, JsonAgreesWithFfprobeOnOurWriter) {
  const std::string out = temp_dir() + "/ours.mp4";
  for (const char* layout : {"", "--faststart"}) {
    if (run(q(tool_path()) + " mux -q " + layout + " --video " + q(media_.annexb) + " --audio " + q(media_.adts) +
            " -o " + q(out) + " 2>&1") != 0)
      GTEST_SKIP() << "boxlane mux cannot write the file yet";
    expect_agrees_with_ffprobe(out);
  }
}

TEST_F(ProbeTool, SameJsonForEveryPieceSizeAndFromStandardInput) {
  std::string whole;
  ASSERT_EQ(probe("--json " + q(media_.moov_last), &whole), 0);
  ASSERT_FALSE(whole.empty());
  for (const std::string args :
       {"--piece 1", "--piece 7", "--piece 4096", "--random-pieces 64 --seed 1", "--random-pieces 5000 --seed 99",
        "--pools 4 --piece 300"}) {
    std::string again;
    EXPECT_EQ(probe("--json " + args + " " + q(media_.moov_last), &again), 0) << args;
    EXPECT_EQ(again, whole) << args;
  }
  // A pipe cannot seek, so mdat payloads are read and thrown away there.
  std::string piped, redirected;
  EXPECT_EQ(run("cat " + q(media_.moov_last) + " | " + q(tool_path()) + " probe --json --piece 999 -", &piped), 0);
  EXPECT_EQ(piped, whole);
  EXPECT_EQ(probe("--json - < " + q(media_.moov_last), &redirected), 0);
  EXPECT_EQ(redirected, whole);
}

TEST_F(ProbeTool, ErrorsNameWhatWentWrongAndWhere) {
  const std::string dir = temp_dir() + "/";
  auto expect_error = [&](const std::string& name, const std::vector<uint8_t>& bytes, const std::string& wanted,
                          const std::string& args = "") {
    write_file(dir + name, bytes);
    for (const std::string pieces : {"--piece 1", "--piece 7", "--piece 65536"}) {
      std::string out;
      EXPECT_EQ(probe(pieces + " " + args + " " + q(dir + name) + " 2>&1", &out), 1) << name << " " << pieces;
      EXPECT_NE(out.find(wanted), std::string::npos) << name << " " << pieces << ": " << out;
      EXPECT_EQ(out.rfind("boxlane probe: ", 0), 0u) << "nothing but the error: " << out;
    }
  };

  const auto moov_last = read_file(media_.moov_last);
  const TopBox moov = find_top(moov_last, "moov");
  const std::size_t cut = moov.offset + moov.size / 2;
  expect_error("cut_in_moov.mp4", {moov_last.begin(), moov_last.begin() + cut},
               "truncated: box 'moov' at offset " + std::to_string(moov.offset) + " declares " +
                   std::to_string(moov.size) + " bytes, " + std::to_string(cut - moov.offset) + " present");
  expect_error("cut_in_header.mp4", {moov_last.begin(), moov_last.begin() + moov.offset + 3},
               "truncated: box header at offset " + std::to_string(moov.offset) + " has 3 of its 8 bytes");

  const auto fast = read_file(media_.fast_start);
  const TopBox mdat = find_top(fast, "mdat");
  const std::size_t mdat_cut = mdat.offset + 100;
  const std::string mdat_message = "truncated: box 'mdat' at offset " + std::to_string(mdat.offset) + " declares " +
                                   std::to_string(mdat.size) + " bytes, 100 present";
  expect_error("cut_in_mdat.mp4", {fast.begin(), fast.begin() + mdat_cut}, mdat_message);
  std::string piped;
  EXPECT_EQ(run("head -c " + std::to_string(mdat_cut) + " " + q(media_.fast_start) + " | " + q(tool_path()) +
                    " probe - 2>&1",
                &piped),
            1);
  EXPECT_NE(piped.find(mdat_message), std::string::npos) << piped;

  const Bytes ftyp = box("ftyp", Bytes().str("isom").u32(512).str("isom"));
  Bytes garbage;
  for (uint32_t i = 0, x = 12345; i < 3000; ++i) garbage.u8(uint8_t((x = x * 1103515245 + 12345) >> 24));
  garbage[0] = 0x7F;  // a first box far larger than any reassembly buffer
  expect_error("garbage.bin", garbage, "0x091B0006");
  expect_error("garbage.bin", garbage, "box '");
  expect_error("large_size.mp4", cat({ftyp, Bytes().u32(1).str("mdat").u64(48).zeros(32)}),
               "0x091B0006 BOXLANE_ERROR_PARSE_NOTSUPPORT");
  expect_error("large_size.mp4", cat({ftyp, Bytes().u32(1).str("mdat").u64(48).zeros(32)}),
               "box 'mdat' at offset 20 (size field 1)");
  expect_error("size_four.mp4", cat({ftyp, Bytes().u32(4).str("free").zeros(20)}),
               "0x091B0007 BOXLANE_ERROR_PARSE_MALFORMED");
  expect_error("child_past_parent.mp4",
               cat({ftyp, box("moov", box("udta", Bytes().zeros(8), 500)), box("free", Bytes().zeros(8))}),
               "the parser still waits for the end of a box");
  expect_error("no_movie.mp4", cat({ftyp, box("free", Bytes().zeros(8))}), "no movie header");
  expect_error("empty.mp4", {}, "empty input");

  for (const std::string bad : {"", "--piece 0 x.mp4", "--bogus x.mp4", "--seed 3 x.mp4", "a.mp4 b.mp4"}) {
    std::string out;
    EXPECT_EQ(probe(bad + " 2>&1", &out), 2) << bad;
    EXPECT_NE(out.find("usage: boxlane probe"), std::string::npos) << bad;
  }
}

// A movie whose tables contradict each other, and one whose stsz gives a
// single size for every sample.
Bytes movie_with_tables(const Bytes& stsz, const Bytes& stss, uint32_t chunks) {
  const Bytes mvhd = full_box("mvhd", 0, 0, Bytes().u32(0).u32(0).u32(1000).u32(10000).u32(0x10000).u16(0x100)
                                                .zeros(10 + 36 + 24).u32(2));
  const Bytes tkhd = full_box("tkhd", 0, 3, Bytes().u32(0).u32(0).u32(1).u32(0).u32(10000).zeros(8).u16(0)
                                                .u16(0).u16(0).u16(0).zeros(36).u32(64 << 16).u32(48 << 16));
  const Bytes mdhd = full_box("mdhd", 0, 0, Bytes().u32(0).u32(0).u32(1000).u32(10000).u16(0x55C4).u16(0));
  const Bytes hdlr = full_box("hdlr", 0, 0, Bytes().u32(0).str("vide").zeros(12).str("Tables\"\\\n").u8(0));
  const Bytes stts = full_box("stts", 0, 0, Bytes().u32(1).u32(10).u32(1000));
  const Bytes stsc = full_box("stsc", 0, 0, Bytes().u32(1).u32(1).u32(4).u32(1));
  Bytes offsets;
  offsets.u32(chunks);
  for (uint32_t i = 0; i < chunks; ++i) offsets.u32(1000 + 400 * i);
  const Bytes stco = full_box("stco", 0, 0, offsets);
  const Bytes stbl = box("stbl", cat({stts, stss, stsc, stsz, stco}));
  const Bytes trak = box("trak", cat({tkhd, box("mdia", cat({mdhd, hdlr, box("minf", stbl)}))}));
  return cat({box("ftyp", Bytes().str("isom").u32(0)), box("moov", cat({mvhd, trak})),
              box("mdat", Bytes().zeros(16))});
}

TEST_F(ProbeTool, PointsOutTablesThatDisagree) {
  const std::string dir = temp_dir() + "/";
  Bytes nine_sizes;
  nine_sizes.u32(0).u32(9);
  for (int i = 0; i < 9; ++i) nine_sizes.u32(100);
  write_file(dir + "bad.mp4", movie_with_tables(full_box("stsz", 0, 0, nine_sizes),
                                                full_box("stss", 0, 0, Bytes().u32(2).u32(1).u32(20)), 2));
  std::string text;
  ASSERT_EQ(probe(q(dir + "bad.mp4"), &text), 0);
  EXPECT_NE(text.find("tables:      DISAGREE"), std::string::npos) << text;
  EXPECT_NE(text.find("! stts counts 10 samples but stsz lists 9 sizes"), std::string::npos) << text;
  EXPECT_NE(text.find("! the stco chunks hold 8 samples (through stsc) but stts counts 10"), std::string::npos);
  EXPECT_NE(text.find("! stss names sample 20"), std::string::npos) << text;

  const Json bad = probe_json(q(dir + "bad.mp4"));
  const Json& track = bad["tracks"][0];
  EXPECT_FALSE(track["consistency"]["consistent"].flag);
  EXPECT_EQ(track["consistency"]["problems"].items.size(), 3u);
  EXPECT_EQ(track["handler_name"].text, "Tables\"\\\n");
  EXPECT_EQ(track["language"].text, "und");
  EXPECT_EQ(track["tables"]["stss"].items.size(), 2u);
  EXPECT_EQ(track["tables"]["stco"][1].num(), 1400);
  EXPECT_EQ(track["frame_rate"].num(), 1.0);

  write_file(dir + "constant.mp4", movie_with_tables(full_box("stsz", 0, 0, Bytes().u32(100).u32(10)), Bytes(), 3));
  const Json constant = probe_json(q(dir + "constant.mp4"));
  const Json& same_size = constant["tracks"][0];
  EXPECT_EQ(same_size["bit_rate"].kind, Json::kNull);
  EXPECT_EQ(same_size["key_frames"].num(), 10);
  EXPECT_TRUE(same_size["all_sync"].flag);
  EXPECT_EQ(same_size["consistency"]["notes"].items.size(), 1u);
  EXPECT_NE(same_size["consistency"]["notes"][0].text.find("one size for every sample"), std::string::npos);
  // 3 chunks of 4 against 10 samples.
  EXPECT_EQ(same_size["consistency"]["problems"].items.size(), 1u);
}

TEST(JsonWriter, AnyBytesBecomeValidJson) {
  const std::string raw = std::string("q\"b\\s/\x01\x1f\x7f\n\t", 11) + "\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E" +
                          "\xFF\xC0\x80\xE2\x82" + std::string(1, '\0');
  std::string out;
  tool::JsonWriter json(out);
  json.begin_object();
  json.member("text", std::string_view(raw));
  json.key("row");
  json.begin_array(true);
  json.real(std::nan(""));
  json.real(2.5);
  json.number(int64_t{-7});
  json.begin_array(true);
  json.end_array();
  json.end_array();
  json.key("empty");
  json.begin_object();
  json.end_object();
  json.end_object();

  const auto doc = JsonReader(out).document();
  ASSERT_TRUE(doc) << out;
  // Bytes that are not UTF-8 come back as the Latin-1 letters they would be.
  EXPECT_EQ((*doc)["text"].text, std::string("q\"b\\s/\x01\x1f\x7f\n\t", 11) +
                                     "\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E" + "\xC3\xBF\xC3\x80\xC2\x80\xC3\xA2\xC2\x82" +
                                     std::string(1, '\0'));
  EXPECT_EQ((*doc)["row"][0].kind, Json::kNull);
  EXPECT_EQ((*doc)["row"][1].num(), 2.5);
  EXPECT_EQ((*doc)["row"][2].num(), -7);
  EXPECT_EQ((*doc)["row"][3].kind, Json::kArray);
  EXPECT_EQ((*doc)["empty"].kind, Json::kObject);
  EXPECT_NE(out.find("[null, 2.5, -7, []]"), std::string::npos) << out;
}

}  // namespace
}  // namespace boxlane::test
