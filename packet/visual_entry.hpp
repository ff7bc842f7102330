// The fixed fields of a VisualSampleEntry (ISO/IEC 14496-12 §12.1.3), which
// the avc1 and hvc1 entries share: written just after the entry's box header,
// before its configuration box.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/be_writer.hpp"

namespace boxlane::packet {

inline void put_visual_entry_fields(BeWriter& w, uint16_t width, uint16_t height, std::string_view compressor) noexcept {
  w.zeros(6);
  w.u16(1);  // data_reference_index
  w.zeros(16);
  w.u16(width);
  w.u16(height);
  w.u32(0x00480000);  // 72 dpi
  w.u32(0x00480000);
  w.u32(0);
  w.u16(1);  // frame_count
  // compressorname: a Pascal string in a 32-byte field.
  const std::size_t length = compressor.size() < 31 ? compressor.size() : 31;
  w.u8(static_cast<uint8_t>(length));
  w.bytes(compressor.data(), length);
  w.zeros(31 - length);
  w.u16(0x0018);  // depth
  w.u16(0xFFFF);  // pre_defined = -1
}

}  // namespace boxlane::packet
