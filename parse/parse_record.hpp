// The record of one parse client: what the header boxes said, the box queue
// of header records and the pending tail, and the track table. Everything in
// it is guarded by st_Locker, taken after the client table's lock.
#pragma once

#include <boxlane/boxlane.h>

#include "parse/track_record.hpp"

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

// One entry of the box queue. A finished entry carries only the header
// record; an unfinished one (only ever the last) owns the reassembly buffer
// that collects a box arriving in pieces.
struct BOXLANE_MSGBUFFER {
  QORVANE_MP4HDR st_MP4Hdr{};
  uint8_t* ptszMsgBuffer = nullptr;  // malloc'd; null in a finished entry
  int32_t nMsgLen = 0;               // bytes held
  int32_t nBoxLen = 0;               // bytes needed before the split: box size, or 8
  bool bHdr = false;                 // the 8-byte box header is known
  bool bComplete = false;            // finished header record, ready for Recv
  std::size_t nBufferSize = 0;       // capacity of ptszMsgBuffer
  uint8_t byHeaderLen = 8;           // 16 for a box with a 64-bit size
};

// The defaults a trex gives the fragments of its track (ISO/IEC 14496-12 §8.8.3).
struct BOXLANE_TREX {
  uint32_t nDescriptionIndex = 0;
  uint32_t nDuration = 0;
  uint32_t nSize = 0;
  uint32_t nFlags = 0;
};

// Track fragments read and not yet taken, oldest first. Their samples lie
// back to back in one array from nHead on, so reading a moof allocates
// nothing once the array has grown to the stream's usual fragment.
struct BOXLANE_FRAGMENTQUEUE {
  struct Entry {
    BOXLANE_FRAGMENTINFO stInfo;
    std::size_t nFirst;  // index of its first sample in stl_ListSample
  };
  std::deque<Entry> stl_ListFragment;
  std::vector<BOXLANE_SAMPLEINFO, BOXLANE_UNINIT_ALLOC<BOXLANE_SAMPLEINFO>> stl_ListSample;
  std::size_t nHead = 0;  // samples before it were taken or dropped
};

struct QORVANE_MP4PARSE {
  QORVANE_HDRFTYP stFTyp{};
  QORVANE_HDRMVHD stMVhd{};
  char tszClient[128] = {};
  uint64_t nParsePos = 0;
  int32_t nPoolIndex = 0;
  int32_t nCurrentTrack = 0;
  bool bStop = false;
  std::vector<std::string> stl_ListBrand;
  std::unique_ptr<std::mutex> st_Locker = std::make_unique<std::mutex>();
  std::unique_ptr<std::deque<BOXLANE_MSGBUFFER>> stl_ListMsg = std::make_unique<std::deque<BOXLANE_MSGBUFFER>>();
  std::unique_ptr<std::unordered_map<int32_t, BOXLANE_TRACKINFO>> stl_MapTrack =
      std::make_unique<std::unordered_map<int32_t, BOXLANE_TRACKINFO>>();
  // What the extended mode adds, and what either mode notes about the
  // stream (Boxlane_Parse_GetStream). Everything a client holds stays in
  // containers whose capacity can be summed.
  bool bToEnd = false;           // a size-0 box was met: all that follows is its payload
  BOXLANE_STREAMINFO stStream{}; // nFlags is the client's mode
  uint64_t nMoofEnd = 0;         // stream offset where the last moof read ends
  std::unordered_map<int32_t, BOXLANE_TREX> stl_MapTrex;
  BOXLANE_FRAGMENTQUEUE stFragments;
  // Data of the last moof's track fragments, checked against the mdat after it.
  std::vector<std::pair<uint64_t, uint64_t>> stl_ListMoofData;
};

namespace boxlane::parse {

inline bool extended(const QORVANE_MP4PARSE& record) noexcept {
  return (record.stStream.nFlags & BOXLANE_PARSE_EXTENDED) != 0;
}

}  // namespace boxlane::parse
