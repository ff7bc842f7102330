// Every box writer called into a heap buffer of exactly the size boxlane.h
// documents for its arguments, as a caller who reads only the header sizes
// it: under the address sanitizer one byte written past the documented size
// is a heap-buffer-overflow, and the reported length must be that size.
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"

#include <algorithm>
#include <iterator>
#include <memory>
#include <vector>

namespace boxlane::test {
namespace {

class DocumentedSize : public WriterTest {
 protected:
  // Runs writer(client, buffer, &length, args...) into exactly `documented`
  // heap bytes.
  template <typename Writer, typename... Args>
  void exact(std::size_t documented, Writer writer, Args... args) {
    const auto buffer = std::make_unique<uint8_t[]>(documented);
    int32_t length = -1;
    ASSERT_TRUE(writer(client(), buffer.get(), &length, args...)) << std::hex << Boxlane_GetLastError(nullptr);
    EXPECT_EQ(length, static_cast<int32_t>(documented));
  }
};

// boxlane.h, Boxlane_Packet_STsd, audio.
std::size_t audio_stsd(std::size_t config) {
  if (config <= 104) return 89 + config;
  if (config <= 112) return 90 + config;
  if (config <= 127) return 91 + config;
  return 92 + config;
}

TEST_F(DocumentedSize, AudioSampleDescriptionForEveryConfigurationLength) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->nAudioChannel = 2;
  av->nAudioSampleRate = 48000;
  av->nAudioSampleBit = 16;
  for (int32_t length = 0; length <= 1024; ++length) {
    SCOPED_TRACE(length);
    av->nAudioCfgLen = length;
    exact(audio_stsd(static_cast<std::size_t>(length)), Boxlane_Packet_STsd, av.get());
  }
}

TEST_F(DocumentedSize, VideoSampleDescriptionFromTheFirstParameterSets) {
  // A NAL unit of `size` bytes: its header byte, then bytes that hold no
  // start code and do not end in zero.
  const auto nal = [](uint8_t header, std::size_t size) {
    Bytes unit = Bytes().u32(1);
    if (size) unit.u8(header);
    unit.resize(4 + size, 0x5A);
    return unit;
  };
  const struct {
    Bytes header;
    std::size_t sps, pps;
  } cases[] = {
      {Bytes(), 0, 0},
      {nal(0x65, 20), 0, 0},  // no parameter set at all
      {cat({nal(0x67, 25), nal(0x68, 4)}), 25, 4},
      {cat({nal(0x68, 3), nal(0x67, 1)}), 1, 3},
      {cat({nal(0x67, 30), nal(0x67, 90), nal(0x68, 7), nal(0x68, 60)}), 30, 7},  // the first of each
      {cat({nal(0x67, 12)}), 12, 0},
      {cat({nal(0x67, 1008), nal(0x68, 8)}), 1008, 8},  // 1024 header bytes
  };
  box(Boxlane_Packet_TKhd, 0, 1920, 1080, 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(hex(c.header));
    auto av = std::make_unique<tag_Qorvane_AVProtocol>();
    av->bVideo = 1;
    av->nVideoHdrLen = static_cast<int32_t>(c.header.size());
    std::copy(c.header.begin(), c.header.end(), av->tszVideoHdr);
    ASSERT_LE(121 + c.sps + c.pps, 121 + c.header.size());
    exact(121 + c.sps + c.pps, Boxlane_Packet_STsd, av.get());
  }
}

TEST_F(DocumentedSize, VideoSampleDescriptionFromAListOfParameterSets) {
  // 117 + 2 + length for every set listed.
  const std::vector<std::vector<int32_t>> lists = {{4}, {4, 1}, {65535, 65535}, {30, 9, 200, 7, 1, 1, 12}};
  for (const auto& list : lists) {
    std::vector<std::vector<uint8_t>> sets;
    std::size_t documented = 117;
    for (std::size_t i = 0; i < list.size(); ++i) {
      sets.emplace_back(static_cast<std::size_t>(list[i]), i == 0 || i % 3 == 2 ? 0x67 : 0x68);
      documented += 2 + static_cast<std::size_t>(list[i]);
    }
    std::vector<const uint8_t*> pointers;
    for (const auto& set : sets) pointers.push_back(set.data());
    exact(documented, Boxlane_Packet_STsdParamSets, pointers.data(), list.data(), static_cast<int32_t>(list.size()));
  }
}

TEST_F(DocumentedSize, HeaderBoxes) {
  const uint8_t payload[300] = {};
  exact(8, Boxlane_Packet_HDRBox, "moov", static_cast<const uint8_t*>(nullptr), 1000);
  exact(8 + 300, Boxlane_Packet_HDRBox, "free", payload, 300);
  exact(8, Boxlane_Packet_HDRBox, "free", payload, 0);
  exact(32, Boxlane_Packet_FTyp);
  exact(108, Boxlane_Packet_MVhd, 0, 90000);
  exact(92, Boxlane_Packet_TKhd, 0, 1920, 1080, 0);
  exact(32, Boxlane_Packet_MDhd, uint16_t{0x55C4});
  exact(32, Boxlane_Packet_MDhdEx, uint16_t{0x55C4}, 0xFFFFFFFFu);
  for (const uint8_t type : {0, 1}) exact(45, Boxlane_Packet_HDlr, type);
  for (const uint8_t type : {2, 3, 4}) exact(44, Boxlane_Packet_HDlr, type);
  exact(20, Boxlane_Packet_VMhd);
  exact(16, Boxlane_Packet_SMhd, int16_t{-1});
  exact(36, Boxlane_Packet_DInf);
  exact(36, Boxlane_Packet_EDts, 0xFFFFFFFFu, -1);
  exact(28, Boxlane_Packet_STsc);
}

// Frames of every kind, then every table after each of them, sized from the
// counts the header names: runs of positive durations, key frames 1,
// positive offsets, frames per track.
TEST_F(DocumentedSize, FramesAndTheTablesAfterEachOfThem) {
  struct Counts {
    std::size_t frames = 0, runs = 0, keys = 0, offsets = 0;
    int last_duration = 0;
    void add(int duration) {
      ++frames;
      if (duration <= 0) return;
      if (duration != last_duration) ++runs;
      last_duration = duration;
    }
  } video, audio;
  const int durations[] = {40, 40, 0, 40, 41, -1, 41, 40, 3000};
  const int keys[] = {1, 0, 2, -1, 1};
  const int offsets[] = {80, 0, -40, 40, 1};
  const Bytes adts = Bytes().add(unhex("FFF1 4C80 2E7F FC")).zeros(364);        // 371 bytes, header 7
  const Bytes adts_crc = Bytes().add(unhex("FFF0 4C80 2EBF FC 1234")).zeros(364);  // 373 bytes, header 9
  const std::vector<uint8_t> raw(50, 0x21);
  const uint8_t slice[] = {0x65, 0x88, 0x84, 0x21, 0x5A};
  for (int i = 0; i < 45; ++i) {
    SCOPED_TRACE(i);
    const int duration = durations[i % 9];
    const int key = keys[i % 5];
    const int offset = offsets[i % 5];
    switch (i % 4) {
      case 0: {
        std::vector<uint8_t> frame(4 + sizeof slice + static_cast<std::size_t>(i));
        frame[3] = 1;  // the start code, then the slice
        std::copy(std::begin(slice), std::end(slice), frame.begin() + 4);
        exact(frame.size(), Boxlane_Packet_FrameVideo, frame.data(), static_cast<int32_t>(frame.size()),
              int64_t{i} * 100, key, duration, offset);
        break;
      }
      case 1: {
        const uint8_t* const nalus[] = {slice, slice, slice};
        const int32_t lengths[] = {5, 0, i % 5};
        exact(4 + 5 + 4 + 0 + 4 + std::size_t(i % 5), Boxlane_Packet_FrameAccessUnit, nalus, lengths, 3,
              int64_t{i} * 100, key, duration, offset);
        break;
      }
      default: {
        const std::vector<uint8_t>& frame = i % 3 == 0 ? adts : i % 3 == 1 ? adts_crc : raw;
        const std::size_t header = i % 3 == 0 ? 7 : i % 3 == 1 ? 9 : 0;
        exact(frame.size() - header, Boxlane_Packet_FrameAudio, frame.data(), static_cast<int32_t>(frame.size()),
              int64_t{i} * 100, duration);
        audio.add(duration);
        break;
      }
    }
    if (i % 4 < 2) {
      video.add(duration);
      video.keys += key == 1;
      video.offsets += offset > 0;
    }
    for (const bool is_video : {true, false}) {
      const Counts& c = is_video ? video : audio;
      exact(16 + 8 * c.runs, Boxlane_Packet_STts, is_video);
      exact(20 + 4 * c.frames, Boxlane_Packet_STsz, is_video);
      exact(16 + 4 * c.frames, Boxlane_Packet_STco, is_video);
    }
    exact(16 + 4 * video.keys, Boxlane_Packet_STss);
    if (video.offsets) exact(16 + 8 * video.offsets, Boxlane_Packet_CTts);
  }
}

}  // namespace
}  // namespace boxlane::test
