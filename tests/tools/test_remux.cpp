// `boxlane remux`, run as a user runs it, on files FFmpeg (and GStreamer)
// make at test time: progressive with the moov at either end, fragmented,
// H.264 and H.265 (hvc1, hev1) with B-frames, AAC at 48 and 44.1 kHz, stco
// and co64. Each is remuxed into fragments and back into progressive files,
// and independent readers judge the results: FFmpeg decodes the same
// pictures and audio frames, ffprobe sees the same samples, times, key
// flags and stream parameters, fragments open on sync samples, GStreamer
// decodes them and Chromium plays them through Media Source Extensions.
// What works on numbers and bytes alone is checked on its own: the edit
// lists read from a moov written out by hand, the edit list box against
// bytes written out by hand, the movie time scale chosen for two tracks and
// the edit lists planned for the output.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "fragment_checks.hpp"
#include "support/box_builder.hpp"
#include "support/ffmpeg.hpp"
#include "support/mp4_rewrite.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"
#include "tools/common/edit_list.hpp"
#include "tools/remux/edit_lists.hpp"
#include "tools/remux/timeline.hpp"

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

using tool::EditEntry;

std::vector<std::pair<uint32_t, std::vector<EditEntry>>> lists_of(const std::vector<uint8_t>& file) {
  const auto lists = tool::read_edit_lists(file.data(), file.size());
  return {lists.begin(), lists.end()};
}

Bytes tkhd(uint8_t version, uint32_t id) {
  Bytes p;
  p.zeros(version == 1 ? 16 : 8).u32(id).zeros(version == 1 ? 80 : 72);
  return full_box("tkhd", version, 3, p);
}

TEST(RemuxEditLists, ReadFromTheMoovOfEachTrack) {
  // Track 1: elst version 0 with an empty edit and a media edit; track 7:
  // version 1 with 64-bit fields, tkhd version 1; track 3: no edts.
  const Bytes elst0 = full_box("elst", 0, 0, unhex("00000002 00000050 FFFFFFFF 00010000 00000FA0 00000400 00010000"));
  const Bytes elst1 = full_box("elst", 1, 0,
                               unhex("00000001 0000000100000000 0000000000000800 00020000"));
  const Bytes file = cat({box("ftyp", unhex("69736F6D 00000200")), box("mdat", unhex("00112233")),
                          box("moov", cat({box("trak", cat({tkhd(0, 1), box("edts", elst0)})),
                                           box("trak", cat({tkhd(0, 3)})),
                                           box("trak", cat({box("edts", elst1), tkhd(1, 7)}))}))});
  const std::vector<std::pair<uint32_t, std::vector<EditEntry>>> want{
      {1, {{80, -1, 1, 0}, {4000, 1024, 1, 0}}},
      {7, {{uint64_t{1} << 32, 2048, 2, 0}}},
  };
  EXPECT_EQ(lists_of(file), want);
}

TEST(RemuxEditLists, MalformedBoxesYieldWhatIsWhole) {
  const auto elst = [](const char* hex) { return box("edts", full_box("elst", 0, 0, unhex(hex))); };
  const Bytes one = elst("00000001 00000FA0 00000400 00010000");
  Bytes cut = box("moov", box("trak", tkhd(0, 1)));
  cut.resize(cut.size() - 3);
  const struct {
    const char* what;
    Bytes file;
    std::size_t entries;  // of track 1; 99: no list
  } cases[] = {
      {"count past the box", box("moov", box("trak", cat({tkhd(0, 1), elst("000003E8 00000FA0 00000400 00010000")}))), 1},
      {"half an entry", box("moov", box("trak", cat({tkhd(0, 1), elst("00000001 00000FA0 0000")}))), 0},
      {"tkhd cut before the id", box("moov", box("trak", cat({full_box("tkhd", 0, 3, Bytes().zeros(10)), one}))), 99},
      {"trak past the moov", box("moov", box("trak", cat({tkhd(0, 1), one}), 4000)), 99},
      {"moov cut short", cut, 99},
      {"size below the header", box("moov", box("trak", {}, 4)), 99},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto lists = tool::read_edit_lists(c.file.data(), c.file.size());
    EXPECT_EQ(lists.count(1) ? lists.at(1).size() : 99, c.entries);
  }
}

// The edit list boxes the commands write: one entry through EDts64, two
// as an elst of those fields; version 1 once a field needs 64 bits.
TEST(RemuxEditLists, EditBoxBytes) {
  tool::WriterClient client("test");
  const struct {
    std::vector<EditEntry> entries;
    const char* hex;
  } cases[] = {
      {{{4000, 1024}}, "00000024 65647473 0000001C 656C7374 00000000 00000001 00000FA0 00000400 00010000"},
      {{{80, -1}, {4000, 1024}},
       "00000030 65647473 00000028 656C7374 00000000 00000002 00000050 FFFFFFFF 00010000 00000FA0 00000400 00010000"},
      {{{80, -1}, {0, int64_t{1} << 31}},
       "00000040 65647473 00000038 656C7374 01000000 00000002 0000000000000050 FFFFFFFFFFFFFFFF 00010000"
       " 0000000000000000 0000000080000000 00010000"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(hex(tool::edit_box(client.name(), c.entries)), hex(unhex(c.hex)));
  }
}

tool::SourceTrack track(bool video, uint32_t timescale, uint32_t duration, std::vector<int32_t> offsets,
                        std::vector<EditEntry> edits = {}) {
  tool::SourceTrack t;
  t.codec = video ? tool::SourceCodec::kH264 : tool::SourceCodec::kAac;
  t.timescale = timescale;
  uint64_t decode = 0;
  for (const int32_t offset : offsets) {
    t.samples.push_back({decode, static_cast<int64_t>(decode) + offset, 0, duration, 100, true});
    decode += duration;
  }
  t.edits = std::move(edits);
  return t;
}

TEST(RemuxTimeline, OneTimeScaleToWhichEveryTimeConvertsExactly) {
  const struct {
    const char* what;
    uint32_t video_scale, video_duration, audio_scale, audio_duration;
    uint32_t want;
  } cases[] = {
      {"25 fps at 12800 goes to 48 kHz audio", 12800, 512, 48000, 1024, 48000},
      {"and to 44.1 kHz audio", 12800, 512, 44100, 1024, 44100},
      {"29.97 fps does not: the video's, which the audio fits", 30000, 1001, 48000, 1024, 30000},
      {"29.97 fps and 44.1 kHz: their least common multiple", 30000, 1001, 44100, 1024, 4410000},
      {"neither fits the other", 90000, 3003, 44100, 1024, 4410000},
      {"the same time scale", 48000, 1600, 48000, 1024, 48000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const int32_t d = static_cast<int32_t>(c.video_duration);
    const auto v = track(true, c.video_scale, c.video_duration, {2 * d, 0, d, d, 0}, {{0, 2 * d}});
    const auto a = track(false, c.audio_scale, c.audio_duration, {0, 0, 0});
    const tool::Timeline t = tool::plan_timeline({&v, &a}, 1000);
    EXPECT_EQ(t.timescale, c.want);
    ASSERT_EQ(t.tracks.size(), 2u);
    for (std::size_t k = 0; k < 2; ++k) {
      const tool::SourceTrack& src = k == 0 ? v : a;
      uint64_t sum = 0;
      for (std::size_t i = 0; i < src.samples.size(); ++i) {
        // Exact: the output duration is the input's at the new scale.
        EXPECT_EQ(uint64_t{t.tracks[k].duration(i)} * src.timescale, uint64_t{src.samples[i].duration} * c.want);
        sum += t.tracks[k].duration(i);
      }
      EXPECT_EQ(t.tracks[k].media_duration, sum);
    }
    EXPECT_EQ(t.tracks[0].offset(0) * int64_t{v.timescale}, 2 * int64_t{c.video_duration} * c.want);
    EXPECT_EQ(t.tracks[0].edit_media_time * int64_t{v.timescale}, 2 * int64_t{c.video_duration} * c.want);
  }
}

TEST(RemuxTimeline, TimeScalesWithoutACommonMultipleBelowTwoToThe31AreRefused) {
  const auto v = track(true, 65521, 1, {0});    // primes: the multiple is their product
  const auto a = track(false, 65519, 1024, {0});
  EXPECT_THROW(tool::plan_timeline({&v, &a}, 1000), tool::ToolError);
}

TEST(RemuxTimeline, EditListsForTheOutput) {
  // 25 fps at 12800 ticks alone, offsets of 0 to 2 frames; movie at 1000.
  const struct {
    const char* what;
    std::vector<int32_t> offsets;
    std::vector<EditEntry> input;
    int64_t shift;
    bool to_end;
    std::vector<EditEntry> want;
    uint64_t presentation;
  } cases[] = {
      {"none needed", {0, 0, 0}, {}, 0, false, {}, 1536},
      {"the input's media edit", {1024, 1536, 512}, {{120, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"its duration 0 runs to the end", {1024, 1536, 512}, {{0, 1024}}, 0, false, {{1536, 1024}}, 1536},
      {"a shift is taken back out", {512, 0, 1024}, {{120, 512}}, 512, false, {{1536, 1024}}, 1536},
      // No edit list: the first picture is presented at its composition
      // time, 512, after a gap.
      {"without an edit too", {512, 0, 1024}, {}, 512, false, {{512, -1}, {2048, 1024}}, 2560},
      {"a gap before the first picture", {1024, 2048, 512}, {{120, 0}}, 0, false, {{1024, -1}, {512, 1024}}, 1536},
      {"the input's empty edit stays", {1024, 1536, 512}, {{40, -1}, {120, 1024}}, 0, false,
       {{512, -1}, {1536, 1024}}, 2048},
      // 41 ms are 524.8 ticks.
      {"an empty edit to the nearest tick", {1024, 1536, 512}, {{41, -1}, {120, 1024}}, 0, false,
       {{525, -1}, {1536, 1024}}, 2061},
      {"fragments: duration 0", {1024, 1536, 512}, {{120, 1024}}, 0, true, {{0, 1024}}, 1536},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto v = track(true, 12800, 512, c.offsets, c.input);
    const tool::Timeline t = tool::plan_timeline({&v}, 1000);
    ASSERT_EQ(t.timescale, 12800u);
    const tool::EditPlan plan = tool::plan_edits(t.tracks[0], c.shift, c.to_end);
    ASSERT_EQ(plan.entries.size(), c.want.size());
    for (std::size_t i = 0; i < c.want.size(); ++i) {
      EXPECT_EQ(plan.entries[i].segment_duration, c.want[i].segment_duration) << i;
      EXPECT_EQ(plan.entries[i].media_time, c.want[i].media_time) << i;
    }
    EXPECT_EQ(plan.presentation, c.presentation);
  }
}

}  // namespace
}  // namespace boxlane::test
