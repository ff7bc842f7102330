// The fields of an mp4a entry's AudioSpecificConfig that tell what the audio
// really is (ISO/IEC 14496-3 §1.6.2.1). The entry's own channel count and
// 16-bit rate field may say otherwise: FFmpeg writes 2 channels for mono,
// and a rate of 65536 Hz or more does not fit.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>

namespace boxlane::tool {

struct AudioConfig {
  bool valid = false;
  int object_type = 0;
  uint32_t sample_rate = 0;
  int channel_config = 0;

  // The channel count a decoder goes by: the configuration's, or the
  // entry's where the configuration gives none (0: a program_config_element).
  unsigned channels_or(unsigned entry) const noexcept {
    return valid && channel_config ? static_cast<unsigned>(channel_config) : entry;
  }
};

// Invalid when the configuration is empty or ends before its channel field.
AudioConfig read_audio_config(const BOXLANE_CODECINFO& codec);

}  // namespace boxlane::tool
