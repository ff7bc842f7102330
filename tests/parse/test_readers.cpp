// The box readers on payloads in exact allocations: both versions, the shortest box and one byte less, counts that
// lie; the queries.
#include "parse_fixtures.hpp"

#include <sstream>

namespace boxlane::test {
namespace {

using P = CBoxlane_Parse;
using Reader = bool (CBoxlane_Parse::*)(QORVANE_MP4PARSE*, BOXLANE_MSGBUFFER*, const uint8_t*, uint64_t);
using Infos = std::vector<std::array<uint32_t, 3>>;

// The record the readers fill is in the client table, so the queries see it.
class Readers : public ::testing::Test {
 protected:
  void SetUp() override {
    name_ = std::string("readers/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.emplace(name_, std::move(owned_));
  }
  void TearDown() override {
    std::unique_lock lock(m_MP4Parse.st_RWLocker);
    m_MP4Parse.stl_MapClient.erase(name_);
    boxlane::parse::note_deletion();
  }
  const char* client() const { return name_.c_str(); }
  // The ftyp reader when `reader` is null.
  bool feed(Reader reader, const std::vector<uint8_t>& payload) {
    entry = BOXLANE_MSGBUFFER{};
    auto exact = std::make_unique<uint8_t[]>(payload.size() ? payload.size() : 1);
    if (!payload.empty()) std::memcpy(exact.get(), payload.data(), payload.size());
    if (!reader) return m_MP4Parse.Boxlane_Parse_FTyp(&record, exact.get(), payload.size());
    return (m_MP4Parse.*reader)(&record, &entry, exact.get(), payload.size());
  }
  void make_track(uint32_t id) { ASSERT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(id))); }
  BOXLANE_TRACKINFO& track(int32_t id) { return record.stl_MapTrack->at(id); }
  const QORVANE_MP4HDR& hdr() const { return entry.st_MP4Hdr; }
  Infos listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code, int32_t id = 1) {
    QORVANE_HDRSAMPLENFO** list = nullptr;
    int32_t count = 0;
    EXPECT_TRUE(Boxlane_Parse_GetTrackList(client(), id, &list, &count, code));
    Infos out;
    for (const auto& e : take_list(list, count)) out.push_back({e.nValue1, e.nValue2, e.nValue3});
    return out;
  }

  std::unique_ptr<QORVANE_MP4PARSE> owned_ = std::make_unique<QORVANE_MP4PARSE>();
  QORVANE_MP4PARSE& record = *owned_;  // stays put when the table takes owned_
  BOXLANE_MSGBUFFER entry;
  std::string name_;
};

TEST_F(Readers, MovieHeaderBothVersions) {
  QORVANE_HDRMVHD m{};
  const auto read = [&](const Bytes& payload) {
    EXPECT_TRUE(feed(&P::Boxlane_Parse_MVhd, payload));
    EXPECT_TRUE(Boxlane_Parse_GetMVhd(client(), &m));
  };
  Bytes v0 = Bytes{}.full(0, 0).u32(1).u32(2).u32(1000).u32(5000).u32(0x00010000).u16(0x0100).zeros(70).u32(3);
  ASSERT_EQ(v0.size(), 100u);  // the shortest whole version 0
  read(v0);
  EXPECT_EQ(std::tuple(m.nTimeScale, m.nDuration, m.nRate, m.wVolume, m.nNextTrackID),
            std::tuple(1000u, uint64_t{5000}, 0x00010000u, uint16_t{0x0100}, 3u));
  const Bytes v1 =
      Bytes{}.full(1, 0).u64(0x100000001ull).u64(0x100000002ull).u32(90000).u64(0x100000005ull).u32(0).u16(0).zeros(70).u32(7);
  read(v1);
  EXPECT_EQ(std::tuple(hdr().byVersion, m.nCreateTime, m.nDuration, m.nTimeScale, m.nNextTrackID),
            std::tuple(uint8_t{1}, uint64_t{0x100000001}, uint64_t{0x100000005}, 90000u, 7u));
  // One byte short of next_track_ID: version and flags only.
  v0[3] = 9;
  v0.pop_back();
  read(v0);
  EXPECT_EQ(std::tuple(hdr().byFlags[2], m.nTimeScale), std::tuple(uint8_t{9}, 90000u));
}

TEST_F(Readers, TrackHeaderMakesAndSelectsTracks) {
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0x05000000, 0x02D00000)));
  const QORVANE_HDRTKHD& t1 = track(1).stTKhd;
  EXPECT_EQ(std::tuple(hdr().byFlags[2], record.nCurrentTrack, t1.nWidth, t1.nHeight, t1.nDuration, t1.wLayer,
                       t1.wAlternateGroup, t1.wVolume),
            std::tuple(uint8_t{7}, 1, 1280, 720, uint64_t{0x33}, uint16_t{1}, uint16_t{2}, uint16_t{0x0100}));
  // Version 1 with a negative 16.16 width (the shift keeps the sign).
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(2, 0xFFFF0000, 0x00018000, 1)));
  const QORVANE_HDRTKHD& t2 = track(2).stTKhd;
  EXPECT_EQ(std::tuple(record.nCurrentTrack, t2.nDuration, t2.nModifyTime, t2.nWidth, t2.nHeight),
            std::tuple(2, uint64_t{0x1000000033}, uint64_t{0x1000000022}, -1, 1));
  // The same id again keeps the first values and is current again.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(1, 0x01000000, 0)));
  EXPECT_EQ(std::tuple(record.nCurrentTrack, track(1).stTKhd.nWidth), std::tuple(1, 1280));
  // Ids of 2^31 and more are keyed negative.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, tkhd_payload(0x80000001u)));
  EXPECT_EQ(track(INT32_MIN + 1).stTKhd.nTrackID, INT32_MIN + 1);
  // One byte short, in either version, neither makes a track nor switches to it.
  for (const uint8_t version : {0, 1}) {
    Bytes cut = tkhd_payload(9, 0, 0, version);
    cut.pop_back();
    EXPECT_TRUE(feed(&P::Boxlane_Parse_TKhd, cut));
  }
  EXPECT_EQ(std::tuple(record.nCurrentTrack, record.stl_MapTrack->size()), std::tuple(INT32_MIN + 1, std::size_t{3}));
  // The slots hold the ids 0 to 9, both ends included; 10 and others have none.
  for (const uint32_t id : {0u, 9u, 10u}) make_track(id);
  int32_t slots[10];
  std::fill(std::begin(slots), std::end(slots), -7);
  ASSERT_TRUE(Boxlane_Parse_GetTrack(client(), slots));
  EXPECT_EQ(std::vector<int32_t>(std::begin(slots), std::end(slots)), (std::vector<int32_t>{0, 1, 2, -7, -7, -7, -7, -7, -7, 9}));
  // Every id, sorted as the unsigned track_ID of the box (§8.3.2).
  int32_t** ids = nullptr;
  int32_t count = 0;
  ASSERT_TRUE(Boxlane_Parse_GetTrackIDs(client(), &ids, &count));
  EXPECT_EQ(take_list(ids, count), (std::vector<int32_t>{0, 1, 2, 9, 10, INT32_MIN + 1}));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackIDs(client(), nullptr, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  ASSERT_TRUE(feed(&P::Boxlane_Parse_HDlr, Bytes{}.full(0, 0).u32(0).str("vide").zeros(12).str("V").u8(0)));
  QORVANE_HDRTKHD tkhd{};
  QORVANE_HDRHDLR hdlr{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackInfo(client(), 10, &tkhd, nullptr, &hdlr, nullptr));
  EXPECT_EQ(std::tuple(tkhd.nTrackID, std::string(hdlr.tszHandlerType), std::string(hdlr.tszName)), std::tuple(10, "vide", "V"));
  tkhd.nTrackID = 99;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackInfo(client(), 3, &tkhd, nullptr, nullptr, nullptr), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_EQ(tkhd.nTrackID, 99);
}

// ftyp of 8 bytes and one less; a brand cut by the box end is none; NULs pad.
TEST_F(Readers, FileTypeBrands) {
  const struct {
    Bytes payload;
    std::string major;
    uint32_t minor;
    std::vector<std::string> brands;
  } cases[] = {
      {Bytes{}.str("qt  ").u32(0x20050300), "qt  ", 0x20050300, {}},
      {Bytes{}.str("qt  ").u32(0).str("qt  "), "qt  ", 0, {"qt  "}},
      {Bytes{}.str("isom").u24(0), "", 0, {}},
      {Bytes{}.str("isom").u32(1).str("mp41").str("av").u16(0).str("avc"), "isom", 1, {"mp41", "av"}},
  };
  for (const auto& c : cases) {
    record.stFTyp = {};
    record.stl_ListBrand.clear();
    EXPECT_TRUE(feed(nullptr, c.payload));
    QORVANE_HDRFTYP ftyp{};
    ASSERT_TRUE(Boxlane_Parse_GetFTyp(client(), &ftyp));
    const std::vector<std::string> brands(ftyp.pptszCompatibleBrand, ftyp.pptszCompatibleBrand + ftyp.nBrandCount);
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    EXPECT_EQ(std::tuple(std::string(ftyp.tszMajorBrand), ftyp.nMinorVersion, brands), std::tuple(c.major, c.minor, c.brands))
        << c.payload.size();
  }
}

// ISO/IEC 14496-1 §8.3.3 sizes of one to four bytes; one running on counts 5.
TEST(DescriptorSizes, OneToFourBytesAndOneThatRunsOn) {
  const auto read = [](const Bytes& bytes) {
    int count = 0;
    const int value = m_MP4Parse.Boxlane_Parse_DescriptorLen(bytes.data(), &count);
    return std::pair(value, count);
  };
  EXPECT_EQ(read({0x05, 0x80, 0x80, 0x80}), std::pair(5, 1));
  EXPECT_EQ(read({0xFF, 0x7F, 0xFF, 0xFF}), std::pair(0x3FFF, 2));
  EXPECT_EQ(read({0x80, 0x80, 0x80, 0x05}), std::pair(5, 4));
  EXPECT_EQ(read({0x81, 0x80, 0x80, 0x80}), std::pair(1 << 21, 5));
  int count = -7;
  const uint8_t byte = 5;
  EXPECT_TRUE(fails_with(m_MP4Parse.Boxlane_Parse_DescriptorLen(&byte, nullptr) != 0, BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(m_MP4Parse.Boxlane_Parse_DescriptorLen(nullptr, &count) != 0, BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_EQ(count, -7);
}

TEST_F(Readers, MediaHandlerAndDataReferences) {
  make_track(1);
  const QORVANE_HDRMDHD& m = track(1).stMDhd;
  // The language raw, its pad bit included.
  Bytes v1 = Bytes{}.full(1, 0).u64(0x200000001ull).u64(0x200000002ull).u32(600).u64(0x200000003ull).u16(0x95C7).u16(0);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, v1));
  EXPECT_EQ(std::tuple(m.nCreateTime, m.nModifyTime, m.nTimeScale, m.nDuration, m.wLanguage),
            std::tuple(uint64_t{0x200000001}, uint64_t{0x200000002}, 600u, uint64_t{0x200000003}, uint16_t{0x95C7}));
  // Cut inside the language: nothing; without pre_defined: read.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(1).u32(1).u8(0)));
  EXPECT_EQ(m.nTimeScale, 600u);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_MDhd, Bytes{}.full(0, 0).u32(1).u32(2).u32(3).u32(4).u16(0x15C7)));
  EXPECT_EQ(std::tuple(m.nTimeScale, m.nDuration, m.wLanguage), std::tuple(3u, uint64_t{4}, uint16_t{0x15C7}));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_VMhd, Bytes{}.full(0, 1).u16(0x40).u16(1).u16(2).u16(3)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SMhd, Bytes{}.full(0, 0).u16(0xFF80).u16(0)));
  QORVANE_HDRVMSMHD v{};  // as the header query hands it out
  ASSERT_TRUE(Boxlane_Parse_GetTrackInfo(client(), 1, nullptr, nullptr, nullptr, &v));
  EXPECT_EQ((Ints{v.wGraphicsMode, v.wOpColor[0], v.wOpColor[2], v.wBalance}), (Ints{0x40, 1, 3, 0xFF80}));
  const QORVANE_HDRHDLR& h = track(1).stHDlr;
  auto hdlr = [](std::string_view type, const std::vector<uint8_t>& name) {
    return Bytes{}.full(0, 0).u32(0).str(type).zeros(12).add(name);
  };
  // A name longer than the field: 1023 bytes and a terminator.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("soun", Bytes{}.str(std::string(3000, 'n')))));
  EXPECT_EQ(std::pair(std::string(h.tszHandlerType), std::string(h.tszName)),
            std::pair(std::string("soun"), std::string(1023, 'n')));
  // Shorter than the fixed 24 bytes: nothing; exactly 24, no name: the type.
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, hdlr("meta", {})));
  EXPECT_STREQ(h.tszHandlerType, "meta");
  Bytes short_hdlr = hdlr("text", {});
  short_hdlr.pop_back();
  EXPECT_TRUE(feed(&P::Boxlane_Parse_HDlr, short_hdlr));
  EXPECT_STREQ(h.tszHandlerType, "meta");
  // dref: url, self-contained url (no entry), urn, a location cut at 1023; sizes below 8 or past the payload, and
  // counts past it end the walk.
  auto dinf = [](uint32_t count, const std::vector<uint8_t>& entries) {
    return box("dref", Bytes{}.full(0, 0x000102).u32(count).add(entries));
  };
  const Bytes url = full_box("url ", 0, 0, Bytes{}.str("http://x/a.mp4").u8(0).str("junk"));
  const Bytes urn = full_box("urn ", 0, 0, Bytes{}.str("urn:a").u8(0).str("loc").u8(0));
  const Bytes unterminated = full_box("url ", 0, 0, Bytes{}.str(std::string(2000, 'u')));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(4, cat({url, full_box("url ", 0, 1), urn, unterminated}))));
  EXPECT_EQ(std::tuple(hdr().byFlags[1], hdr().byFlags[2]), std::tuple(uint8_t{1}, uint8_t{2}));
  EXPECT_EQ(track(1).stl_ListDinf, (std::vector<std::string>{"http://x/a.mp4", "urn:a", std::string(1023, 'u')}));
  track(1).stl_ListDinf.clear();
  const Bytes s = full_box("url ", 0, 0, Bytes{}.str("s").u8(0));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(3, cat({s, box("url ", {}, 0), s}))));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(2, cat({s, box("url ", Bytes{}.str("abcd"), 64)}))));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_Dinf, dinf(0x7FFFFFFF, s)));
  EXPECT_EQ(track(1).stl_ListDinf, (std::vector<std::string>{"s", "s", "s"}));
}

// Table boxes read back through the list query, lists reserved exactly: a second box appends; counts past the payload
// keep whole entries; stz2 (§8.7.3.3) in every field size, 4-bit fields high nibble first.
TEST_F(Readers, SampleTables) {
  const auto u32s = [](uint8_t version, const std::vector<uint32_t>& fields) {
    Bytes p;
    p.full(version, 0);
    for (uint32_t v : fields) p.u32(v);
    return p;
  };
  const auto stz2 = [](uint8_t field, uint32_t count, const Bytes& entries) {
    return std::vector<Bytes>{Bytes{}.full(0, 0).u24(0).u8(field).u32(count).add(entries)};
  };
  const auto kStts = ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STTS, kCtts = ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CTTS,
             kStsc = ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSC, kStsz = ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSZ,
             kStco = ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STCO;
  const Reader stsz = &P::Boxlane_Parse_STsz, stz2_reader = &P::Boxlane_Parse_STz2;
  const struct {
    Reader reader;
    std::vector<Bytes> boxes;
    ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code;
    Infos want;
  } cases[] = {
      {&P::Boxlane_Parse_STts, {u32s(0, {2, 3, 1000, 1, 500})}, kStts, {{3, 1000, 0}, {1, 500, 0}}},
      {&P::Boxlane_Parse_CTts, {u32s(1, {2, 1, uint32_t(-2), 4, 2048})}, kCtts, {{1, 4294967294u, 0}, {4, 2048, 0}}},
      {&P::Boxlane_Parse_STsc, {u32s(0, {2, 1, 5, 1, 3, 2, 1})}, kStsc, {{1, 5, 1}, {3, 2, 1}}},
      {stsz, {u32s(0, {1024, 10, 5, 6}), u32s(0, {0, 3, 7, 8, 9})}, kStsz, {{7, 0, 0}, {8, 0, 0}, {9, 0, 0}}},
      {&P::Boxlane_Parse_STco, {u32s(0, {2, 48, 0xFFFFFFF0}), u32s(0, {1, 96})}, kStco, {{48, 0, 0}, {0xFFFFFFF0, 0, 0}, {96, 0, 0}}},
      {&P::Boxlane_Parse_STts, {u32s(0, {1000, 1, 2, 3, 4, 5})}, kStts, {{1, 2, 0}, {3, 4, 0}}},
      {&P::Boxlane_Parse_STsc, {u32s(0, {0x7FFFFFFF, 1, 1}), u32s(0, {0x80000000, 1, 1}), u32s(0, {0xFFFFFFFF, 1, 1})}, kStsc, {}},
      {stsz, {u32s(0, {0, 0x7FFFFFFF, 9}), u32s(0, {0, 0x80000000, 9}), u32s(0, {0, 0xFFFFFFFF, 9})}, kStsz, {{9, 0, 0}}},
      {stz2_reader, stz2(4, 3, {0x12, 0x3F}), kStsz, {{1, 0, 0}, {2, 0, 0}, {3, 0, 0}}},
      {stz2_reader, stz2(4, 9, {0xAB}), kStsz, {{10, 0, 0}, {11, 0, 0}}},
      {stz2_reader, stz2(8, 3, {7, 255}), kStsz, {{7, 0, 0}, {255, 0, 0}}},
      {stz2_reader, stz2(16, 2, {0x12, 0x34, 0xFF}), kStsz, {{0x1234, 0, 0}}},
      {stz2_reader, stz2(5, 2, {1, 2}), kStsz, {}},
      {stz2_reader, stz2(8, 0x80000000, {1, 2}), kStsz, {}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto id = int32_t(i + 1);
    make_track(uint32_t(id));
    for (const Bytes& b : cases[i].boxes) EXPECT_TRUE(feed(cases[i].reader, b));
    EXPECT_EQ(listed(cases[i].code, id), cases[i].want) << "case " << i;
    const BOXLANE_TRACKINFO& t = track(id);
    const std::size_t fields = t.stl_ListSTts.fields.capacity() + t.stl_ListCTts.fields.capacity() +
                               t.stl_ListSTsc.fields.capacity() + t.stl_ListSTsz.fields.capacity() +
                               t.stl_ListSTco.fields.capacity();
    const std::size_t per_entry = cases[i].code == kStsc ? 3 : cases[i].code == kStts || cases[i].code == kCtts ? 2 : 1;
    EXPECT_EQ(fields, cases[i].want.size() * per_entry) << "case " << i;
  }
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0)));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_SDtp, Bytes{}.full(0, 0).u8(0x20).u8(0x10).u8(0xA6)));
  QORVANE_HDRSDTP** sdtp = nullptr;
  int32_t count = 0;
  ASSERT_TRUE(Boxlane_Parse_GetTrackSDtp(client(), int32_t(std::size(cases)), &sdtp, &count));
  std::vector<int> flags;
  for (const QORVANE_HDRSDTP& f : take_list(sdtp, count)) flags.push_back(f.bySampleFlags);
  EXPECT_EQ(flags, (std::vector<int>{0x20, 0x10, 0xA6}));
  // stco and co64 in one track: the co64 query gives the co64 entries alone.
  make_track(99);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STco, u32s(0, {1, 48})));
  EXPECT_TRUE(feed(&P::Boxlane_Parse_CO64, u32s(0, {1, 1, 2})));
  EXPECT_EQ(listed(ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_CO64, 99), (Infos{{2, 1, 0}}));
  EXPECT_EQ(listed(kStco, 99), (Infos{{48, 0, 0}, {2, 1, 0}}));
  // Any other code, stss or one past the enumerators, succeeds and writes nothing.
  for (const int32_t code : {int32_t{ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_STSS}, 99999}) {
    QORVANE_HDRSAMPLENFO** list = nullptr;
    int32_t n = -7;
    const auto type = static_cast<ENUM_QORVANE_MORVALY_BOXLANE_HTYPE>(code);
    EXPECT_TRUE(Boxlane_Parse_GetTrackList(client(), 99, &list, &n, type));
    EXPECT_EQ(std::tuple(list, n), std::tuple(nullptr, -7)) << code;
  }
}

Bytes visual_entry(const char* type, uint16_t width, uint16_t height, const std::vector<uint8_t>& children) {
  Bytes fixed;
  fixed.zeros(6).u16(1).zeros(16).u16(width).u16(height).u32(0x00480000).u32(0x00480000).u32(0).u16(1).zeros(32);
  fixed.u16(0x18).u16(0xFFFF);
  return box(type, cat({fixed, box("colr", Bytes{}.str("nclx").u16(1).u16(1).u16(1).u8(0)), children}));
}
Bytes stsd(const std::vector<uint8_t>& entry, uint32_t count = 1) { return Bytes{}.full(0, 0).u32(count).add(entry); }
Bytes mp4a_entry(const std::vector<uint8_t>& esds_body, uint16_t sound_version = 0) {
  Bytes fixed;
  fixed.zeros(6).u16(1).u16(sound_version).zeros(6).u16(2).u16(16).zeros(4).u32(44100u << 16);
  fixed.zeros(sound_version == 1 ? 16 : sound_version == 2 ? 36 : 0);
  return box("mp4a", cat({fixed, box("free"), box("esds", Bytes{}.full(0, 0).add(esds_body))}));
}

// What the codec query hands out, as one line, sets and config in hex.
std::string codec_text(const char* client, int32_t id) {
  BOXLANE_CODECINFO c;
  std::memset(&c, 0xCD, sizeof c);
  EXPECT_TRUE(Boxlane_Parse_GetTrackCodec(client, id, &c));
  std::ostringstream o;
  o << c.tszCodec << " ref " << c.wDataRefIndex << " " << c.wWidth << "x" << c.wHeight << " avc " << int(c.byProfile) << "/"
    << int(c.byCompatibility) << "/" << int(c.byLevel) << " len " << int(c.byNALLengthSize) << " sets";
  std::size_t at = 0;
  for (int i = 0; i < c.nSPSCount + c.nPPSCount; ++i) {
    const uint16_t len = i < c.nSPSCount ? c.wSPSLen[i] : c.wPPSLen[i - c.nSPSCount];
    o << (i == c.nSPSCount ? " |" : "") << " " << hex(c.byParamSets + at, len) << ";";
    at += len;
  }
  o << " audio " << c.wChannelCount << "ch " << c.wSampleSize << "bit " << c.nSampleRate << "Hz oti " << int(c.byObjectType)
    << " st " << int(c.byStreamType) << " buf " << c.nBufferSizeDB << " max " << c.nMaxBitrate << " avg " << c.nAvgBitrate
    << " asc " << hex(c.byAudioCfg, std::size_t(c.nAudioCfgLen)) << (c.bTruncated ? " cut" : "");
  return o.str();
}

TEST_F(Readers, AvcDescription) {
  // Reserved bits of the length size byte set; a PPS past the avcC's end.
  const char* const cases[][2] = {
      {"01 64 00 1F FF E2 0004 6764001F 0002 6701 03 0002 68EE 0003 68EBE3 0001 68",
       "avc1 ref 1 320x240 avc 100/0/31 len 4 sets 67 64 00 1F; 67 01; | 68 EE; 68 EB E3; 68;"},
      {"01 42 C0 0D FD E1 0002 6742 02 0001 68 0032 68", "avc1 ref 1 320x240 avc 66/192/13 len 2 sets 67 42; | 68;"},
  };
  for (int i = 0; i < 2; ++i) {
    make_track(uint32_t(i + 1));
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("avc1", 320, 240, box("avcC", unhex(cases[i][0]))))));
    EXPECT_EQ(codec_text(client(), i + 1), std::string(cases[i][1]) + " audio 0ch 0bit 0Hz oti 0 st 0 buf 0 max 0 avg 0 asc ");
  }
  // The 78 fixed bytes alone, no child box: the size is still read.
  make_track(3);
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(box("avc1", Bytes{}.zeros(6).u16(1).zeros(16).u16(64).u16(48).zeros(50)))));
  EXPECT_EQ(codec_text(client(), 3).substr(0, 17), "avc1 ref 1 64x48 ");
  // 31 SPS and 255 PPS, the most the 5- and 8-bit counts allow; entry_count 0 keeps nothing.
  Bytes most = Bytes{}.add(unhex("01 64 00 1F FF FF"));
  for (int i = 0; i < 31; ++i) most.u16(1).u8(uint8_t(i));
  most.u8(255);
  for (int i = 0; i < 255; ++i) most.u16(1).u8(uint8_t(i));
  for (const uint32_t count : {0u, 1u}) {
    make_track(4 + count);
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("avc1", 8, 8, box("avcC", most)), count)));
  }
  EXPECT_EQ(std::tuple(codec_text(client(), 4).substr(0, 11), track(5).stCodec.stl_ListSPS.size(),
                       track(5).stCodec.stl_ListPPS.size()),
            std::tuple(" ref 0 0x0 ", std::size_t{31}, std::size_t{255}));
}

TEST_F(Readers, AacDescription) {
  // ES_Descriptor with dependsOn, URL, OCR and 4-byte sizes; QuickTime sound entries v1 and v2 move the esds 16 and 36
  // bytes on; an ES_Descriptor claiming more than the box holds is read to its end.
  const std::string rich = "03 80808027 0001 E0 0007 03 616263 0009 04 80808014 40 15 001800 0001F400 00017700 "
                           "05 80808002 1210 06 01 02";
  const std::string plain = "03 19 0002 00 04 11 40 15 000000 0001F400 0001F400 05 02 1190 06 01 02";
  const std::string head = "mp4a ref 1 0x0 avc 0/0/0 len 0 sets audio 2ch 16bit 44100Hz oti 64 st 21 ";
  const struct {
    uint16_t version;
    std::string esds, want;
  } cases[] = {{0, rich, head + "buf 6144 max 128000 avg 96000 asc 12 10"},
               {1, plain, head + "buf 0 max 128000 avg 128000 asc 11 90"},
               {2, "03 7F" + plain.substr(5), head + "buf 0 max 128000 avg 128000 asc 11 90"},
               // A DecoderSpecificInfo size that runs past four bytes is no size.
               {0, "03 1D 0002 00 04 15 40 15 000000 0001F400 0001F400 05 81808080 02 1190 06 01 02",
                head + "buf 0 max 128000 avg 128000 asc "}};
  for (int32_t id = 1; const auto& c : cases) {
    make_track(uint32_t(id));
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(mp4a_entry(unhex(c.esds), c.version))));
    EXPECT_EQ(codec_text(client(), id++), c.want);
  }
}

// An hvcC whose every field differs from its neighbours: space 2, tier 1, profile 3, level 123, segmentation 0xABC,
// parallelism 2, 4:2:2, 12/9 bits, 24 fps, constant rate 1, 5 layers, nested, 2-byte lengths.
const char* const kHvccFixed = "01 A3 40000001 B000 00000003 7B FABC FE FE FC F9 1800 6D";
Bytes hvcc(const std::vector<uint8_t>& arrays, uint8_t count) { return box("hvcC", cat({unhex(kHvccFixed), {count}, arrays})); }

std::string nalus(const BOXLANE_HEVCINFO& info) {
  std::ostringstream o;
  std::size_t at = 0;
  for (int i = 0; i < info.nNaluCount; at += info.wNaluLen[i++])
    o << int(info.byNaluType[i]) << (info.byArrayComplete[i] ? "c" : "") << ":" << hex(info.byNalus + at, info.wNaluLen[i]) << ";";
  return o.str();
}

TEST_F(Readers, HevcDescription) {
  make_track(1);
  // A complete VPS array, an incomplete SPS array of two, a SEI with an empty unit.
  const std::vector<uint8_t> arrays = unhex("A0 0001 0003 40010C  21 0002 0002 4201 0004 42010102  27 0002 0000 0001 4E");
  EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 1920, 1080, hvcc(arrays, 3)))));
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
  // The units' area filled exactly and one byte more; 64 units (the query's most) and 65; the shortest hvcC and less.
  const auto filled = [](uint16_t last) {
    Bytes a;
    a.u8(0x80 | 33).u16(2).u16(BOXLANE_CODEC_PARAMSET_BYTES - 100).add(std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 100, 7));
    return hvcc(a.u16(last).add(std::vector<uint8_t>(last, 8)), 1);
  };
  const auto units = [](uint16_t n) {
    Bytes a;
    a.u8(0x80 | 33).u16(n);
    for (int i = 0; i < n; ++i) a.u16(1).u8(uint8_t(i));
    return hvcc(a, 1);
  };
  const std::pair<Bytes, Ints> edges[] = {
      {filled(100), {2, 0, 123}}, {filled(101), {1, 1, 123}},
      {units(64), {64, 0, 123}},  {units(65), {64, 1, 123}},
      {box("hvcC", cat({unhex(kHvccFixed), {0}})), {0, 0, 123}}, {box("hvcC", unhex(kHvccFixed)), {0, 0, 0}},
  };
  for (uint32_t id = 2; const auto& [config, want] : edges) {
    make_track(id);
    EXPECT_TRUE(feed(&P::Boxlane_Parse_STsd, stsd(visual_entry("hvc1", 64, 64, config))));
    ASSERT_TRUE(Boxlane_Parse_GetTrackHEVC(client(), int32_t(id++), &info));
    EXPECT_EQ((Ints{info.nNaluCount, info.bTruncated, info.byLevel}), want) << "edge " << id - 3;
  }
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 9, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackHEVC(client(), 1, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
}

TEST_F(Readers, CodecQueryTruncation) {
  make_track(1);
  BOXLANE_CODECINFO info;
  // Parameter sets go back to back; more than fit are dropped whole and flagged.
  BOXLANE_TRACKCODEC& codec = track(1).stCodec;
  codec.stl_ListSPS = {{0x67, 0x42}, std::vector<uint8_t>(BOXLANE_CODEC_PARAMSET_BYTES - 3, 0x11), {0x67, 0x43}};
  codec.stl_ListPPS.assign(40, {0x68});
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_EQ((Ints{info.nSPSCount, info.wSPSLen[0], info.wSPSLen[1], info.nPPSCount, info.bTruncated}),
            (Ints{2, 2, BOXLANE_CODEC_PARAMSET_BYTES - 3, 1, true}));
  EXPECT_EQ((Ints{info.byParamSets[0], info.byParamSets[2], info.byParamSets[BOXLANE_CODEC_PARAMSET_BYTES - 1]}),
            (Ints{0x67, 0x11, 0x68}));
  // The most sets and configuration bytes there is room for, and one more.
  codec.stl_ListSPS.resize(1);
  codec.stl_AudioCfg.assign(BOXLANE_CODEC_AUDIOCFG_BYTES, 0x12);
  for (const int extra : {0, 1}) {
    codec.stl_ListPPS.resize(BOXLANE_CODEC_MAX_PARAMSETS + extra);
    ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
    EXPECT_EQ((Ints{info.nPPSCount, info.nAudioCfgLen, info.bTruncated}),
              (Ints{BOXLANE_CODEC_MAX_PARAMSETS, BOXLANE_CODEC_AUDIOCFG_BYTES, extra})) << extra;
  }
  codec.stl_ListPPS.resize(1);
  codec.stl_AudioCfg.push_back(0x13);
  ASSERT_TRUE(Boxlane_Parse_GetTrackCodec(client(), 1, &info));
  EXPECT_EQ((Ints{info.bTruncated, info.byAudioCfg[BOXLANE_CODEC_AUDIOCFG_BYTES - 1]}), (Ints{1, 0x12}));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackCodec(client(), 5, &info), BOXLANE_ERROR_PARSE_NOTFOUND));
}

}  // namespace
}  // namespace boxlane::test
