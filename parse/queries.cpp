// The queries that hand a client's header values and a track's tables to the
// caller. They copy under the client's mutex and never drain: asking twice
// gives the same answer. Arrays come from Fundrel_Memory_Malloc and belong to
// the caller, who releases them with Fundrel_Memory_Free.
#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/client_lookup.hpp"
#include "parse/parse_record.hpp"
#include "parse/track_record.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

using boxlane::parse::find_track;
using boxlane::parse::with_client;

namespace {

// Copies a list into a fresh pointer array: count written, allocator called
// even for an empty list, then element i into block i.
// The element i of a list: a plain list's own, a sample table's widened.
template <typename Element, typename Alloc>
const Element& element(const std::vector<Element, Alloc>& list, std::size_t i) noexcept { return list[i]; }
template <std::size_t N>
QORVANE_HDRSAMPLENFO element(const BOXLANE_TABLE<N>& table, std::size_t i) noexcept { return table.entry(i); }

template <typename List, typename Out, typename Copy>
bool hand_out(const List& list, Out*** out, int* count, Copy copy) {
  const int n = static_cast<int>(list.size());
  Out** array = nullptr;
  if (!Fundrel_Memory_Malloc(reinterpret_cast<void***>(&array), n, static_cast<int>(sizeof(Out)))) {
    return boxlane::fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
  for (int i = 0; i < n; ++i) copy(*array[i], element(list, static_cast<std::size_t>(i)));
  *count = n;
  *out = array;
  return true;
}

template <typename Work>
bool with_track(CBoxlane_Parse& self, const char* client, int track_id, Work&& work) noexcept {
  return with_client(self, client, [&](QORVANE_MP4PARSE& record) {
    BOXLANE_TRACKINFO* track = find_track(*record.stl_MapTrack, track_id);
    if (!track) return boxlane::fail(BOXLANE_ERROR_PARSE_NOTFOUND);
    return work(*track);
  });
}

bool bad_pointer() noexcept {
  boxlane::clear_error();
  return boxlane::fail(BOXLANE_ERROR_PARSE_PARAMETER);
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_GetFTyp(const char* lpszClient, QORVANE_HDRFTYP* pSt_FTyp) {
  if (!pSt_FTyp) return bad_pointer();
  return with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    const auto& brands = record.stl_ListBrand;
    const int n = static_cast<int>(brands.size());
    char** rows = nullptr;
    if (!Fundrel_Memory_Malloc(reinterpret_cast<void***>(&rows), n, 8)) return boxlane::fail(BOXLANE_ERROR_PARSE_MALLOC);
    // Rows are zeroed by the allocator, so the 4 bytes leave the NUL.
    for (int i = 0; i < n; ++i) std::memcpy(rows[i], brands[static_cast<std::size_t>(i)].data(), 4);
    std::memcpy(pSt_FTyp->tszMajorBrand, record.stFTyp.tszMajorBrand, sizeof(pSt_FTyp->tszMajorBrand));
    pSt_FTyp->nMinorVersion = record.stFTyp.nMinorVersion;
    pSt_FTyp->nBrandCount = n;
    pSt_FTyp->pptszCompatibleBrand = rows;
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetMVhd(const char* lpszClient, QORVANE_HDRMVHD* pSt_MVhd) {
  if (!pSt_MVhd) return bad_pointer();
  return with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    *pSt_MVhd = record.stMVhd;
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrack(const char* lpszClient, int* pInt_TrackList) {
  if (!pInt_TrackList) return bad_pointer();
  return with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    for (int id = 0; id < 10; ++id) {
      if (record.stl_MapTrack->contains(id)) pInt_TrackList[id] = id;
    }
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackInfo(const char* lpszClient, int nTrackID, QORVANE_HDRTKHD* pSt_TKhd, QORVANE_HDRMDHD* pSt_MDhd, QORVANE_HDRHDLR* pSt_HDlr, QORVANE_HDRVMSMHD* pSt_VMSMhd) {
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    if (pSt_TKhd) *pSt_TKhd = track.stTKhd;
    if (pSt_MDhd) *pSt_MDhd = track.stMDhd;
    if (pSt_HDlr) *pSt_HDlr = track.stHDlr;
    if (pSt_VMSMhd) *pSt_VMSMhd = track.stVMSMhd;
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackList(const char* lpszClient, int nTrackID, QORVANE_HDRSAMPLENFO*** pppSt_ListInfo, int* pInt_ListCount, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE enHType) {
  if (!pppSt_ListInfo || !pInt_ListCount) return bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    // A C caller may pass any int; outside the enumerators' range that is no
    // valid value of the C++ enum, so the code is read as its bits.
    static_assert(sizeof enHType == sizeof(int32_t));
    int32_t code = 0;
    std::memcpy(&code, &enHType, sizeof code);
    const auto table = [&](const auto& list) {
      return hand_out(list, pppSt_ListInfo, pInt_ListCount,
                      [](QORVANE_HDRSAMPLENFO& to, const QORVANE_HDRSAMPLENFO& from) { to = from; });
    };
    // A co64 offset as its low and high halves; only the extended mode reads
    // co64, so a client of the basic mode gets its stco alone.
    const auto chunk_offsets = [&](bool narrow) {
      const std::size_t first = narrow ? track.stl_ListSTco.size() : 0;
      const int n = static_cast<int>(first + track.stl_ListCO64.size());
      QORVANE_HDRSAMPLENFO** array = nullptr;
      if (!Fundrel_Memory_Malloc(reinterpret_cast<void***>(&array), n, static_cast<int>(sizeof(QORVANE_HDRSAMPLENFO))))
        return boxlane::fail(BOXLANE_ERROR_PARSE_MALLOC);
      for (std::size_t i = 0; i < first; ++i) *array[i] = track.stl_ListSTco.entry(i);
      for (std::size_t i = 0; i < track.stl_ListCO64.size(); ++i) {
        const QORVANE_HDRSAMPLENFO wide = track.stl_ListCO64.entry(i);
        *array[first + i] = {wide.nValue2, wide.nValue1, 0};
      }
      *pInt_ListCount = n;
      *pppSt_ListInfo = array;
      return true;
    };
    switch (code) {
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS: return table(track.stl_ListSTts);
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS: return table(track.stl_ListCTts);
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC: return table(track.stl_ListSTsc);
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ: return table(track.stl_ListSTsz);
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO: return chunk_offsets(true);
      case ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64: return chunk_offsets(false);
      // Sync samples and sdtp have their own queries; any other code is not a
      // table and is answered with nothing rather than an error.
      default: return true;
    }
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackKey(const char* lpszClient, int nTrackID, int*** pppInt_KeyList, int* pInt_ListCount) {
  if (!pppInt_KeyList || !pInt_ListCount) return bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    return hand_out(track.stl_ListSTss, pppInt_KeyList, pInt_ListCount, [](int& to, int32_t from) { to = from; });
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackSDtp(const char* lpszClient, int nTrackID, QORVANE_HDRSDTP*** pppSt_ListSDtp, int* pInt_ListCount) {
  if (!pppSt_ListSDtp || !pInt_ListCount) return bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    return hand_out(track.stl_ListSDtp, pppSt_ListSDtp, pInt_ListCount,
                    [](QORVANE_HDRSDTP& to, const QORVANE_HDRSDTP& from) { to = from; });
  });
}

namespace {

// Parameter sets go back to back into one byte area. The first set that does
// not fit (in count or in bytes) ends the run: sets are never cut, and the
// ones handed out keep their positions.
void pack_sets(const std::vector<std::vector<uint8_t>>& sets, int32_t& count, uint16_t* lengths, BOXLANE_CODECINFO& out,
               std::size_t& used) {
  for (const std::vector<uint8_t>& set : sets) {
    if (count >= BOXLANE_CODEC_MAX_PARAMSETS || set.size() > sizeof(out.byParamSets) - used) {
      out.bTruncated = true;
      return;
    }
    std::copy(set.begin(), set.end(), out.byParamSets + used);
    used += set.size();
    lengths[count++] = static_cast<uint16_t>(set.size());
  }
}

}  // namespace

bool CBoxlane_Parse::Boxlane_Parse_GetTrackCodec(const char* lpszClient, int nTrackID, BOXLANE_CODECINFO* pSt_CodecInfo) {
  if (!pSt_CodecInfo) return bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    const BOXLANE_TRACKCODEC& codec = track.stCodec;
    BOXLANE_CODECINFO& out = *pSt_CodecInfo;
    std::memset(&out, 0, sizeof out);  // some 17 KiB: no temporary on the stack
    std::memcpy(out.tszCodec, codec.tszCodec, sizeof(out.tszCodec));
    out.wDataRefIndex = codec.wDataRefIndex;
    out.wWidth = codec.wWidth;
    out.wHeight = codec.wHeight;
    out.byProfile = codec.byProfile;
    out.byCompatibility = codec.byCompatibility;
    out.byLevel = codec.byLevel;
    out.byNALLengthSize = codec.byNALLengthSize;
    std::size_t used = 0;
    pack_sets(codec.stl_ListSPS, out.nSPSCount, out.wSPSLen, out, used);
    pack_sets(codec.stl_ListPPS, out.nPPSCount, out.wPPSLen, out, used);
    out.wChannelCount = codec.wChannelCount;
    out.wSampleSize = codec.wSampleSize;
    out.nSampleRate = codec.nSampleRate;
    out.byObjectType = codec.byObjectType;
    out.byStreamType = codec.byStreamType;
    out.nBufferSizeDB = codec.nBufferSizeDB;
    out.nMaxBitrate = codec.nMaxBitrate;
    out.nAvgBitrate = codec.nAvgBitrate;
    const std::size_t cfg = std::min(codec.stl_AudioCfg.size(), sizeof(out.byAudioCfg));
    std::copy_n(codec.stl_AudioCfg.begin(), cfg, out.byAudioCfg);
    out.nAudioCfgLen = static_cast<int32_t>(cfg);
    if (cfg < codec.stl_AudioCfg.size()) out.bTruncated = true;
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackHEVC(const char* lpszClient, int nTrackID, BOXLANE_HEVCINFO* pSt_HEVCInfo) {
  if (!pSt_HEVCInfo) return bad_pointer();
  return with_track(*this, lpszClient, nTrackID, [&](const BOXLANE_TRACKINFO& track) {
    const BOXLANE_TRACKCODEC& codec = track.stCodec;
    const BOXLANE_HEVCCONFIG& hevc = codec.stHEVC;
    BOXLANE_HEVCINFO& out = *pSt_HEVCInfo;
    std::memset(&out, 0, sizeof out);
    std::memcpy(out.tszCodec, codec.tszCodec, sizeof(out.tszCodec));
    out.wWidth = codec.wWidth;
    out.wHeight = codec.wHeight;
    out.byConfigurationVersion = hevc.byConfigurationVersion;
    out.byProfileSpace = hevc.byProfileSpace;
    out.byTier = hevc.byTier;
    out.byProfile = hevc.byProfile;
    out.nCompatibilityFlags = hevc.nCompatibilityFlags;
    out.nConstraintFlags = hevc.nConstraintFlags;
    out.byLevel = hevc.byLevel;
    out.wMinSpatialSegmentation = hevc.wMinSpatialSegmentation;
    out.byParallelismType = hevc.byParallelismType;
    out.byChromaFormat = hevc.byChromaFormat;
    out.byBitDepthLuma = hevc.byBitDepthLuma;
    out.byBitDepthChroma = hevc.byBitDepthChroma;
    out.wAvgFrameRate = hevc.wAvgFrameRate;
    out.byConstantFrameRate = hevc.byConstantFrameRate;
    out.byNumTemporalLayers = hevc.byNumTemporalLayers;
    out.byTemporalIdNested = hevc.byTemporalIdNested;
    out.byNALLengthSize = hevc.byNALLengthSize;
    // Units go back to back; the first that does not fit ends the run, so
    // no unit is cut.
    std::size_t used = 0;
    out.bTruncated = hevc.bMore;
    for (const BOXLANE_HEVCCONFIG::Unit& unit : hevc.stl_ListNalu) {
      const std::vector<uint8_t>& bytes = unit.stl_Bytes;
      if (bytes.size() > sizeof(out.byNalus) - used) {
        out.bTruncated = true;
        break;
      }
      const auto i = static_cast<std::size_t>(out.nNaluCount++);
      out.byNaluType[i] = unit.byType;
      out.byArrayComplete[i] = unit.bComplete ? 1 : 0;
      out.wNaluLen[i] = static_cast<uint16_t>(bytes.size());
      std::copy(bytes.begin(), bytes.end(), out.byNalus + used);
      used += bytes.size();
    }
    return true;
  });
}
bool CBoxlane_Parse::Boxlane_Parse_GetStream(const char* lpszClient, BOXLANE_STREAMINFO* pSt_StreamInfo) {
  if (!pSt_StreamInfo) return bad_pointer();
  return with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    *pSt_StreamInfo = record.stStream;
    pSt_StreamInfo->nParsePos = record.nParsePos;
    pSt_StreamInfo->nPendingFragments = static_cast<uint32_t>(record.stFragments.stl_ListFragment.size());
    return true;
  });
}

bool CBoxlane_Parse::Boxlane_Parse_GetTrackIDs(const char* lpszClient, int*** pppInt_TrackList, int* pInt_ListCount) {
  if (!pppInt_TrackList || !pInt_ListCount) return bad_pointer();
  return with_client(*this, lpszClient, [&](QORVANE_MP4PARSE& record) {
    std::vector<uint32_t> ids;
    ids.reserve(record.stl_MapTrack->size());
    for (const auto& [id, track] : *record.stl_MapTrack) ids.push_back(static_cast<uint32_t>(id));
    // track_ID is unsigned in the box (ISO/IEC 14496-12 §8.3.2).
    std::sort(ids.begin(), ids.end());
    return hand_out(ids, pppInt_TrackList, pInt_ListCount, [](int& to, uint32_t from) { to = static_cast<int>(from); });
  });
}
