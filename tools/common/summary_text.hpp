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
