// The per-track record of a parse client: the track's header boxes, its
// sample tables exactly as the boxes carry them, and its first sample entry.
// Plain value semantics: copy copies every list, move takes them whole.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <string>
#include <vector>

// The first stsd entry, kept compactly; Boxlane_Parse_GetTrackCodec expands
// it into the caller's BOXLANE_CODECINFO.
struct BOXLANE_TRACKCODEC {
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
