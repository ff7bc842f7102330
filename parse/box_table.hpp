// Every box the parser knows, in one table: fourcc, type code, how the
// splitter treats it and which reader gets its payload. Adding a box is
// adding a row. Fourccs match without regard to ASCII letter case, so MOOV
// is moov.
#pragma once

#include <boxlane/boxlane.hpp>

#include "parse/parse_record.hpp"

#include <array>
#include <cstdint>
#include <string_view>

namespace boxlane::parse {

enum class BoxKind : uint8_t {
  leaf,       // skipped whole after its reader (if any)
  container,  // the next box read is its first child
  media_data, // mdat: never read or buffered; ends the run when it reaches past it
  uuid,       // leaf whose two bytes after the fourcc go to wUUIDHead
};

// Readers get the record, the header record under construction and exactly
// the box payload: the bytes after the 8-byte header, with their length.
using BoxReader = bool (*)(CBoxlane_Parse&, QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t);

template <bool (CBoxlane_Parse::*Reader)(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t)>
bool read_box(CBoxlane_Parse& self, QORVANE_MP4PARSE* record, BOXLANE_MSGBUFFER* entry, const uint8_t* payload,
              uint64_t length) {
  return (self.*Reader)(record, entry, payload, length);
}

// ftyp is not a full box: its reader has nothing to put in the header record.
inline bool read_ftyp(CBoxlane_Parse& self, QORVANE_MP4PARSE* record, BOXLANE_MSGBUFFER*, const uint8_t* payload,
                      uint64_t length) {
  return self.Boxlane_Parse_FTyp(record, payload, length);
}

// The fourcc as a big-endian number with A-Z folded to a-z.
constexpr uint32_t fold_fourcc(uint32_t tag) noexcept {
  uint32_t out = 0;
  for (int shift = 24; shift >= 0; shift -= 8) {
    uint32_t c = (tag >> shift) & 0xFF;
    if (c >= 'A' && c <= 'Z') c |= 0x20;
    out |= c << shift;
  }
  return out;
}

constexpr uint32_t fourcc(std::string_view name) noexcept {
  return uint32_t(uint8_t(name[0])) << 24 | uint32_t(uint8_t(name[1])) << 16 | uint32_t(uint8_t(name[2])) << 8 |
         uint32_t(uint8_t(name[3]));
}

// What else the splitter must know of a box.
enum BoxTraits : uint8_t {
  kBasic = 0,
  kExtended = 1,  // read only by a client in the extended mode; UNKNOWN otherwise
  kFullBox = 2,   // version and flags follow the header (ISO/IEC 14496-12 §4.2)
};

struct BoxRow {
  uint32_t tag;  // lower case
  ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code;
  BoxKind kind;
  BoxReader reader;  // null: no reader
  uint8_t traits = kBasic;
};

// The reader of a full box that stores nothing: its header record gets the
// box's version and flags.
bool read_version_flags(CBoxlane_Parse& self, QORVANE_MP4PARSE* record, BOXLANE_MSGBUFFER* entry,
                        const uint8_t* payload, uint64_t length);

template <auto Reader>
inline constexpr BoxReader kRead = &read_box<Reader>;
inline constexpr uint8_t kFull = kFullBox;
inline constexpr uint8_t kExtendedFull = kExtended | kFullBox;

inline constexpr std::array kBoxTable{
    BoxRow{fourcc("free"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN, BoxKind::leaf, nullptr},
    BoxRow{fourcc("ftyp"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP, BoxKind::leaf, &read_ftyp},
    BoxRow{fourcc("moov"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOV, BoxKind::container, nullptr},
    BoxRow{fourcc("mdia"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDIA, BoxKind::container, nullptr},
    BoxRow{fourcc("mdat"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT, BoxKind::media_data, nullptr},
    BoxRow{fourcc("uuid"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UUID, BoxKind::uuid, nullptr},
    BoxRow{fourcc("mvhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_MVhd>, kFull},
    BoxRow{fourcc("trak"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAK, BoxKind::container, nullptr},
    BoxRow{fourcc("tkhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TKHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_TKhd>, kFull},
    BoxRow{fourcc("edts"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EDTS, BoxKind::container, nullptr},
    BoxRow{fourcc("elst"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_ELST, BoxKind::leaf, nullptr},
    BoxRow{fourcc("mdhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_MDhd>, kFull},
    BoxRow{fourcc("hdlr"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HDLR, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_HDlr>, kFull},
    BoxRow{fourcc("minf"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MINF, BoxKind::container, nullptr},
    BoxRow{fourcc("vmhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_VMHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_VMhd>, kFull},
    BoxRow{fourcc("smhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SMHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_SMhd>, kFull},
    BoxRow{fourcc("hmhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_HMHD, BoxKind::leaf, nullptr},
    BoxRow{fourcc("nmhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_NMHD, BoxKind::leaf, nullptr},
    // dinf and stsd are read whole by their readers; their children get no
    // header records of their own.
    BoxRow{fourcc("dinf"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_DINF, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_Dinf>},
    BoxRow{fourcc("stbl"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STBL, BoxKind::container, nullptr},
    BoxRow{fourcc("stsd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STsd>, kFull},
    BoxRow{fourcc("stts"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STts>, kFull},
    BoxRow{fourcc("stss"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STss>, kFull},
    BoxRow{fourcc("ctts"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_CTts>, kFull},
    BoxRow{fourcc("stsc"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STsc>, kFull},
    BoxRow{fourcc("stsz"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STsz>, kFull},
    BoxRow{fourcc("stco"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STco>, kFull},
    BoxRow{fourcc("sdtp"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_SDtp>, kFull},
    // The extended mode's boxes. A moof is read whole by its reader when its
    // header record is queued; its children still get records of their own.
    BoxRow{fourcc("co64"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_CO64>, kExtendedFull},
    BoxRow{fourcc("stz2"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STZ2, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_STz2>, kExtendedFull},
    BoxRow{fourcc("mvex"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVEX, BoxKind::container, nullptr, kExtended},
    BoxRow{fourcc("trex"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TREX, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_TRex>, kExtendedFull},
    BoxRow{fourcc("mehd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MEHD, BoxKind::leaf, kRead<&CBoxlane_Parse::Boxlane_Parse_MEhd>, kExtendedFull},
    BoxRow{fourcc("moof"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOF, BoxKind::container, kRead<&CBoxlane_Parse::Boxlane_Parse_MOof>, kExtended},
    BoxRow{fourcc("mfhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFHD, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("traf"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAF, BoxKind::container, nullptr, kExtended},
    BoxRow{fourcc("tfhd"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFHD, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("tfdt"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFDT, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("trun"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRUN, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("sidx"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SIDX, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("styp"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STYP, BoxKind::leaf, nullptr, kExtended},
    BoxRow{fourcc("emsg"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_EMSG, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("mfra"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFRA, BoxKind::container, nullptr, kExtended},
    BoxRow{fourcc("tfra"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TFRA, BoxKind::leaf, &read_version_flags, kExtendedFull},
    BoxRow{fourcc("mfro"), ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MFRO, BoxKind::leaf, &read_version_flags, kExtendedFull},
};

inline constexpr BoxRow kUnknownBox{0, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN, BoxKind::leaf, nullptr};

// The row for a fourcc as read from a box header, whatever the mode.
constexpr const BoxRow& find_box(uint32_t tag) noexcept {
  const uint32_t folded = fold_fourcc(tag);
  for (const BoxRow& row : kBoxTable)
    if (row.tag == folded) return row;
  return kUnknownBox;
}

}  // namespace boxlane::parse
