#include "tools/remux/timeline.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <numeric>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

uint32_t TrackTimeline::duration(std::size_t i) const {
  const uint64_t d = track->samples[i].duration * num / den;
  // The writer keeps no stts entry for a duration of 0, which would leave
  // the table a sample short: such a sample lasts one tick instead.
  return d ? static_cast<uint32_t>(d) : 1;
}

namespace {

// The composition offset the parser added to the decode time, from a 32-bit
// table field. The parser's sum wraps (a damaged tfdt can put the decode time
// near 2^64), and so does this difference, which gives the field back.
int64_t composition_offset(const IndexSample& s) {
  return static_cast<int64_t>(static_cast<uint64_t>(s.composition) - s.decode);
}

}  // namespace

int64_t TrackTimeline::offset(std::size_t i) const {
  // Below 2^32 in size, times a num below 2^31: within 64 bits.
  return composition_offset(track->samples[i]) * static_cast<int64_t>(num) / static_cast<int64_t>(den);
}

namespace {

// Whether every time of the track is a whole number of ticks at `timescale`.
bool converts_exactly(const SourceTrack& t, uint64_t timescale) {
  const uint64_t g = std::gcd(timescale, uint64_t{t.timescale});
  const uint64_t den = t.timescale / g;
  if (den == 1) return true;
  for (const IndexSample& s : t.samples) {
    if (s.duration % den || composition_offset(s) % static_cast<int64_t>(den)) return false;
  }
  for (const EditEntry& e : t.edits) {
    if (e.media_time > 0 && e.media_time % static_cast<int64_t>(den)) return false;
  }
  return true;
}

uint32_t choose_timescale(const std::vector<const SourceTrack*>& tracks) {
  std::vector<const SourceTrack*> order(tracks);
  // Audio first, then video.
  std::stable_sort(order.begin(), order.end(), [](const SourceTrack* a, const SourceTrack* b) {
    return !a->video() && b->video();
  });
  for (const SourceTrack* candidate : order) {
    if (std::all_of(tracks.begin(), tracks.end(),
                    [&](const SourceTrack* t) { return converts_exactly(*t, candidate->timescale); })) {
      return candidate->timescale;
    }
  }
  uint64_t timescale = 1;
  for (const SourceTrack* t : tracks) {
    timescale = std::lcm(timescale, uint64_t{t->timescale});
    if (timescale > INT32_MAX) {
      throw ToolError("the tracks' time scales have no common multiple below 2^31, which one movie time scale needs");
    }
  }
  return static_cast<uint32_t>(timescale);
}

}  // namespace

EditPlan plan_edits(const TrackTimeline& t, int64_t shift, bool to_end) {
  EditPlan plan;
  const uint64_t media_end = t.composition_end + static_cast<uint64_t>(shift);
  if (!t.has_edit && shift == 0) {
    plan.presentation = t.composition_end;
    return plan;
  }
  int64_t start = (t.has_edit ? t.edit_media_time : 0) + shift;
  uint64_t gap = t.empty_edit;
  uint64_t length = t.has_edit && t.edit_duration ? t.edit_duration
                                                  : media_end > static_cast<uint64_t>(std::max<int64_t>(start, 0))
                                                        ? media_end - static_cast<uint64_t>(std::max<int64_t>(start, 0))
                                                        : 0;
  const int64_t first = t.composition_start + shift;
  if (t.track->video() && first > start) {
    const uint64_t lead = static_cast<uint64_t>(first - start);
    gap += lead;
    length = length > lead ? length - lead : 0;
    start = first;
  }
  if (gap) plan.entries.push_back({gap, -1});
  plan.entries.push_back({to_end ? 0 : length, start});
  plan.presentation = gap + length;
  return plan;
}

Timeline plan_timeline(const std::vector<const SourceTrack*>& tracks, uint32_t movie_timescale) {
  Timeline out;
  const uint64_t timescale = choose_timescale(tracks);
  out.timescale = static_cast<uint32_t>(timescale);
  for (const SourceTrack* t : tracks) {
    TrackTimeline tl;
    tl.track = t;
    const uint64_t g = std::gcd(timescale, uint64_t{t->timescale});
    tl.num = timescale / g;
    tl.den = t->timescale / g;
    int64_t decode = 0;
    for (std::size_t i = 0; i < t->samples.size(); ++i) {
      const IndexSample& s = t->samples[i];
      if (s.duration * tl.num / tl.den > INT32_MAX) {
        throw ToolError("a sample duration of track " + std::to_string(t->id) + " does not fit 32 bits at " +
                        std::to_string(timescale) + " ticks a second");
      }
      if (s.duration == 0) ++tl.zero_durations;
      const int64_t offset = tl.offset(i);
      tl.composition_start = i == 0 ? decode + offset : std::min(tl.composition_start, decode + offset);
      tl.composition_end = std::max<int64_t>(static_cast<int64_t>(tl.composition_end), decode + offset + tl.duration(i));
      decode += tl.duration(i);
      tl.media_duration += tl.duration(i);
      if (!t->video()) continue;
      if (offset < INT32_MIN / 2 || offset > INT32_MAX / 2) {
        throw ToolError("a composition offset of track " + std::to_string(t->id) + " does not fit 32 bits");
      }
      if (offset != 0) tl.reordered = true;
      tl.min_offset = i == 0 ? offset : std::min(tl.min_offset, offset);
    }
    // ISO/IEC 14496-12 §8.6.6: the first edit that shows media (media_time
    // not -1) at the normal rate; the writer writes one entry.
    const auto& edits = t->edits;
    // Durations of the input's movie time scale on the output's.
    const auto to_movie = [&](uint64_t d) {
      return movie_timescale ? static_cast<uint64_t>(std::llround(static_cast<long double>(d) * timescale / movie_timescale)) : 0;
    };
    const auto shown = std::find_if(edits.begin(), edits.end(), [](const EditEntry& e) { return e.media_time >= 0; });
    if (shown != edits.end()) {
      // A media time from a version 1 elst may take all 63 bits; kept below
      // 2^62 on the output's clock, it and the shifts added to it stay
      // within 64 bits.
      if (shown->media_time > (INT64_MAX >> 1) / static_cast<int64_t>(tl.num)) {
        throw ToolError("the edit list of track " + std::to_string(t->unsigned_id()) + " starts at media time " +
                        std::to_string(shown->media_time) + " (of " + std::to_string(t->timescale) +
                        " a second), which passes 2^62 ticks at the output's " + std::to_string(timescale) +
                        " a second: a damaged edit list");
      }
      tl.has_edit = true;
      for (auto e = edits.begin(); e != shown; ++e) tl.empty_edit += to_movie(e->segment_duration);
      tl.edit_media_time = shown->media_time * static_cast<int64_t>(tl.num) / static_cast<int64_t>(tl.den);
      tl.edit_duration = to_movie(shown->segment_duration);
    }
    const bool more = shown != edits.end() && std::next(shown) != edits.end();
    if (more || (shown != edits.end() && (shown->rate_integer != 1 || shown->rate_fraction != 0))) {
      tl.edit_notice = "its edit list has " + std::to_string(edits.size()) +
                       (edits.size() == 1 ? " entry" : " entries") +
                       "; the empty edits and the first that shows media, at the normal rate, are kept";
    }
    out.tracks.push_back(tl);
  }
  return out;
}

}  // namespace boxlane::tool
