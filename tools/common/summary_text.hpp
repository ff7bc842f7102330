// Pieces of the summary line the commands print when they finish.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace boxlane::tool {

// "1 frame", "2 frames".
inline std::string count_text(uint64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

inline std::string size_text(uint64_t bytes) {
  char text[32];
  if (bytes < 10 * 1024) {
    std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
  } else if (bytes < 10ull * 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024.0));
  }
  return text;
}

// An input that ended inside a frame, and what the output kept.
inline std::string stopped_inside_frame_text(const std::string& input, uint64_t at) {
  return input + " stops in the middle of a frame at byte " + std::to_string(at);
}
inline std::string kept_whole_frames_text(const std::string& output) {
  return output + " ends with the last whole frames before it";
}

// channel_configuration 0: the layout is in a program_config_element.
inline std::string channels_text(uint8_t channel_config, uint32_t channels) {
  if (channel_config == 0) return std::to_string(channels) + " channels (program_config_element)";
  switch (channels) {
    case 1: return "mono";
    case 2: return "stereo";
    case 6: return "5.1";
    case 8: return "7.1";
    default: return std::to_string(channels) + " channels";
  }
}

}  // namespace boxlane::tool
