#include "tools/common/edit_list.hpp"

#include <climits>

#include "boxlane/boxlane.h"

namespace boxlane::tool {

Bytes edit_box(const char* client, const std::vector<EditEntry>& entries) {
  if (entries.empty()) throw ToolError("internal: an edit list without entries");
  if (entries.size() == 1) {
    return call_box("edts", 64, [&](uint8_t* p, int32_t* l) {
      return Boxlane_Packet_EDts64(client, p, l, entries[0].segment_duration, entries[0].media_time);
    });
  }
  // Version 1 once a duration or a media time needs 64 bits, as EDts64
  // chooses for one entry.
  bool wide = false;
  for (const EditEntry& e : entries) {
    wide = wide || e.segment_duration > UINT32_MAX || e.media_time > INT32_MAX || e.media_time < -1;
  }
  Bytes elst;
  const auto put = [&](uint64_t v, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) elst.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  put(wide ? 1 : 0, 1);
  put(0, 3);
  put(entries.size(), 4);
  for (const EditEntry& e : entries) {
    put(e.segment_duration, wide ? 8 : 4);
    put(static_cast<uint64_t>(e.media_time), wide ? 8 : 4);
    put(1, 2);  // media_rate_integer
    put(0, 2);  // media_rate_fraction
  }
  const Bytes box = call_box("elst", elst.size() + 8, [&](uint8_t* p, int32_t* l) {
    return Boxlane_Packet_HDRBox(client, p, l, "elst", elst.data(), static_cast<int32_t>(elst.size()));
  });
  return call_box("edts", box.size() + 8, [&](uint8_t* p, int32_t* l) {
    return Boxlane_Packet_HDRBox(client, p, l, "edts", box.data(), static_cast<int32_t>(box.size()));
  });
}

}  // namespace boxlane::tool
