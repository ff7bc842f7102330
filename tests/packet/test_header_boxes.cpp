// The header boxes against bytes written out by hand (ISO/IEC 14496-12), 64-bit forms on both sides of each limit.
#include "writer_fixture.hpp"

#include <climits>
#include <cstdio>
#include <ctime>

namespace boxlane::test {
namespace {

constexpr uint64_t k32 = uint64_t{1} << 32;
const std::string kMatrix = " 00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000 ";

class HeaderBoxTest : public WriterTest {
 protected:
  // Compares with hand-written hex; "tttttttt" stands for the creation time the latest mvhd stamped.
  void expect_box(const std::string& got, std::string text) {
    char stamp[9];
    std::snprintf(stamp, sizeof stamp, "%08X", record().nCreateTime);
    for (auto at = text.find("tttttttt"); at != std::string::npos; at = text.find("tttttttt")) text.replace(at, 8, stamp);
    EXPECT_EQ(got, bytes_hex(text));
  }
};

TEST_F(HeaderBoxTest, FixedBoxesAndBoxHeaders) {
  EXPECT_EQ(box(Boxlane_Packet_FTyp), bytes_hex("00000020 66747970 69736F6D 00000200 69736F6D 69736F32 61766331 6D703431"));
  EXPECT_EQ(box(Boxlane_Packet_DInf),
            bytes_hex("00000024 64696E66 0000001C 64726566 00000000 00000001 0000000C 75726C20 00000001"));
  EXPECT_EQ(box(Boxlane_Packet_VMhd), bytes_hex("00000014 766D6864 00000001 0000 0000 0000 0000"));
  EXPECT_EQ(box(Boxlane_Packet_SMhd, int16_t{-256}), bytes_hex("00000010 736D6864 00000000 FF00 0000"));
  EXPECT_EQ(box(Boxlane_Packet_STsc), bytes_hex("0000001C 73747363 00000000 00000001 00000001 00000001 00000001"));
  // hdlr: size, pre_defined, the handler type, three reserved words, the name ("...Handler"); 5 is past the last.
  const char* const handlers[][3] = {{"2D", "76696465", "566964656F"}, {"2D", "736F756E", "536F756E64"},
                                     {"2C", "68696E74", "48696E74"}, {"2C", "6D657461", "4D657461"},
                                     {"2C", "74657874", "54657874"}};
  for (uint8_t type = 0; type < 5; ++type) {
    const std::string hdlr = std::string("000000") + handlers[type][0] + " 68646C72 00000000 00000000 " +
                             handlers[type][1] + std::string(24, '0') + handlers[type][2] + "48616E646C6572 00";
    EXPECT_EQ(box(Boxlane_Packet_HDlr, type), bytes_hex(hdlr)) << hdlr;
  }
  refuses(BOXLANE_ERROR_PACKET_NOTSUPPORT, Boxlane_Packet_HDlr, uint8_t{5});
  const uint8_t payload[] = {0xDE, 0xAD, 0xBE, 0xEF};
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "free", payload, 4), bytes_hex("0000000C 66726565 DEADBEEF"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox, "mdat", nullptr, INT_MAX - 8), bytes_hex("7FFFFFFF 6D646174"));
  // The 64-bit header: size field 1, then the size with its 16 header bytes.
  EXPECT_EQ(box(Boxlane_Packet_HDRBox64, "mdat", k32 - 16), bytes_hex("00000001 6D646174 00000001 00000000"));
  EXPECT_EQ(box(Boxlane_Packet_HDRBox64, "free", ~uint64_t{0} - 16), bytes_hex("00000001 66726565 FFFFFFFF FFFFFFFF"));
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, "mdat", nullptr, INT_MAX - 7);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, "free", payload, -1);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox, nullptr, payload, 4);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox64, "mdat", ~uint64_t{0} - 15);
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_HDRBox64, nullptr, uint64_t{0});
}

// mvhd, tkhd and mdhd share creation time, time scale, track numbers and durations; version 1 past 32 bits.
TEST_F(HeaderBoxTest, MovieTrackAndMediaHeaders) {
  const auto before = static_cast<uint32_t>(std::time(nullptr) + 2082844800LL);
  const std::string movie = " 00010000 0100 0000 00000000 00000000" + kMatrix + std::string(48, '0') + " 00000002";
  expect_box(box(Boxlane_Packet_MVhd64, k32 - 1, 90000),
             "0000006C 6D766864 00000000 tttttttt tttttttt 00015F90 FFFFFFFF" + movie);
  expect_box(box(Boxlane_Packet_MVhd64, k32 + 5, 90000),
             "00000078 6D766864 01000000 00000000 tttttttt 00000000 tttttttt 00015F90 00000001 00000005" + movie);
  // The highest time scale, which the media headers below copy.
  expect_box(box(Boxlane_Packet_MVhd, 90000, INT32_MAX),
             "0000006C 6D766864 00000000 tttttttt tttttttt 7FFFFFFF 00015F90" + movie);
  EXPECT_TRUE(record().nCreateTime >= before && record().nCreateTime <= before + 5);  // seconds since 1904
  const std::string head = "00000000 00000000 0000 0000 ";
  expect_box(box(Boxlane_Packet_TKhd, 0, 1920, 1080, 5000), "0000005C 746B6864 00000003 tttttttt tttttttt 00000001 "
             "00000000 00001388 " + head + "0000 0000" + kMatrix + "07800000 04380000");
  expect_box(box(Boxlane_Packet_TKhd, 0x0100, 0, 0, 7000), "0000005C 746B6864 00000003 tttttttt tttttttt 00000002 "
             "00000000 00001B58 " + head + "0100 0000" + kMatrix + "00000000 00000000");
  // mdhd: the movie time scale and the duration of the last visual tkhd.
  expect_box(box(Boxlane_Packet_MDhd, uint16_t{0x55C4}), "00000020 6D646864 00000000 tttttttt tttttttt 7FFFFFFF 00001388 55C4 0000");
  expect_box(box(Boxlane_Packet_MDhdEx, uint16_t{0x15C7}, 7000u),
             "00000020 6D646864 00000000 tttttttt tttttttt 7FFFFFFF 00001B58 15C7 0000");
  expect_box(box(Boxlane_Packet_TKhd64, 0, 640, 480, k32 + 0x1234), "00000068 746B6864 01000003 00000000 tttttttt "
             "00000000 tttttttt 00000003 00000000 00000001 00001234 " + head + "0000 0000" + kMatrix + "02800000 01E00000");
  // A visual duration past 32 bits reaches MDhd as the most it can hold.
  expect_box(box(Boxlane_Packet_MDhd, uint16_t{0}), "00000020 6D646864 00000000 tttttttt tttttttt 7FFFFFFF FFFFFFFF 0000 0000");
  expect_box(box(Boxlane_Packet_MDhd64, uint16_t{0x55C4}, k32),
             "0000002C 6D646864 01000000 00000000 tttttttt 00000000 tttttttt 7FFFFFFF 00000001 00000000 55C4 0000");
}

TEST_F(HeaderBoxTest, EditListsOnBothSidesOfTheirLimits) {
  EXPECT_EQ(box(Boxlane_Packet_EDts, 0xFFFFFFFEu, -1),  // -1: an empty edit (§8.6.6.3)
            bytes_hex("00000024 65647473 0000001C 656C7374 00000000 00000001 FFFFFFFE FFFFFFFF 0001 0000"));
  // Segment duration, media time, the elst from its version byte on.
  const std::tuple<uint64_t, int64_t, std::string> edits[] = {
      {k32 - 1, INT32_MAX, "00000000 00000001 FFFFFFFF 7FFFFFFF 0001 0000"},
      {k32, 0, "01000000 00000001 00000001 00000000 00000000 00000000 0001 0000"},
      {5, int64_t{INT32_MAX} + 1, "01000000 00000001 00000000 00000005 00000000 80000000 0001 0000"},
      {k32, -1, "01000000 00000001 00000001 00000000 FFFFFFFF FFFFFFFF 0001 0000"},
  };
  for (const auto& [segment, media_time, elst] : edits) {
    const std::string head = elst[1] == '1' ? "0000002C 65647473 00000024 656C7374 " : "00000024 65647473 0000001C 656C7374 ";
    EXPECT_EQ(box(Boxlane_Packet_EDts64, segment, media_time), bytes_hex(head + elst));
  }
  refuses(BOXLANE_ERROR_PACKET_PARAMETER, Boxlane_Packet_EDts64, uint64_t{5}, int64_t{-2});
}

// SetTime keeps frame times in ms (a rate <= 0 leaves the last); a duration of 0 is the frame time / time scale.
TEST_F(HeaderBoxTest, FrameTimesFillDurationsOfZero) {
  // Each on top of the previous one: frames a second, samples a second, then the video and audio frame times.
  const std::tuple<int, int, int64_t, int64_t> cases[] = {
      {30, 48000, 33, 21}, {1001, -1, 0, 21}, {0, 22050, 0, 46}, {24, 8000, 41, 128}, {-5, 0, 41, 128}};
  for (const auto& [frame_rate, sample_rate, video_ms, audio_ms] : cases) {
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(client(), frame_rate, sample_rate));
    EXPECT_EQ(std::pair(record().nVideoFrameTime, record().nAudioFrameTime), std::pair(video_ms, audio_ms)) << frame_rate;
  }
  EXPECT_EQ(box(Boxlane_Packet_MVhd, 0, 2).substr(24 * 3, 11), "00 00 00 14");  // 41 ms / 2, cut down
  EXPECT_EQ(box(Boxlane_Packet_MVhd64, uint64_t{0}, 2).substr(24 * 3, 11), "00 00 00 00");  // written as given
  EXPECT_EQ(box(Boxlane_Packet_TKhd, 0, 160, 120, 0).substr(28 * 3, 11), "00 00 00 14");
  EXPECT_EQ(box(Boxlane_Packet_TKhd64, 0x0100, 0, 0, uint64_t{0}).substr(28 * 3, 18 * 3 - 1),  // as given; a volume
            bytes_hex("00000000 0000000000000000 0000 0000 0100"));
  EXPECT_EQ(m_MP4Packet.Boxlane_Packet_TimeCount(nullptr), 0);
  EXPECT_EQ(box(Boxlane_Packet_TKhd, 0, 160, 120, -1).substr(28 * 3, 11), "FF FF FF FF");  // only 0 is filled
}

}  // namespace
}  // namespace boxlane::test
