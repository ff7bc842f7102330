#include "tools/mux/audio_description.hpp"

#include <cstring>

#include "boxlane/boxlane.h"

namespace boxlane::tool {

uint32_t audio_stsd_size(const AudioStream& a) {
  const uint32_t length = static_cast<uint32_t>(a.audio_specific_config.size());
  if (length <= 104) return 89 + length;
  if (length <= 112) return 90 + length;
  if (length <= 127) return 91 + length;
  return 92 + length;
}

bool write_audio_stsd(const char* client, const AudioStream& a, uint8_t* out, int32_t* length) {
  tag_Qorvane_AVProtocol desc{};
  desc.bVideo = 0;
  desc.bAudio = 1;
  desc.nAudioChannel = static_cast<int32_t>(a.channels);
  // The samplerate field has 16 integer bits (ISO/IEC 14496-12 §12.2.3);
  // for 65536 Hz and more it is 0, and readers take the rate from the
  // AudioSpecificConfig, as they must for any AAC stream anyway.
  desc.nAudioSampleRate = a.config.sample_rate > 0xFFFF ? 0 : static_cast<int32_t>(a.config.sample_rate);
  desc.nAudioSampleBit = 16;
  desc.nAudioFrameSize = AudioStream::kSamplesPerFrame;
  desc.nAudioCfgLen = static_cast<int32_t>(a.audio_specific_config.size());
  std::memcpy(desc.tszAudioCfg, a.audio_specific_config.data(), a.audio_specific_config.size());
  return Boxlane_Packet_STsd(client, out, length, &desc);
}

}  // namespace boxlane::tool
