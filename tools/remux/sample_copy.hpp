// Copies one input sample into the output through the writer, which
// records its size, duration, composition offset and sync flag: a video
// sample goes in as its NAL units (their 4-byte lengths are read, nothing
// else), an AAC frame as it is. The bytes are copied once, from the mapped
// input into the output's buffer.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/remux/source.hpp"

namespace boxlane::tool {

class SampleCopier {
 public:
  SampleCopier(const char* client, const uint8_t* input) : client_(client), input_(input) {}

  // Writes the sample into `out` (s.size bytes); throws ToolError when the
  // writer refuses it or its bytes are not what the track's codec stores.
  void video(const IndexSample& s, uint8_t* out, int64_t file_pos, uint32_t duration, int64_t offset);
  void audio(const IndexSample& s, uint8_t* out, int64_t file_pos, uint32_t duration);

 private:
  const char* client_;
  const uint8_t* input_;
  std::vector<const uint8_t*> nal_ptrs_;
  std::vector<int32_t> nal_lens_;
};

}  // namespace boxlane::tool
