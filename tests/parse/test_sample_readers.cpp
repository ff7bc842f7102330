// Sample table and sample description readers on hand-built payloads:
// entries kept as stored, counts that lie about the payload, and the codec
// data taken from avc1/avcC and mp4a/esds entries.
#include "reader_fixture.hpp"
#include "support/paths.hpp"

#include <string>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

class SampleReaders : public ReaderTest {};

TEST_F(SampleReaders, TablesKeepEntriesAsStored) {
  make_track(1);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STts, Bytes{}.full(0, 0).u32(2).u32(3).u32(1000).u32(1).u32(500)));
  EXPECT_EQ(values(track(1).stl_ListSTts), (Infos{{3, 1000, 0}, {1, 500, 0}}));

  EXPECT_TRUE(feed(&P::Boxlane_Parse_CTts, Bytes{}.full(1, 0).u32(2).u32(1).u32(uint32_t(-2)).u32(4).u32(2048)));
  EXPECT_EQ(hdr().byVersion, 1);
  EXPECT_EQ(values(track(1).stl_ListCTts), (Infos{{1, 4294967294u, 0}, {4, 2048, 0}}));

  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsc, Bytes{}.full(0, 0).u32(2).u32(1).u32(5).u32(1).u32(3).u32(2).u32(1)));
  EXPECT_EQ(values(track(1).stl_ListSTsc), (Infos{{1, 5, 1}, {3, 2, 1}}));

  // A constant sample size leaves the list alone whatever the count.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(1024).u32(10)));
  EXPECT_TRUE(track(1).stl_ListSTsz.empty());
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(0).u32(3).u32(7).u32(8).u32(9)));
  EXPECT_EQ(values(track(1).stl_ListSTsz), (Infos{{7, 0, 0}, {8, 0, 0}, {9, 0, 0}}));

  // A second box for the track appends.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, Bytes{}.full(0, 0).u32(2).u32(48).u32(0xFFFFFFF0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, Bytes{}.full(0, 0).u32(1).u32(96)));
  EXPECT_EQ(values(track(1).stl_ListSTco), (Infos{{48, 0, 0}, {0xFFFFFFF0, 0, 0}, {96, 0, 0}}));

  EXPECT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(2).u32(1).u32(0x80000000)));
  EXPECT_EQ(track(1).stl_ListSTss, (std::vector<int32_t>{1, INT32_MIN}));

  // sdtp: box size 12 gives nothing, 15 gives three bytes.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0)));
  EXPECT_TRUE(track(1).stl_ListSDtp.empty());
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).u8(0x20).u8(0x10).u8(0xA6)));
  ASSERT_EQ(track(1).stl_ListSDtp.size(), 3u);
  EXPECT_EQ(track(1).stl_ListSDtp[2].bySampleFlags, 0xA6);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{0, 0}));
  EXPECT_EQ(track(1).stl_ListSDtp.size(), 3u);
}

TEST_F(SampleReaders, CountsThatOverrunThePayload) {
  make_track(1);
  // Two whole entries and half of a third: exactly two, reserved exactly.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STts, Bytes{}.full(0, 0).u32(1000).u32(1).u32(2).u32(3).u32(4).u32(5)));
  EXPECT_EQ(values(track(1).stl_ListSTts), (Infos{{1, 2, 0}, {3, 4, 0}}));
  EXPECT_EQ(track(1).stl_ListSTts.capacity(), 2u);

  // Huge and negative counts on tiny payloads allocate nothing to speak of.
  for (uint32_t count : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsc, Bytes{}.full(0, 0).u32(count).u32(1).u32(1)));
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(0).u32(count).u32(9)));
    EXPECT_TRUE(feed(&P::Boxlane_Parse_CTts, Bytes{}.full(0, 0).u32(count)));
  }
  EXPECT_TRUE(track(1).stl_ListSTsc.empty());
  EXPECT_EQ(values(track(1).stl_ListSTsz), (Infos{{9, 0, 0}}));
  EXPECT_LE(track(1).stl_ListSTsz.capacity(), 1u);

  // Many one-entry boxes: few reallocations, and little slack.
  std::size_t moves = 0;
  for (uint32_t i = 0; i < 5000; ++i) {
    const void* before = track(1).stl_ListSTss.data();
    feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(1).u32(i));
    moves += track(1).stl_ListSTss.data() != before;
  }
  EXPECT_LT(moves, 60u);
  EXPECT_LE(track(1).stl_ListSTss.capacity(), 5000u * 5 / 4);

  // Cut inside the fixed part: version and flags only.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, Bytes{}.full(2, 0).u16(1)));
  EXPECT_EQ(hdr().byVersion, 2);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{0, 0, 0}));
  EXPECT_EQ(hdr().byVersion, 0);
  EXPECT_TRUE(track(1).stl_ListSTco.empty());
}

// An avc1 entry whose children are a colr box and the avcC.
Bytes avc1_entry(const std::vector<uint8_t>& avcc, uint16_t width = 320, uint16_t height = 240) {
  Bytes fixed;
  fixed.zeros(6).u16(1).zeros(16).u16(width).u16(height).u32(0x00480000).u32(0x00480000).u32(0).u16(1).zeros(32)
      .u16(0x18).u16(0xFFFF);
  return box("avc1", cat({fixed, box("colr", Bytes{}.str("nclx").u16(1).u16(1).u16(1).u8(0)), box("avcC", avcc)}));
}

Bytes stsd(const std::vector<uint8_t>& entry, uint32_t count = 1) { return Bytes{}.full(0, 0).u32(count).add(entry); }

TEST_F(SampleReaders, AvcDescription) {
  make_track(1);
  Bytes avcc;
  avcc.u8(1).u8(0x64).u8(0x00).u8(0x1F).u8(0xFF).u8(0xE2);
  avcc.u16(4).add({0x67, 0x64, 0x00, 0x1F}).u16(2).add({0x67, 0x01});
  avcc.u8(3).u16(2).add({0x68, 0xEE}).u16(3).add({0x68, 0xEB, 0xE3}).u16(1).add({0x68});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(avc1_entry(avcc))));
  const BOXLANE_TRACKCODEC& c = track(1).stCodec;
  EXPECT_STREQ(c.tszCodec, "avc1");
  EXPECT_EQ((Ints{c.wDataRefIndex, c.wWidth, c.wHeight, c.byProfile, c.byLevel, c.byNALLengthSize}),
            (Ints{1, 320, 240, 0x64, 0x1F, 4}));
  using Sets = std::vector<std::vector<uint8_t>>;
  EXPECT_EQ(c.stl_ListSPS, (Sets{{0x67, 0x64, 0x00, 0x1F}, {0x67, 0x01}}));
  EXPECT_EQ(c.stl_ListPPS, (Sets{{0x68, 0xEE}, {0x68, 0xEB, 0xE3}, {0x68}}));

  // The first description read for a track stays.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(box("hev1", Bytes{}.zeros(8)))));
  EXPECT_STREQ(track(1).stCodec.tszCodec, "avc1");

  // A PPS whose length runs past the avcC keeps the sets before it.
  make_track(2);
  Bytes cut;
  cut.u8(1).u8(0x42).u8(0xC0).u8(0x0D).u8(0xFD).u8(0xE1).u16(2).add({0x67, 0x42}).u8(2).u16(1).add({0x68}).u16(50).u8(0x68);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(avc1_entry(cut, 160, 120))));
  EXPECT_EQ(track(2).stCodec.byNALLengthSize, 2);
  EXPECT_EQ(track(2).stCodec.stl_ListSPS.size(), 1u);
  EXPECT_EQ(track(2).stCodec.stl_ListPPS, (Sets{{0x68}}));

  // An entry cut inside its visual fields keeps fourcc and
  // data_reference_index; another entry type keeps its fourcc.
  make_track(4);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(Bytes{}.u32(200).str("avc1").zeros(6).u16(3).u16(0))));
  EXPECT_STREQ(track(4).stCodec.tszCodec, "avc1");
  EXPECT_EQ(track(4).stCodec.wDataRefIndex, 3);
  EXPECT_EQ(track(4).stCodec.wWidth, 0);
  make_track(5);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(box("hvc1", Bytes{}.zeros(6).u16(1).zeros(70)))));
  EXPECT_STREQ(track(5).stCodec.tszCodec, "hvc1");
  make_track(6);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(avc1_entry(avcc), 0)));
  EXPECT_FALSE(track(6).stCodec.bKept);
}

Bytes mp4a_entry(const std::vector<uint8_t>& esds_body, uint16_t sound_version = 0) {
  Bytes fixed;
  fixed.zeros(6).u16(1).u16(sound_version).zeros(6).u16(2).u16(16).zeros(4).u32(44100u << 16);
  if (sound_version == 1) fixed.zeros(16);
  return box("mp4a", cat({fixed, box("esds", Bytes{}.full(0, 0).add(esds_body))}));
}

TEST_F(SampleReaders, AacDescription) {
  make_track(1);
  // ES_Descriptor with dependsOn, URL and OCR fields and sizes written in
  // four bytes, as some muxers do.
  Bytes config_body;
  config_body.u8(0x40).u8(0x15).u24(6144).u32(128000).u32(96000);
  config_body.u8(0x05).add({0x80, 0x80, 0x80, 0x02}).add({0x12, 0x10});
  Bytes es_body;
  es_body.u16(1).u8(0xE0).u16(7).u8(3).str("abc").u16(9);
  es_body.u8(0x04).add({0x80, 0x80, 0x80, uint8_t(config_body.size())}).add(config_body);
  es_body.u8(0x06).u8(1).u8(2);
  Bytes esds;
  esds.u8(0x03).add({0x80, 0x80, 0x80, uint8_t(es_body.size())}).add(es_body);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(esds))));
  const BOXLANE_TRACKCODEC& c = track(1).stCodec;
  EXPECT_STREQ(c.tszCodec, "mp4a");
  EXPECT_EQ((Ints{c.wChannelCount, c.wSampleSize, c.nSampleRate, c.byObjectType, c.byStreamType, c.nBufferSizeDB,
                  c.nMaxBitrate, c.nAvgBitrate}),
            (Ints{2, 16, 44100, 0x40, 0x15, 6144, 128000, 96000}));
  EXPECT_EQ(c.stl_AudioCfg, (std::vector<uint8_t>{0x12, 0x10}));

  // A QuickTime sound description of version 1 moves the esds 16 bytes on;
  // one-byte sizes and no optional fields.
  make_track(2);
  const std::vector<uint8_t> plain = unhex("03 19 0002 00 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02");
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(plain, 1))));
  EXPECT_EQ(track(2).stCodec.nMaxBitrate, 128000u);
  EXPECT_EQ(track(2).stCodec.stl_AudioCfg, (std::vector<uint8_t>{0x11, 0x90}));

  // A DecoderSpecificInfo whose size runs past the box keeps the bytes there
  // are; a size field that never ends yields no configuration.
  make_track(3);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(unhex("03 19 0002 00 04 11 40 15 000000 00000001 00000002 05 09 1190")))));
  EXPECT_EQ(track(3).stCodec.nAvgBitrate, 2u);
  EXPECT_EQ(track(3).stCodec.stl_AudioCfg, (std::vector<uint8_t>{0x11, 0x90}));
  make_track(4);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(unhex("03 FF FF FF FF 00")))));
  EXPECT_STREQ(track(4).stCodec.tszCodec, "mp4a");
  EXPECT_EQ(track(4).stCodec.byObjectType, 0);
}

// Every reader on every prefix of a well-formed payload: the sanitizer
// catches a read past the exact allocation that feed() makes.
TEST_F(SampleReaders, EveryPrefixStaysInside) {
  Bytes avcc;
  avcc.u8(1).u8(0x64).u8(0).u8(0x1F).u8(0xFF).u8(0xE1).u16(3).add({0x67, 1, 2}).u8(1).u16(2).add({0x68, 1});
  const std::vector<uint8_t> esds = unhex("03 80 80 19 0002 E0 0007 01 61 0009 04 11 40 15 000000 00000001 00000002 05 02 1190 06 01 02");
  const std::vector<std::pair<Reader, Bytes>> boxes = {
      {&P::Boxlane_Parse_STsd, stsd(avc1_entry(avcc))},
      {&P::Boxlane_Parse_STsd, stsd(mp4a_entry(esds))},
      {&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0, 0, 1)},
      {&P::Boxlane_Parse_MVhd, Bytes{}.full(1, 0).zeros(108)},
      {&P::Boxlane_Parse_MDhd, Bytes{}.full(1, 0).zeros(32)},
      {&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).zeros(20).str("name")},
      {&P::Boxlane_Parse_Dinf, box("dref", Bytes{}.full(0, 0).u32(1).add(full_box("url ", 0, 0, Bytes{}.str("x"))))},
      {&P::Boxlane_Parse_STsc, Bytes{}.full(0, 0).u32(2).zeros(24)},
      {&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(0).u32(2).zeros(8)},
      {&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).zeros(3)},
  };
  for (const auto& [reader, payload] : boxes) {
    for (std::size_t len = 0; len <= payload.size(); ++len) {
      record = QORVANE_MP4PARSE{};
      make_track(1);
      EXPECT_TRUE(feed(reader, std::vector<uint8_t>(payload.begin(), payload.begin() + long(len))));
    }
  }
}

TEST(DescriptorLen, DecodesUpToFourBytes) {
  struct Case {
    std::vector<uint8_t> bytes;
    int value;
    int count;
  };
  for (const Case& c : {Case{{0x05, 0xFF, 0xFF, 0xFF}, 5, 1}, Case{{0x81, 0x00, 0xFF, 0xFF}, 128, 2},
                        Case{{0x80, 0x80, 0x80, 0x00}, 0, 4}, Case{{0xFF, 0xFF, 0xFF, 0xFF}, 268435455, 5},
                        Case{{0x80, 0x80, 0x80, 0x22}, 0x22, 4}}) {
    int count = -1;
    EXPECT_EQ(m_MP4Parse.Boxlane_Parse_DescriptorLen(c.bytes.data(), &count), c.value);
    EXPECT_EQ(count, c.count);
  }
  int count = 0;
  EXPECT_EQ(m_MP4Parse.Boxlane_Parse_DescriptorLen(nullptr, &count), 0);
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_PARAMETER});
}

}  // namespace
}  // namespace boxlane::test
