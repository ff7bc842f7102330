// Words for the numbers the commands print: box type codes, parser error codes,
// H.264 and H.265 profiles and levels, AAC object types, languages and fourccs.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace boxlane::tool {

// The fourcc the parser matched for a type code; empty for code 0.
std::string_view box_name(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code);
// The six boxes the parser steps into.
bool is_container(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code);
// Boxes with version and flags after their header.
bool is_full_box(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code);

// "BOXLANE_ERROR_PARSE_NOTSUPPORT (...)" for a last-error code.
std::string error_name(uint64_t code);
std::string hex_code(uint64_t code);

// ISO/IEC 14496-10 Annex A profile_idc, with the constraint flags that
// narrow Baseline and High.
std::string avc_profile_name(uint8_t profile, uint8_t compatibility);
// level_idc 31 is "3.1"; 9, or 11 with constraint_set3 in Baseline, Main or
// Extended, is 1b.
std::string avc_level_name(uint8_t level, uint8_t profile, uint8_t compatibility);
// ISO/IEC 23008-2 Annex A: general_profile_idc, or for 0 the first profile
// the compatibility flags name.
std::string hevc_profile_name(uint8_t profile, uint32_t compatibility);
// general_level_idc is 30 times the level: 93 is "3.1".
std::string hevc_level_name(uint8_t level);
// chroma_format_idc: "4:2:0" for 1.
std::string chroma_format_name(uint8_t chroma_format_idc);
// ISO/IEC 14496-3 §1.5.1.1 audio object types.
std::string aac_object_name(int object_type);

// Printable ASCII as is, other bytes as \xNN (fourccs, names from files).
std::string printable_text(const char* bytes, std::size_t size = 4);
// ISO/IEC 14496-12 §8.4.2.3: three 5-bit letters, each stored less 0x60;
// anything else as "code N".
std::string language_text(uint16_t packed);
std::string hex_bytes(const uint8_t* data, std::size_t size);

}  // namespace boxlane::tool
