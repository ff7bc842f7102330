// Reading an AAC ADTS elementary stream for muxing: one sample per ADTS
// frame, the configuration from the first header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/adts.hpp"

namespace boxlane::tool {

struct AudioFrame {
  const uint8_t* data;  // the whole ADTS frame, header included
  uint32_t size;
  uint32_t header_size;  // 7, or 9 with the CRC
};

struct AudioStream {
  AdtsHeader config;  // the first header
  std::vector<uint8_t> audio_specific_config;
  uint32_t channels = 0;
  std::vector<AudioFrame> frames;
  uint64_t payload_bytes = 0;  // sum of the frames without their headers
  std::optional<uint64_t> cut_at;  // the stream ends inside the frame that starts here
  static constexpr uint32_t kSamplesPerFrame = 1024;
};

// The sync word and layer 0 of an ADTS header at `header` (2 bytes at least).
inline bool adts_sync(const uint8_t* header) { return header[0] == 0xFF && (header[1] & 0xF6) == 0xF0; }

// frame_length of the ADTS header at `header` (7 bytes at least): the whole
// frame, header included (ISO/IEC 14496-3 §1.A.2.2.1).
inline std::size_t adts_frame_length(const uint8_t* header) {
  return ((header[3] & 3u) << 11) | (header[4] << 3) | (header[5] >> 5);
}

// Throws ToolError naming the byte offset where sync is lost, a frame is cut
// short or damaged, or the configuration changes. A stream that ends inside a
// frame after whole ones keeps those, and says where in `cut_at`.
// `read_to`, when given, is told how far the scan has read.
void scan_audio(const uint8_t* data, std::size_t size, const std::string& name, AudioStream& out,
                const std::function<void(const uint8_t*)>& read_to = {});

// Leaves out the first `count` frames, but never the last one: the audio that
// went with video pictures left out at the start. Returns how many went.
uint64_t drop_first_frames(AudioStream& s, uint64_t count);

}  // namespace boxlane::tool
