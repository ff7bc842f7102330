// The init segment of a fragmented MP4 (ISO/IEC 14496-12 §8.8): ftyp, and a
// moov whose tracks have empty sample tables and whose mvex says the
// samples come in fragments. Built with the library's writer, as any caller
// would, for a client already in fragment mode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/mux/audio.hpp"
#include "tools/mux/video.hpp"
#include "tools/mux/writer_client.hpp"

namespace boxlane::tool {

using Bytes = std::vector<uint8_t>;

// One writer call into a buffer of `room` bytes, returned as its own vector.
template <typename Call>
Bytes call_box(const char* what, std::size_t room, Call call) {
  Bytes out(room);
  int32_t len = 0;
  if (!call(out.data(), &len)) refused(what);
  if (len < 0 || static_cast<std::size_t>(len) > room) throw ToolError(std::string("internal: ") + what + " overran");
  out.resize(static_cast<std::size_t>(len));
  return out;
}

struct InitSegmentInput {
  const VideoStream* video = nullptr;  // its first piece: parameter sets, picture size
  const AudioStream* audio = nullptr;
  uint32_t timescale = 0;        // of the movie and every track
  uint64_t edit_media_time = 0;  // video edit list: presentation starts there; 0: none
  bool mehd_room = false;        // room in mvex for mehd, filled once the duration is known
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
