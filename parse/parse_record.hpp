// The record of one parse client: what the header boxes said, the box queue
// of header records and the pending tail, and the track table. Everything in
// it is guarded by st_Locker. A call finds the record and publishes it in its
// thread's in-use slot (parse/client_lookup.hpp); Delete takes the record out
// of the table, marks it deleted under st_Locker and waits until no slot names
// it, so it waits for this client alone.
#pragma once

#include <boxlane/boxlane.h>

#include "parse/track_record.hpp"
#include "platform/task_pool.hpp"

#include <array>
#include <atomic>
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
  uint8_t byHeaderLen = 8;           // 16 for a box with a 64-bit size (size field 1)
  std::size_t nBufferSize = 0;       // capacity of ptszMsgBuffer
  uint64_t nOffset = 0;              // stream offset of the box's first byte
};

// The defaults a trex gives the fragments of its track (ISO/IEC 14496-12 §8.8.3).
struct BOXLANE_TREX {
  uint32_t nDescriptionIndex = 0;
  uint32_t nDuration = 0;
  uint32_t nSize = 0;
  uint32_t nFlags = 0;
};

// One trun as it is kept until its track fragment is taken: its entries as
// stored, with what it leaves out and where its data and time start, so
// that reading a moof costs one bounded copy and a pass for the sums, and
// the samples are worked out only into the caller's array.
struct BOXLANE_FRAGMENTRUN {
  uint64_t nDataStart = 0;      // stream offset of its first sample's data
  uint64_t nDecodeStart = 0;    // decode time of its first sample
  std::size_t nBytesAt = 0;     // its entries in the queue's byte array
  uint32_t nCount = 0;
  uint32_t nTrunFlags = 0;      // tr_flags
  uint32_t nFirstFlags = 0;     // first_sample_flags, when tr_flags has them
  uint32_t nDuration = 0;       // for samples without their own: tfhd, else trex
  uint32_t nSize = 0;
  uint32_t nFlags = 0;
  uint8_t byVersion = 0;        // 1: signed composition offsets
  bool bFlagsKnown = false;     // nFlags came from the tfhd or the trex
};

// Track fragments read and not yet taken, oldest first: each answer's runs
// and their entries lie back to back from the heads on, so reading a moof
// allocates nothing once the arrays have grown to the stream's fragments.
struct BOXLANE_FRAGMENTQUEUE {
  struct Entry {
    BOXLANE_FRAGMENTINFO stInfo;
    std::size_t nFirstRun;  // index of its first run in stl_ListRun
    std::size_t nRuns;
  };
  std::deque<Entry> stl_ListFragment;
  std::vector<BOXLANE_FRAGMENTRUN> stl_ListRun;
  std::vector<uint8_t, BOXLANE_UNINIT_ALLOC<uint8_t>> stl_ListByte;
  std::size_t nRunHead = 0;   // runs before it were taken or dropped
  std::size_t nByteHead = 0;  // and their bytes
  std::size_t nSamples = 0;   // samples of the waiting answers
};

struct QORVANE_MP4PARSE {
  QORVANE_HDRFTYP stFTyp{};
  QORVANE_HDRMVHD stMVhd{};
  char tszClient[128] = {};
  uint64_t nParsePos = 0;
  int32_t nPoolIndex = 0;
  int32_t nCurrentTrack = 0;
  bool bStop = false;
  std::vector<std::array<char, 4>> stl_ListBrand;  // as stored, zero from the first zero byte on
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
  // The client's own event count in the task pool: a count made for this
  // record never reaches a client entered later under the same string.
  std::shared_ptr<RendavoEntry> stPoolEntry;
  uint64_t nTrackBytes = 0;         // the heap behind the track records' tables (parse/holdings.hpp)
  bool bDeleted = false;            // set by Delete under st_Locker
};

namespace boxlane::parse {

inline bool extended(const QORVANE_MP4PARSE& record) noexcept {
  return (record.stStream.nFlags & BOXLANE_PARSE_EXTENDED) != 0;
}

}  // namespace boxlane::parse
