// The record of one writer client: timing, track numbering, the values the
// header boxes pass to each other, and the per-sample lists that the frame
// writers append to and the sample table writers read back. Every list is a
// contiguous array grown geometrically: no heap node per sample.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// A run of equal values: sample count, then the value (stts).
struct BOXLANE_RUN {
  uint32_t nCount;
  uint32_t nValue;
};

// The stts runs of a track, the last one kept open in the record itself: a
// frame that extends it touches no array. A run closes when a different
// duration arrives.
struct BOXLANE_RUNS {
  std::vector<BOXLANE_RUN> listClosed;
  BOXLANE_RUN stOpen{0, 0};  // nCount 0: no run yet

  bool empty() const noexcept { return stOpen.nCount == 0; }
  std::size_t size() const noexcept { return listClosed.size() + (empty() ? 0 : 1); }
  // Whether adding `duration` moves the open run into listClosed.
  bool closes(uint32_t duration) const noexcept { return !empty() && stOpen.nValue != duration; }
  // listClosed must have room when closes(duration).
  void add(uint32_t duration) noexcept {
    if (closes(duration)) {
      listClosed.push_back(stOpen);
      stOpen.nCount = 0;
    }
    stOpen.nValue = duration;
    ++stOpen.nCount;
  }
  template <typename Visit>
  void each(Visit visit) const {
    for (const BOXLANE_RUN& run : listClosed) visit(run);
    if (!empty()) visit(stOpen);
  }
};

// One video sample as stsz, stco and ctts need it, kept together so that a
// frame appends to one array: 16 bytes, as much as the three separate lists
// took for a stream with B-frames.
struct BOXLANE_VIDEOSAMPLE {
  uint32_t nSize;       // sample size in bytes
  uint32_t nCTsOffset;  // composition offset; 0 when the frame had none
  int64_t nPosition;    // file position of the sample
};

// One sample waiting for its fragment (ISO/IEC 14496-12 §8.8), in the order
// the frames were handed in, which is the order of their bytes in the mdat.
struct BOXLANE_FRAGMENTSAMPLE {
  uint32_t nSize;
  uint32_t nDuration;
  int32_t nCTsOffset;  // signed: trun version 1
  uint8_t byTrack;     // 0 video, 1 audio
  uint8_t bSync;
  uint16_t wReserved;
};

// Where a fragment of a track can be entered: the first sync sample of the
// track in that fragment (a tfra entry, ISO/IEC 14496-12 §8.8.10).
struct BOXLANE_RANDOMACCESS {
  uint64_t nTime;        // presentation time of the sample
  uint64_t nMoofOffset;  // file position of its moof
  uint32_t nTrafNumber;  // 1-based, within the moof
  uint32_t nTrunNumber;  // 1-based, within the traf
  uint32_t nSampleNumber;  // 1-based, within the trun
};

struct BOXLANE_FRAGMENTTRACK {
  uint32_t nTrackID = 0;  // 0: the client has no such track
  uint64_t nDecodeTime = 0;  // of the first sample of the next fragment
  // The pending fragment: its samples of this track, the trun boxes they
  // need (one per stretch not interrupted by the other track), and whether
  // any has a composition offset, and a negative one.
  uint32_t nSamples = 0;
  uint32_t nRuns = 0;
  bool bAnyCTs = false;
  bool bNegativeCTs = false;
  std::vector<BOXLANE_RANDOMACCESS> listRandomAccess;
};

// The state of a client in fragment mode. Only the pending fragment's
// samples are kept; they are dropped when it is written.
struct BOXLANE_FRAGMENTS {
  static constexpr int kVideo = 0;
  static constexpr int kAudio = 1;
  bool bIndex = false;  // keep the random access index for mfra
  int32_t nCTSShift = 0;
  uint32_t nSequence = 0;  // of the last fragment written
  int nLastTrack = -1;     // track of the last sample pending, -1: none
  uint64_t nPayload = 0;   // bytes of the pending samples
  std::vector<BOXLANE_FRAGMENTSAMPLE> listSample;
  BOXLANE_FRAGMENTTRACK stTrack[2];
};

// Laid out by use: the first cache line holds all that a video frame touches
// but for the rare key frame, the next what an audio frame touches. A frame
// copy can push every other line out of the L1 cache, so each line a frame
// writer needs costs a refetch on every call.
struct alignas(64) QORVANE_MP4PACKET {
  uint32_t nVideoCount = 0;
  // Set once Boxlane_Packet_FragmentMode switched the client to fragments;
  // kept here, in the line every frame reads, rather than beside the state.
  uint32_t bFragments = 0;
  BOXLANE_RUNS listVideoSTts;
  std::vector<BOXLANE_VIDEOSAMPLE> listVideoSample;
  std::vector<uint32_t> listVideoSTss;

  BOXLANE_RUNS listAudioSTts;
  std::vector<uint32_t> listAudioSize;
  std::vector<int64_t> listAudioOffset;

  int64_t nVideoFrameTime = 0;
  int64_t nAudioFrameTime = 0;
  int32_t nFrameRate = 0;
  int32_t nSampleRate = 0;
  uint32_t nTrackID = 1;
  uint32_t nVideoDuration = 0;
  uint32_t nAudioDuration = 0;
  uint32_t nCreateTime = 0;
  int32_t nTimeScale = 0;
  int32_t nWidth = 0;
  int32_t nHeight = 0;
  uint16_t nVolume = 0;
  std::unique_ptr<BOXLANE_FRAGMENTS> pFragments;  // set with bFragments
};
