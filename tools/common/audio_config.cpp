#include "tools/common/audio_config.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace boxlane::tool {

AudioConfig read_audio_config(const BOXLANE_CODECINFO& codec) {
  AudioConfig config;
  const auto length = static_cast<std::size_t>(
      std::clamp<int32_t>(codec.nAudioCfgLen, 0, static_cast<int32_t>(sizeof codec.byAudioCfg)));
  const std::span<const uint8_t> bytes(codec.byAudioCfg, length);
  std::size_t bit = 0;
  bool short_read = false;
  auto bits = [&](int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i, ++bit) {
      if (bit / 8 >= bytes.size()) {
        short_read = true;
        return 0u;
      }
      value = value << 1 | ((bytes[bit / 8] >> (7 - bit % 8)) & 1u);
    }
    return value;
  };
  // ISO/IEC 14496-3 §1.6.2.1 GetAudioObjectType() and the frequency index
  // table of §1.6.3.4.
  static constexpr std::array<uint32_t, 13> kRates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};
  int object_type = static_cast<int>(bits(5));
  if (object_type == 31) object_type = 32 + static_cast<int>(bits(6));
  const uint32_t index = bits(4);
  uint32_t rate = 0;
  if (index == 15) rate = bits(24);
  else if (index < kRates.size()) rate = kRates[index];
  const int channels = static_cast<int>(bits(4));
  if (short_read || length == 0) return config;
  config = {true, object_type, rate, channels};
  return config;
}

}  // namespace boxlane::tool
