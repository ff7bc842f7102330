// `boxlane mux` run as a user runs it, on streams FFmpeg makes at test time.
// Every file it writes must decode in FFmpeg without a message, to the same
// frames as the source elementary streams, with presentation times that
// step at the frame rate; every broken input must fail with a message and
// leave no file behind.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/paths.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

std::string q(const std::string& path) { return "'" + path + "'"; }

struct Source {
  std::string video;
  std::string audio;
};

// A second of 160x120 video (and AAC beside it) from FFmpeg's test sources.
Source make_source(const std::string& dir, const std::string& rate, int bframes, const std::string& x264_params,
                   int sample_rate, double seconds = 1.0) {
  Source s{dir + "/in.h264", sample_rate ? dir + "/in.aac" : ""};
  std::ostringstream cmd;
  cmd << "ffmpeg -v error -y -f lavfi -i testsrc2=size=160x120:rate=" << rate << ":duration=" << seconds
      << " -map 0:v -c:v libx264 -preset veryfast -pix_fmt yuv420p -bf " << bframes;
  if (!x264_params.empty()) cmd << " -x264-params " << x264_params;
  cmd << " -f h264 " << q(s.video);
  if (sample_rate) {
    cmd << " -f lavfi -i sine=frequency=330:sample_rate=" << sample_rate << ":duration=" << seconds
        << " -map 1:a -c:a aac -ac 2 -f adts " << q(s.audio);
  }
  EXPECT_EQ(run(cmd.str() + " 2>&1"), 0) << cmd.str();
  return s;
}

struct Result {
  int status;
  std::string output;  // stdout and stderr
};

Result mux(const std::string& args) {
  Result r;
  r.status = run(q(tool_path()) + " mux " + args + " 2>&1", &r.output);
  return r;
}

// The frame checksums FFmpeg decodes from one stream of a file, without
// timestamps: the sixth column of framemd5.
std::vector<std::string> decoded(const std::string& path, const char* stream) {
  std::string out;
  run("ffmpeg -v error -i " + q(path) + " -map 0:" + stream + " -f framemd5 - 2>/dev/null", &out);
  std::vector<std::string> sums;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    sums.push_back(line.substr(line.rfind(',') + 1));
  }
  return sums;
}

std::vector<double> frame_times(const std::string& path, const char* stream) {
  std::string out;
  run("ffprobe -v error -select_streams " + std::string(stream) +
          " -show_entries frame=pts_time -of csv=p=0 " + q(path),
      &out);
  std::vector<double> times;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) times.push_back(std::stod(line));
  }
  return times;
}

// Top-level box types in file order.
std::vector<std::string> top_boxes(const std::string& path) {
  const auto bytes = read_file(path);
  std::vector<std::string> types;
  for (std::size_t at = 0; at + 8 <= bytes.size();) {
    const uint32_t size = uint32_t(bytes[at]) << 24 | uint32_t(bytes[at + 1]) << 16 | uint32_t(bytes[at + 2]) << 8 | bytes[at + 3];
    types.emplace_back(reinterpret_cast<const char*>(&bytes[at + 4]), 4);
    if (size < 8) break;
    at += size;
  }
  return types;
}

// What every written file must satisfy.
void expect_faithful(const std::string& out, const Source& src, double fps) {
  std::string messages;
  EXPECT_EQ(run("ffmpeg -v error -xerror -i " + q(out) + " -f null - 2>&1", &messages), 0);
  EXPECT_EQ(messages, "") << "FFmpeg complains about " << out;
  if (!src.video.empty()) {
    const auto want = decoded(src.video, "v");
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(decoded(out, "v"), want) << "video frames differ from the source";
    const auto times = frame_times(out, "v");
    ASSERT_EQ(times.size(), want.size());
    EXPECT_NEAR(times.front(), 0.0, 1e-6) << "video must start at 0, with audio";
    for (std::size_t i = 1; i < times.size(); ++i) {
      EXPECT_NEAR(times[i] - times[i - 1], 1.0 / fps, 2e-4) << "frame " << i << " in display order";
    }
  }
  if (!src.audio.empty()) {
    const auto want = decoded(src.audio, "a");
    ASSERT_FALSE(want.empty());
    EXPECT_EQ(decoded(out, "a"), want) << "audio frames differ from the source";
    const auto times = frame_times(out, "a");
    ASSERT_FALSE(times.empty());
    EXPECT_NEAR(times.front(), 0.0, 1e-6);
  }
}

struct Case {
  const char* name;
  const char* rate;
  double fps;
  int bframes;
  const char* x264;
  int sample_rate;
  bool faststart;
};

TEST(Mux, VideoAndAudioDecodeLikeTheirSources) {
  BOXLANE_REQUIRE_FFMPEG();
  const Case cases[] = {
      {"b-frames 25 fps 48 kHz", "25", 25, 3, "", 48000, false},
      {"no b-frames 30 fps 44.1 kHz", "30", 30, 0, "", 44100, false},
      {"four slices 30000/1001 44.1 kHz faststart", "30000/1001", 30000.0 / 1001, 2, "slices=4", 44100, true},
      {"aud and sei, b-pyramid, 48 kHz faststart", "25", 25, 3, "aud=1:b-pyramid=normal", 48000, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string dir = temp_dir();
    const Source src = make_source(dir, c.rate, c.bframes, c.x264, c.sample_rate);
    const std::string out = dir + "/out.mp4";
    const Result r = mux("--video " + q(src.video) + " --audio " + q(src.audio) + (c.faststart ? " --faststart" : "") +
                         " -o " + q(out));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("frames"), std::string::npos) << "a summary line: " << r.output;
    expect_faithful(out, src, c.fps);
    EXPECT_EQ(top_boxes(out), c.faststart ? (std::vector<std::string>{"ftyp", "moov", "mdat"})
                                          : (std::vector<std::string>{"ftyp", "mdat", "moov"}));
  }
}

TEST(Mux, CommittedDemoSample) {
  BOXLANE_REQUIRE_FFMPEG();
  const Source src{source_dir() + "/tests/data/sample.h264", source_dir() + "/tests/data/sample.aac"};
  const std::string out = temp_dir() + "/demo.mp4";
  const Result r = mux("--video " + q(src.video) + " --audio " + q(src.audio) + " --faststart -o " + q(out));
  ASSERT_EQ(r.status, 0) << r.output;
  for (const char* says : {"320x240", "125 frames at 25 fps with B-frames", "48000 Hz stereo", "5.03 s"}) {
    EXPECT_NE(r.output.find(says), std::string::npos) << says << " in " << r.output;
  }
  expect_faithful(out, src, 25);
}

TEST(Mux, OneTrackAloneAndTimingOptions) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  const Source src = make_source(dir, "30000/1001", 2, "slices=4", 44100);

  const Source video_only{src.video, ""};
  ASSERT_EQ(mux("--video " + q(src.video) + " -q -o " + q(dir + "/v.mp4")).status, 0);
  expect_faithful(dir + "/v.mp4", video_only, 30000.0 / 1001);

  const Source audio_only{"", src.audio};
  ASSERT_EQ(mux("--audio " + q(src.audio) + " --faststart -q -o " + q(dir + "/a.mp4")).status, 0);
  expect_faithful(dir + "/a.mp4", audio_only, 0);

  // --fps wins over the stream's timing; a time scale that divides neither
  // duration still gives steady frame times (no drift).
  ASSERT_EQ(mux("--video " + q(src.video) + " --audio " + q(src.audio) + " --fps 50 -q -o " + q(dir + "/f.mp4")).status, 0);
  expect_faithful(dir + "/f.mp4", src, 50);
  ASSERT_EQ(mux("--video " + q(src.video) + " --audio " + q(src.audio) + " --timescale 1000 -q -o " + q(dir + "/t.mp4"))
                .status,
            0);
  const auto times = frame_times(dir + "/t.mp4", "v");
  ASSERT_GT(times.size(), 20u);
  for (std::size_t i = 1; i < times.size(); ++i) {
    EXPECT_NEAR(times[i], i * 1001.0 / 30000, 1e-3 + 1e-9) << "frame " << i << " drifted";
  }
}

TEST(Mux, BrokenInputFailsAndLeavesNoFile) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  const Source src = make_source(dir, "25", 2, "", 48000);
  const auto video = read_file(src.video);
  const auto audio = read_file(src.audio);

  auto without_sps = video;  // every SPS NAL header byte turned into a filler NAL
  for (std::size_t i = 0; i + 4 < without_sps.size(); ++i) {
    if (without_sps[i] == 0 && without_sps[i + 1] == 0 && without_sps[i + 2] == 1 && (without_sps[i + 3] & 0x1F) == 7) {
      without_sps[i + 3] = 0x0C;
    }
  }
  write_file(dir + "/nosps.h264", without_sps);
  write_file(dir + "/cut.h264", std::vector<uint8_t>(video.begin(), video.begin() + 20));
  write_file(dir + "/empty.h264", {});
  std::vector<uint8_t> garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t(i * 7 + 1);
  write_file(dir + "/garbage.h264", garbage);
  auto lost = audio;
  const std::size_t second_frame = ((lost[3] & 3u) << 11) | (lost[4] << 3) | (lost[5] >> 5);
  lost[second_frame] = 0x12;  // the second frame's sync word
  write_file(dir + "/lost.aac", lost);
  write_file(dir + "/cut.aac", std::vector<uint8_t>(audio.begin(), audio.end() - 10));
  write_file(dir + "/garbage.aac", garbage);
  // A second stream of another size appended: the SPS changes.
  ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc2=size=176x144:rate=25:duration=0.2 -c:v libx264 -f h264 " +
                q(dir + "/other.h264")),
            0);
  auto changing = video;
  const auto tail = read_file(dir + "/other.h264");
  changing.insert(changing.end(), tail.begin(), tail.end());
  write_file(dir + "/changing.h264", changing);

  const std::string out = dir + "/out.mp4";
  const struct {
    std::string args;
    std::string says;
  } failures[] = {
      {"--video " + q(dir + "/nosps.h264"), "no sequence parameter set"},
      {"--video " + q(dir + "/cut.h264"), "cut short"},
      {"--video " + q(dir + "/empty.h264"), "is empty"},
      {"--video " + q(dir + "/garbage.h264"), "not an H.264"},
      {"--video " + q(dir + "/missing.h264"), "cannot open"},
      {"--video " + q(dir + "/changing.h264"), "sequence parameter set changes at byte " + std::to_string(video.size() + 4)},
      {"--audio " + q(dir + "/lost.aac"), "ADTS sync lost at byte " + std::to_string(second_frame)},
      {"--audio " + q(dir + "/cut.aac"), "cut short"},
      {"--audio " + q(dir + "/garbage.aac"), "not an AAC ADTS stream"},
      {"--video " + q(src.video) + " --audio " + q(dir + "/lost.aac"), "sync lost"},
      {"--video " + q(src.video) + " --fps 0", "--fps"},
      {"--video " + q(src.video) + " --timescale 20", "too coarse"},
      {"--video " + q(src.video) + " --bogus", "unknown option"},
      {"", "give --video, --audio or both"},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.args);
    const Result r = mux(f.args + " -o " + q(out));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find(f.says), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(out));
  }

  // A failing run leaves an existing target as it was, and no temporary file.
  write_file(out, {'o', 'l', 'd'});
  EXPECT_NE(mux("--audio " + q(dir + "/lost.aac") + " -o " + q(out)).status, 0);
  EXPECT_EQ(read_file(out), (std::vector<uint8_t>{'o', 'l', 'd'}));
  EXPECT_NE(mux("--audio " + q(src.audio) + " -o " + q(dir + "/no/such/dir/out.mp4")).output.find("cannot write"),
            std::string::npos);
  for (const auto& entry : fs::directory_iterator(dir)) {
    EXPECT_EQ(entry.path().filename().string().find(".boxlane-"), std::string::npos) << entry.path();
  }
}

TEST(Mux, FieldPairsBecomeOneSampleEach) {
  BOXLANE_REQUIRE_FFMPEG();
  // Made by hand (no encoder here codes separate fields): a 32x32 Main SPS
  // with frame_mbs_only_flag 0 and 25 fps timing, a PPS, then eight field
  // slices in decoding order, each a header and three filler bytes:
  // IDR top + P bottom (frame_num 0, POC 0/1), P top + P bottom (frame_num 1,
  // POC 12/13), two non-reference B pairs (POC 4/5 and 8/9).
  const std::string dir = temp_dir();
  write_file(dir + "/fields.h264",
             unhex("00000001674d001ee5294a1000000300100000030328400000000168ce3c8000000001658885002088804000000001"
                   "419a18088088804000000001419a30608088804000000001419a38688088804000000001019e5024408880400000"
                   "0001019e582c4088804000000001019e50444088804000000001019e584c40888040"));
  ASSERT_EQ(mux("--video " + q(dir + "/fields.h264") + " -q -o " + q(dir + "/out.mp4")).status, 0);
  std::string packets;
  run("ffprobe -v quiet -show_entries packet=pts_time,size,flags -of csv=p=0 " + q(dir + "/out.mp4"), &packets);
  EXPECT_EQ(packets,
            "0.000000,24,K_\n"
            "0.120000,24,__\n"
            "0.040000,24,__\n"
            "0.080000,24,__\n");
}

TEST(Mux, HelpNamesEveryOption) {
  std::string text;
  ASSERT_EQ(run(q(tool_path()) + " mux --help", &text), 0);
  for (const char* option : {"--video", "--audio", "--fps", "--timescale", "--faststart", "--quiet", "-o"}) {
    EXPECT_NE(text.find(option), std::string::npos) << option;
  }
  ASSERT_EQ(run(q(tool_path()) + " --help", &text), 0);
  EXPECT_NE(text.find("mux"), std::string::npos);
}

}  // namespace
}  // namespace boxlane::test
