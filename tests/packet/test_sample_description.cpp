// The avc1 and mp4a stsd writers against boxes worked out by hand (ISO/IEC 14496-12, 14496-14, 14496-15).
#include "writer_fixture.hpp"

#include "support/box_builder.hpp"

#include <memory>

namespace boxlane::test {
namespace {

// The 25-byte SPS of tests/data/x264_sps_pps.h264 and a 4-byte PPS.
const std::string kSps = "67 64 00 0B AC D9 42 84 7E 5C 04 40 00 00 03 00 40 00 00 0C 83 C5 0A 65 80 ";
const std::string kPps = "68 CE 38 80";
using Sets = std::vector<std::vector<uint8_t>>;

std::unique_ptr<tag_Qorvane_AVProtocol> protocol(bool video, const std::vector<uint8_t>& bytes, int rate = 44100) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->bVideo = video;
  av->nAudioChannel = 2;
  av->nAudioSampleRate = rate;
  av->nAudioSampleBit = 16;
  (video ? av->nVideoHdrLen : av->nAudioCfgLen) = int32_t(bytes.size());
  std::copy(bytes.begin(), bytes.end(), video ? av->tszVideoHdr : av->tszAudioCfg);
  return av;
}

// Bytes 24-101 of an avc1 entry for a width and height (hex).
std::string avc1_fixed(const std::string& size) {
  return "000000000000 0001 " + std::string(32, '0') + " " + size + " 00480000 00480000 00000000 0001 03415643" +
         std::string(56, '0') + " 0018 FFFF ";
}

class SampleDescription : public WriterTest {
 protected:
  std::string stsd(const std::unique_ptr<tag_Qorvane_AVProtocol>& av) { return box(Boxlane_Packet_STsd, av.get()); }
  void tkhd(int volume, int width, int height) { box(Boxlane_Packet_TKhd, volume, width, height, 0); }
  // call(pointers, lengths, count) for the sets listed; an empty set still has an address.
  template <typename Call>
  auto with_sets(const Sets& sets, Call call) {
    static const uint8_t empty[1] = {0x67};
    std::vector<const uint8_t*> pointers;
    std::vector<int32_t> lengths;
    for (const auto& set : sets) pointers.push_back(set.empty() ? empty : set.data()), lengths.push_back(int32_t(set.size()));
    return call(pointers.data(), lengths.data(), int32_t(sets.size()));
  }
  std::string sets_box(const Sets& sets) {
    return with_sets(sets, [&](auto p, auto l, int32_t n) { return box(Boxlane_Packet_STsdParamSets, p, l, n); });
  }
};

TEST_F(SampleDescription, VideoEntry) {
  // No tkhd yet: 0 x 0. No parameter set found: the 121-byte box with empty sets.
  const std::string empty = bytes_hex("00000079 73747364 00000000 00000001 00000069 61766331" + avc1_fixed("0000 0000") +
                                      "00000013 61766343 01 00 00 00 FF E1 0000 01 0000");
  auto av = protocol(true, unhex("00 00 00 01 " + kSps + "00 00 00 01 " + kPps));
  av->nVideoHdrLen = 0;  // the sets lie past the length: none is found
  EXPECT_EQ(stsd(av), empty);
  EXPECT_EQ(stsd(protocol(true, unhex("00 00 00 01 65 88 84 00 21"))), empty);
  tkhd(0, 320, 240);
  av->nVideoHdrLen = 37;
  av->nAudioCfgLen = -5;  // the audio block is not looked at
  for (const uint8_t flag : {uint8_t{1}, uint8_t{0xFF}}) {  // any non-zero bVideo
    av->bVideo = flag;
    EXPECT_EQ(stsd(av), bytes_hex("00000096 73747364 00000000 00000001 00000086 61766331" + avc1_fixed("0140 00F0") +
                                  "00000030 61766343 01 64 00 0B FF E1 0019" + kSps + "01 0004" + kPps)) << +flag;
  }
  // The size is the latest tkhd's, whichever track it described, low 16 bits.
  tkhd(0x0100, 0x10000 + 1920, 1080);
  EXPECT_EQ(stsd(av).substr(48 * 3, 11), "07 80 04 38");
}

// Every parameter set listed goes into avcC, SPSs and PPSs each in the order given; profile, compatibility and
// level are the first SPS's own bytes.
TEST_F(SampleDescription, VideoEntryWithEveryParameterSet) {
  const auto sps0 = unhex("67 64 00 1F AC"), sps1 = unhex("67 4D 40 1E 99"), pps0 = unhex("68 EE 3C 80"),
             pps1 = unhex("28 CE");
  tkhd(0, 320, 240);
  EXPECT_EQ(sets_box({pps0, sps0, pps1, sps1}),
            bytes_hex("0000008D 73747364 00000000 00000001 0000007D 61766331" + avc1_fixed("0140 00F0") +
                      "00000027 61766343 01 64 00 1F FF E2 0005 6764001FAC 0005 674D401E99 02 0004 68EE3C80 0002 28CE"));
  // No PPS is allowed; the count byte is then 0. The first SPS may be 4 bytes, a later one shorter still.
  EXPECT_EQ(sets_box({unhex("67 4D 40 1E"), unhex("67 64 00")}).substr(102 * 3),
            bytes_hex("0000001A 61766343 01 4D 40 1E FF E2 0004 674D401E 0003 676400 00"));

  // 31 SPSs and 255 PPSs are the most avcC counts.
  Sets pps256(256, pps0), sps32(32, sps0), most(31, sps0);
  pps256.push_back(sps0);
  most.insert(most.end(), 255, pps0);
  EXPECT_EQ(sets_box(most).substr(110 * 3, 17), "01 64 00 1F FF FF");
  const Sets refused[] = {
      {},                                         // no set
      {pps0},                                     // no SPS
      {unhex("67 64 00"), sps0},                  // the first SPS too short for its profile and level
      {sps0, unhex("06 05 01")},                  // not a parameter set
      {sps0, unhex("78 EE")},                     // type 24, not a PPS
      {sps0, {}},                                 // empty
      sps32,                                      // 32 SPSs
      pps256,                                     // 256 PPSs
      {sps0, std::vector<uint8_t>(65536, 0x68)},  // longer than a 16-bit length
  };
  for (const Sets& sets : refused)
    with_sets(sets, [&](auto p, auto l, int n) { refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, p, l, n); });
  // A null set, a null length array, and a count of -1 with one set at hand, which is not looked at.
  const uint8_t* const pointers[] = {nullptr, sps0.data()};
  const int32_t lengths[] = {4, 5};
  for (const auto& [p, l, n] : {std::tuple<const uint8_t* const*, const int32_t*, int>{pointers, lengths, 2},
                                {pointers + 1, nullptr, 1}, {pointers + 1, lengths + 1, -1}})
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, p, l, n);
}

TEST_F(SampleDescription, AudioEntry) {
  const std::string head = "0000005B 73747364 00000000 00000001 0000004B 6D703461 000000000000 0001 0000000000000000";
  const std::string esds = "00000027 65736473 00000000 03 19 0002 00 04 11 40 15 000000 00000000 00000000 05 02 1210 06 01 02";
  EXPECT_EQ(stsd(protocol(false, {0x12, 0x10})), bytes_hex(head + "0002 0010 00000000 AC44 0000" + esds));
  // Channels and sample size as given; the samplerate field takes the low 16 bits of the rate.
  auto six = protocol(false, {0x12, 0x10}, 96000);
  six->nAudioChannel = 6;
  six->nAudioSampleBit = 24;
  EXPECT_EQ(stsd(six), bytes_hex(head + "0006 0018 00000000 7700 0000" + esds));

  // Lengths below 0 or past the 1024-byte field, of the block bVideo selects.
  for (const int32_t bad : {-1, 1025})
    for (const bool video : {true, false}) {
      auto av = protocol(video, {});
      (video ? av->nVideoHdrLen : av->nAudioCfgLen) = bad;
      refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsd, av.get());
    }
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsd, static_cast<const tag_Qorvane_AVProtocol*>(nullptr));
}

// ISO/IEC 14496-1 §8.3.3 sizes in the shortest form at each edge, with their length; null arguments write nothing.
TEST(DescriptorLength, ShortestFormAtEachEdge) {
  const std::pair<int32_t, std::string> cases[] = {
      {0, "00"}, {0x7F, "7F"}, {0x80, "81 00"}, {0x3FFF, "FF 7F"}, {0x4000, "81 80 00"}, {0x1FFFFF, "FF FF 7F"},
      {0x200000, "81 80 80 00"}, {0x0FFFFFFF, "FF FF FF 7F"}, {-1, "8F FF FF FF 7F"}};
  for (const auto& [value, want] : cases) {
    std::vector<uint8_t> buffer(6, 0xEE);
    int32_t length = -7;
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(buffer.data(), &length, value));
    EXPECT_EQ(hex(buffer.data(), std::size_t(std::max(length, 0)) + 1), bytes_hex(want + " EE"));
  }
  uint8_t byte = 0xEE;
  int32_t length = -7;
  EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(nullptr, &length, 5) &&
              m_MP4Packet.Boxlane_Packet_DescriptorLen(&byte, nullptr, 5));
  EXPECT_EQ(std::tuple(byte, length), std::tuple(uint8_t{0xEE}, -7));
}

// The sizes boxlane.h documents: audio 89 to 92 + the configuration (its descriptor sizes take 1 to 2 bytes more
// past 104, 112 and 127 bytes), for every length; video 121 + the first SPS and PPS found; every set listed.
TEST_F(SampleDescription, DocumentedSizes) {
  auto av = protocol(false, {}, 48000);
  for (int32_t length = 0; length <= 1024; ++length) {
    av->nAudioCfgLen = length;
    exact((length <= 104 ? 89u : length <= 112 ? 90u : length <= 127 ? 91u : 92u) + length, Boxlane_Packet_STsd, av.get());
  }
  // A start code and `size` bytes: no start code inside, no zero at the end.
  const auto nal = [](uint8_t header, std::size_t size) { return Bytes().u32(1).u8(header).add(std::vector<uint8_t>(size - 1, 0x5A)); };
  const std::pair<Bytes, std::size_t> headers[] = {
      {cat({nal(0x67, 30), nal(0x67, 90), nal(0x68, 7), nal(0x68, 60)}), 37},
      {cat({nal(0x67, 1008), nal(0x68, 8)}), 1016},  // 1024 header bytes
  };
  for (const auto& [header, sets] : headers) exact(121 + sets, Boxlane_Packet_STsd, protocol(true, header).get());
  const std::vector<uint8_t> sps(65535, 0x67), pps(65535, 0x68);
  const uint8_t* const sets[] = {sps.data(), pps.data(), sps.data()};
  const int32_t lengths[] = {65535, 65535, 4};
  exact(117 + 2 * 65537 + 6, Boxlane_Packet_STsdParamSets, sets, lengths, 3);
}

}  // namespace
}  // namespace boxlane::test
