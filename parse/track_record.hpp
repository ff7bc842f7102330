// The per-track record of a parse client: the track's header boxes, its
// sample tables exactly as the boxes carry them, and its first sample entry.
// Plain value semantics: copy copies every list, move takes them whole.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

// The first stsd entry, kept compactly; Boxlane_Parse_GetTrackCodec expands
// it into the caller's BOXLANE_CODECINFO. Only the first stsd read for a
// track is kept (bKept), so a repeated trak cannot swap the decoder setup
// under a caller that has already read it.
struct BOXLANE_TRACKCODEC {
  bool bKept = false;
  char tszCodec[8] = {};
  uint16_t wDataRefIndex = 0;
  uint16_t wWidth = 0;
  uint16_t wHeight = 0;
  uint8_t byProfile = 0;
  uint8_t byCompatibility = 0;
  uint8_t byLevel = 0;
  uint8_t byNALLengthSize = 0;
  std::vector<std::vector<uint8_t>> stl_ListSPS;
  std::vector<std::vector<uint8_t>> stl_ListPPS;
  uint16_t wChannelCount = 0;
  uint16_t wSampleSize = 0;
  uint32_t nSampleRate = 0;
  uint8_t byObjectType = 0;
  uint8_t byStreamType = 0;
  uint32_t nBufferSizeDB = 0;
  uint32_t nMaxBitrate = 0;
  uint32_t nAvgBitrate = 0;
  std::vector<uint8_t> stl_AudioCfg;
};

struct BOXLANE_TRACKINFO {
  QORVANE_HDRTKHD stTKhd{};
  QORVANE_HDRMDHD stMDhd{};
  QORVANE_HDRHDLR stHDlr{};
  QORVANE_HDRVMSMHD stVMSMhd{};
  std::vector<QORVANE_HDRSAMPLENFO> stl_ListSTts;
  std::vector<QORVANE_HDRSAMPLENFO> stl_ListCTts;
  std::vector<QORVANE_HDRSAMPLENFO> stl_ListSTsc;
  std::vector<QORVANE_HDRSAMPLENFO> stl_ListSTsz;
  std::vector<QORVANE_HDRSAMPLENFO> stl_ListSTco;
  std::vector<QORVANE_HDRSDTP> stl_ListSDtp;
  std::vector<std::string> stl_ListDinf;
  std::vector<int32_t> stl_ListSTss;
  BOXLANE_TRACKCODEC stCodec;
};

namespace boxlane::parse {

using TrackTable = std::unordered_map<int32_t, BOXLANE_TRACKINFO>;

// Boxes after a tkhd belong to its track until the next tkhd, whatever their
// nesting; null when no tkhd has made that track yet.
inline BOXLANE_TRACKINFO* find_track(TrackTable& table, int32_t track_id) noexcept {
  const auto it = table.find(track_id);
  return it == table.end() ? nullptr : &it->second;
}

}  // namespace boxlane::parse
