// The queries over a client whose record sits in the parser's client table and
// is filled by the readers: what they copy out, what they leave untouched,
// and how they fail.
#include "reader_fixture.hpp"

#include <mutex>
#include <string>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

class Queries : public ReaderTest {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    name_ = std::string("queries/") + info->name();
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
  static void expect_not_found() {
    EXPECT_TRUE(Boxlane_IsErrorOccur);
    EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_NOTFOUND});
  }

  std::string name_;
};

TEST_F(Queries, FileType) {
  QORVANE_HDRFTYP ftyp;
  std::memset(&ftyp, 0xAB, sizeof ftyp);
  ASSERT_TRUE(Boxlane_Parse_GetFTyp(client(), &ftyp));
  EXPECT_EQ(ftyp.tszMajorBrand[0], 0);
  EXPECT_EQ(ftyp.nBrandCount, 0);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), 0);

  // Rows of 8 bytes, each brand NUL-terminated, a 2-character one included.
  ASSERT_TRUE(feed_ftyp(Bytes{}.str("isom").u32(512).str("mp41").str("av").u16(0)));
  ASSERT_TRUE(Boxlane_Parse_GetFTyp(client(), &ftyp));
  EXPECT_STREQ(ftyp.tszMajorBrand, "isom");
  ASSERT_EQ(ftyp.nBrandCount, 2);
  EXPECT_STREQ(ftyp.pptszCompatibleBrand[0], "mp41");
  EXPECT_STREQ(ftyp.pptszCompatibleBrand[1], "av");
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);

  EXPECT_FALSE(Boxlane_Parse_GetFTyp("queries/nobody", &ftyp));
  expect_not_found();
  EXPECT_FALSE(Boxlane_Parse_GetFTyp(client(), nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PARSE_PARAMETER});
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
  EXPECT_FALSE(Boxlane_Parse_GetTrackInfo(client(), 3, &tkhd, nullptr, nullptr, nullptr));
  expect_not_found();
  EXPECT_EQ(tkhd.nTrackID, 99);
  EXPECT_FALSE(Boxlane_Parse_GetTrack("queries/nobody", slots));
  expect_not_found();
}

TEST_F(Queries, SampleLists) {
  make_track(1);
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STts, Bytes{}.full(0, 0).u32(2).u32(3).u32(1000).u32(1).u32(500)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_CTts, Bytes{}.full(1, 0).u32(1).u32(1).u32(uint32_t(-2))));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(1024).u32(10)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(2).u32(1).u32(31)));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).u8(0x20).u8(0x18)));

  QORVANE_HDRSAMPLENFO** list = nullptr;
  int32_t count = -1;
  ASSERT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS));
  ASSERT_EQ(count, 2);
  EXPECT_EQ(list[0]->nValue1, 3u);
  EXPECT_EQ(list[0]->nValue2, 1000u);
  EXPECT_EQ(list[1]->nValue1, 1u);
  EXPECT_EQ(list[1]->nValue2, 500u);
  EXPECT_EQ(list[1]->nValue3, 0u);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);

  ASSERT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS));
  ASSERT_EQ(count, 1);
  EXPECT_EQ(list[0]->nValue2, 4294967294u);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);

  // An empty list (constant sample size) comes back with count 0.
  ASSERT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ));
  EXPECT_EQ(count, 0);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);

  // Codes that name no table succeed and touch neither out-parameter.
  auto* const sentinel = reinterpret_cast<QORVANE_HDRSAMPLENFO**>(&count);
  for (auto code : {ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP,
                    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSD, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN}) {
    list = sentinel;
    count = 77;
    EXPECT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, code));
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    EXPECT_EQ(list, sentinel);
    EXPECT_EQ(count, 77);
  }

  int32_t** keys = nullptr;
  ASSERT_TRUE(Boxlane_Parse_GetTrackKey(client(), 1, &keys, &count));
  ASSERT_EQ(count, 2);
  EXPECT_EQ(*keys[1], 31);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&keys), count);

  // Asking twice gives equal arrays: the lists are copied, never drained.
  for (int round = 0; round < 2; ++round) {
    QORVANE_HDRSDTP** sdtp = nullptr;
    ASSERT_TRUE(Boxlane_Parse_GetTrackSDtp(client(), 1, &sdtp, &count));
    ASSERT_EQ(count, 2);
    EXPECT_EQ(sdtp[0]->bySampleFlags, 0x20);
    EXPECT_EQ(sdtp[1]->bySampleFlags, 0x18);
    Fundrel_Memory_Free(reinterpret_cast<void***>(&sdtp), count);
  }

  list = sentinel;
  EXPECT_FALSE(Boxlane_Parse_GetTrackList(client(), 2, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS));
  expect_not_found();
  EXPECT_EQ(list, sentinel);
  EXPECT_FALSE(Boxlane_Parse_GetTrackKey("queries/nobody", 1, &keys, &count));
  expect_not_found();
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
  EXPECT_EQ(info.wWidth, 160);
  ASSERT_EQ(info.nSPSCount, 2);
  EXPECT_EQ(info.wSPSLen[0], 2);
  EXPECT_EQ(info.wSPSLen[1], BOXLANE_CODEC_PARAMSET_BYTES - 3);
  EXPECT_EQ(info.nPPSCount, 1);
  EXPECT_EQ(info.byParamSets[0], 0x67);
  EXPECT_EQ(info.byParamSets[2], 0x11);
  EXPECT_EQ(info.byParamSets[BOXLANE_CODEC_PARAMSET_BYTES - 1], 0x68);
  EXPECT_TRUE(info.bTruncated);

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

  EXPECT_FALSE(Boxlane_Parse_GetTrackCodec(client(), 5, &info));
  expect_not_found();
}

}  // namespace
}  // namespace boxlane::test
