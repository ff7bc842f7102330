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
};
