// The record of one writer client: timing, track numbering, the values the
// header boxes pass to each other, and the per-sample lists that the frame
// writers append to and the sample table writers read back. Every list is a
// contiguous array grown geometrically: no heap node per sample.
#pragma once

#include <cstdint>
#include <vector>

// A run of equal values: sample count, then the value (stts).
struct BOXLANE_RUN {
  uint32_t nCount;
  uint32_t nValue;
};

// Laid out by use: the first two cache lines hold all that a video frame
// touches, the third what an audio frame touches. A frame copy can push every
// other line out of the L1 cache, so each line a frame writer needs costs a
// refetch on every call.
struct alignas(64) QORVANE_MP4PACKET {
  uint32_t nVideoCount = 0;
  std::vector<BOXLANE_RUN> listVideoSTts;
  // ctts entries always count one sample, so only the offset is kept.
  std::vector<uint32_t> listVideoCTts;
  std::vector<uint32_t> listVideoSTss;
  std::vector<uint32_t> listVideoSize;
  std::vector<int64_t> listVideoOffset;

  std::vector<BOXLANE_RUN> listAudioSTts;
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
