// Runs `boxlane mux` as a user does, and makes its inputs with FFmpeg, for
// the tools suites.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"

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

inline std::string inputs(const Streams& s, bool video = true, bool audio = true) {
  return (video ? " --video " + shell_quote(s.video) : "") + (audio ? " --audio " + shell_quote(s.audio) : "");
}

}  // namespace boxlane::test
