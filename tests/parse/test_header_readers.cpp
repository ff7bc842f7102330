// Header box readers on hand-built payloads: field offsets of both versions,
// the track table's creation rules, and boxes cut short or holding oversized
// strings.
#include "reader_fixture.hpp"

#include <string>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

class HeaderReaders : public ReaderTest {};

TEST_F(HeaderReaders, FileTypeBrands) {
  EXPECT_TRUE(feed_ftyp(Bytes{}.str("isom").u32(512)));
  EXPECT_STREQ(record.stFTyp.tszMajorBrand, "isom");
  EXPECT_EQ(record.stFTyp.nMinorVersion, 512u);
  EXPECT_TRUE(record.stl_ListBrand.empty());

  // Four brands, one with a zero third byte; two trailing bytes are no brand.
  EXPECT_TRUE(feed_ftyp(Bytes{}.str("mp42").u32(1).str("isom").str("av").u16(0).str("mp41").str("dash").u16(0x6162)));
  EXPECT_STREQ(record.stFTyp.tszMajorBrand, "mp42");
  EXPECT_EQ(record.stFTyp.nMinorVersion, 1u);
  EXPECT_EQ(record.stl_ListBrand, (std::vector<std::string>{"isom", "av", "mp41", "dash"}));

  // Too short for major brand and version: nothing changes.
  EXPECT_TRUE(feed_ftyp(Bytes{}.str("qt  ").u16(1)));
  EXPECT_STREQ(record.stFTyp.tszMajorBrand, "mp42");
  EXPECT_EQ(record.stl_ListBrand.size(), 4u);
}

TEST_F(HeaderReaders, MovieHeaderBothVersions) {
  Bytes v0;
  v0.full(0, 0).u32(1).u32(2).u32(1000).u32(5000).u32(0x00010000).u16(0x0100).zeros(10).zeros(36).zeros(24).u32(3);
  ASSERT_EQ(v0.size(), 100u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v0));
  EXPECT_EQ(record.stMVhd.nTimeScale, 1000u);
  EXPECT_EQ(record.stMVhd.nDuration, 5000u);
  EXPECT_EQ(record.stMVhd.nRate, 0x00010000u);
  EXPECT_EQ(record.stMVhd.wVolume, 0x0100);
  EXPECT_EQ(record.stMVhd.nNextTrackID, 3u);

  Bytes v1;
  v1.full(1, 0).u64(0x100000001ull).u64(0x100000002ull).u32(90000).u64(0x100000005ull).u32(0x00020000).u16(0x0080);
  v1.zeros(10 + 36 + 24).u32(7);
  ASSERT_EQ(v1.size(), 112u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v1));
  EXPECT_EQ(hdr().byVersion, 1);
  EXPECT_EQ(record.stMVhd.nCreateTime, 0x100000001ull);
  EXPECT_EQ(record.stMVhd.nDuration, 0x100000005ull);
  EXPECT_EQ(record.stMVhd.nTimeScale, 90000u);
  EXPECT_EQ(record.stMVhd.nNextTrackID, 7u);

  // One byte short of next_track_ID: version and flags only.
  v0[0] = 0;
  v0[3] = 9;
  v0.pop_back();
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v0));
  EXPECT_EQ(hdr().byFlags[2], 9);
  EXPECT_EQ(record.stMVhd.nTimeScale, 90000u);
}

TEST_F(HeaderReaders, TrackHeaderMakesAndSelectsTracks) {
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0x05000000, 0x02D00000)));
  EXPECT_EQ(hdr().byFlags[2], 7);
  EXPECT_EQ(record.nCurrentTrack, 1);
  const QORVANE_HDRTKHD& t1 = track(1).stTKhd;
  EXPECT_EQ(t1.nTrackID, 1);
  EXPECT_EQ(t1.nWidth, 1280);
  EXPECT_EQ(t1.nHeight, 720);
  EXPECT_EQ(t1.nDuration, 0x33u);
  EXPECT_EQ(t1.wLayer, 1);
  EXPECT_EQ(t1.wAlternateGroup, 2);
  EXPECT_EQ(t1.wVolume, 0x0100);

  // Version 1 with a negative 16.16 width (the shift keeps the sign).
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(2, 0xFFFF0000, 0x00018000, 1)));
  EXPECT_EQ(record.nCurrentTrack, 2);
  EXPECT_EQ(track(2).stTKhd.nDuration, 0x1000000033ull);
  EXPECT_EQ(track(2).stTKhd.nModifyTime, 0x1000000022ull);
  EXPECT_EQ(track(2).stTKhd.nWidth, -1);
  EXPECT_EQ(track(2).stTKhd.nHeight, 1);

  // The same id again keeps the first values and tables, and is current again.
  track(1).stl_ListSTss.push_back(5);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0x01000000, 0)));
  EXPECT_EQ(record.nCurrentTrack, 1);
  EXPECT_EQ(track(1).stTKhd.nWidth, 1280);
  EXPECT_EQ(track(1).stl_ListSTss.size(), 1u);

  // Ids of 2^31 and more are keyed negative.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(0x80000001u)));
  EXPECT_EQ(record.nCurrentTrack, INT32_MIN + 1);
  EXPECT_EQ(track(INT32_MIN + 1).stTKhd.nTrackID, INT32_MIN + 1);

  // A tkhd cut before its height neither makes a track nor switches to it.
  Bytes cut = tkhd_payload(9);
  cut.pop_back();
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, cut));
  EXPECT_EQ(record.stl_MapTrack->count(9), 0u);
  EXPECT_EQ(record.nCurrentTrack, INT32_MIN + 1);
  EXPECT_EQ(record.stl_MapTrack->size(), 3u);
}

TEST_F(HeaderReaders, TrackReadersNeedATrack) {
  const Bytes payload = Bytes{}.full(1, 0x010203).zeros(120);
  for (Reader reader : {&P::Boxlane_Parse_MDhd, &P::Boxlane_Parse_HDlr, &P::Boxlane_Parse_VMhd, &P::Boxlane_Parse_SMhd,
                        &P::Boxlane_Parse_Dinf, &P::Boxlane_Parse_STsd}) {
    EXPECT_FALSE(feed(reader, payload));
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    EXPECT_EQ(hdr().byVersion, 0);
    EXPECT_EQ(hdr().byFlags[0], 0);
  }
  EXPECT_TRUE(record.stl_MapTrack->empty());
}

TEST_F(HeaderReaders, MediaHeaderAndMediaInformation) {
  make_track(1);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(48000).u32(96000).u16(0x55C4).u16(0)));
  EXPECT_EQ(track(1).stMDhd.nTimeScale, 48000u);
  EXPECT_EQ(track(1).stMDhd.nDuration, 96000u);
  EXPECT_EQ(track(1).stMDhd.wLanguage, 0x55C4);

  Bytes v1;
  v1.full(1, 0).u64(0x200000001ull).u64(0x200000002ull).u32(600).u64(0x200000003ull).u16(0x15C7).u16(0);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, v1));
  EXPECT_EQ(track(1).stMDhd.nCreateTime, 0x200000001ull);
  EXPECT_EQ(track(1).stMDhd.nModifyTime, 0x200000002ull);
  EXPECT_EQ(track(1).stMDhd.nTimeScale, 600u);
  EXPECT_EQ(track(1).stMDhd.nDuration, 0x200000003ull);
  EXPECT_EQ(track(1).stMDhd.wLanguage, 0x15C7);

  // Cut inside the language field: the earlier values stay.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(1).u32(1).u8(0)));
  EXPECT_EQ(track(1).stMDhd.nTimeScale, 600u);

  EXPECT_TRUE(feed(&P::Boxlane_Parse_VMhd, Bytes{}.full(0, 1).u16(0x40).u16(1).u16(2).u16(3)));
  EXPECT_EQ(hdr().byFlags[2], 1);
  EXPECT_EQ(track(1).stVMSMhd.wGraphicsMode, 0x40);
  EXPECT_EQ(track(1).stVMSMhd.wOpColor[2], 3);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SMhd, Bytes{}.full(0, 0).u16(0xFF80).u16(0)));
  EXPECT_EQ(track(1).stVMSMhd.wBalance, 0xFF80);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SMhd, Bytes{}.full(0, 0).u8(1)));
  EXPECT_EQ(track(1).stVMSMhd.wBalance, 0xFF80);
}

TEST_F(HeaderReaders, HandlerNames) {
  make_track(1);
  auto hdlr = [](std::string_view type, const std::vector<uint8_t>& name) {
    return Bytes{}.full(0, 0).u32(0).str(type).zeros(12).add(name);
  };
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("vide", Bytes{}.str("VideoHandler").u8(0))));
  EXPECT_STREQ(track(1).stHDlr.tszHandlerType, "vide");
  EXPECT_STREQ(track(1).stHDlr.tszName, "VideoHandler");

  // A name longer than the field: 1023 bytes and a terminator.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("soun", Bytes{}.str(std::string(3000, 'n')))));
  EXPECT_STREQ(track(1).stHDlr.tszHandlerType, "soun");
  EXPECT_EQ(std::string(track(1).stHDlr.tszName), std::string(1023, 'n'));

  // A short name overwrites only its own bytes, its NUL included.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("vide", Bytes{}.str("ab").u8(0))));
  EXPECT_STREQ(track(1).stHDlr.tszName, "ab");
  EXPECT_EQ(track(1).stHDlr.tszName[3], 'n');

  // Shorter than the fixed 24 bytes: nothing, not even the handler type.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("meta").zeros(11)));
  EXPECT_STREQ(track(1).stHDlr.tszHandlerType, "vide");
}

TEST_F(HeaderReaders, DataReferences) {
  make_track(1);
  auto dinf = [](uint32_t count, const std::vector<uint8_t>& entries) {
    return box("dref", Bytes{}.full(0, 0x000102).u32(count).add(entries));
  };
  const Bytes url = full_box("url ", 0, 0, Bytes{}.str("http://x/a.mp4").u8(0).str("junk"));
  const Bytes self = full_box("url ", 0, 1);
  const Bytes urn = full_box("urn ", 0, 0, Bytes{}.str("urn:a").u8(0).str("loc").u8(0));
  const Bytes unterminated = full_box("url ", 0, 0, Bytes{}.str(std::string(2000, 'u')));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(4, cat({url, self, urn, unterminated}))));
  EXPECT_EQ(hdr().byFlags[1], 1);
  EXPECT_EQ(hdr().byFlags[2], 2);
  EXPECT_EQ(track(1).stl_ListDinf, (std::vector<std::string>{"http://x/a.mp4", "urn:a", std::string(1023, 'u')}));

  // The walk ends at a size below 8 (0 included), at an entry past the
  // payload, and at the payload's end whatever the count says.
  track(1).stl_ListDinf.clear();
  const Bytes short_url = full_box("url ", 0, 0, Bytes{}.str("s").u8(0));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(3, cat({short_url, box("url ", {}, 0), short_url}))));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(2, cat({short_url, box("url ", Bytes{}.str("abcd"), 64)}))));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(0x7FFFFFFF, short_url)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(1, Bytes{}.u16(0))));
  EXPECT_EQ(track(1).stl_ListDinf, (std::vector<std::string>{"s", "s", "s"}));
}

}  // namespace
}  // namespace boxlane::test
