// The audio track's mp4a stsd, shared by the ways the movie is written.
#pragma once

#include <cstdint>

#include "tools/mux/audio.hpp"

namespace boxlane::tool {

// The exact size of the box write_audio_stsd writes, as boxlane.h gives it
// for the stream's AudioSpecificConfig.
uint32_t audio_stsd_size(const AudioStream& a);

// Writes the box at `out` (audio_stsd_size bytes) for the writer client;
// false with the library's last error set when the writer refuses.
bool write_audio_stsd(const char* client, const AudioStream& a, uint8_t* out, int32_t* length);

}  // namespace boxlane::tool
