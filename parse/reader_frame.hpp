// What every box reader does before it reads its own fields: find the track
// the box belongs to, and record a full box's version and flags in the header
// record the splitter is building.
#pragma once

#include "frame/last_error.hpp"
#include "parse/parse_record.hpp"
#include "parse/track_record.hpp"
#include "platform/be_reader.hpp"

namespace boxlane::parse {

inline BOXLANE_TRACKINFO* current_track(QORVANE_MP4PARSE* record) noexcept {
  if (!record || !record->stl_MapTrack) return nullptr;
  return find_track(*record->stl_MapTrack, record->nCurrentTrack);
}

// Takes version and flags from the reader's position when all four bytes are
// there; a shorter box keeps them 0, as a box with no reader would.
inline void take_version_flags(BOXLANE_MSGBUFFER* entry, BeReader r) noexcept {
  if (!entry || !r.has(4)) return;
  entry->st_MP4Hdr.byVersion = r.u8();
  r.copy(entry->st_MP4Hdr.byFlags, 3);
}

// The opening every per-track full-box reader shares: the error flag
// cleared, the current track found, and only then version and flags taken,
// so a box without a track leaves its header record as the splitter made it.
inline BOXLANE_TRACKINFO* open_track_box(QORVANE_MP4PARSE* record, BOXLANE_MSGBUFFER* entry, const BeReader& r) noexcept {
  clear_error();
  BOXLANE_TRACKINFO* track = current_track(record);
  if (!track) return nullptr;
  take_version_flags(entry, r);
  ++track->nTablesVersion;  // what the per-sample index walked may have changed
  return track;
}

}  // namespace boxlane::parse
