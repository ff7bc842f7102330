// `boxlane mux --fragment`: a fragmented MP4 (ISO/IEC 14496-12 §8.8) written
// as the input arrives. The init segment goes out first, then each fragment
// (moof and mdat) as soon as it is complete, straight to the output file: a
// run that is killed leaves every whole fragment readable. Only about one
// fragment of each stream is held in memory, however long the input runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/mux/timing.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::tool {

struct FragmentedInput {
  std::string video;  // path, "-" for standard input, empty for none
  std::string audio;
  std::string output;
  double seconds = 1;  // a fragment lasts at least this long
  std::optional<FrameRate> fps;
  VideoScanOptions scan;  // as the movie path reads the video
  uint32_t forced_timescale = 0;
  bool fsync = false;  // each fragment reaches the disk before the next is cut
  bool quiet = false;
  VideoCodec video_codec = VideoCodec::kUnknown;  // kUnknown: told by the stream
};

struct FragmentedResult {
  // What the summary line tells.
  VideoCodec video_codec = VideoCodec::kH264;
  uint32_t width = 0, height = 0;
  uint64_t video_frames = 0;
  FrameRate fps;
  bool reordered = false;
  uint32_t dropped_leading = 0;  // pictures no decoder can show, left out
  uint32_t sample_rate = 0;
  uint8_t channel_config = 0;
  uint32_t channels = 0;
  uint64_t audio_frames = 0;
  uint64_t audio_dropped = 0;  // frames that went with the pictures left out
  uint32_t timescale = 1;
  uint64_t duration = 0;  // time scale units
  uint64_t file_size = 0;
  uint64_t fragments = 0;
  // The run ended early: an input stopped in the middle of a frame. The
  // file holds everything before it; the caller reports `problem`.
  std::string problem;
};

// Throws ToolError; fragments written before the error stay in the file.
FragmentedResult write_fragmented(const FragmentedInput& in);

}  // namespace boxlane::tool
