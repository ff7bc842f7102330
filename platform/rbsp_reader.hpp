// The bit reader over a NAL unit's RBSP that the H.264 and H.265 syntax
// parsers share: fixed-length fields and exp-Golomb codes (ISO/IEC 14496-10
// §9.1, ISO/IEC 23008-2 §9.2), with the emulation_prevention_three_byte
// (00 00 03) of ISO/IEC 14496-10 §7.4.1 and ISO/IEC 23008-2 §7.4.2 removed as
// the bytes are fetched. Bounded: a read past the end yields zeros and makes
// ok() false for good.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/be_reader.hpp"

namespace boxlane {

class RbspReader {
 public:
  // `nal` starts with the NAL unit header; `header_bytes` of it are skipped
  // (1 for H.264, 2 for H.265).
  RbspReader(const uint8_t* nal, std::size_t size, std::size_t header_bytes = 1) noexcept;

  uint32_t bits(unsigned n) noexcept;  // n up to 32
  bool flag() noexcept { return bits(1) != 0; }
  uint32_t ue() noexcept;  // values up to 2^32 - 2
  int32_t se() noexcept;
  bool ok() const noexcept { return ok_; }
  // Marks the reader failed, for a value out of its legal range.
  void fail() noexcept { ok_ = false; }

 private:
  bool fetch() noexcept;  // loads the next RBSP byte into cur_

  BeReader in_;
  unsigned zeros_ = 0;  // consecutive zero bytes just read, for 00 00 03
  uint8_t cur_ = 0;
  unsigned left_ = 0;  // bits of cur_ not yet read
  bool ok_ = true;
};

// aspect_ratio_info of the VUI (ISO/IEC 14496-10 §E.1.1, ISO/IEC 23008-2
// §E.2.1), after its present flag: aspect_ratio_idc, and the sample aspect
// ratio from Table E-1 or, for idc 255, from the stream. An unknown idc
// leaves both 0.
void read_aspect_ratio(RbspReader& br, uint16_t& width, uint16_t& height) noexcept;

}  // namespace boxlane
