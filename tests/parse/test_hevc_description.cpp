// The hvc1/hev1 sample entry reader and Boxlane_Parse_GetTrackHEVC, on hvcC
// records written out by hand (ISO/IEC 14496-15 §8.3.3.1) and on files that
// FFmpeg made, against what ffprobe reports about them.
#include "reader_fixture.hpp"

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <sstream>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;
using HevcReaders = ReaderTest;

Bytes visual_entry(const char* type, uint16_t width, uint16_t height, const std::vector<uint8_t>& children) {
  Bytes fixed;
  fixed.zeros(6).u16(1).zeros(16).u16(width).u16(height).u32(0x00480000).u32(0x00480000).u32(0).u16(1).zeros(32)
      .u16(0x18).u16(0xFFFF);
  return box(type, cat({fixed, children}));
}

Bytes stsd_of(const std::vector<uint8_t>& entry) { return Bytes{}.full(0, 0).u32(1).add(entry); }

// An hvcC with every field set apart from its neighbours: space 2, tier 1,
// profile 3, level 123, segmentation 0xABC, parallelism 2, 4:2:2, 12-bit
// luma and 9-bit chroma, 24 fps (6144/256), constant rate 1, 5 layers,
// nested, 2-byte lengths; then the arrays.
Bytes hvcc(const std::vector<uint8_t>& arrays, uint8_t count) {
  Bytes c;
  c.u8(1).u8(0x80 | 0x20 | 3).u32(0x40000001).u16(0xB000).u32(0x00000003).u8(123).u16(0xFABC).u8(0xFE).u8(0xFE)
      .u8(0xFC).u8(0xF9).u16(6144).u8(0x40 | 5 << 3 | 4 | 1).u8(count).add(arrays);
  return box("hvcC", c);
}

std::string nalus(const BOXLANE_HEVCINFO& info) {
  std::ostringstream o;
  std::size_t at = 0;
  for (int i = 0; i < info.nNaluCount; ++i) {
    o << int(info.byNaluType[i]) << (info.byArrayComplete[i] ? "c" : "") << ":" << hex(info.byNalus + at, info.wNaluLen[i]) << ";";
    at += info.wNaluLen[i];
  }
  return o.str();
}

TEST_F(HevcReaders, DescriptionAndQuery) {
  make_track(1);
  // A complete VPS array of one unit, an incomplete SPS array of two, and a
  // prefix SEI array with an empty unit, which is no parameter set.
  Bytes arrays;
  arrays.u8(0x80 | 32).u16(1).u16(3).add({0x40, 0x01, 0x0C});
  arrays.u8(33).u16(2).u16(2).add({0x42, 0x01}).u16(4).add({0x42, 0x01, 0x01, 0x02});
  arrays.u8(39).u16(2).u16(0).u16(1).add({0x4E});
  const Bytes colr = box("colr", Bytes{}.str("nclx").u16(1).u16(1).u16(1).u8(0));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("hvc1", 1920, 1080, cat({colr, hvcc(arrays, 3)})))));

  BOXLANE_HEVCINFO info;
  std::memset(&info, 0xCD, sizeof info);
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 1, &info));
  EXPECT_STREQ(info.tszCodec, "hvc1");
  EXPECT_EQ((Ints{info.wWidth, info.wHeight, info.byConfigurationVersion, info.byProfileSpace, info.byTier,
                  info.byProfile, info.nCompatibilityFlags, int64_t(info.nConstraintFlags), info.byLevel,
                  info.wMinSpatialSegmentation, info.byParallelismType, info.byChromaFormat, info.byBitDepthLuma,
                  info.byBitDepthChroma, info.wAvgFrameRate, info.byConstantFrameRate, info.byNumTemporalLayers,
                  info.byTemporalIdNested, info.byNALLengthSize, info.bTruncated}),
            (Ints{1920, 1080, 1, 2, 1, 3, 0x40000001, 0xB00000000003, 123, 0xABC, 2, 2, 12, 9, 6144, 1, 5, 1, 2, 0}));
  EXPECT_EQ(nalus(info), "32c:40 01 0C;33:42 01;33:42 01 01 02;39:4E;");
  // The codec query names the entry and its size.
  BOXLANE_CODECINFO codec{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &codec));
  EXPECT_EQ((Ints{codec.wWidth, codec.wHeight, codec.nSPSCount}), (Ints{1920, 1080, 0}));

  // hev1, matched without regard to case; a unit that runs past the record
  // ends it, the one before it is kept; an array count past the record too.
  make_track(2);
  Bytes cut;
  cut.u8(0x80 | 33).u16(3).u16(2).add({0x42, 0x01}).u16(9).add({0x42, 0x01});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("HEV1", 640, 360, hvcc(cut, 7)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 2, &info));
  EXPECT_STREQ(info.tszCodec, "HEV1");
  EXPECT_EQ(nalus(info), "33c:42 01;");

  // More units than a query holds: the first 64, flagged; more bytes than it
  // holds: whole units only, flagged.
  make_track(3);
  Bytes many;
  many.u8(0x80 | 34).u16(70);
  for (int i = 0; i < 70; ++i) many.u16(2).add({0x44, uint8_t(i)});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("hvc1", 64, 64, hvcc(many, 1)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 3, &info));
  EXPECT_EQ((Ints{info.nNaluCount, info.bTruncated, info.byNalus[2 * 63 + 1]}), (Ints{BOXLANE_HEVC_MAX_NALUS, 1, 63}));
  make_track(4);
  Bytes large;
  large.u8(0x80 | 33).u16(3);
  for (int i = 0; i < 3; ++i) large.u16(6000).add(std::vector<uint8_t>(6000, uint8_t(i)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("hvc1", 64, 64, hvcc(large, 1)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 4, &info));
  EXPECT_EQ((Ints{info.nNaluCount, info.wNaluLen[1], info.byNalus[11999], info.bTruncated}), (Ints{2, 6000, 1, 1}));
  for (const uint16_t last : {100, 101}) {  // exactly the area, and one byte more
    make_track(7);
    Bytes edge;
    edge.u8(0x80 | 33).u16(2).u16(BOXLANE_CODEC_PARAMSET_BYTES - 100).add(std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 100, 7));
    edge.u16(last).add(std::vector<uint8_t>(last, 8));
    record.stl_MapTrack->at(7).stCodec = BOXLANE_TRACKCODEC{};
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("hvc1", 64, 64, hvcc(edge, 1)))));
    ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 7, &info));
    EXPECT_EQ((Ints{info.nNaluCount, info.bTruncated}), last == 100 ? (Ints{2, 0}) : (Ints{1, 1})) << last;
  }

  // An entry of another kind, or without hvcC: zero but for fourcc and size.
  make_track(5);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("hvc1", 320, 240, colr))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 5, &info));
  EXPECT_EQ((Ints{info.wWidth, info.byConfigurationVersion, info.byProfile, info.nNaluCount}), (Ints{320, 0, 0, 0}));
  make_track(6);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd_of(visual_entry("avc1", 320, 240, hvcc(arrays, 3)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 6, &info));
  EXPECT_STREQ(info.tszCodec, "avc1");
  EXPECT_EQ((Ints{info.byConfigurationVersion, info.nNaluCount}), (Ints{0, 0}));

  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 9, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 1, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC("nobody", 1, &info), BOXLANE_ERROR_PARSE_NOTFOUND));

  // Every prefix of the first entry stays inside its allocation.
  const Bytes whole = stsd_of(visual_entry("hvc1", 1920, 1080, hvcc(arrays, 3)));
  for (std::size_t len = 0; len <= whole.size(); ++len) {
    record = QORVANE_MP4PARSE{};
    make_track(1);
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, std::vector<uint8_t>(whole.begin(), whole.begin() + long(len))));
  }
}

// HEVC files that FFmpeg writes (hvc1, hev1, fragmented) streamed into the
// parser: profile, level, tier, size and parameter sets agree with ffprobe and
// with the stream FFmpeg took them from.
TEST(HevcFfmpegFiles, AgreeWithFfprobe) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  const std::string es = dir + "/in.h265";
  ASSERT_EQ(ffmpeg("-f lavfi -i testsrc2=size=322x182:rate=25 -frames:v 30 -pix_fmt yuv420p10le -c:v libx265 "
                   "-x265-params log-level=error -f hevc " + es),
            0);
  const std::vector<std::pair<std::string, std::string>> files = {
      {"hvc1", "-tag:v hvc1"}, {"hev1", "-tag:v hev1"}, {"fragmented", "-tag:v hvc1 -movflags frag_keyframe+empty_moov"}};
  for (const auto& [name, args] : files) {
    const std::string mp4 = dir + "/" + name + ".mp4";
    ASSERT_EQ(ffmpeg("-i " + es + " -c copy " + args + " " + mp4), 0) << name;
    std::string probed;
    ASSERT_EQ(run("ffprobe -v error -select_streams v -show_entries stream=codec_tag_string,profile,level,width,height "
                  "-of default=nw=1 " + mp4, &probed), 0);

    const std::string client = "hevc-ffmpeg-" + name;
    ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    const FeedResult fed = feed(client, read_file(mp4), {}, 1000);
    EXPECT_EQ(fed.error, 0u) << name;
    BOXLANE_HEVCINFO info{};
    ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client.c_str(), 1, &info)) << name;
    // ffprobe names the profile; Main 10 is general_profile_idc 2.
    std::ostringstream ours;
    ours << "profile=Main 10\ncodec_tag_string=" << info.tszCodec << "\nwidth=" << info.wWidth << "\nheight="
         << info.wHeight << "\nlevel=" << int(info.byLevel) << "\n";
    EXPECT_EQ(ours.str(), probed) << name;
    EXPECT_EQ(info.byProfile, 2) << name;
    EXPECT_EQ((Ints{info.byChromaFormat, info.byBitDepthLuma, info.byNALLengthSize}), (Ints{1, 10, 4})) << name;
    // The VPS, SPS and PPS are those of the stream.
    const std::vector<uint8_t> stream = read_file(es);
    std::size_t at = 0;
    for (int i = 0; i < info.nNaluCount; ++i) {
      std::vector<uint8_t> unit(info.byNalus + at, info.byNalus + at + info.wNaluLen[i]);
      at += info.wNaluLen[i];
      if (info.byNaluType[i] < 32 || info.byNaluType[i] > 34) continue;
      unit.insert(unit.begin(), {0, 0, 1});
      EXPECT_NE(std::search(stream.begin(), stream.end(), unit.begin(), unit.end()), stream.end())
          << name << ": unit " << i << " of type " << int(info.byNaluType[i]);
    }
    EXPECT_TRUE(Boxlane_Parse_Delete(client.c_str()));
  }
}

}  // namespace
}  // namespace boxlane::test
