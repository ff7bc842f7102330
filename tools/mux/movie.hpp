// Writing the MP4 file through the library's writer, as any caller would:
// ftyp, the samples into mdat (interleaved by decoding time), then moov
// built from the writer's boxes. With faststart, moov goes before mdat: its
// size follows from the sample counts, so the space is reserved first and
// the samples are given their final positions straight away. Files of any
// size: past 4 GiB the mdat gets a 64-bit size and a track whose samples
// reach 2^32 a co64 table; past 2^32 ticks the headers are version 1.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/mux/audio.hpp"
#include "tools/mux/timing.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::tool {

struct MovieInput {
  const VideoStream* video = nullptr;  // either or both
  FrameRate fps;
  const AudioStream* audio = nullptr;
  uint32_t forced_timescale = 0;
  bool faststart = false;
  std::string output;
  // Called now and then with samples written and samples in total.
  std::function<void(uint64_t, uint64_t)> progress;
  // Told the input bytes each sample was copied from, in order per stream.
  std::function<void(const uint8_t*)> video_read, audio_read;
};

struct MovieResult {
  uint32_t timescale = 0;
  uint64_t duration = 0;  // movie time scale units
  uint64_t file_size = 0;
  uint64_t moov_size = 0;
};

// Throws ToolError; the target is then left as it was.
MovieResult write_movie(const MovieInput& in);

}  // namespace boxlane::tool
