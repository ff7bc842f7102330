// The queries over a client whose record sits in the parser's client table and
// is filled by the readers: what they copy out, what they leave untouched,
// and how they fail.
#include "parsed_stream.hpp"
#include "reader_fixture.hpp"
#include "support/stream_feeder.hpp"

#include <mutex>
#include <string>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

class Queries : public ReaderTest {
 protected:
  void SetUp() override {
    name_ = std::string("queries/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    auto owned = std::make_unique<QORVANE_MP4PARSE>();
    target = owned.get();
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.emplace(name_, std::move(owned));
  }
  void TearDown() override {
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.erase(name_);
  }
  const char* client() const { return name_.c_str(); }
  // Major brand, minor version and compatible brands, read through the query.
  std::vector<std::string> file_type() {
    QORVANE_HDRFTYP ftyp;
    std::memset(&ftyp, 0xAB, sizeof ftyp);
    EXPECT_TRUE(Boxlane_Parse_GetFTyp(client(), &ftyp));
    std::vector<std::string> out{ftyp.tszMajorBrand, std::to_string(ftyp.nMinorVersion)};
    out.insert(out.end(), ftyp.pptszCompatibleBrand, ftyp.pptszCompatibleBrand + ftyp.nBrandCount);
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    return out;
  }

  std::string name_;
};

using Strings = std::vector<std::string>;

TEST_F(Queries, FileType) {
  EXPECT_EQ(file_type(), (Strings{"", "0"}));
  ASSERT_TRUE(feed_ftyp(Bytes{}.str("isom").u32(512)));
  EXPECT_EQ(file_type(), (Strings{"isom", "512"}));

  // Rows of 8 bytes, each brand NUL-terminated: four brands, one with a zero
  // third byte; two trailing bytes are no brand.
  ASSERT_TRUE(feed_ftyp(Bytes{}.str("mp42").u32(1).str("isom").str("av").u16(0).str("mp41").str("dash").u16(0x6162)));
  EXPECT_EQ(file_type(), (Strings{"mp42", "1", "isom", "av", "mp41", "dash"}));
  // Too short for major brand and version: nothing changes.
  EXPECT_TRUE(feed_ftyp(Bytes{}.str("qt  ").u16(1)));
  EXPECT_EQ(file_type(), (Strings{"mp42", "1", "isom", "av", "mp41", "dash"}));

  QORVANE_HDRFTYP ftyp;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFTyp("queries/nobody", &ftyp), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFTyp(client(), nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
}

TEST_F(Queries, TrackSlotsAndInfo) {
  make_track(1);
  ASSERT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("vide").zeros(12).str("V").u8(0)));
  make_track(2);
  make_track(12);
  make_track(0x80000000u);
  int32_t slots[10];
  std::fill(std::begin(slots), std::end(slots), -7);
  ASSERT_TRUE(Boxlane_Parse_GetTrack(client(), slots));
  EXPECT_EQ(std::vector<int32_t>(std::begin(slots), std::end(slots)), (std::vector<int32_t>{-7, 1, 2, -7, -7, -7, -7, -7, -7, -7}));

  EXPECT_TRUE(Boxlane_Parse_GetTrackInfo(client(), 1, nullptr, nullptr, nullptr, nullptr));
  QORVANE_HDRTKHD tkhd{};
  QORVANE_HDRHDLR hdlr{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackInfo(client(), 1, &tkhd, nullptr, &hdlr, nullptr));
  EXPECT_EQ(tkhd.nTrackID, 1);
  EXPECT_STREQ(hdlr.tszHandlerType, "vide");
  EXPECT_STREQ(hdlr.tszName, "V");
  ASSERT_TRUE(Boxlane_Parse_GetTrackInfo(client(), INT32_MIN, &tkhd, nullptr, nullptr, nullptr));
  EXPECT_EQ(tkhd.nTrackID, INT32_MIN);

  tkhd.nTrackID = 99;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackInfo(client(), 3, &tkhd, nullptr, nullptr, nullptr), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_EQ(tkhd.nTrackID, 99);
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrack("queries/nobody", slots), BOXLANE_ERROR_PARSE_NOTFOUND));
}

TEST_F(Queries, SampleLists) {
  make_track(1);
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STts, Bytes{}.full(0, 0).u32(2).u32(3).u32(1000).u32(1).u32(500)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_CTts, Bytes{}.full(1, 0).u32(1).u32(1).u32(uint32_t(-2))));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(1024).u32(10)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(2).u32(1).u32(31)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).u8(0x20).u8(0x18)));

  EXPECT_EQ(values(table(client(), 1, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS)), (Infos{{3, 1000, 0}, {1, 500, 0}}));
  EXPECT_EQ(values(table(client(), 1, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS)), (Infos{{1, 4294967294u, 0}}));
  // An empty list (constant sample size) comes back with count 0.
  EXPECT_TRUE(table(client(), 1, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ).empty());

  // Codes that name no table succeed and touch neither out-parameter.
  int32_t count = 0;
  QORVANE_HDRSAMPLENFO** list = nullptr;
  auto* const sentinel = reinterpret_cast<QORVANE_HDRSAMPLENFO**>(&count);
  for (auto code : {ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP,
                    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN}) {
    list = sentinel;
    count = 77;
    EXPECT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, code));
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    EXPECT_TRUE(list == sentinel && count == 77) << code;
  }

  // Asking twice gives equal arrays: the lists are copied, never drained.
  for (int round = 0; round < 2; ++round) {
    const ParsedTrack t = parsed_tracks(client())[0];
    EXPECT_EQ(t.stss, (std::vector<int32_t>{1, 31}));
    EXPECT_EQ(t.sdtp, (std::vector<uint8_t>{0x20, 0x18}));
  }

  list = sentinel;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackList(client(), 2, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS),
                         BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_EQ(list, sentinel);
  int32_t** keys = nullptr;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackKey("queries/nobody", 1, &keys, &count), BOXLANE_ERROR_PARSE_NOTFOUND));
}

TEST_F(Queries, CodecInfoAndTruncation) {
  make_track(1);
  BOXLANE_CODECINFO info;
  std::memset(&info, 0xCD, sizeof info);
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_EQ(info.tszCodec[0], 0);
  EXPECT_EQ(info.nSPSCount, 0);
  EXPECT_FALSE(info.bTruncated);

  // Parameter sets go back to back; more than fit are dropped whole and flagged.
  BOXLANE_TRACKCODEC& codec = track(1).stCodec;
  std::copy_n("avc1", 4, codec.tszCodec);
  codec.wWidth = 160;
  codec.stl_ListSPS = {{0x67, 0x42}, std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 3, 0x11), {0x67, 0x43}};
  for (int i = 0; i < 40; ++i) codec.stl_ListPPS.push_back({0x68});
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_STREQ(info.tszCodec, "avc1");
  EXPECT_EQ((Ints{info.wWidth, info.nSPSCount, info.wSPSLen[0], info.wSPSLen[1], info.nPPSCount, info.bTruncated}),
            (Ints{160, 2, 2, BOXLANE_CODEC_PARAMSET_BYTES - 3, 1, true}));
  EXPECT_EQ((Ints{info.byParamSets[0], info.byParamSets[2], info.byParamSets[BOXLANE_CODEC_PARAMSET_BYTES - 1]}),
            (Ints{0x67, 0x11, 0x68}));

  codec.stl_ListSPS.resize(1);
  codec.stl_ListPPS.resize(40);
  codec.stl_AudioCfg.assign(BOXLANE_CODEC_AUDIOCFG_BYTES, 0x12);
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_EQ(info.nPPSCount, BOXLANE_CODEC_MAX_PARAMSETS);
  EXPECT_EQ(info.nAudioCfgLen, BOXLANE_CODEC_AUDIOCFG_BYTES);
  EXPECT_TRUE(info.bTruncated);
  codec.stl_ListPPS.resize(BOXLANE_CODEC_MAX_PARAMSETS);
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_FALSE(info.bTruncated);
  codec.stl_AudioCfg.push_back(0x13);
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_TRUE(info.bTruncated);
  EXPECT_EQ(info.byAudioCfg[BOXLANE_CODEC_AUDIOCFG_BYTES - 1], 0x12);

  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackCodec(client(), 5, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
}

}  // namespace
}  // namespace boxlane::test
