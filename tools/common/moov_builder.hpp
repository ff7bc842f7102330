// Building a moov from the writer's boxes into one buffer whose size was
// planned from the sample counts before any sample was written, as the
// commands that write whole movies do.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "boxlane/boxlane.h"
#include "platform/be_writer.hpp"
#include "tools/common/output_file.hpp"
#include "tools/common/writer_client.hpp"

namespace boxlane::tool {

// "und", packed as three 5-bit letters (ISO/IEC 14496-12 §8.4.2.3).
constexpr uint16_t kLanguageUndetermined = ((('u' - 0x60) << 10) | (('n' - 0x60) << 5) | ('d' - 0x60));
constexpr uint32_t kBoxHeader = 8;

// The size of a header box whose duration may need version 1: the writer
// switches once the value passes the 32-bit field (ISO/IEC 14496-12 §8.2.2).
constexpr uint32_t sized_for(uint64_t duration, uint32_t version0, uint32_t version1) {
  return duration > UINT32_MAX ? version1 : version0;
}

// The writer's mvhd names track 2 as the next whatever the number of tracks;
// a movie whose tracks are 1 to n must name one above them all (ISO/IEC
// 14496-12 §8.2.2.3). next_track_ID is the last field of both versions.
inline void name_next_track(uint8_t* mvhd, int32_t len, uint32_t tracks) {
  if (len >= 4) BeWriter(mvhd + len - 4, 4).u32(tracks + 1);
}

// Appends the writer's boxes to one buffer, checking each against its
// planned size before the next is written: the writer is not told the
// buffer's capacity, so a size that differed from the plan must stop the run.
class MoovBuilder {
 public:
  MoovBuilder(const char* client, std::size_t capacity) : client_(client), buf_(capacity) {}

  template <typename Call>
  void box(const char* what, uint64_t planned, Call call) {
    if (buf_.size() - pos_ < planned) throw ToolError(std::string("internal: no room planned for ") + what);
    int32_t len = 0;
    if (!call(buf_.data() + pos_, &len)) refused(what);
    if (len < 0 || static_cast<uint64_t>(len) != planned) {
      throw ToolError(std::string("internal: ") + what + " came out " + std::to_string(len) + " bytes, planned " +
                     std::to_string(planned));
    }
    pos_ += static_cast<std::size_t>(len);
  }
  void container(const char* type, uint64_t payload) {
    box(type, kBoxHeader, [&](uint8_t* out, int32_t* len) {
      return Boxlane_Packet_HDRBox(client_, out, len, type, nullptr, static_cast<int32_t>(payload));
    });
  }
  const std::vector<uint8_t>& bytes() const noexcept { return buf_; }
  std::size_t size() const noexcept { return pos_; }

 private:
  const char* client_;
  std::vector<uint8_t> buf_;
  std::size_t pos_ = 0;
};

// The mdat header at `at` once its payload is known: the 32-bit size field
// of an 8-byte header (HDRBox takes a signed 32-bit length, the field holds
// up to 4 GiB), or the whole 16-byte header with its 64-bit size.
inline void patch_mdat_header(const char* client, OutputFile& out, uint64_t at, uint32_t header, uint64_t payload) {
  if (header == kBoxHeader) {
    uint8_t field[4];
    BeWriter(field, sizeof field).u32(static_cast<uint32_t>(kBoxHeader + payload));
    out.patch(at, field, sizeof field);
    return;
  }
  uint8_t bytes[16];
  int32_t len = 0;
  if (!Boxlane_Packet_HDRBox64(client, bytes, &len, "mdat", payload) || len != 16) refused("the mdat header");
  out.patch(at, bytes, sizeof bytes);
}

// The finished moov: into the room left for it at `room_at` (faststart), or
// after the media data.
inline void place_moov(OutputFile& out, const MoovBuilder& moov, bool faststart, uint64_t room_at) {
  if (faststart) {
    out.patch(room_at, moov.bytes().data(), moov.size());
  } else {
    out.write(moov.bytes().data(), moov.size());
  }
}

}  // namespace boxlane::tool
