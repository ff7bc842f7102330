// Places header records in the box tree as they arrive: the parser walks
// boxes in stream order, stepping into a container's first child and over
// anything else whole (mdat payloads included), so a box's depth is the
// number of containers still open at its offset.
#pragma once

#include <boxlane/boxlane.h>

#include "tools/common/names.hpp"

#include <cstdint>
#include <vector>

namespace boxlane::tool {

struct PlacedBox {
  QORVANE_MP4HDR header;
  uint64_t offset;
  int depth;
};

class BoxWalk {
 public:
  PlacedBox place(const BOXLANE_BOXINFO& record) {
    const QORVANE_MP4HDR& header = record.stHdr;
    while (!open_ends_.empty() && record.nOffset >= open_ends_.back()) open_ends_.pop_back();
    const PlacedBox box{header, record.nOffset, static_cast<int>(open_ends_.size())};
    if (is_container(header.enHType)) open_ends_.push_back(record.nOffset + header.nBoxSize);
    return box;
  }

 private:
  std::vector<uint64_t> open_ends_;  // where each open container ends
};

// What a report needs of the records when it does not list them all.
struct RecordSummary {
  uint64_t records = 0;
  bool ftyp = false;
  uint64_t largest_ftyp = 0;  // the largest ftyp's declared size
  bool mvhd = false;
  bool moov = false;          // a top-level moov; the last one's place:
  uint64_t moov_offset = 0;
  uint64_t moov_size = 0;

  void add(const PlacedBox& box) {
    ++records;
    switch (box.header.enHType) {
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_FTYP:
        ftyp = true;
        if (box.header.nBoxSize > largest_ftyp) largest_ftyp = box.header.nBoxSize;
        break;
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MVHD: mvhd = true; break;
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MOOV:
        if (box.depth != 0) break;
        moov = true;
        moov_offset = box.offset;
        moov_size = box.header.nBoxSize;
        break;
      default: break;
    }
  }
};

}  // namespace boxlane::tool
