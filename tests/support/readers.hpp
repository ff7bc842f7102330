// The independent readers besides FFmpeg: mp4box.js and headless Chromium (through node, with the npm
// packages scripts/test.sh installs into the build tree) and GStreamer. Each reports plain facts the tests
// compare.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace boxlane::test {

bool have_chromium();   // node, playwright-core and /usr/bin/chromium
bool have_gstreamer();  // gst-launch-1.0 with qtdemux, h264parse, avdec_h264, avdec_aac

struct Mp4BoxSample {
  uint32_t track = 0;
  int64_t dts = 0, cts = 0;
  uint32_t size = 0;
  bool sync = false;
};

struct Mp4BoxReport {
  bool fragmented = false;
  std::vector<std::string> codecs;  // per track, as RFC 6381 names them
  std::vector<Mp4BoxSample> samples;  // every track, each in decode order
  std::vector<std::pair<uint32_t, uint64_t>> tfra;  // track, moof offset
  std::vector<std::string> errors;
  std::size_t count(uint32_t track) const {
    return std::count_if(samples.begin(), samples.end(), [&](const Mp4BoxSample& s) { return s.track == track; });
  }
};

// What mp4box.js 2.x (npm mp4box, installed as mp4box-2) reads from the file.
Mp4BoxReport read_with_mp4box(const std::string& file);

// Headless Chromium appends the init segment, then every whole fragment, through Media Source Extensions and
// plays to the end (tests/support/browser/mse_play.mjs).
struct MsePlayback {
  std::string report;  // the page's JSON, for messages
  bool ran = false;
  bool errors = true;  // any error reported
  int fragments = -1;  // appended
  int shown = -1;      // getVideoPlaybackQuality's total (pictures a busy machine then dropped included)
  double first_frame_time = -1;  // of the first picture requestVideoFrameCallback saw
  double buffered_start = -1;
  double current_time = -1;  // at the end
};
MsePlayback play_with_mse(const std::string& file);

// MD5 of the pictures GStreamer decodes (qtdemux, decodebin), and FFmpeg from a source, as raw 4:2:0 frames
// of 8 bits (pix_fmt yuv420p) or 10 (yuv420p10le); of the audio samples, as interleaved 32-bit float. Empty
// when nothing is decoded.
std::string gstreamer_video_md5(const std::string& file, const std::string& pix_fmt = "yuv420p");
std::string ffmpeg_video_md5(const std::string& source, const std::string& pix_fmt = "yuv420p");
std::string gstreamer_audio_md5(const std::string& file, bool with_video);
std::string ffmpeg_audio_md5(const std::string& source);

}  // namespace boxlane::test
