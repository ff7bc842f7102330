// `boxlane mux` on H.265 streams that libx265 makes at test time (Main and
// Main 10, B-frames, open and closed GOPs, several slices per picture, with
// and without AAC). Every file must decode in FFmpeg and in GStreamer to the
// pictures of the source, start presenting at 0, keep the source's random
// access points as key frames, and read whole in mp4box.js, which names the
// codec from the hvcC.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/readers.hpp"
#include "mux_runner.hpp"

namespace boxlane::test {
namespace {

struct HevcSource {
  std::string video, audio, pix_fmt;
};

// Two seconds of libx265 video with `params`, and AAC beside it.
HevcSource make_hevc(const std::string& prefix, const std::string& size, const std::string& rate,
                     const std::string& pix_fmt, const std::string& params) {
  HevcSource s{prefix + ".h265", prefix + ".aac", pix_fmt};
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + ":duration=2 -map 0:v -c:v libx265 "
                   "-pix_fmt " + pix_fmt + " -x265-params log-level=error:" + params + " -f hevc " + shell_quote(s.video) +
                   " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -map 1:a -c:a aac -f adts " +
                   shell_quote(s.audio), &log), 0) << log;
  return s;
}

std::string md5_of(const std::string& command) {
  std::string out;
  run(command + " | md5sum", &out);
  EXPECT_NE(out.substr(0, 32), "d41d8cd98f00b204e9800998ecf8427e") << "nothing from " << command;
  return out;
}

TEST(MuxHevc, WrittenFilesDecodeLikeTheirSources) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const HevcSource sources[] = {
      // Main, closed GOPs (IDR every 30), four B-frames.
      make_hevc(dir + "main", "176x144", "25", "yuv420p", "bframes=4:keyint=30:open-gop=0"),
      // Main 10, open GOPs (CRA pictures with leading pictures), a B-pyramid,
      // three slices a picture, a conformance window, NTSC rate.
      make_hevc(dir + "main10", "320x180", "30000/1001", "yuv420p10le",
                "bframes=3:b-pyramid=1:keyint=24:open-gop=1:slices=3"),
  };
  const struct {
    int source;
    bool audio;
    const char* options;
    double fps;
    const char* says;
    const char* codec;  // as mp4box.js names it
  } runs[] = {
      {0, true, "", 25, "video H.265 176x144, 50 frames at 25 fps with B-frames; audio AAC 48000 Hz", "hvc1.1.6.L60.90"},
      {0, false, "--faststart --video-codec hevc", 25, "video H.265 176x144", "hvc1.1.6.L60.90"},
      {1, true, "--faststart", 30000.0 / 1001, "video H.265 320x180, 60 frames at 29.970 fps with B-frames",
       "hvc1.2.4.L60.90"},
      {1, false, "--video-codec h265", 30000.0 / 1001, "video H.265 320x180", "hvc1.2.4.L60.90"},
  };
  for (const auto& m : runs) {
    const HevcSource& src = sources[m.source];
    SCOPED_TRACE(src.video + (m.audio ? " with audio " : " ") + m.options);
    const std::string out = dir + "out.mp4";
    const MuxResult r = mux("--video " + shell_quote(src.video) + (m.audio ? " --audio " + shell_quote(src.audio) : "") +
                            " " + m.options + " -o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find(m.says), std::string::npos) << r.output;
    expect_decodes_like(out, src.video, m.audio ? src.audio : "");

    // Presentation starts at 0 and steps at the frame rate; the key frames
    // are the source's random access points, in decoding order.
    const auto packets = probe_packets(out, 'v');
    const auto raw = probe_packets(src.video, 'v');
    ASSERT_EQ(packets.size(), raw.size());
    std::vector<double> times;
    for (std::size_t i = 0; i < packets.size(); ++i) {
      times.push_back(packets[i].pts);
      EXPECT_EQ(packets[i].key, raw[i].key) << "picture " << i;
    }
    std::sort(times.begin(), times.end());
    for (std::size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(times[i], i / m.fps, 2e-4) << "frame " << i;
    if (m.audio) {
      EXPECT_NEAR(probe_packets(out, 'a').at(0).pts, 0.0, 1e-6);
    }
    // GStreamer decodes the same pictures as FFmpeg does from the source.
    const bool deep = src.pix_fmt != "yuv420p";
    EXPECT_EQ(md5_of("gst-launch-1.0 -q filesrc location=" + shell_quote(out) + " ! qtdemux ! decodebin ! "
                     "videoconvert ! video/x-raw,format=" + (deep ? "I420_10LE" : "I420") + " ! fdsink fd=1"),
              md5_of("ffmpeg -nostdin -v error -i " + shell_quote(src.video) + " -pix_fmt " + src.pix_fmt +
                     " -f rawvideo -"));
    // mp4box.js names the codec and reads every sample whole.
    ASSERT_TRUE(have_mp4box()) << "scripts/test.sh installs mp4box.js";
    const Mp4BoxReport mp4box = read_with_mp4box(out);
    EXPECT_TRUE(mp4box.errors.empty()) << mp4box.errors.front();
    ASSERT_FALSE(mp4box.codecs.empty());
    EXPECT_EQ(mp4box.codecs[0], m.codec);
    int64_t want = 0, got = 0;
    for (const auto& p : packets) want += p.size;
    for (const auto& s : mp4box.samples) got += s.track == 1 ? s.size : 0;
    EXPECT_EQ(mp4box.count(1), packets.size());
    EXPECT_EQ(got, want);
  }
}

TEST(MuxHevc, DecodingStartsAtTheFirstRandomAccessPoint) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  // Open GOPs with the parameter sets repeated at each random access point,
  // as a broadcast sends them; the stream is then cut inside a GOP.
  const HevcSource src = make_hevc(dir + "open", "160x96", "25", "yuv420p",
                                   "bframes=3:keyint=20:min-keyint=20:open-gop=1:repeat-headers=1");
  const auto whole = read_file(src.video);
  std::vector<std::size_t> starts;  // of every picture's first slice segment
  std::vector<int> types;
  for (std::size_t i = 0; i + 5 < whole.size(); ++i) {
    const int type = (whole[i + 3] >> 1) & 0x3F;
    if (!whole[i] && !whole[i + 1] && whole[i + 2] == 1 && type < 32 && (whole[i + 5] & 0x80)) {
      starts.push_back(i);
      types.push_back(type);
    }
  }
  const auto cra = std::find(types.begin() + 1, types.end(), 21);
  ASSERT_NE(cra, types.end());
  const std::string cut = dir + "cut.h265", out = dir + "cut.mp4";
  write_file(cut, {whole.begin() + long(starts[std::size_t(cra - types.begin()) - 6]), whole.end()});

  const MuxResult r = mux("--video " + shell_quote(cut) + " -o " + shell_quote(out));
  ASSERT_EQ(r.status, 0) << r.output;
  // The six pictures before the CRA picture, and its RASL pictures, which
  // refer to pictures before the cut.
  const auto rasl = std::count_if(cra + 1, cra + 8, [](int t) { return t == 8 || t == 9; });
  EXPECT_NE(r.output.find("skipped " + std::to_string(6 + rasl) + " pictures that cannot be decoded"), std::string::npos)
      << r.output;
  // FFmpeg shows the RASL pictures too (concealed, before the CRA picture in
  // display order); from there on its pictures are ours.
  const auto want = decoded_md5s(cut, 'v');
  const auto got = decoded_md5s(out, 'v');
  ASSERT_GE(want.size(), got.size() + std::size_t(rasl));
  EXPECT_EQ(got, std::vector<std::string>(want.end() - long(got.size()), want.end()));
  EXPECT_NEAR(probe_packets(out, 'v').front().pts, 0.0, 1e-6);
  EXPECT_TRUE(probe_packets(out, 'v').front().key);

  // The stream repeats its parameter sets; the file holds them once, in the
  // sample description, and none in the samples.
  std::string trace;
  ASSERT_EQ(run("ffmpeg -nostdin -hide_banner -v info -i " + shell_quote(out) + " -c copy -bsf:v trace_headers -f null - 2>&1",
                &trace), 0);
  for (const char* set : {"Video Parameter Set", "Sequence Parameter Set", "Picture Parameter Set"}) {
    std::size_t count = 0;
    for (std::size_t at = trace.find(set); at != std::string::npos; at = trace.find(set, at + 1)) ++count;
    EXPECT_EQ(count, 1u) << set;
  }
  EXPECT_LT(trace.find("Picture Parameter Set"), trace.find("Slice Segment Header"));
}

}  // namespace
}  // namespace boxlane::test
