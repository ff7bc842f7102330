// The movie's single time scale and the sample times on it. mvhd and every
// mdhd share one time scale in this writer, so it is chosen to make both the
// video frame duration and the 1024-sample AAC frame duration whole numbers
// where it can; where it cannot, times are rounded from the exact rational
// time of each frame, so durations differ by one unit at most and no drift
// builds up.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace boxlane::tool {

// Time of unit k (frame k of a stream with `per_second` = num/den units per
// second) on a clock of `timescale` ticks: floor(k * timescale * den / num).
class Clock {
 public:
  Clock() = default;
  Clock(uint32_t timescale, uint64_t num, uint64_t den) noexcept;
  uint64_t at(uint64_t k) const noexcept { return k * whole_ + (k * rest_) / num_; }
  uint64_t duration(uint64_t k) const noexcept { return at(k + 1) - at(k); }
  // Every unit lasts the same number of ticks.
  bool exact() const noexcept { return rest_ == 0; }
  // The duration of the longest unit.
  uint64_t longest() const noexcept { return whole_ + (rest_ ? 1 : 0); }

 private:
  uint64_t whole_ = 0;
  uint64_t rest_ = 0;
  uint64_t num_ = 1;
};

// Where each video picture sits on the frame grid: picture k in slot k, plus
// the slots left open before it for pictures left out after the start (RASL
// pictures that cannot be decoded). The picture before such a gap lasts until
// the next one, so every later picture keeps the time it was recorded at.
class Slots {
 public:
  // Opens `count` slots before picture `at`; `at` never decreases from one
  // call to the next.
  void leave_open(uint64_t at, uint64_t count);
  uint64_t operator()(uint64_t k) const noexcept;
  // The most slots one picture spans.
  uint64_t widest() const noexcept { return widest_; }

 private:
  std::vector<std::pair<uint64_t, uint64_t>> open_;  // (at, slots open before it in all)
  uint64_t widest_ = 1;
};

struct TimingInput {
  bool video = false;
  uint32_t fps_num = 25, fps_den = 1;
  bool audio = false;
  uint32_t sample_rate = 0;
  uint32_t forced_timescale = 0;  // --timescale, 0 when not given
  uint64_t video_widest = 1;      // Slots::widest()
};

struct Timing {
  uint32_t timescale = 0;
  Clock video;
  Clock audio;
};

// Throws ToolError when no time scale gives every sample a duration that
// fits the signed 32-bit stts delta. The movie's length is not limited: past
// 2^32 ticks the headers are written in their 64-bit form.
Timing choose_timing(const TimingInput& in);

// How many 1024-sample AAC frames at `sample_rate` last as long as `pictures`
// video pictures at num/den frames per second, `fields` of them single fields
// (half a frame), to the nearest frame.
uint64_t audio_frames_during(uint64_t pictures, uint64_t fields, uint32_t fps_num, uint32_t fps_den,
                             uint32_t sample_rate) noexcept;

}  // namespace boxlane::tool
