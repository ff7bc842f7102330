// The output's timing, worked out from the input's before anything is
// written. The writer keeps one time scale for the movie and every track.
// It is the audio track's when every time of the other track converts to
// it exactly (readers take an audio edit list's media time as a count of
// samples, so the audio time scale should stay the sample rate), else the
// video track's under the same condition, else the least common multiple
// of the two, to which every time converts exactly.
// Edit lists come over with their first entry that shows media.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/remux/source.hpp"

namespace boxlane::tool {

struct TrackTimeline {
  const SourceTrack* track = nullptr;
  uint64_t num = 1, den = 1;      // output ticks are input ticks * num / den
  uint64_t media_duration = 0;    // sum of the output durations
  int64_t composition_start = 0;  // earliest composition time, output ticks
  uint64_t composition_end = 0;   // latest composition time plus duration, output ticks
  bool reordered = false;         // some composition offset is not 0
  int64_t min_offset = 0;         // the smallest composition offset, output ticks
  bool has_edit = false;
  uint64_t empty_edit = 0;        // the empty edits before it, output ticks
  uint64_t edit_duration = 0;     // output ticks; 0: to the end of the media
  int64_t edit_media_time = 0;    // output ticks, before any shift
  uint32_t zero_durations = 0;    // samples of no duration, given one tick
  std::string edit_notice;        // what of the input's edit list was left out

  // Output duration and composition offset of sample i.
  uint32_t duration(std::size_t i) const;
  int64_t offset(std::size_t i) const;
};

struct Timeline {
  uint32_t timescale = 0;
  std::vector<TrackTimeline> tracks;  // in the order given
};

// Throws ToolError when the time scales have no common multiple the
// writer takes (2^31 - 1 at most), or a duration or offset does not fit its
// 32-bit field once converted.
Timeline plan_timeline(const std::vector<const SourceTrack*>& tracks, uint32_t movie_timescale);

struct EditPlan {
  std::vector<EditEntry> entries;  // none: the track needs no edit list
  uint64_t presentation = 0;       // the track's length on the movie's time line
};

// The output track's edit list when every composition offset is moved by
// `shift`: the input's empty edit and media edit, or a media edit that
// takes the shift back out. Where the media edit would start before the
// first picture, the gap becomes an empty edit and the media edit starts at
// that picture, as FFmpeg writes it and reads it back. `to_end`: the media
// edit gets duration 0, running to the end of media still to come.
EditPlan plan_edits(const TrackTimeline& t, int64_t shift, bool to_end);

}  // namespace boxlane::tool
