// The input's codec configuration handed to the writer's sample-description
// functions: avc1 from the avcC's SPS and PPS, hvc1 from the hvcC's
// parameter sets, mp4a from the esds's AudioSpecificConfig.
#pragma once

#include <cstdint>

#include "tools/common/writer_client.hpp"
#include "tools/remux/source.hpp"

namespace boxlane::tool {

// The track's stsd, written by the client (after the track's tkhd).
Bytes write_stsd(const char* client, const SourceTrack& t);

}  // namespace boxlane::tool
