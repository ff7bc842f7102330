// One remux: the tracks taken from the input, their timing in the output,
// and where and how the output is written.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/common/mapped_file.hpp"
#include "tools/remux/timeline.hpp"

namespace boxlane::tool {

struct RemuxJob {
  MappedFile* input = nullptr;
  const TrackTimeline* video = nullptr;  // either or both, from `timeline`
  const TrackTimeline* audio = nullptr;
  uint32_t timescale = 0;
  std::string output;
  bool faststart = false;
  double fragment_seconds = 0;  // 0: a progressive file
  // Called now and then with samples written and samples in total.
  std::function<void(uint64_t, uint64_t)> progress;
};

struct RemuxResult {
  uint64_t duration = 0;  // movie time scale units
  uint64_t file_size = 0;
  uint64_t fragments = 0;
};

// Each throws ToolError; the target is then left as it was.
RemuxResult write_progressive(const RemuxJob& job);
RemuxResult write_fragments(const RemuxJob& job);

}  // namespace boxlane::tool
