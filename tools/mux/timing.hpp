// The movie's single time scale and the sample times on it. mvhd and every
// mdhd share one time scale in this writer, so it is chosen to make both the
// video frame duration and the 1024-sample AAC frame duration whole numbers
// where it can; where it cannot, times are rounded from the exact rational
// time of each frame, so durations differ by one unit at most and no drift
// builds up.
#pragma once

#include <cstdint>
#include <string>

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

struct TimingInput {
  bool video = false;
  uint32_t fps_num = 25, fps_den = 1;
  bool audio = false;
  uint32_t sample_rate = 0;
  uint32_t forced_timescale = 0;  // --timescale, 0 when not given
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
