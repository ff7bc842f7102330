// Edit lists (ISO/IEC 14496-12 §8.6.6) as the commands write them: one
// entry through Boxlane_Packet_EDts64, which writes every single-entry list,
// and more (an empty edit before the media, as a track that starts late
// has) as an elst payload of those same fields wrapped by the writer's
// Boxlane_Packet_HDRBox.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/common/writer_client.hpp"

namespace boxlane::tool {

struct EditEntry {
  uint64_t segment_duration = 0;  // movie time scale
  int64_t media_time = 0;         // track time scale; -1 is an empty edit
  int16_t rate_integer = 1;
  int16_t rate_fraction = 0;
  bool operator==(const EditEntry&) const = default;
};

// The edts box holding the entries (at least one), rate 1 each.
Bytes edit_box(const char* client, const std::vector<EditEntry>& entries);

}  // namespace boxlane::tool
