// The init segment of a fragmented MP4 (ISO/IEC 14496-12 §8.8): ftyp, and a
// moov whose tracks have empty sample tables and whose mvex says the
// samples come in fragments. Built with the library's writer, as any caller
// would, for a client already in fragment mode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "tools/common/edit_list.hpp"
#include "tools/common/moov_builder.hpp"
#include "tools/common/writer_client.hpp"

namespace boxlane::tool {

struct InitTrack {
  bool present = false;
  uint32_t width = 0, height = 0;  // video
  uint16_t language = kLanguageUndetermined;
  std::vector<EditEntry> edits;    // the edit list; none when empty
  // The track's stsd, called right after its tkhd was written (an avc1
  // entry takes the picture size of the last tkhd).
  std::function<Bytes()> stsd;
};

struct InitSegmentInput {
  InitTrack video, audio;
  uint32_t timescale = 0;   // of the movie and every track
  uint64_t duration = 0;    // for mehd when known beforehand; 0: none
  bool mehd_room = false;   // room in mvex for mehd, filled once the duration is known
};

struct InitSegment {
  Bytes bytes;
  uint64_t mehd_at = 0;  // offset of the room for mehd, 0 without
};

// Video is track 1 and audio the next, as Boxlane_Packet_FragmentMode was told.
InitSegment build_init_segment(const char* client, const InitSegmentInput& in);

// The bytes for the room: mehd with the duration (movie time scale), then a
// free box for what mehd does not use.
Bytes mehd_in_room(const char* client, uint64_t duration);

}  // namespace boxlane::tool
