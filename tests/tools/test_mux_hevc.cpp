// `boxlane mux` on H.265 streams that libx265 makes at test time (Main and
// Main 10, B-frames, open and closed GOPs, several slices per picture, with
// and without AAC). Every file must decode in FFmpeg and in GStreamer to the
// pictures of the source, start presenting at 0, keep the source's random
// access points as key frames, and read whole in mp4box.js, which names the
// codec; what cannot be written must be refused with a message.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "support/ffmpeg.hpp"
#include "support/mp4_file_writer.hpp"
#include "support/paths.hpp"

namespace boxlane::test {
namespace {

namespace fs = std::filesystem;

struct Result {
  int status;
  std::string output;  // stdout and stderr
};

Result mux(const std::string& args) {
  Result r;
  r.status = run(shell_quote(tool_path()) + " mux " + args + " 2>&1", &r.output);
  return r;
}

struct HevcSource {
  std::string video, audio;
  std::string size, rate, pix_fmt;
};

// Two seconds of libx265 video with `params`, and AAC beside it.
HevcSource make_hevc(const std::string& prefix, const std::string& size, const std::string& rate,
                     const std::string& pix_fmt, const std::string& params) {
  HevcSource s{prefix + ".h265", prefix + ".aac", size, rate, pix_fmt};
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + ":duration=2 -map 0:v -c:v libx265 "
                   "-pix_fmt " + pix_fmt + " -x265-params log-level=error:" + params + " -f hevc " + shell_quote(s.video) +
                   " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -map 1:a -c:a aac -f adts " +
                   shell_quote(s.audio), &log), 0) << log;
  return s;
}

// The directory mp4box.js was installed into by scripts/test.sh; empty
// when it is not there.
std::string mp4box_module() {
  const std::string dir = binary_dir() + "/npm/node_modules/mp4box";
  return fs::exists(dir + "/package.json") && have_command("node") ? dir : "";
}

// What mp4box.js reads, one line per track: id, codec, samples in the
// tables, samples handed out, their bytes.
std::string mp4box_read(const std::string& file) {
  std::string out;
  EXPECT_EQ(run("node " + shell_quote(source_dir() + "/tests/support/mp4box_read.js") + " " + shell_quote(mp4box_module()) +
                    " " + shell_quote(file) + " 2>&1", &out), 0) << out;
  return out;
}

// GStreamer's raw 4:2:0 frames have every row padded to 4 bytes; FFmpeg's
// have none. Takes the rows back to their width.
std::vector<uint8_t> unpad_420(const std::vector<uint8_t>& padded, uint32_t width, uint32_t height, uint32_t sample_bytes) {
  const uint32_t cw = (width + 1) / 2, ch = (height + 1) / 2;
  const struct {
    uint32_t row, rows;
  } planes[] = {{width * sample_bytes, height}, {cw * sample_bytes, ch}, {cw * sample_bytes, ch}};
  std::vector<uint8_t> out;
  std::size_t at = 0;
  while (at < padded.size()) {
    for (const auto& p : planes) {
      const uint32_t stride = (p.row + 3) & ~3u;
      for (uint32_t y = 0; y < p.rows && at + p.row <= padded.size(); ++y, at += stride) {
        out.insert(out.end(), padded.begin() + long(at), padded.begin() + long(at + p.row));
      }
    }
  }
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
      make_hevc(dir + "main10", "322x182", "30000/1001", "yuv420p10le",
                "bframes=3:b-pyramid=1:keyint=24:open-gop=1:slices=3"),
  };
  const struct {
    int source;
    bool audio;
    const char* options;
    double fps;
    const char* says;
  } runs[] = {
      {0, true, "", 25, "video H.265 176x144, 50 frames at 25 fps with B-frames; audio AAC 48000 Hz"},
      {0, false, "--faststart --video-codec hevc", 25, "video H.265 176x144"},
      {1, true, "--faststart", 30000.0 / 1001, "video H.265 322x182, 60 frames at 29.970 fps with B-frames"},
      {1, false, "--video-codec h265", 30000.0 / 1001, "video H.265 322x182"},
  };
  for (const auto& m : runs) {
    const HevcSource& src = sources[m.source];
    SCOPED_TRACE(src.video + (m.audio ? " with audio " : " ") + m.options);
    const std::string out = dir + "out.mp4";
    const Result r = mux("--video " + shell_quote(src.video) + (m.audio ? " --audio " + shell_quote(src.audio) : "") + " " +
                         m.options + " -o " + shell_quote(out));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find(m.says), std::string::npos) << r.output;
    expect_decodes_like(out, src.video, m.audio ? src.audio : "");

    std::string layout;
    for (const auto& box : top_boxes(read_file(out))) layout += box.type + " ";
    EXPECT_EQ(layout, std::string(m.options).find("--faststart") != std::string::npos ? "ftyp moov mdat " : "ftyp mdat moov ");

    // Presentation starts at 0 and steps at the frame rate; the key frames
    // are the source's random access points, in decoding order.
    const auto packets = probe_packets(out, 'v');
    const auto raw = probe_packets(src.video, 'v');
    ASSERT_EQ(packets.size(), raw.size());
    std::vector<double> times;
    std::vector<bool> keys, raw_keys;
    for (const auto& p : packets) times.push_back(p.pts), keys.push_back(p.key);
    for (const auto& p : raw) raw_keys.push_back(p.key);
    std::sort(times.begin(), times.end());
    for (std::size_t i = 0; i < times.size(); ++i) EXPECT_NEAR(times[i], i / m.fps, 2e-4) << "frame " << i;
    EXPECT_EQ(keys, raw_keys);
    EXPECT_GE(std::count(keys.begin(), keys.end(), true), 2);
    if (m.audio) {
      EXPECT_NEAR(probe_packets(out, 'a').front().pts, 0.0, 1e-6);
    }

    // GStreamer decodes the same pictures as FFmpeg does from the source.
    if (have_command("gst-launch-1.0")) {
      const bool deep = src.pix_fmt != "yuv420p";
      const std::string gst = dir + "gst.yuv", ff = dir + "ff.yuv";
      ASSERT_EQ(run("gst-launch-1.0 -q filesrc location=" + shell_quote(out) + " ! qtdemux ! decodebin ! videoconvert ! "
                    "video/x-raw,format=" + std::string(deep ? "I420_10LE" : "I420") + " ! filesink location=" + shell_quote(gst)),
                0);
      ASSERT_EQ(ffmpeg("-v error -i " + shell_quote(src.video) + " -pix_fmt " + src.pix_fmt + " -f rawvideo " + shell_quote(ff)), 0);
      const uint32_t width = uint32_t(std::stoul(src.size)), height = uint32_t(std::stoul(src.size.substr(src.size.find('x') + 1)));
      const auto decoded = read_file(ff);
      EXPECT_FALSE(decoded.empty());
      EXPECT_TRUE(unpad_420(read_file(gst), width, height, deep ? 2 : 1) == decoded) << "GStreamer decodes other pictures";
    } else {
      ADD_FAILURE() << "GStreamer is not installed (scripts/test.sh installs it)";
    }

    // mp4box.js names the codec from the hvcC and reads every sample.
    if (mp4box_module().empty()) {
      ADD_FAILURE() << "mp4box.js is not installed under build/npm (scripts/test.sh installs it)";
      continue;
    }
    int64_t bytes = 0;
    for (const auto& p : packets) bytes += p.size;
    const std::string n = std::to_string(packets.size());
    const std::string video_line = std::string("1 ") + (m.source == 0 ? "hvc1.1.6.L60.90 " : "hvc1.2.4.L60.90 ") + n +
                                   " " + n + " " + std::to_string(bytes) + "\n";
    const std::string read = mp4box_read(out);
    EXPECT_EQ(read.substr(0, read.find('\n') + 1), video_line);
    if (m.audio) {
      EXPECT_NE(read.find("\n2 mp4a.40.2 "), std::string::npos) << read;
    }
  }
}

// The first bytes of every picture's first slice segment, in stream order.
std::vector<std::size_t> picture_starts(const std::vector<uint8_t>& s, std::vector<int>* types) {
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i + 5 < s.size(); ++i) {
    if (s[i] || s[i + 1] || s[i + 2] != 1) continue;
    const int type = (s[i + 3] >> 1) & 0x3F;
    if (type < 32 && (s[i + 5] & 0x80)) {
      starts.push_back(i);
      types->push_back(type);
    }
  }
  return starts;
}

TEST(MuxHevc, DecodingStartsAtTheFirstRandomAccessPoint) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  // Open GOPs with the parameter sets repeated at each random access point,
  // as a broadcast sends them; the stream is then cut inside a GOP.
  const HevcSource src = make_hevc(dir + "open", "160x96", "25", "yuv420p",
                                   "bframes=3:keyint=20:min-keyint=20:open-gop=1:repeat-headers=1");
  const auto whole = read_file(src.video);
  std::vector<int> types;
  const auto starts = picture_starts(whole, &types);
  const auto cra = std::find(types.begin() + 1, types.end(), 21);
  ASSERT_NE(cra, types.end());
  const std::size_t cut_at = starts[std::size_t(cra - types.begin()) - 6];
  const std::string cut = dir + "cut.h265";
  write_file(cut, {whole.begin() + long(cut_at), whole.end()});

  const std::string out = dir + "cut.mp4";
  const Result r = mux("--video " + shell_quote(cut) + " -o " + shell_quote(out));
  ASSERT_EQ(r.status, 0) << r.output;
  // The six pictures before the CRA picture, and its RASL pictures, which
  // refer to pictures before the cut.
  const auto rasl = std::count_if(cra + 1, cra + 8, [](int t) { return t == 8 || t == 9; });
  EXPECT_NE(r.output.find("skipped " + std::to_string(6 + rasl) + " pictures that cannot be decoded"), std::string::npos)
      << r.output;
  // FFmpeg shows the RASL pictures too (concealed, before the CRA picture in
  // display order); from there on its pictures are ours.
  auto want = decoded_md5s(cut, 'v');
  auto got = decoded_md5s(out, 'v');
  ASSERT_GE(want.size(), got.size() + std::size_t(rasl));
  EXPECT_EQ(got, std::vector<std::string>(want.end() - long(got.size()), want.end()));
  EXPECT_NEAR(probe_packets(out, 'v').front().pts, 0.0, 1e-6);
  EXPECT_TRUE(probe_packets(out, 'v').front().key);

  // The stream repeats its parameter sets; the file holds them once, in the
  // sample description, and none in the samples.
  std::string trace;
  ASSERT_EQ(run("ffmpeg -nostdin -hide_banner -v info -i " + shell_quote(out) + " -c copy -bsf:v trace_headers -f null - 2>&1", &trace), 0);
  for (const char* set : {"Video Parameter Set", "Sequence Parameter Set", "Picture Parameter Set"}) {
    std::size_t count = 0;
    for (std::size_t at = trace.find(set); at != std::string::npos; at = trace.find(set, at + 1)) ++count;
    EXPECT_EQ(count, 1u) << set;
  }
  EXPECT_LT(trace.find("Picture Parameter Set"), trace.find("Slice Segment Header"));
}

TEST(MuxHevc, RefusesWhatItCannotWrite) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir() + "/";
  const HevcSource a = make_hevc(dir + "a", "176x144", "25", "yuv420p", "bframes=2");
  const HevcSource b = make_hevc(dir + "b", "160x96", "25", "yuv420p", "bframes=2");
  const auto first = read_file(a.video);
  std::vector<uint8_t> changing = first;
  const auto second = read_file(b.video);
  changing.insert(changing.end(), second.begin(), second.end());
  ASSERT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=160x120:duration=0.2 -c:v libx264 -f h264 " +
                   shell_quote(dir + "avc.h264")), 0);
  // A NAL unit of layer 1 after the base layer's pictures.
  std::vector<uint8_t> layered = first;
  layered.insert(layered.end(), {0, 0, 0, 1, 0x02, 0x09, 0xAF, 0x00});
  std::vector<uint8_t> garbage(4096);
  for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t(i * 7 + 1);
  const auto input = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    write_file(dir + name, bytes);
    return shell_quote(dir + name);
  };
  const std::string out = dir + "out.mp4";
  const struct {
    std::string args;
    std::string says;
  } failures[] = {
      {"--video " + input("garbage.bin", garbage), "neither an H.264 nor an H.265"},
      {"--video " + input("zeros.bin", std::vector<uint8_t>(64, 0)), "neither an H.264 nor an H.265"},
      {"--video " + input("changing.h265", changing),
       "video parameter set 0 changes at byte " + std::to_string(first.size() + 4)},
      {"--video " + input("layered.h265", layered), "layered H.265"},
      {"--video " + shell_quote(dir + "avc.h264") + " --video-codec hevc", "is this an H.265 stream?"},
      {"--video " + input("cut.h265", {first.begin(), first.begin() + 40}), "cut short"},
      {"--video " + shell_quote(a.video) + " --video-codec vp9", "--video-codec takes h264, h265"},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.args);
    const Result r = mux(f.args + " -o " + shell_quote(out));
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find(f.says), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(out));
  }
  // Told the codec, or told by the stream: the same file.
  ASSERT_EQ(mux("-q --video " + shell_quote(a.video) + " -o " + shell_quote(out)).status, 0);
  const auto detected = read_file(out);
  ASSERT_EQ(mux("-q --video-codec hevc --video " + shell_quote(a.video) + " -o " + shell_quote(out)).status, 0);
  EXPECT_EQ(read_file(out).size(), detected.size());
}

}  // namespace
}  // namespace boxlane::test
