// The stsd writer against boxes worked out by hand field by field.
#include "writer_fixture.hpp"

#include <algorithm>
#include <climits>
#include <memory>

namespace {

using boxlane::test::bytes_hex;
using boxlane::test::unhex;

// The 25-byte SPS of tests/data/x264_sps_pps.h264 and a 4-byte PPS.
const std::string kSps = "67 64 00 0B AC D9 42 84 7E 5C 04 40 00 00 03 00 40 00 00 0C 83 C5 0A 65 80 ";
const std::string kPps = "68 CE 38 80";

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

class SampleDescription : public boxlane::test::WriterTest {
 protected:
  std::string stsd(const tag_Qorvane_AVProtocol* av) { return box(Boxlane_Packet_STsd, av); }
  void tkhd(int volume, int width, int height) { box(Boxlane_Packet_TKhd, volume, width, height, 0); }
};

const std::string kAvc1Fixed =  // bytes 24-101 of the entry for a given size
    "00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 %s 00 48 00 00 00 48 00 00 00 00 00 00"
    "00 01 03 41 56 43 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 18 FF FF";
std::string avc1_fixed(const std::string& size) { return std::string(kAvc1Fixed).replace(kAvc1Fixed.find("%s"), 2, size); }

TEST_F(SampleDescription, VideoEntry) {
  // No tkhd yet: 0 x 0. Nothing found in the header: the 121-byte box with empty sets.
  const std::string empty = bytes_hex("00 00 00 79 73 74 73 64 00 00 00 00 00 00 00 01 00 00 00 69 61 76 63 31" +
                                      avc1_fixed("00 00 00 00") + "00 00 00 13 61 76 63 43 01 00 00 00 FF E1 00 00 01 00 00");
  EXPECT_EQ(stsd(protocol(true, {}).get()), empty);
  EXPECT_EQ(stsd(protocol(true, unhex("00 00 00 01 65 88 84 00 21")).get()), empty);

  tkhd(0, 320, 240);
  auto av = protocol(true, unhex("00 00 00 01 " + kSps + "00 00 00 01 " + kPps));
  av->nAudioCfgLen = -5;  // the audio block is not looked at
  EXPECT_EQ(stsd(av.get()), bytes_hex("00 00 00 96 73 74 73 64 00 00 00 00 00 00 00 01 00 00 00 86 61 76 63 31" +
                                      avc1_fixed("01 40 00 F0") + "00 00 00 30 61 76 63 43 01 64 00 0B FF E1 00 19" +
                                      kSps + "01 00 04" + kPps));

  // The size is the latest tkhd's, whichever track it described, low 16 bits.
  tkhd(0x0100, 0, 0);
  EXPECT_EQ(stsd(av.get()).substr(48 * 3, 11), "00 00 00 00");
  tkhd(0, 0x10000 + 1920, 1080);
  EXPECT_EQ(stsd(av.get()).substr(48 * 3, 11), "07 80 04 38");
}

// Every parameter set listed goes into avcC, SPSs and PPSs each in the order
// given; profile, compatibility and level are the first SPS's own bytes.
TEST_F(SampleDescription, VideoEntryWithEveryParameterSet) {
  const auto sets_box = [&](const std::vector<std::vector<uint8_t>>& sets) {
    std::vector<const uint8_t*> pointers;
    std::vector<int32_t> lengths;
    for (const auto& set : sets) pointers.push_back(set.data()), lengths.push_back(int32_t(set.size()));
    return box(Boxlane_Packet_STsdParamSets, pointers.data(), lengths.data(), int32_t(sets.size()));
  };
  const auto sps0 = unhex("67 64 00 1F AC"), sps1 = unhex("67 4D 40 1E 99"), pps0 = unhex("68 EE 3C 80"),
             pps1 = unhex("28 CE");
  tkhd(0, 320, 240);
  EXPECT_EQ(sets_box({pps0, sps0, pps1, sps1}),
            bytes_hex("00 00 00 8D 73 74 73 64 00 00 00 00 00 00 00 01 00 00 00 7D 61 76 63 31" +
                      avc1_fixed("01 40 00 F0") + "00 00 00 27 61 76 63 43 01 64 00 1F FF E2 00 05 67 64 00 1F AC"
                      "00 05 67 4D 40 1E 99 02 00 04 68 EE 3C 80 00 02 28 CE"));
  // One of each gives the bytes Boxlane_Packet_STsd gives for the same sets,
  // but for the compatibility byte, which here is the SPS's.
  auto av = protocol(true, unhex("00 00 00 01 " + kSps + "00 00 00 01 " + kPps));
  std::string single = stsd(av.get());
  single.replace(42 * 3, 2, "00");
  EXPECT_EQ(sets_box({unhex(kSps), unhex(kPps)}), single);
  // No PPS is allowed; the count byte is then 0.
  EXPECT_EQ(sets_box({sps1}).substr(102 * 3), bytes_hex("00 00 00 16 61 76 63 43 01 4D 40 1E FF E1 00 05 67 4D 40 1E 99 00"));

  const std::vector<uint8_t> sps31(4, 0x67), sei = unhex("06 05 01"), empty;
  const std::vector<std::vector<uint8_t>> refused[] = {
      {},                                       // no set
      {pps0},                                   // no SPS
      {unhex("67 64 00"), pps0},                // the first SPS too short for its profile and level
      {sps0, sei},                              // not a parameter set
      {sps0, empty},                            // empty
      std::vector<std::vector<uint8_t>>(32, sps31),  // 32 SPSs
      {sps0, std::vector<uint8_t>(65536, 0x68)},  // longer than a 16-bit length
  };
  std::vector<std::vector<uint8_t>> pps256(256, pps0);
  pps256.push_back(sps0);
  for (const auto& sets : {refused[0], refused[1], refused[2], refused[3], refused[4], refused[5], refused[6], pps256}) {
    std::vector<const uint8_t*> pointers;
    std::vector<int32_t> lengths;
    for (const auto& set : sets) pointers.push_back(set.empty() ? sei.data() : set.data()), lengths.push_back(int32_t(set.size()));
    refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, pointers.data(), lengths.data(),
            int32_t(sets.size()));
  }
  // 31 SPSs and 255 PPSs are the most avcC counts.
  std::vector<const uint8_t*> most(31, sps0.data());
  most.insert(most.end(), 255, pps0.data());
  std::vector<int32_t> most_lengths(31, 5);
  most_lengths.insert(most_lengths.end(), 255, 4);
  const std::string full = box(Boxlane_Packet_STsdParamSets, most.data(), most_lengths.data(), int32_t(most.size()));
  EXPECT_EQ(full.size(), (117u + 31 * 7 + 255 * 6) * 3 - 1);
  EXPECT_EQ(full.substr(110 * 3, 17), "01 64 00 1F FF FF");
  const uint8_t* const null_set[] = {sps0.data(), nullptr};
  const int32_t two[] = {5, 4};
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, null_set, two, 2);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, static_cast<const uint8_t* const*>(nullptr), two, 1);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsdParamSets, null_set, static_cast<const int32_t*>(nullptr), 1);
}

TEST_F(SampleDescription, AudioEntry) {
  const std::string head = "00 00 00 5B 73 74 73 64 00 00 00 00 00 00 00 01 00 00 00 4B 6D 70 34 61 00 00 00 00 00 00 00 01"
                           "00 00 00 00 00 00 00 00 00 02 00 10 00 00 00 00";
  const std::string esds = "00 00 00 27 65 73 64 73 00 00 00 00 03 19 00 02 00"
                           "04 11 40 15 00 00 00 00 00 00 00 00 00 00 00 05 02 12 10 06 01 02";
  EXPECT_EQ(stsd(protocol(false, {0x12, 0x10}).get()), bytes_hex(head + "AC 44 00 00" + esds));
  EXPECT_EQ(stsd(protocol(false, {0x12, 0x10}, 48000).get()), bytes_hex(head + "BB 80 00 00" + esds));
  EXPECT_EQ(stsd(protocol(false, {0x12, 0x10}, 96000).get()), bytes_hex(head + "77 00 00 00" + esds));

  // 105 configuration bytes push the ES_Descriptor past 127: DecoderSpecificInfo
  // 105 (69), DecoderConfig 13 + 2 + 105 = 120 (78), ES 3 + 2 + 120 + 3 = 128
  // (81 00). esds 12 + 3 + 128 = 143 (8F), mp4a 179 (B3), stsd 195 (C3).
  std::vector<uint8_t> config(105, 0x5A);
  auto box = unhex(stsd(protocol(false, config).get()));
  ASSERT_EQ(box.size(), 195u);
  EXPECT_EQ(boxlane::test::hex(box.data(), 20), "00 00 00 C3 73 74 73 64 00 00 00 00 00 00 00 01 00 00 00 B3");
  EXPECT_EQ(boxlane::test::hex(box.data() + 52, 22), bytes_hex("00 00 00 8F 65 73 64 73 00 00 00 00 03 81 00 00 02 00 04 78 40 15"));
  EXPECT_EQ(boxlane::test::hex(box.data() + 85, 4), "05 69 5A 5A");
  EXPECT_EQ(boxlane::test::hex(box.data() + 189, 6), "5A 5A 5A 06 01 02");

  // 104 still takes one byte each: ES 127 (7F), DecoderConfig 119 (77).
  config.resize(104);
  box = unhex(stsd(protocol(false, config).get()));
  ASSERT_EQ(box.size(), 193u);
  EXPECT_EQ(boxlane::test::hex(box.data() + 64, 7), "03 7F 00 02 00 04 77");
}

TEST_F(SampleDescription, RefusesBadRecordsAndUnknownClients) {
  for (int32_t bad : {-1, 1025, INT_MIN}) {
    for (bool video : {true, false}) {
      auto av = protocol(video, {});
      (video ? av->nVideoHdrLen : av->nAudioCfgLen) = bad;
      refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsd, av.get());
    }
  }
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_STsd, static_cast<const tag_Qorvane_AVProtocol*>(nullptr));
  boxlane::test::expect_refused(  // the lookup comes first
      [](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd("no such client", b, n, nullptr); },
      BOXLANE_ERROR_PACKET_NOTFOUND);
  const auto av = protocol(false, {0x12, 0x10});
  int32_t length = -7;
  EXPECT_FALSE(Boxlane_Packet_STsd(client(), nullptr, &length, av.get()));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_EQ(length, -7);
}

TEST(DescriptorLength, ExpandableSizeEncoding) {
  // ISO/IEC 14496-1 §8.3.3 by hand: 7 bits a byte, most significant first, 0x80 on all but the last.
  const std::pair<int, const char*> cases[] = {{0, "00"},        {127, "7F"},          {128, "81 00"},
                                               {200, "81 48"},   {16384, "81 80 00"},  {268435455, "FF FF FF 7F"}};
  for (const auto& [length, bytes] : cases) {
    uint8_t out[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    int count = -1;
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(out, &count, length));
    ASSERT_EQ(count, int(unhex(bytes).size())) << length;
    EXPECT_EQ(boxlane::test::hex(out, std::size_t(count) + 1), bytes_hex(bytes) + " EE") << length;
  }
  int count = -1;
  EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(nullptr, &count, 200));
  EXPECT_EQ(count, -1);
}

}  // namespace
