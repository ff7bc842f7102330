#include "tools/remux/sample_copy.hpp"

#include <string>

#include "boxlane/boxlane.h"
#include "tools/common/writer_client.hpp"

namespace boxlane::tool {
namespace {

[[noreturn]] void bad_sample(const char* what, const IndexSample& s, const char* why) {
  throw ToolError(std::string(what) + " sample at offset " + std::to_string(s.offset) + " (" +
                  std::to_string(s.size) + " bytes) " + why);
}

}  // namespace

void SampleCopier::video(const IndexSample& s, uint8_t* out, int64_t file_pos, uint32_t duration, int64_t offset) {
  const uint8_t* p = input_ + s.offset;
  nal_ptrs_.clear();
  nal_lens_.clear();
  // ISO/IEC 14496-15 §5.3.2: each NAL unit after its length, 4 bytes here.
  for (uint64_t at = 0; at < s.size;) {
    if (s.size - at < 4) bad_sample("a video", s, "ends inside a NAL unit length");
    const uint32_t len = uint32_t{p[at]} << 24 | uint32_t{p[at + 1]} << 16 | uint32_t{p[at + 2]} << 8 | p[at + 3];
    if (len > s.size - at - 4) bad_sample("a video", s, "holds a NAL unit longer than the sample");
    nal_ptrs_.push_back(p + at + 4);
    nal_lens_.push_back(static_cast<int32_t>(len));
    at += 4 + uint64_t{len};
  }
  if (nal_ptrs_.empty()) bad_sample("a video", s, "is empty");
  int32_t len = 0;
  if (!Boxlane_Packet_FrameAccessUnit(client_, out, &len, nal_ptrs_.data(), nal_lens_.data(),
                                      static_cast<int32_t>(nal_ptrs_.size()), file_pos, s.sync ? 1 : 0,
                                      static_cast<int32_t>(duration), static_cast<int32_t>(offset))) {
    refused("a video sample");
  }
  if (static_cast<uint32_t>(len) != s.size) throw ToolError("internal: a video sample changed size");
}

void SampleCopier::audio(const IndexSample& s, uint8_t* out, int64_t file_pos, uint32_t duration) {
  const uint8_t* p = input_ + s.offset;
  // The writer drops an ADTS header at the start of a frame (ISO/IEC
  // 14496-3 §1.A.2: syncword 0xFFF, layer 0); a raw frame never starts so.
  if (s.size >= 2 && p[0] == 0xFF && (p[1] & 0xF6) == 0xF0) {
    bad_sample("an audio", s, "starts with an ADTS header, which an MP4 sample does not hold");
  }
  int32_t len = 0;
  if (!Boxlane_Packet_FrameAudio(client_, out, &len, p, static_cast<int32_t>(s.size), file_pos,
                                 static_cast<int32_t>(duration))) {
    refused("an audio sample");
  }
  if (static_cast<uint32_t>(len) != s.size) throw ToolError("internal: an audio sample changed size");
}

}  // namespace boxlane::tool
