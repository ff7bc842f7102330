#include "tools/mux/video_description.hpp"

#include <cstring>
#include <vector>

#include "boxlane/boxlane.h"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

uint32_t video_stsd_size(const VideoStream& v) {
  if (v.codec == VideoCodec::kH265) {
    // stsd, hvc1 and hvcC heads (142 bytes with three arrays), then a
    // 2-byte length and the bytes of each parameter set; the scanner keeps
    // them within what the writer takes.
    uint64_t sets = 0;
    for (const std::vector<uint8_t>& set : v.hevc_sets) sets += 2 + set.size();
    return static_cast<uint32_t>(142 + sets);
  }
  // Boxlane_Packet_STsdParamSets: 117 bytes and each set with its length.
  uint64_t size = 117;
  for (const auto* sets : {&v.sps_nals, &v.pps_nals}) {
    for (const auto& set : *sets) {
      if (set.size() > 0xFFFF) throw ToolError("a parameter set is longer than the 65535 bytes avcC can hold");
      size += 2 + set.size();
    }
  }
  if (v.sps_nals.size() > 31 || v.pps_nals.size() > 255)
    throw ToolError("the stream uses more than 31 SPSs or 255 PPSs, more than one sample description can hold");
  return static_cast<uint32_t>(size);
}

bool write_video_stsd(const char* client, const VideoStream& v, uint8_t* out, int32_t* length) {
  const uint8_t start[4] = {0, 0, 0, 1};
  if (v.codec == VideoCodec::kH265) {
    std::vector<uint8_t> sets;
    for (const std::vector<uint8_t>& set : v.hevc_sets) {
      sets.insert(sets.end(), start, start + 4);
      sets.insert(sets.end(), set.begin(), set.end());
    }
    return Boxlane_Packet_STsdHEVC(client, out, length, sets.data(), static_cast<int32_t>(sets.size()));
  }
  // Every SPS and PPS the pictures use (Boxlane_Packet_STsd would carry one
  // of each).
  std::vector<const uint8_t*> sets;
  std::vector<int32_t> lengths;
  for (const auto* list : {&v.sps_nals, &v.pps_nals}) {
    for (const auto& set : *list) {
      sets.push_back(set.data());
      lengths.push_back(static_cast<int32_t>(set.size()));
    }
  }
  return Boxlane_Packet_STsdParamSets(client, out, length, sets.data(), lengths.data(), static_cast<int32_t>(sets.size()));
}

}  // namespace boxlane::tool
