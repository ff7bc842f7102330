// Writes a whole MP4 file through the flat writer API the way a recording
// application would: ftyp, an mdat header patched at the end, every frame,
// then the moov assembled from the header boxes, sample descriptions and
// sample tables, nested with box headers.
#pragma once

#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include "platform/adts.hpp"

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

namespace boxlane::test {

// An H.264 Annex B stream with one slice per picture, in access units: each
// the NAL units before its slice (AUD, SEI) and the slice, without start
// codes, pointing into the stream.
struct SplitAccessUnit {
  std::vector<const uint8_t*> nalus;
  std::vector<int32_t> lengths;
  bool key = false;
};
struct SplitVideo {
  std::vector<SplitAccessUnit> units;
  std::vector<uint8_t> sps, pps;  // the first of each, without start code
};
SplitVideo split_access_units(const std::vector<uint8_t>& annexb);

// The frames of an ADTS stream, headers included; `first` gets the first
// header. Bytes that are not frames fail the running test.
struct SplitAudioFrame {
  const uint8_t* data;
  int32_t size;
};
std::vector<SplitAudioFrame> split_adts(const std::vector<uint8_t>& adts, AdtsHeader& first);

// Calls the writer's box functions for one client into a scratch buffer and
// returns the bytes written; a failure, or a length past the buffer, fails
// the running test and gives nothing.
struct Mp4BoxWriter {
  std::string client;
  std::vector<uint8_t> scratch;

  template <typename Fn, typename... Args>
  std::vector<uint8_t> produce(const char* what, std::size_t capacity, Fn fn, Args... args) {
    scratch.assign(capacity, 0);
    int32_t length = -1;
    if (!fn(client.c_str(), scratch.data(), &length, args...)) {
      ADD_FAILURE() << what << " failed with 0x" << std::hex << Boxlane_GetLastError(nullptr);
      return {};
    }
    if (length < 0 || static_cast<std::size_t>(length) > capacity) {
      ADD_FAILURE() << what << " reported " << length << " bytes for a buffer of " << capacity;
      return {};
    }
    return {scratch.begin(), scratch.begin() + length};
  }
  // A box of the given type around the children, in order.
  std::vector<uint8_t> container(const char* type, std::initializer_list<std::vector<uint8_t>> children);
};

struct Mp4VideoInput {
  // H.264 Annex B, one slice per picture, in decode order. SPS and PPS go to
  // the sample description and are kept out of the samples.
  std::vector<uint8_t> annexb;
  int frame_rate = 30;
  int width = 0;
  int height = 0;
  // Per access unit in decode order: presentation minus decode time in
  // frames. Empty for a stream without B-frames.
  std::vector<int> composition_frames;
};

struct Mp4AudioInput {
  std::vector<uint8_t> adts;  // AAC with an ADTS header on every frame
};

struct Mp4WriteResult {
  std::vector<uint8_t> file;
  uint32_t time_scale = 0;
  // Bytes handed to the writer per sample: for video the NAL units with
  // their 4-byte lengths, for audio the frame without its ADTS header.
  std::vector<uint32_t> video_sizes;
  std::vector<uint32_t> audio_sizes;
  std::vector<bool> video_keys;
  // Frames by which composition offsets were shifted to keep them positive;
  // the edit list takes them back out.
  int composition_shift = 0;
};

// Writes with a client of the given name (inserted and deleted here).
// Either input may be null. Failures are reported to the running test; the
// file is then incomplete.
Mp4WriteResult write_mp4(const std::string& client, const Mp4VideoInput* video, const Mp4AudioInput* audio);

struct TopBox {
  std::string type;
  uint64_t offset = 0, size = 0;
  bool operator==(const TopBox&) const = default;
};
inline void PrintTo(const TopBox& box, std::ostream* os) { *os << box.type << " at " << box.offset << " size " << box.size; }

// The top-level boxes of a file, read straight from its bytes.
std::vector<TopBox> top_boxes(const std::vector<uint8_t>& file);

}  // namespace boxlane::test
