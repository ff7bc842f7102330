// The video track's stsd, whichever codec the stream holds: avc1 through
// Boxlane_Packet_STsd or hvc1 through Boxlane_Packet_STsdHEVC. Shared by the
// ways the movie is written.
#pragma once

#include <cstdint>

#include "boxlane/boxlane.h"
#include "tools/mux/audio.hpp"
#include "tools/mux/video.hpp"

namespace boxlane::tool {

// The exact size of the box write_video_stsd writes. Throws ToolError when
// the parameter sets do not fit the writer's input.
uint32_t video_stsd_size(const VideoStream& v);

// Writes the box at `out` (video_stsd_size bytes) for the writer client;
// false with the library's last error set when the writer refuses.
bool write_video_stsd(const char* client, const VideoStream& v, uint8_t* out, int32_t* length);

}  // namespace boxlane::tool
