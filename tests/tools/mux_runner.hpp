// Runs `boxlane mux` as a user does, and makes its inputs with FFmpeg, for
// the tools suites.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"
#include "support/readers.hpp"

namespace boxlane::test {

struct MuxResult {
  int status;
  std::string output;  // stdout and stderr
};

inline MuxResult mux(const std::string& args) {
  MuxResult r;
  r.status = run(shell_quote(tool_path()) + " mux " + args + " 2>&1", &r.output);
  return r;
}

// "25", "29.97" or "30000/1001" as frames a second.
inline double rate_of(const std::string& text) {
  const std::size_t slash = text.find('/');
  return slash == std::string::npos ? std::stod(text) : std::stod(text) / std::stod(text.substr(slash + 1));
}

struct Streams {
  std::string video, audio;
  double fps = 0;
  std::string pix_fmt = "yuv420p";
};

// `seconds` of FFmpeg's test picture as H.264 (libx264 with `x264` params)
// at `prefix`.h264, and of a sine as AAC in ADTS at `prefix`.aac.
inline Streams encode(const std::string& prefix, const std::string& size, const std::string& rate, double seconds,
                      const std::string& x264, int sample_rate = 48000, int channels = 2) {
  const Streams s{prefix + ".h264", prefix + ".aac", rate_of(rate)};
  const std::string length = ":duration=" + std::to_string(seconds);
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + length +
                       " -map 0:v -c:v libx264 -preset veryfast -pix_fmt yuv420p -x264-params " + x264 + " -f h264 " +
                       shell_quote(s.video) + " -f lavfi -i sine=frequency=440:sample_rate=" +
                       std::to_string(sample_rate) + length + " -map 1:a -c:a aac -ac " + std::to_string(channels) +
                       " -f adts " + shell_quote(s.audio),
                   &log),
            0)
      << log;
  return s;
}

// `seconds` of FFmpeg's test picture as H.265 (libx265 with `x265` params)
// at `path`.
inline std::string encode_h265(const std::string& path, const std::string& size, const std::string& rate,
                               double seconds, const std::string& pix_fmt, const std::string& x265) {
  std::string log;
  EXPECT_EQ(ffmpeg("-v error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate + ":duration=" +
                       std::to_string(seconds) + " -pix_fmt " + pix_fmt + " -c:v libx265 -preset ultrafast "
                       "-x265-params log-level=error:" + x265 + " -f hevc " + shell_quote(path),
                   &log),
            0)
      << log;
  return path;
}

// GStreamer decodes from `file` the pictures FFmpeg decodes from `source`.
inline void expect_gstreamer_shows(const std::string& file, const Streams& source) {
  const std::string want = ffmpeg_video_md5(source.video, source.pix_fmt);
  EXPECT_FALSE(want.empty()) << source.video;
  EXPECT_EQ(gstreamer_video_md5(file, source.pix_fmt), want) << "GStreamer's pictures of " << file;
}

inline std::string inputs(const Streams& s, bool video = true, bool audio = true) {
  return (video ? " --video " + shell_quote(s.video) : "") + (audio ? " --audio " + shell_quote(s.audio) : "");
}

}  // namespace boxlane::test
