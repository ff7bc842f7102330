// Header box readers on hand-built payloads: field offsets of both versions,
// the track table's creation rules, and boxes cut short or holding oversized
// strings. The ftyp reader is checked through its query in test_queries.cpp.
#include "reader_fixture.hpp"

#include <string>
#include <tuple>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

class HeaderReaders : public ReaderTest {};

TEST_F(HeaderReaders, MovieHeaderBothVersions) {
  const QORVANE_HDRMVHD& m = record.stMVhd;
  Bytes v0;
  v0.full(0, 0).u32(1).u32(2).u32(1000).u32(5000).u32(0x00010000).u16(0x0100).zeros(10).zeros(36).zeros(24).u32(3);
  ASSERT_EQ(v0.size(), 100u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v0));
  EXPECT_EQ(std::tuple(m.nTimeScale, m.nDuration, m.nRate, m.wVolume, m.nNextTrackID),
            std::tuple(1000u, uint64_t{5000}, 0x00010000u, uint16_t{0x0100}, 3u));

  Bytes v1;
  v1.full(1, 0).u64(0x100000001ull).u64(0x100000002ull).u32(90000).u64(0x100000005ull).u32(0x00020000).u16(0x0080);
  v1.zeros(10 + 36 + 24).u32(7);
  ASSERT_EQ(v1.size(), 112u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v1));
  EXPECT_EQ(hdr().byVersion, 1);
  EXPECT_EQ(std::tuple(m.nCreateTime, m.nDuration, m.nTimeScale, m.nNextTrackID),
            std::tuple(uint64_t{0x100000001}, uint64_t{0x100000005}, 90000u, 7u));

  // One byte short of next_track_ID: version and flags only.
  v0[0] = 0;
  v0[3] = 9;
  v0.pop_back();
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, v0));
  EXPECT_EQ(hdr().byFlags[2], 9);
  EXPECT_EQ(m.nTimeScale, 90000u);
}

TEST_F(HeaderReaders, TrackHeaderMakesAndSelectsTracks) {
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0x05000000, 0x02D00000)));
  EXPECT_EQ(hdr().byFlags[2], 7);
  EXPECT_EQ(record.nCurrentTrack, 1);
  const QORVANE_HDRTKHD& t1 = track(1).stTKhd;
  EXPECT_EQ(std::tuple(t1.nTrackID, t1.nWidth, t1.nHeight, t1.nDuration, t1.wLayer, t1.wAlternateGroup, t1.wVolume),
            std::tuple(1, 1280, 720, uint64_t{0x33}, uint16_t{1}, uint16_t{2}, uint16_t{0x0100}));

  // Version 1 with a negative 16.16 width (the shift keeps the sign).
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(2, 0xFFFF0000, 0x00018000, 1)));
  EXPECT_EQ(record.nCurrentTrack, 2);
  const QORVANE_HDRTKHD& t2 = track(2).stTKhd;
  EXPECT_EQ(std::tuple(t2.nDuration, t2.nModifyTime, t2.nWidth, t2.nHeight),
            std::tuple(uint64_t{0x1000000033}, uint64_t{0x1000000022}, -1, 1));

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
  EXPECT_EQ(record.nCurrentTrack, INT32_MIN + 1);
  EXPECT_EQ(record.stl_MapTrack->size(), 3u);
}

TEST_F(HeaderReaders, TrackReadersNeedATrack) {
  const Bytes payload = Bytes{}.full(1, 0x010203).u32(1).u32(1).u32(1).u32(1).zeros(120);
  for (Reader reader : {&P::Boxlane_Parse_MDhd, &P::Boxlane_Parse_HDlr, &P::Boxlane_Parse_VMhd, &P::Boxlane_Parse_SMhd,
                        &P::Boxlane_Parse_Dinf, &P::Boxlane_Parse_STsd, &P::Boxlane_Parse_STts, &P::Boxlane_Parse_CTts,
                        &P::Boxlane_Parse_STsc, &P::Boxlane_Parse_STsz, &P::Boxlane_Parse_STco, &P::Boxlane_Parse_STss,
                        &P::Boxlane_Parse_SDtp}) {
    EXPECT_FALSE(feed(reader, payload));
    EXPECT_FALSE(Boxlane_IsErrorOccur);
    EXPECT_EQ(hdr().byVersion, 0);
    EXPECT_EQ(hdr().byFlags[0], 0);
  }
  EXPECT_TRUE(record.stl_MapTrack->empty());
}

TEST_F(HeaderReaders, MediaHeaderAndMediaInformation) {
  make_track(1);
  const QORVANE_HDRMDHD& m = track(1).stMDhd;
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(48000).u32(96000).u16(0x55C4).u16(0)));
  EXPECT_EQ(std::tuple(m.nTimeScale, m.nDuration, m.wLanguage), std::tuple(48000u, uint64_t{96000}, uint16_t{0x55C4}));

  Bytes v1;
  v1.full(1, 0).u64(0x200000001ull).u64(0x200000002ull).u32(600).u64(0x200000003ull).u16(0x15C7).u16(0);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, v1));
  EXPECT_EQ(std::tuple(m.nCreateTime, m.nModifyTime, m.nTimeScale, m.nDuration, m.wLanguage),
            std::tuple(uint64_t{0x200000001}, uint64_t{0x200000002}, 600u, uint64_t{0x200000003}, uint16_t{0x15C7}));

  // Cut inside the language field: the earlier values stay.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(1).u32(1).u8(0)));
  EXPECT_EQ(m.nTimeScale, 600u);

  EXPECT_TRUE(feed(&P::Boxlane_Parse_VMhd, Bytes{}.full(0, 1).u16(0x40).u16(1).u16(2).u16(3)));
  EXPECT_EQ(hdr().byFlags[2], 1);
  EXPECT_EQ(track(1).stVMSMhd.wGraphicsMode, 0x40);
  EXPECT_EQ(track(1).stVMSMhd.wOpColor[2], 3);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SMhd, Bytes{}.full(0, 0).u16(0xFF80).u16(0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SMhd, Bytes{}.full(0, 0).u8(1)));  // cut: kept
  EXPECT_EQ(track(1).stVMSMhd.wBalance, 0xFF80);
}

TEST_F(HeaderReaders, HandlerNames) {
  make_track(1);
  const QORVANE_HDRHDLR& h = track(1).stHDlr;
  auto hdlr = [](std::string_view type, const std::vector<uint8_t>& name) {
    return Bytes{}.full(0, 0).u32(0).str(type).zeros(12).add(name);
  };
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("vide", Bytes{}.str("VideoHandler").u8(0))));
  EXPECT_STREQ(h.tszHandlerType, "vide");
  EXPECT_STREQ(h.tszName, "VideoHandler");

  // A name longer than the field: 1023 bytes and a terminator.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("soun", Bytes{}.str(std::string(3000, 'n')))));
  EXPECT_STREQ(h.tszHandlerType, "soun");
  EXPECT_EQ(std::string(h.tszName), std::string(1023, 'n'));

  // A short name overwrites only its own bytes, its NUL included.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("vide", Bytes{}.str("ab").u8(0))));
  EXPECT_STREQ(h.tszName, "ab");
  EXPECT_EQ(h.tszName[3], 'n');

  // Shorter than the fixed 24 bytes: nothing, not even the handler type.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("meta").zeros(11)));
  EXPECT_STREQ(h.tszHandlerType, "vide");
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
