// The box writers whose size boxlane.h documents as a function of their
// arguments, called into a heap buffer of exactly that size: under the
// address sanitizer one byte past it is a heap-buffer-overflow, and the
// reported length must be that size. Boxes of a fixed size, and the sample
// tables, are compared whole with hand-written hex of the documented length.
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"
#include "support/hevc_units.hpp"

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

TEST_F(DocumentedSize, SampleDescriptions) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->nAudioChannel = 2;
  av->nAudioSampleRate = 48000;
  for (int32_t length = 0; length <= 1024; ++length) {
    SCOPED_TRACE(length);
    av->nAudioCfgLen = length;
    const std::size_t extra = length <= 104 ? 89 : length <= 112 ? 90 : length <= 127 ? 91 : 92;
    exact(extra + std::size_t(length), Boxlane_Packet_STsd, av.get());
  }
  // Video: 121 + the first SPS and the first PPS found in the header.
  const auto nal = [](uint8_t header, std::size_t size) {  // no start code inside, no zero at the end
    Bytes unit = Bytes().u32(1).u8(header);
    unit.resize(4 + size, 0x5A);
    return unit;
  };
  const struct {
    Bytes header;
    std::size_t sets;
  } headers[] = {
      {Bytes(), 0},
      {nal(0x65, 20), 0},
      {cat({nal(0x67, 30), nal(0x67, 90), nal(0x68, 7), nal(0x68, 60)}), 37},
      {cat({nal(0x67, 1008), nal(0x68, 8)}), 1016},  // 1024 header bytes
  };
  av->bVideo = 1;
  for (const auto& h : headers) {
    SCOPED_TRACE(h.header.size());
    av->nVideoHdrLen = static_cast<int32_t>(h.header.size());
    std::copy(h.header.begin(), h.header.end(), av->tszVideoHdr);
    exact(121 + h.sets, Boxlane_Packet_STsd, av.get());
  }
  // 117 + 2 + length for every set listed.
  const std::vector<uint8_t> sps(65535, 0x67), pps(65535, 0x68);
  const uint8_t* const sets[] = {sps.data(), pps.data(), sps.data()};
  const int32_t lengths[] = {65535, 65535, 4};
  exact(117 + 2 * 65537 + 6, Boxlane_Packet_STsdParamSets, sets, lengths, 3);
  // hvc1: 142 + the input's bytes is enough; with 3-byte start codes it is closest.
  const Bytes hevc = Bytes().u24(1).add(unhex("40010c01ffff01600000030090000003000003003c959809")).u24(1).add(
      HandSps().nal()).u24(1).add(hand_pps(0));
  const auto buffer = std::make_unique<uint8_t[]>(142 + hevc.size());
  int32_t length = -1;
  ASSERT_TRUE(Boxlane_Packet_STsdHEVC(client(), buffer.get(), &length, hevc.data(), int32_t(hevc.size())));
  EXPECT_EQ(length, int32_t(142 + hevc.size() - 3));
}

// mvex 8, + 16 with mehd (20 past 32 bits), + 32 per track; the fragment
// header from FragmentSize's formula (0 with nothing pending); styp 20, sidx 52; mfra 24 + per track
// 24 + 28 per fragment in which it had a sync sample.
TEST_F(DocumentedSize, FragmentBoxes) {
  ASSERT_TRUE(Boxlane_Packet_FragmentMode(client(), 1, 2, 0, BOXLANE_FRAGMENT_INDEX));
  box(Boxlane_Packet_MVhd, 0, 90000);
  exact(8 + 64, Boxlane_Packet_MVex, uint64_t{0});
  exact(8 + 16 + 64, Boxlane_Packet_MVex, k32 - 1);
  exact(8 + 20 + 64, Boxlane_Packet_MVex, k32);
  exact(20, Boxlane_Packet_STyp);
  exact(24 + 2 * 24, Boxlane_Packet_MFra);
  // Video, video, audio, video with an offset: the video in two stretches.
  video(20, 1, 3000, 0);
  video(20, 0, 3000, 0);
  audio(10, 1024);
  video(20, 0, 3000, 40);
  int32_t header = -1, mfra = -1;
  int64_t media = -1;
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(header, 24 + (44 + 2 * 20 + 3 * 16) + (44 + 20 + 8) + 8);
  EXPECT_EQ(media, 70);
  exact(52, Boxlane_Packet_SIdx);
  exact(std::size_t(header), Boxlane_Packet_Fragment, int64_t{0});
  ASSERT_TRUE(Boxlane_Packet_FragmentSize(client(), &header, &media, &mfra));
  EXPECT_EQ(header, 0);
  EXPECT_EQ(media, 0);
  EXPECT_EQ(mfra, 24 + 2 * (24 + 28));
  exact(std::size_t(mfra), Boxlane_Packet_MFra);
}

}  // namespace
}  // namespace boxlane::test
