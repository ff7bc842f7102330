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
  if (v.sps_nal.size() + v.pps_nal.size() + 8 > sizeof(tag_Qorvane_AVProtocol{}.tszVideoHdr)) {
    throw ToolError("the SPS and PPS together exceed the 1016 bytes the sample description takes");
  }
  return static_cast<uint32_t>(121 + v.sps_nal.size() + v.pps_nal.size());
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
  tag_Qorvane_AVProtocol desc{};
  desc.bVideo = 1;
  desc.nVideoCodec = 27;
  desc.nVideoWidth = static_cast<int32_t>(v.width);
  desc.nVideoHeight = static_cast<int32_t>(v.height);
  std::size_t at = 0;
  for (const std::vector<uint8_t>* set : {&v.sps_nal, &v.pps_nal}) {
    std::memcpy(desc.tszVideoHdr + at, start, 4);
    std::memcpy(desc.tszVideoHdr + at + 4, set->data(), set->size());
    at += 4 + set->size();
  }
  desc.nVideoHdrLen = static_cast<int32_t>(at);
  return Boxlane_Packet_STsd(client, out, length, &desc);
}

tag_Qorvane_AVProtocol audio_description(const AudioStream& a) {
  tag_Qorvane_AVProtocol desc{};
  desc.bAudio = 1;
  // ISO/IEC 14496-3 Table 1.19: configuration 7 is 7.1, eight channels.
  desc.nAudioChannel = a.config.channel_config == 7 ? 8 : a.config.channel_config;
  desc.nAudioSampleRate = static_cast<int32_t>(a.config.sample_rate);
  desc.nAudioSampleBit = 16;
  desc.nAudioFrameSize = AudioStream::kSamplesPerFrame;
  desc.nAudioCfgLen = 2;
  std::memcpy(desc.tszAudioCfg, a.audio_specific_config, 2);
  return desc;
}

}  // namespace boxlane::tool
