// A fragmented stream built in memory for the fragment benchmarks: an init
// segment (ftyp and a moov with an H.264 track, an AAC track and mvex), then
// moof + mdat pairs of two seconds each, the way a live packager writes
// them: the video trun with duration, size, flags and composition offset per
// sample, the audio trun with sizes only, both based on the moof, both with
// tfdt. The mdat payloads are not built: a sender skips them.
#pragma once

#include <cstdint>
#include <vector>

namespace boxlane::bench {

struct FragmentedStream {
  std::vector<uint8_t> init;
  // Each fragment: the moof and the 8-byte header of its mdat, whose size
  // counts the payload that is not there.
  std::vector<std::vector<uint8_t>> fragments;
  uint64_t moof_bytes = 0;    // moof bytes over all fragments
  uint64_t samples = 0;       // samples over all fragments
  uint32_t video_per_fragment = 0;
  uint32_t audio_per_fragment = 0;
};

// `fragments` of `seconds` each (two: 60 video samples at 30 fps, 94 AAC
// frames at 48 kHz).
FragmentedStream build_fragments(uint32_t fragments, uint32_t seconds = 2);

}  // namespace boxlane::bench
