// Choosing each track's chunk offset table: stco while the start of its last
// sample lies below 2^32, co64 once it reaches it (ISO/IEC 14496-12 §8.7.5).
// With the moov before the mdat, a co64 table makes the moov 4 bytes a sample
// larger and moves every sample by as much, which can carry the other track
// past 2^32 too; the choice is therefore repeated until it holds.
#pragma once

#include <cstdint>
#include <optional>

namespace boxlane::tool {

// The mdat's header: 8 bytes, or 16 with a 64-bit size once the box would
// pass 2^32 - 1 bytes with the short one (ISO/IEC 14496-12 §4.2).
constexpr uint32_t mdat_header_size(uint64_t payload) { return payload > UINT32_MAX - 8 ? 16 : 8; }

struct OffsetTables {
  bool video_wide = false;  // co64
  bool audio_wide = false;
  bool operator==(const OffsetTables&) const = default;
};

// `payload_at(tables)` is the file offset of the mdat payload when the moov
// holds those tables; `last_video` and `last_audio` where each track's last
// sample starts in the payload (nullopt for a track the movie lacks). The
// payload only moves on when a table widens and a table never narrows, so
// this ends after at most one round per track.
template <typename PayloadAt>
OffsetTables choose_offset_tables(PayloadAt&& payload_at, std::optional<uint64_t> last_video,
                                  std::optional<uint64_t> last_audio) {
  constexpr uint64_t kLimit = uint64_t{1} << 32;
  OffsetTables tables;
  for (;;) {
    const uint64_t at = payload_at(tables);
    const OffsetTables needed{last_video && at + *last_video >= kLimit, last_audio && at + *last_audio >= kLimit};
    if (needed == tables) return tables;
    tables = needed;
  }
}

}  // namespace boxlane::tool
