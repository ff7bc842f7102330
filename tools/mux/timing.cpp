#include "tools/mux/timing.hpp"

#include <algorithm>
#include <cstdint>
#include <numeric>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

Clock::Clock(uint32_t timescale, uint64_t num, uint64_t den) noexcept : num_(num ? num : 1) {
  const uint64_t ticks = uint64_t{timescale} * den;
  whole_ = ticks / num_;
  rest_ = ticks % num_;
}

void Slots::leave_open(uint64_t at, uint64_t count) {
  if (count == 0) return;
  if (!open_.empty() && open_.back().first == at) {
    open_.back().second += count;
  } else {
    open_.emplace_back(at, (open_.empty() ? 0 : open_.back().second) + count);
  }
  const uint64_t before = open_.size() > 1 ? open_[open_.size() - 2].second : 0;
  widest_ = std::max(widest_, 1 + open_.back().second - before);
}

uint64_t Slots::operator()(uint64_t k) const noexcept {
  // The last gap at or before k; almost every stream has none.
  const auto after = std::upper_bound(open_.begin(), open_.end(), k,
                                      [](uint64_t v, const std::pair<uint64_t, uint64_t>& g) { return v < g.first; });
  return after == open_.begin() ? k : k + std::prev(after)->second;
}

namespace {

// The time scale goes into mvhd and mdhd as a 32-bit field that the writer
// takes signed, and every sample's duration into the 32-bit stts delta that
// the frame writers take signed. Movie and track durations are 64-bit.
constexpr uint64_t kMaxTicks = INT32_MAX;

Timing make(uint32_t timescale, const TimingInput& in) {
  Timing t;
  t.timescale = timescale;
  if (in.video) t.video = Clock(timescale, in.fps_num, in.fps_den);
  if (in.audio) t.audio = Clock(timescale, in.sample_rate, 1024);
  return t;
}

bool fits(const Timing& t, const TimingInput& in) {
  if (in.video && t.video.longest() > kMaxTicks / in.video_widest) return false;
  if (in.audio && t.audio.longest() > kMaxTicks) return false;
  return true;
}

}  // namespace

Timing choose_timing(const TimingInput& in) {
  if (in.forced_timescale) {
    // Every sample needs at least one tick, or it would get no duration.
    const uint64_t ts = in.forced_timescale;
    if ((in.video && ts * in.fps_den < in.fps_num) || (in.audio && ts * 1024 < in.sample_rate)) {
      throw ToolError("time scale " + std::to_string(ts) + " is too coarse: a frame would last less than one tick");
    }
    Timing t = make(in.forced_timescale, in);
    if (!fits(t, in)) {
      throw ToolError("time scale " + std::to_string(ts) + " is too fine: a frame would last more than 2^31 - 1 ticks");
    }
    return t;
  }
  // The audio sample rate makes every AAC frame 1024 ticks long; 90 kHz is
  // the usual clock of video alone.
  const uint64_t base = in.audio ? in.sample_rate : 90000;
  uint64_t exact = base;
  // A frame lasts timescale * den / num ticks, whole when num divides the
  // time scale (num/den is in lowest terms).
  if (in.video) exact = std::lcm(exact, uint64_t{in.fps_num} / std::gcd(in.fps_num, in.fps_den));
  for (const uint64_t candidate : {exact, base, uint64_t{1000}}) {
    if (candidate == 0 || candidate > kMaxTicks) continue;
    Timing t = make(static_cast<uint32_t>(candidate), in);
    if (fits(t, in)) return t;
  }
  throw ToolError("no time scale gives every frame a duration of at most 2^31 - 1 ticks");
}

uint64_t audio_frames_during(uint64_t pictures, uint64_t fields, uint32_t fps_num, uint32_t fps_den,
                             uint32_t sample_rate) noexcept {
  if (fps_num == 0 || fields > pictures) return 0;
  // In long double: the product may pass 2^64 at odd rates, and rounds right.
  const long double frames = (2.0L * pictures - fields) * fps_den * sample_rate / (2048.0L * fps_num);
  return frames >= 1e18L ? UINT64_MAX : static_cast<uint64_t>(frames + 0.5L);
}

}  // namespace boxlane::tool
