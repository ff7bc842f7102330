// `boxlane remux`, run as a user runs it, on files FFmpeg (and GStreamer)
// make at test time: progressive with the moov at either end, fragmented,
// H.264 and H.265 (hvc1, hev1) with B-frames, AAC at 48 and 44.1 kHz, stco
// and co64. Each is remuxed into fragments and back into progressive files,
// and independent readers judge the results: FFmpeg decodes the same
// pictures and audio frames, ffprobe sees the same samples, times, key
// flags and stream parameters, fragments open on sync samples, GStreamer
// decodes them and Chromium plays them through Media Source Extensions.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "fragment_checks.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"

namespace boxlane::test {
namespace {

struct RemuxRun {
  int status;
  std::string out, err;
};

// Runs `boxlane remux ARGS`, in `cwd` when given.
RemuxRun remux(const std::string& args, const std::string& cwd = "") {
  RemuxRun r;
  const std::string err_file = binary_dir() + "/test-tmp/remux-stderr." + std::to_string(getpid());
  r.status = run((cwd.empty() ? "" : "cd " + shell_quote(cwd) + " && ") + shell_quote(tool_path()) + " remux " + args +
                     " 2>" + shell_quote(err_file),
                 &r.out);
  const auto err = read_file(err_file);
  r.err.assign(err.begin(), err.end());
  return r;
}

// Every frame FFmpeg decodes, with its timestamps (framemd5 lines).
std::vector<std::string> decoded_frames(const std::string& path, char kind) {
  std::string text;
  run("ffmpeg -nostdin -v error -i " + shell_quote(path) + " -map 0:" + kind +
          ":0 -fps_mode passthrough -f framemd5 - 2>/dev/null",
      &text);
  std::vector<std::string> lines;
  std::istringstream rows(text);
  for (std::string line; std::getline(rows, line);)
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  return lines;
}

// What ffprobe reads of a kind's stream and of its every packet in decode
// order: the sample index and the description as an independent reader sees
// them. Decode times count from the first: a track whose composition offsets
// had to be moved past 0 decodes as much earlier, and presents at the same
// times.
std::vector<std::string> index_of(const std::string& path, char kind) {
  std::string stream;
  run("ffprobe -v error -select_streams " + std::string(1, kind) + " -show_entries stream=codec_name,profile,level,"
      "width,height,pix_fmt,sample_rate,channels:stream_tags=language -of csv=p=0 " + shell_quote(path), &stream);
  std::vector<std::string> rows{stream};
  const auto packets = probe_packets(path, kind);
  for (const ProbedPacket& p : packets) {
    char row[128];
    std::snprintf(row, sizeof row, "dts +%.6f pts %.6f size %lld%s", p.dts - packets.front().dts, p.pts,
                  static_cast<long long>(p.size), p.key ? " key" : "");
    rows.push_back(row);
  }
  return rows;
}

struct Input {
  const char* name;
  const char* ffmpeg;  // arguments after the lavfi sources
  bool audio = true;
  // 0 or more: GStreamer's mp4mux then writes FFmpeg's file again, with
  // fragments of that many milliseconds (0: one progressive file).
  int gstreamer = -1;
};

// 4 s of 160x120 video at 25 fps with B-frames, a key frame every 12.
const Input kInputs[] = {
    {"h264_aac48_moov_last", "-c:v libx264 -preset veryfast -bf 2 -g 12 -c:a aac -ar 48000 -metadata:s:a language=fra"},
    {"h264_aac44_fragmented", "-c:v libx264 -preset veryfast -bf 3 -g 12 -c:a aac -ar 44100 -metadata:s:v language=deu "
                              "-movflags frag_keyframe+empty_moov+default_base_moof"},
    {"h265_aac48_faststart", "-c:v libx265 -x265-params log-level=none:keyint=12:bframes=2 -tag:v hvc1 -c:a aac "
                             "-ar 48000 -movflags faststart"},
    // Negative composition offsets (ctts version 1), which the output moves past 0.
    {"h264_alone_co64", "-c:v libx264 -preset veryfast -bf 2 -g 10 -movflags negative_cts_offsets", false},
    {"h265_hev1_alone", "-c:v libx265 -x265-params log-level=none:keyint=12:bframes=2 -tag:v hev1", false},
    {"gstreamer_h264_aac48_fragmented", "-c:v libx264 -preset veryfast -bf 2 -g 12 -c:a aac -ar 48000", true, 1000},
};

std::string make_input(const std::string& dir, const Input& in) {
  const std::string path = dir + in.name + ".mp4";
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:rate=25:duration=4 " +
                   std::string(in.audio ? "-f lavfi -i sine=frequency=440:duration=4 " : "") + "-pix_fmt yuv420p " +
                   in.ffmpeg + " " + shell_quote(path)),
            0);
  if (std::string(in.name).find("co64") != std::string::npos) write_file(path, with_co64(read_file(path)));
  if (in.gstreamer < 0) return path;
  const std::string muxed = dir + in.name + "_mp4mux.mp4";
  EXPECT_EQ(run("gst-launch-1.0 -q filesrc location=" + shell_quote(path) + " ! qtdemux name=d mp4mux name=m "
                "fragment-duration=" + std::to_string(in.gstreamer) + " ! filesink location=" + shell_quote(muxed) +
                " d.video_0 ! queue ! h264parse ! m. d.audio_0 ! queue ! aacparse ! m. 2>&1"),
            0);
  return muxed;
}

class RemuxRoundTrip : public ::testing::TestWithParam<Input> {};

TEST_P(RemuxRoundTrip, DecodesLikeTheInputBothWays) {
  BOXLANE_REQUIRE_FFMPEG();
  const Input& in = GetParam();
  if (in.gstreamer >= 0 && !have_gstreamer()) GTEST_SKIP() << "GStreamer not installed";
  const std::string dir = temp_dir() + "/";
  const std::string source = make_input(dir, in);
  const std::string fragmented = dir + "fragmented.mp4", back = dir + "back.mp4", fast = dir + "fast.mp4";

  RemuxRun r = remux(shell_quote(source) + " --fragment 1 -o " + shell_quote(fragmented));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find(fragmented + ": video "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" fragments, written in "), std::string::npos) << r.out;
  r = remux(shell_quote(fragmented) + " -o " + shell_quote(back));
  ASSERT_EQ(r.status, 0) << r.err;
  r = remux(shell_quote(source) + " --faststart -q -o " + shell_quote(fast));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "") << "--quiet";

  // In one progressive file, FFmpeg decodes exactly the input's pictures and
  // audio frames at exactly its times, and ffprobe reads the same samples
  // and stream parameters.
  for (const std::string& file : {back, fast}) {
    SCOPED_TRACE(file);
    for (const char kind : {'v', 'a'}) {
      if (kind == 'a' && !in.audio) continue;
      const auto want = decoded_frames(source, kind);
      ASSERT_FALSE(want.empty());
      EXPECT_EQ(decoded_frames(file, kind), want) << kind;
      EXPECT_EQ(index_of(file, kind), index_of(source, kind)) << kind;
    }
    const auto boxes = boxes_of(file);
    ASSERT_EQ(boxes.size(), 3u);
    EXPECT_EQ(boxes[1].type, file == fast ? "moov" : "mdat");
  }

  // The fragments: the same pictures, and audio as FFmpeg reads it from its
  // own fragmented copy (it keeps what an edit list cuts there); fragments
  // of at least a second that open on sync samples.
  EXPECT_EQ(decoded_md5s(fragmented, 'v'), decoded_md5s(source, 'v'));
  if (in.audio) {
    const std::string reference = dir + "ffmpeg_fragmented.mp4";
    ASSERT_EQ(ffmpeg("-v error -i " + shell_quote(source) + " -c copy -movflags frag_keyframe+empty_moov " +
                     shell_quote(reference)),
              0);
    EXPECT_EQ(decoded_md5s(fragmented, 'a'), decoded_md5s(reference, 'a'));
  }
  expect_fragment_layout(fragmented, 1);
  if (have_gstreamer() && std::string(in.name).find("h264_aac") == 0) {
    const std::string want = gstreamer_video_md5(source);
    EXPECT_NE(want, gstreamer_video_md5(dir + "missing.mp4"));
    EXPECT_EQ(gstreamer_video_md5(fragmented), want);
  }
  if (have_chromium() && std::string(in.name).find("h264") == 0) {
    const MsePlayback p = play_with_mse(fragmented);
    ASSERT_TRUE(p.ran) << p.report;
    EXPECT_FALSE(p.errors) << p.report;
    EXPECT_EQ(p.fragments, int(sequence_numbers(fragmented).size())) << p.report;
    EXPECT_EQ(p.shown, int(probe_packets(source, 'v').size())) << p.report;
  }
}

INSTANTIATE_TEST_SUITE_P(FilesFromOtherMuxers, RemuxRoundTrip, ::testing::ValuesIn(kInputs),
                         [](const auto& info) { return std::string(info.param.name); });

// Files the writer cannot take whole, inputs that are not what they claim,
// and an output that is the input: each is named in a clear message, the
// target stays as it was and no temporary file is left behind.
TEST(Remux, RefusesWhatItCannotWriteAndLeavesTheTargetAlone) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  write_file(dir + "subtitles.srt", unhex("310A30303A30303A30302C303030202D2D3E2030303A30303A30312C3030300A68690A"));
  const std::string video = "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 ";
  const std::string tone = "-f lavfi -i sine=duration=2 ";
  // H.264 with MPEG-1 layer 2 audio (mp4a, object type 0x6B) and a
  // subtitle track (tx3g).
  ASSERT_EQ(ffmpeg("-v error " + video + tone + "-i " + shell_quote(dir + "subtitles.srt") +
                   " -map 0 -map 1 -map 2 -c:v libx264 -c:a mp2 -c:s mov_text " + shell_quote(dir + "others.mp4")),
            0);
  ASSERT_EQ(ffmpeg("-v error " + video + tone + tone + "-map 0 -map 1 -map 2 -c:v libx264 -c:a aac " +
                   shell_quote(dir + "two_audio.mp4")),
            0);
  const auto whole = read_file(dir + "two_audio.mp4");
  write_file(dir + "truncated.mp4", std::vector<uint8_t>(whole.begin(), whole.begin() + whole.size() / 2));
  // FFmpeg's moov is last: cut it short instead.
  write_file(dir + "cut_moov.mp4", std::vector<uint8_t>(whole.begin(), whole.end() - 100));
  write_file(dir + "text.mp4", unhex("68656C6C6F20776F726C640A"));
  // A video sample whose first NAL unit claims more bytes than the sample
  // holds: found while writing, after the output was opened.
  auto broken = whole;
  const auto at = broken.begin() + long(packets_by_track(dir + "two_audio.mp4").at(1).at(3).pos);
  std::fill_n(at, 4, uint8_t{0x7F});
  write_file(dir + "broken.mp4", broken);
  ASSERT_EQ(::link((dir + "two_audio.mp4").c_str(), (dir + "hard_link.mp4").c_str()), 0);
  ASSERT_EQ(::symlink("two_audio.mp4", (dir + "soft_link.mp4").c_str()), 0);

  const struct {
    std::string args;
    int status;
    std::string message;  // in what it prints on stderr
  } cases[] = {
      {"others.mp4 -o out.mp4", 1,
       "boxlane remux: track 2 (soun, 'mp4a') cannot be written: its mp4a entry holds object type 0x6B, not AAC "
       "(--skip-unsupported leaves it out)\n"},
      {"two_audio.mp4 -o out.mp4", 1, "track 3 (soun, AAC) cannot be written: a second audio track"},
      {"two_audio.mp4 -o two_audio.mp4", 1, "'two_audio.mp4' is the input file 'two_audio.mp4'"},
      {"two_audio.mp4 -o hard_link.mp4", 1, "is the input file"},
      {"two_audio.mp4 -o soft_link.mp4", 1, "is the input file"},
      {"two_audio.mp4 -o ./../" + dir.substr(dir.rfind('/', dir.size() - 2) + 1) + "two_audio.mp4", 1, "is the input file"},
      {"truncated.mp4 -o out.mp4", 1, "truncated"},
      {"cut_moov.mp4 -o out.mp4", 1, "truncated"},
      {"text.mp4 -o out.mp4", 1, "boxlane remux: "},
      {"missing.mp4 -o out.mp4", 1, "cannot open 'missing.mp4'"},
      {"broken.mp4 --skip-unsupported -o out.mp4", 1, "holds a NAL unit longer than the sample"},
      {"two_audio.mp4 -o out.mp4 --fragment 1 --faststart", 2, "exclude each other"},
      {"two_audio.mp4 -o out.mp4 --fragment 0", 2, "--fragment needs a length in seconds"},
      {"two_audio.mp4 -o out.mp4 --fragment 3600.001", 2, "above 0 and at most 3600"},
      {"two_audio.mp4 -o out.mp4 --fragment 3600", 1, "a second audio track"},
      {"two_audio.mp4", 2, "no output file given"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    write_file(dir + "out.mp4", unhex("6F6C64"));  // "old"
    const auto before = read_file(dir + "two_audio.mp4");
    const RemuxRun r = remux("-q " + c.args, dir);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(read_file(dir + "out.mp4"), unhex("6F6C64"));
    EXPECT_EQ(read_file(dir + "two_audio.mp4"), before);
    std::string listing;
    run("ls -a " + shell_quote(dir) + " | grep -c '^\\.[^.]'", &listing);
    EXPECT_EQ(listing, "0\n") << "a temporary file is left";
  }

  // --skip-unsupported leaves those tracks out with a notice each, and the
  // rest decodes as before; --quiet drops the notices too.
  RemuxRun r = remux(shell_quote(dir + "others.mp4") + " --skip-unsupported -o " + shell_quote(dir + "out.mp4"));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("track 2 (soun, 'mp4a') cannot be written: its mp4a entry holds object type 0x6B, not AAC; left out"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("track 3 (sbtl, 'tx3g') cannot be written"), std::string::npos) << r.err;
  std::string streams;
  run("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 " + shell_quote(dir + "out.mp4"), &streams);
  EXPECT_EQ(streams, "h264\n");
  EXPECT_EQ(decoded_md5s(dir + "out.mp4", 'v'), decoded_md5s(dir + "others.mp4", 'v'));
  r = remux(shell_quote(dir + "others.mp4") + " --skip-unsupported --quiet --fragment 0.5 -o " + shell_quote(dir + "out.mp4"));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "");
}

}  // namespace
}  // namespace boxlane::test
