// The per-track record of a parse client: the track's header boxes, its
// sample tables exactly as the boxes carry them, and its first sample entry.
// Plain value semantics: copy copies every list, move takes them whole.
#pragma once

#include <boxlane/boxlane.h>

#include "platform/byte_order.hpp"

#include <cstdint>
#include <memory>
#include <utility>
#include <string>
#include <unordered_map>
#include <vector>

// The hvcC record of an hvc1 or hev1 entry (ISO/IEC 14496-15 §8.3.3.1), as
// stored; Boxlane_Parse_GetTrackHEVC hands it out as a BOXLANE_HEVCINFO.
struct BOXLANE_HEVCCONFIG {
  struct Unit {
    uint8_t byType = 0;
    bool bComplete = false;  // array_completeness of its array
    std::vector<uint8_t> stl_Bytes;
  };
  uint8_t byConfigurationVersion = 0;
  uint8_t byProfileSpace = 0;
  uint8_t byTier = 0;
  uint8_t byProfile = 0;
  uint32_t nCompatibilityFlags = 0;
  uint64_t nConstraintFlags = 0;
  uint8_t byLevel = 0;
  uint16_t wMinSpatialSegmentation = 0;
  uint8_t byParallelismType = 0;
  uint8_t byChromaFormat = 0;
  uint8_t byBitDepthLuma = 0;
  uint8_t byBitDepthChroma = 0;
  uint16_t wAvgFrameRate = 0;
  uint8_t byConstantFrameRate = 0;
  uint8_t byNumTemporalLayers = 0;
  uint8_t byTemporalIdNested = 0;
  uint8_t byNALLengthSize = 0;
  // At most BOXLANE_HEVC_MAX_NALUS, all a query can hand out; bMore when the
  // record held more.
  std::vector<Unit> stl_ListNalu;
  bool bMore = false;
};

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
  BOXLANE_HEVCCONFIG stHEVC;
};

// Grows a list without zeroing what it adds: every new element is written
// by the reader right after the list grows.
template <typename T>
struct BOXLANE_UNINIT_ALLOC : std::allocator<T> {
  using std::allocator<T>::allocator;
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};

// A sample table as its box carries it: N 32-bit fields per entry, kept back
// to back in the box's own byte order, so reading a table is one bounded
// copy and it keeps 4 bytes a field. entry() converts and widens an entry to
// the QORVANE_HDRSAMPLENFO the queries hand out.
template <std::size_t N>
struct BOXLANE_TABLE {
  std::vector<uint32_t, BOXLANE_UNINIT_ALLOC<uint32_t>> fields;

  std::size_t size() const noexcept { return fields.size() / N; }
  bool empty() const noexcept { return fields.empty(); }
  std::size_t capacity() const noexcept { return fields.capacity() / N; }
  QORVANE_HDRSAMPLENFO entry(std::size_t i) const noexcept {
    QORVANE_HDRSAMPLENFO e{Olbrant_Endain_ntohl(fields[i * N]), 0, 0};
    if constexpr (N > 1) e.nValue2 = Olbrant_Endain_ntohl(fields[i * N + 1]);
    if constexpr (N > 2) e.nValue3 = Olbrant_Endain_ntohl(fields[i * N + 2]);
    return e;
  }
};

// Where the walk over a track's tables stands (parse/sample_index.cpp): a
// caller who reads the samples window by window pays only for each window.
// It walks the tables of one version of the track; any other is walked anew.
struct BOXLANE_SAMPLECURSOR {
  uint32_t nVersion = 0;     // 0: walks nothing yet
  uint64_t nIndex = 0;       // the next sample
  std::size_t nSttsNext = 0; // the stts run after the current one
  uint32_t nSttsLeft = 0;    // samples of the current run still to come
  uint32_t nSttsDelta = 0;
  uint64_t nDecode = 0;
  std::size_t nCttsNext = 0;
  uint32_t nCttsLeft = 0;
  uint32_t nCttsOffset = 0;
  std::size_t nStscNext = 0; // the stsc entry after the current one
  uint64_t nChunk = 0;       // the current chunk, from 0
  uint64_t nChunkEnd = 0;    // the first chunk past the current stsc entry
  uint32_t nChunkLeft = 0;   // samples of the current chunk still to come
  uint64_t nOffset = 0;      // where the next sample starts
  std::size_t nStssPos = 0;
};

struct BOXLANE_TRACKINFO {
  QORVANE_HDRTKHD stTKhd{};
  QORVANE_HDRMDHD stMDhd{};
  QORVANE_HDRHDLR stHDlr{};
  QORVANE_HDRVMSMHD stVMSMhd{};
  BOXLANE_TABLE<2> stl_ListSTts;  // sample_count, sample_delta
  BOXLANE_TABLE<2> stl_ListCTts;  // sample_count, sample_offset
  BOXLANE_TABLE<3> stl_ListSTsc;  // first_chunk, samples_per_chunk, sample_description_index
  BOXLANE_TABLE<1> stl_ListSTsz;  // entry_size
  BOXLANE_TABLE<1> stl_ListSTco;  // chunk_offset
  std::vector<QORVANE_HDRSDTP, BOXLANE_UNINIT_ALLOC<QORVANE_HDRSDTP>> stl_ListSDtp;
  std::vector<std::string> stl_ListDinf;
  std::vector<int32_t> stl_ListSTss;
  BOXLANE_TRACKCODEC stCodec;
  // Kept for the per-sample index; no query of the classic interface shows
  // them, so a client of either mode answers those queries as before.
  BOXLANE_TABLE<2> stl_ListCO64;  // chunk_offset, high and low 32 bits
  uint32_t nConstantSize = 0;     // stsz sample_size when not 0
  uint32_t nConstantCount = 0;    // and its sample_count
  uint8_t byCttsVersion = 0;      // of the last ctts: 1 holds signed offsets
  bool bLargeOffsets = false;     // a co64 was met
  bool bCompactSizes = false;     // an stz2 was met
  uint8_t byCompactFieldSize = 0;
  uint32_t nTablesVersion = 1;    // bumped by every box read into the track
  BOXLANE_SAMPLECURSOR stCursor;
  // Its fragments so far.
  uint64_t nFragmentSamples = 0;
  uint64_t nFragmentEnd = 0;      // decode time after the last fragment sample
  uint32_t nTrackFragments = 0;
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
