// Every box writer called into a heap buffer of exactly the size boxlane.h
// documents for its arguments, as a caller who reads only the header sizes
// it: under the address sanitizer one byte written past the documented size
// is a heap-buffer-overflow, and the reported length must be that size.
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"

#include <iterator>
#include <memory>

namespace boxlane::test {
namespace {

constexpr uint64_t k32 = uint64_t{1} << 32;

class DocumentedSize : public WriterTest {
 protected:
  template <typename Writer, typename... Args>
  void exact(std::size_t documented, Writer writer, Args... args) {
    const auto buffer = std::make_unique<uint8_t[]>(documented);
    int32_t length = -1;
    ASSERT_TRUE(writer(client(), buffer.get(), &length, args...)) << std::hex << Boxlane_GetLastError(nullptr);
    EXPECT_EQ(length, static_cast<int32_t>(documented));
  }
};

TEST_F(DocumentedSize, AudioSampleDescriptionForEveryConfigurationLength) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->nAudioChannel = 2;
  av->nAudioSampleRate = 48000;
  for (int32_t length = 0; length <= 1024; ++length) {
    SCOPED_TRACE(length);
    av->nAudioCfgLen = length;
    const std::size_t extra = length <= 104 ? 89 : length <= 112 ? 90 : length <= 127 ? 91 : 92;
    exact(extra + std::size_t(length), Boxlane_Packet_STsd, av.get());
  }
}

TEST_F(DocumentedSize, VideoSampleDescriptions) {
  // A NAL unit of `size` bytes: its header byte, then bytes that hold no
  // start code and do not end in zero.
  const auto nal = [](uint8_t header, std::size_t size) {
    Bytes unit = Bytes().u32(1).u8(header);
    unit.resize(4 + size, 0x5A);
    return unit;
  };
  // 121 + the first SPS and the first PPS found in the header.
  const struct {
    Bytes header;
    std::size_t sets;
  } headers[] = {
      {Bytes(), 0},
      {nal(0x65, 20), 0},  // no parameter set at all
      {cat({nal(0x68, 3), nal(0x67, 1)}), 4},
      {cat({nal(0x67, 30), nal(0x67, 90), nal(0x68, 7), nal(0x68, 60)}), 37},  // the first of each
      {nal(0x67, 12), 12},
      {cat({nal(0x67, 1008), nal(0x68, 8)}), 1016},  // 1024 header bytes
  };
  box(Boxlane_Packet_TKhd, 0, 1920, 1080, 0);
  for (const auto& h : headers) {
    SCOPED_TRACE(hex(h.header));
    auto av = std::make_unique<tag_Qorvane_AVProtocol>();
    av->bVideo = 1;
    av->nVideoHdrLen = static_cast<int32_t>(h.header.size());
    std::copy(h.header.begin(), h.header.end(), av->tszVideoHdr);
    exact(121 + h.sets, Boxlane_Packet_STsd, av.get());
  }
  // 117 + 2 + length for every set listed.
  for (const std::vector<int32_t>& list : {std::vector<int32_t>{4}, {4, 1}, {65535, 65535}, {30, 9, 200, 7, 1, 12}}) {
    std::vector<std::vector<uint8_t>> sets;
    std::vector<const uint8_t*> pointers;
    std::size_t documented = 117;
    for (std::size_t i = 0; i < list.size(); ++i) {
      sets.emplace_back(static_cast<std::size_t>(list[i]), i == 0 || i % 3 == 2 ? 0x67 : 0x68);
      documented += 2 + static_cast<std::size_t>(list[i]);
    }
    for (const auto& set : sets) pointers.push_back(set.data());
    exact(documented, Boxlane_Packet_STsdParamSets, pointers.data(), list.data(), static_cast<int32_t>(list.size()));
  }
}

TEST_F(DocumentedSize, HeaderBoxes) {
  const uint8_t payload[300] = {};
  exact(8, Boxlane_Packet_HDRBox, "moov", static_cast<const uint8_t*>(nullptr), 1000);
  exact(8 + 300, Boxlane_Packet_HDRBox, "free", payload, 300);
  exact(16, Boxlane_Packet_HDRBox64, "mdat", k32);
  exact(32, Boxlane_Packet_FTyp);
  exact(36, Boxlane_Packet_DInf);
  exact(20, Boxlane_Packet_VMhd);
  exact(16, Boxlane_Packet_SMhd, int16_t{-1});
  exact(28, Boxlane_Packet_STsc);
  for (const uint8_t type : {0, 1}) exact(45, Boxlane_Packet_HDlr, type);
  for (const uint8_t type : {2, 3, 4}) exact(44, Boxlane_Packet_HDlr, type);
  exact(108, Boxlane_Packet_MVhd, 0, 90000);
  exact(92, Boxlane_Packet_TKhd, 0, 1920, 1080, 0);
  exact(32, Boxlane_Packet_MDhd, uint16_t{0x55C4});
  exact(32, Boxlane_Packet_MDhdEx, uint16_t{0x55C4}, 0xFFFFFFFFu);
  exact(36, Boxlane_Packet_EDts, 0xFFFFFFFFu, -1);
  for (const uint64_t d : {k32 - 1, k32}) {
    const std::size_t wide = d == k32 ? 12 : 0;
    exact(108 + wide, Boxlane_Packet_MVhd64, d, 90000);
    exact(92 + wide, Boxlane_Packet_TKhd64, 0, 1920, 1080, d);
    exact(32 + wide, Boxlane_Packet_MDhd64, uint16_t{0x55C4}, d);
    exact(36 + (wide ? 8 : 0), Boxlane_Packet_EDts64, d, int64_t{-1});
  }
  exact(44, Boxlane_Packet_EDts64, uint64_t{1}, int64_t{INT32_MAX} + 1);
}

// Frames of every kind, then every table after each of them, sized from the
// counts the header names: runs of positive durations, key frames 1,
// positive offsets, frames per track, offsets below or from 2^32.
TEST_F(DocumentedSize, FramesAndTheTablesAfterEachOfThem) {
  std::size_t frames[2] = {}, runs[2] = {}, keys = 0, offsets = 0;
  bool wide[2] = {};  // a position from 2^32 on
  int last[2] = {};
  const int durations[] = {40, 40, 0, 40, 41, -1, 41, 40, 3000};
  const int key_flags[] = {1, 0, 2, -1, 1};
  const int cts[] = {80, 0, -40, 40, 1};
  const Bytes adts = Bytes().add(unhex("FFF1 4C80 2E7F FC")).zeros(364);        // 371 bytes, header 7
  const Bytes adts_crc = Bytes().add(unhex("FFF0 4C80 2EBF FC 1234")).zeros(364);  // 373 bytes, header 9
  const std::vector<uint8_t> raw(50, 0x21);
  const uint8_t slice[] = {0x65, 0x88, 0x84, 0x21, 0x5A};
  for (int i = 0; i < 45; ++i) {
    SCOPED_TRACE(i);
    const int duration = durations[i % 9], key = key_flags[i % 5], offset = cts[i % 5];
    const int64_t position = int64_t{i} * 100 + (i > 30 ? int64_t(k32) : 0);
    const int t = i % 4 < 2 ? 0 : 1;
    if (i % 4 == 0) {
      std::vector<uint8_t> frame(4 + sizeof slice + static_cast<std::size_t>(i));
      std::copy(std::begin(slice), std::end(slice), frame.begin() + 4);
      exact(frame.size(), Boxlane_Packet_FrameVideo, frame.data(), int32_t(frame.size()), position, key, duration, offset);
    } else if (i % 4 == 1) {
      const uint8_t* const nalus[] = {slice, slice, slice};
      const int32_t lengths[] = {5, 0, i % 5};
      exact(4 + 5 + 4 + 4 + std::size_t(i % 5), Boxlane_Packet_FrameAccessUnit, nalus, lengths, 3, position, key,
            duration, offset);
    } else {
      const std::vector<uint8_t>& frame = i % 3 == 0 ? adts : i % 3 == 1 ? adts_crc : raw;
      const std::size_t header = i % 3 == 0 ? 7 : i % 3 == 1 ? 9 : 0;
      exact(frame.size() - header, Boxlane_Packet_FrameAudio, frame.data(), int32_t(frame.size()), position, duration);
    }
    ++frames[t];
    wide[t] = wide[t] || i > 30;
    runs[t] += duration > 0 && duration != last[t];
    if (duration > 0) last[t] = duration;
    if (t == 0) keys += key == 1, offsets += offset > 0;
    for (const bool is_video : {true, false}) {
      const int k = is_video ? 0 : 1;
      exact(16 + 8 * runs[k], Boxlane_Packet_STts, is_video);
      exact(20 + 4 * frames[k], Boxlane_Packet_STsz, is_video);
      exact(16 + 4 * frames[k], Boxlane_Packet_STco, is_video);
      exact(16 + (wide[k] ? 8 : 4) * frames[k], Boxlane_Packet_STco64, is_video, int64_t{0});
    }
    exact(16 + 4 * keys, Boxlane_Packet_STss);
    if (offsets) exact(16 + 8 * offsets, Boxlane_Packet_CTts);
  }
}

// The fragment boxes: mvex 8, + 16 with mehd (20 past 32 bits), + 32 per
// track; the fragment header from FragmentSize's formula; styp 20, sidx 52;
// mfra 24 + per track 24 + 28 per fragment in which it had a sync sample.
TEST_F(DocumentedSize, FragmentBoxes) {
  ASSERT_TRUE(Boxlane_Packet_FragmentMode(client(), 1, 2, 0, BOXLANE_FRAGMENT_INDEX));
  box(Boxlane_Packet_MVhd, 0, 90000);
  exact(8 + 64, Boxlane_Packet_MVex, uint64_t{0});
  exact(8 + 16 + 64, Boxlane_Packet_MVex, k32 - 1);
  exact(8 + 20 + 64, Boxlane_Packet_MVex, k32);
  exact(20, Boxlane_Packet_STyp);
  exact(24 + 2 * 24, Boxlane_Packet_MFra);
  // Video, video, audio, video with an offset: the video in two stretches.
  const int sequence[][3] = {{0, 1, 0}, {0, 0, 0}, {1, 1, 0}, {0, 0, 40}};
  for (const auto& [track, key, cts] : sequence) track == 0 ? video(20, key, 3000, cts) : audio(10, 1024);
  int32_t header = -1, mfra = -1;
  int64_t media = -1;
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(header, 24 + (44 + 2 * 20 + 3 * 16) + (44 + 20 + 8) + 8);
  EXPECT_EQ(media, 70);
  exact(52, Boxlane_Packet_SIdx);
  exact(std::size_t(header), Boxlane_Packet_Fragment, int64_t{0});
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(header, 0);
  EXPECT_EQ(mfra, 24 + 2 * (24 + 28));
  exact(std::size_t(mfra), Boxlane_Packet_MFra);
}

}  // namespace
}  // namespace boxlane::test
