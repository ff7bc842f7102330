// The stsd writer against boxes worked out by hand field by field.
#include "support/box_builder.hpp"
#include "writer_fixture.hpp"

#include <algorithm>
#include <climits>
#include <memory>

namespace {

using boxlane::test::bytes_hex;
using boxlane::test::expect_refused;
using boxlane::test::unhex;
using boxlane::test::written;

// The 25-byte SPS of a libx264 160x120 stream (see tests/data/x264_sps_pps.h264)
// and a 4-byte PPS.
constexpr const char* kSps = "67 64 00 0b ac d9 42 84 7e 5c 04 40 00 00 03 00 40 00 00 0c 83 c5 0a 65 80";
constexpr const char* kPps = "68 ce 38 80";

std::unique_ptr<tag_Qorvane_AVProtocol> video_record(const std::vector<uint8_t>& header) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->bVideo = 1;
  av->nVideoHdrLen = int32_t(header.size());
  std::copy(header.begin(), header.end(), av->tszVideoHdr);
  return av;
}

std::unique_ptr<tag_Qorvane_AVProtocol> audio_record(const std::vector<uint8_t>& config, int rate = 44100) {
  auto av = std::make_unique<tag_Qorvane_AVProtocol>();
  av->bVideo = 0;
  av->nAudioChannel = 2;
  av->nAudioSampleRate = rate;
  av->nAudioSampleBit = 16;
  av->nAudioCfgLen = int32_t(config.size());
  std::copy(config.begin(), config.end(), av->tszAudioCfg);
  return av;
}

class SampleDescription : public boxlane::test::WriterTest {
 protected:
  std::string stsd(const tag_Qorvane_AVProtocol& av) {
    return written([&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd(client(), b, n, &av); });
  }
  void tkhd(int volume, int width, int height) {
    written([&](uint8_t* b, int32_t* n) { return Boxlane_Packet_TKhd(client(), b, n, volume, width, height, 0); });
  }
};

TEST_F(SampleDescription, VideoEntry) {
  tkhd(0, 320, 240);
  const auto av = video_record(unhex(std::string("00 00 00 01 ") + kSps + " 00 00 00 01 " + kPps));
  // Bytes 102-105 avcC size 48; profile 100 and level 11 from the SPS.
  EXPECT_EQ(stsd(*av), bytes_hex(std::string(
                           "00 00 00 96 73 74 73 64 00 00 00 00 00 00 00 01"
                           "00 00 00 86 61 76 63 31 00 00 00 00 00 00 00 01"
                           "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
                           "01 40 00 F0 00 48 00 00 00 48 00 00 00 00 00 00"
                           "00 01 03 41 56 43 00 00 00 00 00 00 00 00 00 00"
                           "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
                           "00 00 00 18 FF FF"
                           "00 00 00 30 61 76 63 43 01 64 00 0B FF E1 00 19") +
                           kSps + "01 00 04" + kPps));

  // The size comes from the latest tkhd, whichever track it described: after
  // the sound track's header the video entry reads 0 x 0.
  tkhd(0x0100, 0, 0);
  const std::string after_audio = stsd(*av);
  EXPECT_EQ(after_audio.substr(48 * 3, 12), "00 00 00 00 ") << after_audio;

  // The low 16 bits of a size that does not fit.
  tkhd(0, 0x10000 + 1920, 1080);
  EXPECT_EQ(stsd(*av).substr(48 * 3, 12), "07 80 04 38 ");

  // bVideo selects the entry, whatever the audio members hold.
  av->nAudioCfgLen = -5;
  EXPECT_EQ(stsd(*av).substr(20 * 3, 11), "61 76 63 31");
}

TEST_F(SampleDescription, VideoEntryWithoutParameterSets) {
  // No tkhd yet: width and height 0. An empty header and one in which no SPS
  // or PPS is found both give the 121-byte box with empty sets.
  const std::string empty = bytes_hex(
      "00 00 00 79 73 74 73 64 00 00 00 00 00 00 00 01"
      "00 00 00 69 61 76 63 31 00 00 00 00 00 00 00 01"
      "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
      "00 00 00 00 00 48 00 00 00 48 00 00 00 00 00 00"
      "00 01 03 41 56 43 00 00 00 00 00 00 00 00 00 00"
      "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
      "00 00 00 18 FF FF"
      "00 00 00 13 61 76 63 43 01 00 00 00 FF E1 00 00 01 00 00");
  EXPECT_EQ(stsd(*video_record({})), empty);
  EXPECT_EQ(stsd(*video_record(unhex("00 00 00 01 65 88 84 00 21"))), empty);
  EXPECT_EQ(stsd(*video_record(unhex(std::string(kSps) + kPps))), empty) << "not Annex B";
}

TEST_F(SampleDescription, AudioEntry) {
  const std::string head =
      "00 00 00 5B 73 74 73 64 00 00 00 00 00 00 00 01"
      "00 00 00 4B 6D 70 34 61 00 00 00 00 00 00 00 01"
      "00 00 00 00 00 00 00 00 00 02 00 10 00 00 00 00";
  const std::string esds =
      "00 00 00 27 65 73 64 73 00 00 00 00"
      "03 19 00 02 00"
      "04 11 40 15 00 00 00 00 00 00 00 00 00 00 00"
      "05 02 12 10"
      "06 01 02";
  EXPECT_EQ(stsd(*audio_record({0x12, 0x10})), bytes_hex(head + "AC 44 00 00" + esds));
  EXPECT_EQ(stsd(*audio_record({0x12, 0x10}, 48000)), bytes_hex(head + "BB 80 00 00" + esds));
  EXPECT_EQ(stsd(*audio_record({0x12, 0x10}, 96000)), bytes_hex(head + "77 00 00 00" + esds));

  // Channel count and sample size keep their low 16 bits too; nothing of the
  // video block is read.
  auto av = audio_record({0x11, 0x90});
  av->nAudioChannel = 0x10001;
  av->nAudioSampleBit = 0x20018;
  av->nVideoHdrLen = -1;
  const std::string odd = stsd(*av);
  EXPECT_EQ(odd.substr(40 * 3, 12), "00 01 00 18 ");
  EXPECT_EQ(odd.substr(86 * 3), "11 90 06 01 02");
}

TEST_F(SampleDescription, LongAudioConfigTakesMultiByteLengths) {
  std::vector<uint8_t> config(105);
  for (std::size_t i = 0; i < config.size(); ++i) config[i] = uint8_t(0xA0 + i);

  // 105 configuration bytes: DecoderSpecificInfo 105 (69), DecoderConfig
  // 13 + 2 + 105 = 120 (78), ES 3 + 2 + 120 + 3 = 128, which needs 81 00.
  // esds 12 + 3 + 128 = 143, mp4a 36 + 143 = 179, stsd 16 + 179 = 195.
  const auto box = unhex(stsd(*audio_record(config)));
  ASSERT_EQ(box.size(), 195u);
  EXPECT_EQ(boxlane::test::hex(box.data(), 4), "00 00 00 C3");
  EXPECT_EQ(boxlane::test::hex(box.data() + 16, 4), "00 00 00 B3");
  EXPECT_EQ(boxlane::test::hex(box.data() + 52, 4), "00 00 00 8F");
  EXPECT_EQ(boxlane::test::hex(box.data() + 64, 10), "03 81 00 00 02 00 04 78 40 15");
  EXPECT_EQ(boxlane::test::hex(box.data() + 85, 3), "05 69 A0");
  EXPECT_EQ(box[191], uint8_t(0xA0 + 104));
  EXPECT_EQ(boxlane::test::hex(box.data() + 192, 3), "06 01 02");

  // 104 bytes still fits single-byte lengths: ES 127 (7F), DecoderConfig 119 (77).
  config.resize(104);
  const auto fits = unhex(stsd(*audio_record(config)));
  ASSERT_EQ(fits.size(), 88u + 1 + 104);
  EXPECT_EQ(boxlane::test::hex(fits.data() + 64, 8), "03 7F 00 02 00 04 77 40");

  // The full 1024 bytes: every length takes two bytes. DecoderSpecificInfo
  // 1024 (88 00), DecoderConfig 13 + 3 + 1024 = 1040 (88 10), ES 3 + 1043 + 3
  // = 1049 (88 19); esds 12 + 3 + 1049 = 1064, stsd 16 + 36 + 1064 = 1116.
  config.assign(1024, 0x5A);
  const auto full = unhex(stsd(*audio_record(config)));
  ASSERT_EQ(full.size(), 1116u);
  EXPECT_EQ(boxlane::test::hex(full.data() + 52, 4), "00 00 04 28");
  EXPECT_EQ(boxlane::test::hex(full.data() + 64, 9), "03 88 19 00 02 00 04 88 10");
  EXPECT_EQ(boxlane::test::hex(full.data() + 86, 4), "05 88 00 5A");
  EXPECT_EQ(boxlane::test::hex(full.data() + 1113, 3), "06 01 02");
}

TEST_F(SampleDescription, RefusesBadRecordsAndUnknownClients) {
  const auto call_with = [this](const tag_Qorvane_AVProtocol* av) {
    return [this, av](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd(client(), b, n, av); };
  };
  for (int32_t bad : {-1, 1025, INT32_MIN}) {
    auto video = video_record({});
    video->nVideoHdrLen = bad;
    expect_refused(call_with(video.get()), BOXLANE_ERROR_PACKET_PARAMETER);
    auto audio = audio_record({});
    audio->nAudioCfgLen = bad;
    expect_refused(call_with(audio.get()), BOXLANE_ERROR_PACKET_PARAMETER);
  }
  expect_refused(call_with(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);

  const auto av = audio_record({0x12, 0x10});
  int32_t length = -7;
  std::vector<uint8_t> buffer(256, 0xAB);
  EXPECT_FALSE(Boxlane_Packet_STsd(client(), buffer.data(), nullptr, av.get()));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_EQ(buffer, std::vector<uint8_t>(256, 0xAB));
  EXPECT_FALSE(Boxlane_Packet_STsd(client(), nullptr, &length, av.get()));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_EQ(length, -7);

  // The client is looked up before the record is examined.
  expect_refused([](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd("no such client", b, n, nullptr); },
                 BOXLANE_ERROR_PACKET_NOTFOUND);
  expect_refused([&](uint8_t* b, int32_t* n) { return Boxlane_Packet_STsd("no such client", b, n, av.get()); },
                 BOXLANE_ERROR_PACKET_NOTFOUND);
}

TEST(DescriptorLength, ExpandableSizeEncoding) {
  // ISO/IEC 14496-1 §8.3.3, worked by hand.
  const struct {
    int length;
    const char* bytes;
  } cases[] = {
      {0, "00"},          {1, "01"},          {127, "7F"},          {128, "81 00"},
      {200, "81 48"},     {16383, "FF 7F"},   {16384, "81 80 00"},  {2097151, "FF FF 7F"},
      {2097152, "81 80 80 00"}, {268435455, "FF FF FF 7F"},
  };
  for (const auto& c : cases) {
    uint8_t out[8];
    std::fill(std::begin(out), std::end(out), 0xEE);
    int count = -1;
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(out, &count, c.length));
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    const std::string expected = bytes_hex(c.bytes);
    ASSERT_EQ(count, int(unhex(c.bytes).size())) << c.length;
    EXPECT_EQ(boxlane::test::hex(out, std::size_t(count)), expected) << c.length;
    EXPECT_EQ(out[count], 0xEE) << c.length;
  }

  int count = -1;
  uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(nullptr, &count, 200));
  EXPECT_EQ(count, -1);
  EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_DescriptorLen(out, nullptr, 200));
  EXPECT_EQ(out[0], 0xEE);
}

}  // namespace
