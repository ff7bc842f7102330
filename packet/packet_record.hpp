// The record of one writer client: timing, track numbering, the values the
// header boxes pass to each other, and the per-sample lists that the frame
// writers append to and the sample table writers read back. Every list is a
// contiguous array grown geometrically: no heap node per sample.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Laid out by use: the first cache line holds all that a video frame touches
// but for the rare key frame, the next what an audio frame touches. A frame
// copy can push every other line out of the L1 cache, so each line a frame
// writer needs costs a refetch on every call.
struct alignas(64) QORVANE_MP4PACKET {
  uint32_t nVideoCount = 0;
  // Frames with a positive composition offset: the entries of ctts.
  uint32_t nVideoCTtsCount = 0;
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
};
