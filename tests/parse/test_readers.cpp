// The box readers on hand-built payloads. Header boxes: field offsets of both
// versions, the track table's creation rules, and boxes cut short or holding
// oversized strings (the ftyp reader is checked through its query). Sample
// tables (stz2, co64, trex and mehd of the extended mode too): entries kept as
// stored, counts that lie about the payload. Descriptions: the codec data of
// avc1/avcC, hvc1/hvcC and mp4a/esds entries. Then the queries over the record
// the readers fill: what they copy out, what they leave untouched, how they fail.
#include "reader_fixture.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <sstream>
#include <string>
#include <tuple>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;

using HeaderReaders = ReaderTest;
using SampleReaders = ReaderTest;
using Queries = ReaderTest;
using Strings = std::vector<std::string>;

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
                        &P::Boxlane_Parse_SDtp, &P::Boxlane_Parse_CO64, &P::Boxlane_Parse_STz2}) {
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
  // The language is handed out raw, its pad bit included.
  v1.full(1, 0).u64(0x200000001ull).u64(0x200000002ull).u32(600).u64(0x200000003ull).u16(0x95C7).u16(0);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, v1));
  EXPECT_EQ(std::tuple(m.nCreateTime, m.nModifyTime, m.nTimeScale, m.nDuration, m.wLanguage),
            std::tuple(uint64_t{0x200000001}, uint64_t{0x200000002}, 600u, uint64_t{0x200000003}, uint16_t{0x95C7}));

  // Cut inside the language field: the earlier values stay; without
  // pre_defined: read.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(1).u32(1).u8(0)));
  EXPECT_EQ(m.nTimeScale, 600u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(3).u32(4).u16(0x15C7)));
  EXPECT_EQ(std::tuple(m.nTimeScale, m.nDuration, m.wLanguage), std::tuple(3u, uint64_t{4}, uint16_t{0x15C7}));

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

  // Shorter than the fixed 24 bytes: nothing, not even the handler type;
  // exactly 24, no name: the type.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("meta").zeros(11)));
  EXPECT_STREQ(h.tszHandlerType, "vide");
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("text").zeros(12)));
  EXPECT_STREQ(h.tszHandlerType, "text");
  EXPECT_STREQ(h.tszName, "ab");
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

// The tables as stored, read back through the list queries, which copy
// and never drain them.
TEST_F(SampleReaders, TablesKeepEntriesAsStored) {
  make_track(1);
  const auto listed = [&](ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code) { return values(table(client(), 1, code)); };
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STts, Bytes{}.full(0, 0).u32(2).u32(3).u32(1000).u32(1).u32(500)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_CTts, Bytes{}.full(1, 0).u32(2).u32(1).u32(uint32_t(-2)).u32(4).u32(2048)));
  EXPECT_EQ(hdr().byVersion, 1);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsc, Bytes{}.full(0, 0).u32(2).u32(1).u32(5).u32(1).u32(3).u32(2).u32(1)));
  // A constant sample size leaves the list alone whatever the count, and
  // whatever bytes follow it.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(1024).u32(10).u32(5).u32(6)));
  EXPECT_TRUE(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ).empty());
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsz, Bytes{}.full(0, 0).u32(0).u32(3).u32(7).u32(8).u32(9)));
  // A second box for the track appends.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, Bytes{}.full(0, 0).u32(2).u32(48).u32(0xFFFFFFF0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, Bytes{}.full(0, 0).u32(1).u32(96)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STss, Bytes{}.full(0, 0).u32(2).u32(1).u32(0x80000000)));
  // sdtp: box size 12 gives nothing, 15 gives three bytes.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).u8(0x20).u8(0x10).u8(0xA6)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{0, 0}));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS), (Infos{{3, 1000, 0}, {1, 500, 0}}));
    EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS), (Infos{{1, 4294967294u, 0}, {4, 2048, 0}}));
    EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC), (Infos{{1, 5, 1}, {3, 2, 1}}));
    EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ), (Infos{{7, 0, 0}, {8, 0, 0}, {9, 0, 0}}));
    EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO), (Infos{{48, 0, 0}, {0xFFFFFFF0, 0, 0}, {96, 0, 0}}));
    int32_t count = 0;
    int32_t** keys = nullptr;
    QORVANE_HDRSDTP** sdtp = nullptr;
    ASSERT_TRUE(Boxlane_Parse_GetTrackKey(client(), 1, &keys, &count));
    EXPECT_EQ(take_list(keys, count), (std::vector<int32_t>{1, INT32_MIN}));
    ASSERT_TRUE(Boxlane_Parse_GetTrackSDtp(client(), 1, &sdtp, &count));
    std::vector<int> flags;
    for (const QORVANE_HDRSDTP& f : take_list(sdtp, count)) flags.push_back(f.bySampleFlags);
    EXPECT_EQ(flags, (std::vector<int>{0x20, 0x10, 0xA6}));
  }

  // Codes that name no table succeed and touch neither out-parameter.
  int32_t count = 77;
  QORVANE_HDRSAMPLENFO** list = nullptr;
  auto* const sentinel = reinterpret_cast<QORVANE_HDRSAMPLENFO**>(&count);
  for (auto code : {ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_SDTP,
                    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_UNKNOWN}) {
    list = sentinel;
    EXPECT_TRUE(Boxlane_Parse_GetTrackList(client(), 1, &list, &count, code));
    EXPECT_TRUE(list == sentinel && count == 77 && !Boxlane_IsErrorOccur) << code;
  }
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackList(client(), 2, &list, &count, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS),
                         BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_EQ(list, sentinel);
  int32_t** keys = nullptr;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackKey("queries/nobody", 1, &keys, &count), BOXLANE_ERROR_PARSE_NOTFOUND));
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

Bytes visual_entry(const char* type, uint16_t width, uint16_t height, const std::vector<uint8_t>& children) {
  Bytes fixed;
  fixed.zeros(6).u16(1).zeros(16).u16(width).u16(height).u32(0x00480000).u32(0x00480000).u32(0).u16(1).zeros(32)
      .u16(0x18).u16(0xFFFF);
  return box(type, cat({fixed, children}));
}

const Bytes kColr = box("colr", Bytes{}.str("nclx").u16(1).u16(1).u16(1).u8(0));

// An avc1 entry whose children are a colr box and the avcC.
Bytes avc1_entry(const std::vector<uint8_t>& avcc, uint16_t width = 320, uint16_t height = 240) {
  return visual_entry("avc1", width, height, cat({kColr, box("avcC", avcc)}));
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
  fixed.zeros(sound_version == 1 ? 16 : sound_version == 2 ? 36 : 0);
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

  // QuickTime sound descriptions of version 1 and 2 move the esds 16 and 36
  // bytes on; one-byte sizes and no optional fields.
  const std::vector<uint8_t> plain = unhex("03 19 0002 00 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02");
  for (const uint16_t version : {1, 2}) {
    make_track(2 + 10 * version);
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(plain, version))));
    EXPECT_EQ(track(2 + 10 * version).stCodec.nMaxBitrate, 128000u) << version;
    EXPECT_EQ(track(2 + 10 * version).stCodec.stl_AudioCfg, (std::vector<uint8_t>{0x11, 0x90})) << version;
  }

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

TEST_F(SampleReaders, HevcDescription) {
  make_track(1);
  // A complete VPS array of one unit, an incomplete SPS array of two, and a
  // prefix SEI array with an empty unit, which is no parameter set.
  Bytes arrays;
  arrays.u8(0x80 | 32).u16(1).u16(3).add({0x40, 0x01, 0x0C});
  arrays.u8(33).u16(2).u16(2).add({0x42, 0x01}).u16(4).add({0x42, 0x01, 0x01, 0x02});
  arrays.u8(39).u16(2).u16(0).u16(1).add({0x4E});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 1920, 1080, cat({kColr, hvcc(arrays, 3)})))));

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

  // hev1, matched without regard to case; a unit that runs past the record
  // ends it, the one before it is kept; an array count past the record too.
  make_track(2);
  Bytes cut;
  cut.u8(0x80 | 33).u16(3).u16(2).add({0x42, 0x01}).u16(9).add({0x42, 0x01});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("HEV1", 640, 360, hvcc(cut, 7)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 2, &info));
  EXPECT_STREQ(info.tszCodec, "HEV1");
  EXPECT_EQ(nalus(info), "33c:42 01;");

  // More units than a query holds: the first 64, flagged; more bytes than it
  // holds: whole units only, flagged.
  make_track(3);
  Bytes many;
  many.u8(0x80 | 34).u16(70);
  for (int i = 0; i < 70; ++i) many.u16(2).add({0x44, uint8_t(i)});
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 64, 64, hvcc(many, 1)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 3, &info));
  EXPECT_EQ((Ints{info.nNaluCount, info.bTruncated, info.byNalus[2 * 63 + 1]}), (Ints{BOXLANE_HEVC_MAX_NALUS, 1, 63}));
  for (const uint16_t last : {100, 101}) {  // exactly the area, and one byte more
    make_track(7);
    Bytes edge;
    edge.u8(0x80 | 33).u16(2).u16(BOXLANE_CODEC_PARAMSET_BYTES - 100).add(std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 100, 7));
    edge.u16(last).add(std::vector<uint8_t>(last, 8));
    record.stl_MapTrack->at(7).stCodec = BOXLANE_TRACKCODEC{};
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 64, 64, hvcc(edge, 1)))));
    ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 7, &info));
    EXPECT_EQ((Ints{info.nNaluCount, info.bTruncated}), last == 100 ? (Ints{2, 0}) : (Ints{1, 1})) << last;
  }

  // An entry of another kind: zero but for fourcc and size.
  make_track(6);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("avc1", 320, 240, hvcc(arrays, 3)))));
  ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), 6, &info));
  EXPECT_STREQ(info.tszCodec, "avc1");
  EXPECT_EQ((Ints{info.byConfigurationVersion, info.nNaluCount}), (Ints{0, 0}));

  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 9, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 1, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC("nobody", 1, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
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
      {&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 64, 64, hvcc(Bytes{}.u8(33).u16(1).u16(2).u16(0x4201), 1)))},
      {&P::Boxlane_Parse_STz2, Bytes{}.full(0, 0).u24(0).u8(16).u32(3).u16(1).u16(2).u16(3)},
      {&P::Boxlane_Parse_TRex, Bytes{}.full(0, 0).u32(7).u32(1).u32(1024).u32(300).u32(0x02000000)},
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

// stz2 (§8.7.3.3) in every field size, counts past the payload, and a field
// size it does not know.
TEST_F(SampleReaders, CompactSizes) {
  make_track(1);
  const struct {
    uint8_t field;
    uint32_t count;
    Bytes entries;
    std::vector<uint32_t> want;
  } cases[] = {
      {4, 3, Bytes{0x12, 0x3F}, {1, 2, 3}},
      {4, 4, Bytes{0x12, 0x3F}, {1, 2, 3, 15}},
      {4, 9, Bytes{0xAB}, {10, 11}},
      {8, 2, Bytes{7, 255}, {7, 255}},
      {8, 3, Bytes{7, 255}, {7, 255}},
      {16, 2, Bytes{0x12, 0x34, 0xFF}, {0x1234}},
      {5, 2, Bytes{1, 2}, {}},
      {8, 0x80000000, Bytes{1, 2}, {}},
  };
  for (const auto& c : cases) {
    track(1).stl_ListSTsz.fields.clear();
    Bytes payload;
    payload.full(0, 0).u24(0).u8(c.field).u32(c.count).add(c.entries);
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STz2, payload));
    std::vector<uint32_t> got;
    for (const auto& e : values(track(1).stl_ListSTsz)) got.push_back(e[0]);
    EXPECT_EQ(got, c.want) << "field " << int(c.field) << ", count " << c.count;
    EXPECT_EQ(track(1).byCompactFieldSize, c.field);
  }
}

TEST_F(SampleReaders, LargeChunkOffsetsMovieExtendsAndTheirShortForms) {
  make_track(1);
  Bytes co64;
  co64.full(0, 0).u32(3).u64(0x123456789ull).u64(5);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_CO64, co64));
  EXPECT_EQ(values(track(1).stl_ListCO64), (Infos{{1, 0x23456789, 0}, {0, 5, 0}}));
  EXPECT_TRUE(track(1).bLargeOffsets);

  Bytes trex;
  trex.full(0, 0).u32(7).u32(1).u32(1024).u32(300).u32(0x02000000);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TRex, std::vector<uint8_t>(trex.begin(), trex.end() - 1)));
  EXPECT_TRUE(record.stl_MapTrex.empty());  // one byte short: nothing
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TRex, trex));
  const BOXLANE_TREX& kept = record.stl_MapTrex.at(7);
  EXPECT_EQ(std::make_tuple(kept.nDescriptionIndex, kept.nDuration, kept.nSize, kept.nFlags),
            std::make_tuple(1u, 1024u, 300u, 0x02000000u));

  EXPECT_TRUE(feed(&P::Boxlane_Parse_MEhd, Bytes{}.full(0, 0).u32(90000)));
  EXPECT_EQ(record.stStream.nFragmentDuration, 90000u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MEhd, Bytes{}.full(1, 0).u64(0x200000000ull)));
  EXPECT_EQ(hdr().byVersion, 1);
  EXPECT_EQ(record.stStream.nFragmentDuration, 0x200000000ull);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MEhd, Bytes{}.full(1, 0).u32(5)));  // too short for version 1
  EXPECT_EQ(record.stStream.nFragmentDuration, 0x200000000ull);
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

// Major brand, minor version and compatible brands, read through the query.
std::vector<std::string> file_type(const char* client) {
  QORVANE_HDRFTYP ftyp;
  std::memset(&ftyp, 0xAB, sizeof ftyp);
  EXPECT_TRUE(Boxlane_Parse_GetFTyp(client, &ftyp));
  std::vector<std::string> out{ftyp.tszMajorBrand, std::to_string(ftyp.nMinorVersion)};
  out.insert(out.end(), ftyp.pptszCompatibleBrand, ftyp.pptszCompatibleBrand + ftyp.nBrandCount);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
  return out;
}

TEST_F(Queries, FileType) {
  EXPECT_EQ(file_type(client()), (Strings{"", "0"}));
  ASSERT_TRUE(feed_ftyp(Bytes{}.str("isom").u32(512)));
  EXPECT_EQ(file_type(client()), (Strings{"isom", "512"}));

  // Rows of 8 bytes, each brand NUL-terminated: four brands, one with a zero
  // third byte; two trailing bytes are no brand.
  ASSERT_TRUE(feed_ftyp(Bytes{}.str("mp42").u32(1).str("isom").str("av").u16(0).str("mp41").str("dash").u16(0x6162)));
  EXPECT_EQ(file_type(client()), (Strings{"mp42", "1", "isom", "av", "mp41", "dash"}));
  // Too short for major brand and version: nothing changes.
  EXPECT_TRUE(feed_ftyp(Bytes{}.str("qt  ").u16(1)));
  EXPECT_EQ(file_type(client()), (Strings{"mp42", "1", "isom", "av", "mp41", "dash"}));

  QORVANE_HDRFTYP ftyp;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFTyp("queries/nobody", &ftyp), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFTyp(client(), nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
}

TEST_F(Queries, TrackSlotsAndInfo) {
  make_track(1);
  ASSERT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("vide").zeros(12).str("V").u8(0)));
  // The slots hold the ids 0 to 9, both ends included; 10 and others have none.
  for (const uint32_t id : {0u, 2u, 9u, 10u, 12u, 0x80000000u}) make_track(id);
  int32_t slots[10];
  std::fill(std::begin(slots), std::end(slots), -7);
  ASSERT_TRUE(Boxlane_Parse_GetTrack(client(), slots));
  EXPECT_EQ(std::vector<int32_t>(std::begin(slots), std::end(slots)), (std::vector<int32_t>{0, 1, 2, -7, -7, -7, -7, -7, -7, 9}));

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
