#include "tools/common/names.hpp"

#include <array>
#include <cstdio>

namespace boxlane::tool {
namespace {

struct BoxRow {
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code;
  std::string_view name;
  bool container;
  bool full;
};

constexpr std::array kBoxes{
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP, "ftyp", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT, "mdat", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOV, "moov", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UUID, "uuid", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVHD, "mvhd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAK, "trak", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TKHD, "tkhd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EDTS, "edts", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_ELST, "elst", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDIA, "mdia", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDHD, "mdhd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HDLR, "hdlr", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MINF, "minf", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_VMHD, "vmhd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SMHD, "smhd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HMHD, "hmhd", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_NMHD, "nmhd", false, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_DINF, "dinf", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STBL, "stbl", true, false},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD, "stsd", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS, "stts", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC, "stsc", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ, "stsz", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO, "stco", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, "stss", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS, "ctts", false, true},
    BoxRow{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP, "sdtp", false, true},
};

const BoxRow* find_box(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  for (const auto& row : kBoxes)
    if (row.code == code) return &row;
  return nullptr;
}

}  // namespace

std::string_view box_name(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  const BoxRow* row = find_box(code);
  return row ? row->name : std::string_view{};
}

bool is_container(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  const BoxRow* row = find_box(code);
  return row && row->container;
}

bool is_full_box(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) {
  const BoxRow* row = find_box(code);
  return row && row->full;
}

std::string hex_code(uint64_t code) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%08llX", static_cast<unsigned long long>(code));
  return text;
}

std::string error_name(uint64_t code) {
  switch (code) {
    case BOXLANE_ERROR_PARSE_PARAMETER: return "BOXLANE_ERROR_PARSE_PARAMETER (bad argument)";
    case BOXLANE_ERROR_PARSE_MALLOC: return "BOXLANE_ERROR_PARSE_MALLOC (no memory for a reassembly buffer)";
    case BOXLANE_ERROR_PARSE_NOTFOUND: return "BOXLANE_ERROR_PARSE_NOTFOUND (unknown client or track)";
    case BOXLANE_ERROR_PARSE_NODATA: return "BOXLANE_ERROR_PARSE_NODATA (no header record queued)";
    case BOXLANE_ERROR_PARSE_NOTREADY: return "BOXLANE_ERROR_PARSE_NOTREADY (oldest box still incomplete)";
    case BOXLANE_ERROR_PARSE_NOTSUPPORT:
      return "BOXLANE_ERROR_PARSE_NOTSUPPORT (stream stopped: 64-bit box size, or a box too large)";
    case BOXLANE_ERROR_PARSE_MALFORMED: return "BOXLANE_ERROR_PARSE_MALFORMED (box size field of 2 to 7)";
    case BOXLANE_ERROR_PARSE_BUFFER: return "BOXLANE_ERROR_PARSE_BUFFER (the caller's array is too small)";
    case BOXLANE_ERROR_PARSE_LIMIT: return "BOXLANE_ERROR_PARSE_LIMIT (the client would pass its memory bound)";
    case RENDAVO_ERROR_TASKPOOL_PARAMETER: return "RENDAVO_ERROR_TASKPOOL_PARAMETER (bad pool or handle)";
    case RENDAVO_ERROR_TASKPOOL_TIMEOUT: return "RENDAVO_ERROR_TASKPOOL_TIMEOUT";
    case RENDAVO_ERROR_TASKPOOL_MALLOC: return "RENDAVO_ERROR_TASKPOOL_MALLOC (out of memory)";
    case RENDAVO_ERROR_TASKPOOL_CLOSED: return "RENDAVO_ERROR_TASKPOOL_CLOSED";
    default: return "unknown code";
  }
}

std::string avc_profile_name(uint8_t profile, uint8_t compatibility) {
  const bool set1 = compatibility & 0x40;
  const bool set3 = compatibility & 0x10;
  const bool set4 = compatibility & 0x08;
  const bool set5 = compatibility & 0x04;
  switch (profile) {
    case 66: return set1 ? "Constrained Baseline" : "Baseline";
    case 77: return "Main";
    case 88: return "Extended";
    case 100:
      if (set4 && set5) return "Constrained High";
      return set4 ? "Progressive High" : "High";
    case 110: return set3 ? "High 10 Intra" : "High 10";
    case 122: return set3 ? "High 4:2:2 Intra" : "High 4:2:2";
    case 244: return set3 ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
    case 44: return "CAVLC 4:4:4 Intra";
    default: return "profile " + std::to_string(profile);
  }
}

std::string avc_level_name(uint8_t level, uint8_t profile, uint8_t compatibility) {
  // ISO/IEC 14496-10 §A.3.1 and §A.3.2: level_idc 9 in the High profiles;
  // 11 with constraint_set3_flag in Baseline, Main and Extended.
  const bool low_profile = profile == 66 || profile == 77 || profile == 88;
  if (level == 9 || (level == 11 && low_profile && (compatibility & 0x10))) return "1b";
  return std::to_string(level / 10) + "." + std::to_string(level % 10);
}

std::string hevc_profile_name(uint8_t profile, uint32_t compatibility) {
  for (uint8_t j = 1; profile == 0 && j < 32; ++j) {
    if (compatibility & (0x80000000u >> j)) profile = j;
  }
  switch (profile) {
    case 1: return "Main";
    case 2: return "Main 10";
    case 3: return "Main Still Picture";
    case 4: return "Format Range Extensions";
    case 5: return "High Throughput";
    case 6: return "Multiview Main";
    case 7: return "Scalable Main";
    case 8: return "3D Main";
    case 9: return "Screen Content Coding";
    case 10: return "Scalable Format Range Extensions";
    case 11: return "High Throughput Screen Content Coding";
    default: return "profile " + std::to_string(profile);
  }
}

std::string hevc_level_name(uint8_t level) {
  char text[16];
  const int tenths = level / 3;
  if (level == 0 || level % 3) {
    std::snprintf(text, sizeof text, "level_idc %d", level);
  } else if (tenths % 10) {
    std::snprintf(text, sizeof text, "%d.%d", tenths / 10, tenths % 10);
  } else {
    std::snprintf(text, sizeof text, "%d", tenths / 10);
  }
  return text;
}

std::string chroma_format_name(uint8_t chroma_format_idc) {
  switch (chroma_format_idc) {
    case 0: return "4:0:0";
    case 1: return "4:2:0";
    case 2: return "4:2:2";
    default: return "4:4:4";
  }
}

std::string aac_object_name(int object_type) {
  switch (object_type) {
    case 1: return "AAC Main";
    case 2: return "AAC LC";
    case 3: return "AAC SSR";
    case 4: return "AAC LTP";
    case 5: return "HE-AAC (SBR)";
    case 29: return "HE-AAC v2 (PS)";
    default: return "audio object type " + std::to_string(object_type);
  }
}

std::string printable_text(const char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      text += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      text += escaped;
    }
  }
  return text;
}

std::string language_text(uint16_t packed) {
  std::string text;
  for (int shift = 10; shift >= 0; shift -= 5) {
    const int letter = (packed >> shift) & 0x1F;
    // QuickTime files put a Macintosh language number here instead.
    if (letter < 1 || letter > 26) return "code " + std::to_string(packed);
    text += static_cast<char>(letter + 0x60);
  }
  return text;
}

std::string hex_bytes(const uint8_t* data, std::size_t size) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * size);
  for (std::size_t i = 0; i < size; ++i) {
    text += digits[data[i] >> 4];
    text += digits[data[i] & 15];
  }
  return text;
}

}  // namespace boxlane::tool
