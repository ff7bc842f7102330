// The extended mode: its records, 64-bit sizes, fragment samples by hand (ISO/IEC 14496-12 §8.8), lies, the bound.
#include "parse_fixtures.hpp"

#include <functional>
#include <tuple>

namespace boxlane::test {
namespace {

constexpr uint32_t kSync = 0x02000000;     // depends on no other sample
constexpr uint32_t kNonSync = 0x01010000;  // depends on others, non-sync bit set

using Extended = ParseClientTest;

// A moof built twice, so a data_offset can name the byte after it and the mdat header.
Bytes moof_with_offset(const std::function<Bytes(int32_t)>& make) { return make(int32_t(make(0).size() + 8)); }

// Track 1 (90 kHz, empty tables), track 2 (48 kHz, two samples), trex, three moof + mdat pairs, styp, sidx, mfra.
TEST_F(Extended, RecordsAndFragmentSamplesFollowTheStandard) {
  const auto build_moov = [](uint32_t chunk) {
    return moov_box({trak_box(1, 90000, {table_box("stts", {}), table_box("stsc", {}), stsz_box(0, 0), table_box("stco", {})}),
                     trak_box(2, 48000, {table_box("stts", {{2, 1024}}), table_box("stsc", {{1, 2, 1}}), stsz_box(0, 2, {10, 20}),
                                         table_box("stco", {{chunk}})}),
                     box("mvex", cat({full_box("mehd", 1, 0, Bytes{}.u64(0x100000000ull)),
                                      trex_box(1, 1, 3000, 0, kNonSync), trex_box(2, 1, 1024, 300, kSync)}))});
  };
  Bytes stream = movie_ftyp();
  stream.add(build_moov(uint32_t(stream.size() + build_moov(0).size() + 8))).add(box("mdat", Bytes{}.zeros(30)));
  // moof 1: track 1 based on the moof, tfdt v1, first-sample flags, signed offsets; track 2 on trex, no base or tfdt.
  const uint64_t moof1 = stream.size();
  stream.add(moof_with_offset([](int32_t offset) {
    return moof_box(1, {box("traf", cat({tfhd_box(0x020000, 1), full_box("tfdt", 1, 0, Bytes{}.u64(90000)),
                                        trun_box(1, 0x001 | 0x004 | 0x200 | 0x800,
                                                 {{0, 100, 0, 0}, {0, 50, 0, uint32_t(-1000)}, {0, 60, 0, 2000}},
                                                 offset, kSync)})),
                        box("traf", cat({tfhd_box(0, 2), trun_box(0, 0x100, {{1024}, {512}})}))});
  }));
  const uint64_t d1 = stream.size() + 8;
  stream.add(box("mdat", Bytes{}.zeros(810)));
  // moof 2: an explicit base, tfhd defaults over the trex's, no tfdt, two truns.
  const uint64_t moof2 = stream.size();
  stream.add(moof_with_offset([&](int32_t offset) {
    return moof_box(2, {box("traf", cat({tfhd_box(0x2B, 1, {0, uint32_t(moof2), 2, 2000, kNonSync}),
                                        trun_box(0, 0x001 | 0x100 | 0x200 | 0x400, {{2000, 5, kSync}, {2000, 6, kNonSync}}, offset),
                                        trun_box(0, 0x200 | 0x800, {{0, 7, 0, 0xFFFFFFFFu}})}))});
  }));
  const uint64_t d2 = stream.size() + 8;
  stream.add(box("mdat", Bytes{}.zeros(18)));
  // moof 3: the first traf without a base flag is based on the moof.
  stream.add(moof_with_offset([](int32_t offset) {
    return moof_box(3, {box("traf", cat({tfhd_box(0, 2), trun_box(0, 0x001, {{}}, offset)}))});
  }));
  const uint64_t d3 = stream.size() + 8;
  stream.add(box("mdat", Bytes{}.zeros(300)));
  stream.add(cat({box("styp", Bytes{}.str("msdh").u32(0)), full_box("sidx", 1, 0, Bytes{}.zeros(32)),
                  full_box("emsg", 0, 0, Bytes{}.zeros(12)),
                  box("mfra", cat({full_box("tfra", 1, 0, Bytes{}.zeros(12)), full_box("mfro", 0, 0, Bytes{}.u32(16))}))}));
  const std::string client = extended("fragments/movie");
  const FeedResult fed = feed(client, stream);
  ASSERT_EQ(fed.error, 0u);
  const Codes track = {31, 311, 313, 3131, 3132, 3133, 31336, 313362, 313363, 313364, 313365};
  Codes want = {1, 3, 30};
  for (int i = 0; i < 2; ++i) want.insert(want.end(), track.begin(), track.end());
  const std::size_t moov_records = want.size();
  want.insert(want.end(), {32, 322, 321, 321, 2,                     // mvex, mehd, trex x2, mdat
                           5, 51, 52, 521, 522, 523, 52, 521, 523, 2,  // moof 1
                           5, 51, 52, 521, 523, 523, 2,                // moof 2
                           5, 51, 52, 521, 523, 2,                     // moof 3
                           7, 6, 8, 9, 91, 92});
  EXPECT_EQ(codes(fed.headers), want);
  // Full boxes carry version and flags: moof 1's first tfhd, tfdt and trun.
  EXPECT_EQ(std::vector(fed.records.begin() + moov_records + 8, fed.records.begin() + moov_records + 11),
            (std::vector<std::string>{"521 size 16 v0 flags 020000 uuid 0000", "522 size 20 v1 flags 000000 uuid 0000",
                                      "523 size 48 v1 flags 000A05 uuid 0000"}));
  const std::vector<Fragment> fragments = take_fragments(client);
  ASSERT_EQ(fragments.size(), 4u);
  const std::vector<std::vector<std::string>> samples = {
      {sample(90000, 90000, 3000, 100, d1, kSync, true, true),
       sample(93000, 92000, 3000, 50, d1 + 100, kNonSync, false, true),
       sample(96000, 98000, 3000, 60, d1 + 150, kNonSync, false, true)},
      {sample(2048, 2048, 1024, 300, d1 + 210, kSync, true, true), sample(3072, 3072, 512, 300, d1 + 510, kSync, true, true)},
      {sample(99000, 99000, 2000, 5, d2, kSync, true, true), sample(101000, 101000, 2000, 6, d2 + 5, kNonSync, false, true),
       sample(103000, 103000 + 4294967295ll, 2000, 7, d2 + 11, kNonSync, false, true)},
      {sample(3584, 3584, 1024, 300, d3, kSync, true, true)},
  };
  for (std::size_t i = 0; i < samples.size(); ++i) EXPECT_EQ(texts(fragments[i].samples), samples[i]) << "answer " << i;
  const BOXLANE_FRAGMENTINFO& a = fragments[0].info;
  EXPECT_EQ(std::tuple(a.nTrackID, a.nSequence, a.nMoofOffset, a.nBaseDecodeTime, a.nDataStart, a.nDataEnd,
                       a.nSampleCount, a.nTrafIndex, a.nTfhdFlags, a.nDescriptionIndex, a.nProblems, a.bHasTfdt),
            std::tuple(1, 1u, moof1, uint64_t{90000}, d1, d1 + 210, 3u, 0u, 0x020000u, 1u, 0u, uint8_t{1}));
  // Track 2's data starts where track 1's ends, without overlap.
  const BOXLANE_FRAGMENTINFO& b = fragments[1].info;
  EXPECT_EQ(std::tuple(b.nTrackID, b.nTrafIndex, b.nBaseDecodeTime, b.nDataStart, b.nDataEnd, b.bHasTfdt, b.nProblems),
            std::tuple(2, 1u, uint64_t{2048}, d1 + 210, d1 + 810, uint8_t{0}, 0u));
  const BOXLANE_FRAGMENTINFO& c = fragments[2].info;
  EXPECT_EQ(std::tuple(c.nSequence, c.nDescriptionIndex, c.nTfhdFlags, c.nBaseDecodeTime), std::tuple(2u, 2u, 0x2Bu, uint64_t{99000}));
  BOXLANE_TRACKINDEX index{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackIndex(client.c_str(), 1, &index));
  EXPECT_EQ(std::tuple(index.nTrackFragments, index.nFragmentSamples, index.nFragmentEnd, index.bHasTrex,
                       index.nTrexDescriptionIndex, index.nTrexDuration, index.nTrexSize, index.nTrexFlags),
            std::tuple(2u, uint64_t{6}, uint64_t{105000}, uint8_t{1}, 1u, 3000u, 0u, kNonSync));
  const BOXLANE_STREAMINFO info = stream_info(client);
  EXPECT_EQ(std::tuple(info.nFlags, info.nFragments, info.nFragmentDuration, info.bMovieExtends, info.nOutsideData,
                       info.bSegmentType, info.bSegmentIndex, info.bRandomAccess),
            std::tuple(uint32_t{BOXLANE_PARSE_EXTENDED}, 3u, uint64_t{0x100000000}, uint8_t{1}, 0u, 1, 1, 1));
  // The basic mode: every new box is UNKNOWN, no answer waits, what it met is noted.
  const FeedResult plain = feed(client_, stream);
  want.resize(moov_records);
  want.insert(want.end(), {0, 2, 0, 2, 0, 2, 0, 2, 0, 0, 0, 0});
  EXPECT_EQ(codes(plain.headers), want);
  EXPECT_EQ(plain.final_position, fed.final_position);
  EXPECT_TRUE(take_fragments(client_).empty());
  const BOXLANE_STREAMINFO passed = stream_info(client_);
  EXPECT_EQ(std::tuple(passed.nFlags, passed.nFragments, passed.bMovieExtends, passed.nFragmentDuration),
            std::tuple(0u, 3u, uint8_t{1}, uint64_t{0}));
}

TEST_F(Extended, LargeSizesAreFollowedHoweverTheHeaderIsCut) {
  // free and moov with 64-bit sizes, then an 8 GiB mdat whose payload is skipped.
  const Bytes moov = moov_box({trak_box(1, 1000, {})});
  const uint64_t mdat_size = (uint64_t{8} << 30) + 16;
  const Bytes stream = cat({movie_ftyp(), Bytes{}.u32(1).str("free").u64(24).u64(7),
                            Bytes{}.u32(1).str("moov").u64(moov.size() + 8), std::vector<uint8_t>(moov.begin() + 8, moov.end()),
                            Bytes{}.u32(1).str("mdat").u64(mdat_size).zeros(4)});
  const FeedResult whole = feed(extended("large/whole"), stream);
  ASSERT_EQ(whole.error, 0u);
  EXPECT_EQ(codes(whole.headers), (Codes{1, 0, 3, 30, 31, 311, 313, 3131, 3132, 3133, 31336, 2}));
  EXPECT_EQ(std::tuple(whole.headers[1].nBoxSize, whole.headers[2].nBoxSize, whole.headers.back().nBoxSize,
                       whole.final_position, stream_info("large/whole").nLargeBoxes),
            std::tuple(uint64_t{24}, uint64_t(moov.size() + 8), mdat_size, stream.size() - 20 + mdat_size, 3u));
  // Where each box starts: a 64-bit header is 16 bytes, and a container's first child follows it.
  using Places = std::vector<std::pair<uint64_t, uint32_t>>;
  const uint64_t ftyp = movie_ftyp().size(), moov_at = ftyp + 24;
  EXPECT_EQ(Places(whole.places.begin(), whole.places.begin() + 5),
            (Places{{0, 8}, {ftyp, 16}, {moov_at, 16}, {moov_at + 16, 8}, {moov_at + 16 + 108, 8}}));
  EXPECT_EQ(whole.places.back(), std::pair(moov_at + moov.size() + 8, 16u));
  for (std::size_t cut = 1; cut < stream.size(); ++cut)
    expect_same_feed(feed(extended("large/cut " + std::to_string(cut)), stream, {cut}), whole, "cut at " + std::to_string(cut));
  // The basic mode reports the free box with size 0 and stops there.
  const FeedResult basic = feed(client_, stream);
  EXPECT_EQ(codes(basic.headers), (Codes{1, 0}));
  EXPECT_EQ(basic.places, (Places{{0, 8}, {ftyp, 16}}));
  EXPECT_EQ(stream_info(client_).nStop, uint32_t{BOXLANE_STOP_LARGESIZE});
}

// Tracks 1 and 2 with trex defaults (10, 100, flags 0), track 3 without; the shortest mehd.
Bytes prefix() {
  const Bytes mvex = box("mvex", cat({full_box("mehd", 0, 0, Bytes{}.u32(1234)), trex_box(1, 1, 10, 100, 0),
                                      trex_box(2, 1, 10, 100, 0)}));
  return cat({movie_ftyp(), moov_box({trak_box(1, 1000, {}), trak_box(2, 1000, {}), trak_box(3, 1000, {}), mvex})});
}

// A moof of one traf based on the moof: the tfhd, then `rest` of the mdat payload's data_offset.
Bytes based(uint32_t track, const std::function<Bytes(int32_t)>& rest) {
  return moof_with_offset([&](int32_t off) { return moof_box(1, {box("traf", cat({tfhd_box(0x020000, track), rest(off)}))}); });
}
Bytes plain(const Bytes& children) { return moof_box(1, {box("traf", children)}); }
// The box with size 0 (to its parent's end), or with a 64-bit size (size field 1).
Bytes resized(const Bytes& b, bool wide) {
  Bytes out = Bytes{}.u32(wide ? 1 : 0).add({b.begin() + 4, b.begin() + 8});
  if (wide) out.u64(b.size() + 8);
  return out.add({b.begin() + 8, b.end()});
}

TEST_F(Extended, EachLieGetsADefinedAnswerOrIsLeftOut) {
  const Bytes one_sample = trun_box(0, 0, {{}});
  const struct {
    const char* what;
    Bytes moof;
    std::size_t mdat;  // payload bytes of the mdat after the moof
    std::vector<std::pair<uint32_t, uint32_t>> answers;  // samples, problems
    uint32_t skipped = 0;
    uint32_t outside = 0;
    std::vector<std::string> samples = {};  // offsets from the mdat's payload
  } cases[] = {
      {"count past the box", based(1, [](int32_t off) { return trun_box(0, 0x201, {{0, 7}, {0, 8}}, off, 0, 5); }), 15,
       {{2, BOXLANE_FRAGMENT_COUNT_CUT}}},
      {"data inside the moof", based(1, [](int32_t) { return trun_box(0, 0x001, {{}}, 0); }), 100,
       {{0, BOXLANE_FRAGMENT_BAD_OFFSET}}},
      {"data ending where the moof starts", plain(cat({tfhd_box(0x020000, 1), trun_box(0, 0x201, {{0, 100}}, -100)})), 0,
       {{1, 0}}, 0, 1},
      {"offsets past 64 bits", plain(cat({tfhd_box(0x01, 1, {0xFFFFFFFF, 0xFFFFFFCD}), one_sample})), 100,
       {{0, BOXLANE_FRAGMENT_BAD_OFFSET}}},
      {"a track no tkhd made", plain(cat({tfhd_box(0, 9), one_sample})), 100, {}, 1},
      {"traf without tfhd", plain(one_sample), 100, {}, 1},
      {"tfdt of version 1 with 32 bits",
       based(1, [](int32_t off) { return cat({full_box("tfdt", 1, 0, Bytes{}.u32(5)), trun_box(0, 0x001, {{}}, off)}); }),
       100, {{1, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"two trafs on the same data", moof_with_offset([](int32_t off) {
         return moof_box(1, {box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x001, {{}}, off)})),
                             box("traf", cat({tfhd_box(0x020000, 2), trun_box(0, 0x001, {{}}, off + 50)}))});
       }),
       150, {{1, 0}, {1, BOXLANE_FRAGMENT_OVERLAP}}},
      // What trun and tfhd leave out is 0; flags 0: a sync sample of unstated dependencies, unless first_sample_flags.
      {"a track without trex", based(3, [](int32_t off) {
         return cat({full_box("tfdt", 0, 0, Bytes{}.u32(77)), trun_box(0, 0x205, {{0, 5}, {0, 6}}, off, kNonSync)});
       }),
       11, {{2, BOXLANE_FRAGMENT_NO_DEFAULTS}}, 0, 0,
       {sample(77, 77, 0, 5, 0, kNonSync, false, true), sample(77, 77, 0, 6, 5, 0, true, false)}},
      {"data starting exactly where the moof ends",
       based(1, [](int32_t off) { return trun_box(0, 0x201, {{0, 8}}, off - 8); }), 0, {{1, 0}}, 0, 1},
      {"an empty box before the trun", based(1, [](int32_t off) {
         return cat({box("free", Bytes{}), trun_box(0, 0x001, {{}}, off)});
       }),
       100, {{1, 0}}},
      {"data past the mdat after it", based(1, [](int32_t off) { return trun_box(0, 0x001, {{}}, off); }), 50, {{1, 0}}, 0, 1},
      {"data ending exactly at the mdat's end", based(1, [](int32_t off) { return trun_box(0, 0x001, {{}}, off); }), 100,
       {{1, 0}}},
      {"a trun of 64-bit size", based(1, [](int32_t off) { return resized(trun_box(0, 0x001, {{}}, off), true); }), 100,
       {{1, 0}}},
      {"a trun of size 0, last in its traf",
       based(1, [](int32_t off) { return resized(trun_box(0, 0x201, {{0, 9}}, off), false); }), 9, {{1, 0}}},
      {"a trun without its sample_count", based(1, [](int32_t) { return full_box("trun", 0, 0); }), 0,
       {{0, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"a trun without its data_offset", based(1, [](int32_t) { return full_box("trun", 0, 1, Bytes{}.u32(1)); }), 0,
       {{0, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"the shortest trun, for a track without trex", plain(cat({tfhd_box(0x020000, 3), trun_box(0, 0, {{}})})), 0,
       {{1, BOXLANE_FRAGMENT_NO_DEFAULTS}}},
  };
  const Bytes head = prefix();
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string client = extended("faults/" + std::to_string(++n));
    const Bytes stream = cat({head, c.moof, box("mdat", Bytes{}.zeros(c.mdat))});
    const FeedResult fed = feed(client, stream);
    EXPECT_EQ(std::tuple(fed.error, fed.final_position), std::tuple(uint64_t{0}, uint64_t(stream.size())));
    const std::vector<Fragment> got = take_fragments(client);
    ASSERT_EQ(got.size(), c.answers.size());
    for (std::size_t i = 0; i < got.size(); ++i)
      EXPECT_EQ(std::tuple(got[i].info.nSampleCount, got[i].samples.size(), got[i].info.nProblems),
                std::tuple(c.answers[i].first, std::size_t{c.answers[i].first}, c.answers[i].second))
          << "answer " << i;
    if (!c.samples.empty()) {
      std::vector<BOXLANE_SAMPLEINFO> samples = got.at(0).samples;
      for (auto& s : samples) s.nOffset -= stream.size() - c.mdat;
      EXPECT_EQ(std::tuple(texts(samples), got[0].info.nDescriptionIndex), std::tuple(c.samples, 0u));
    }
    const BOXLANE_STREAMINFO info = stream_info(client);
    EXPECT_EQ(std::tuple(info.nSkippedTrafs, info.nOutsideData, info.nFragments), std::tuple(c.skipped, c.outside, 1u));
  }
}

TEST_F(Extended, TakingAnswersAndTheirBound) {
  const std::string client = extended("faults/take");
  const Bytes head = prefix();
  const Bytes moof = based(1, [](int32_t off) { return trun_box(0, 0x001, {{}, {}, {}}, off); });
  ASSERT_EQ(feed(client, cat({head, moof, box("mdat", Bytes{}.zeros(300))})).error, 0u);
  BOXLANE_FRAGMENTINFO info{};
  BOXLANE_SAMPLEINFO samples[3];
  int32_t count = -1;
  const char* c = client.c_str();
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(c, &info, samples, -1, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(c, &info, nullptr, 3, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  // One short: the record comes, the answer stays.
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(c, &info, samples, 2, &count), BOXLANE_ERROR_PARSE_BUFFER));
  EXPECT_EQ(std::tuple(info.nSampleCount, count, stream_info(client).nPendingFragments), std::tuple(3u, -1, 1u));
  ASSERT_TRUE(Boxlane_Parse_GetFragment(c, &info, samples, 3, &count));
  EXPECT_EQ(std::tuple(count, samples[2].nOffset), std::tuple(3, uint64_t(head.size() + moof.size() + 8 + 200)));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(c, &info, samples, 3, &count), BOXLANE_ERROR_PARSE_NODATA));
  // Answers taken while others wait: the arrays move, each answer keeps its samples.
  const std::string mixed = extended("faults/mixed");
  ASSERT_TRUE(send(mixed, head));
  for (uint32_t i = 1, taken = 0; i <= 12; ++i) {
    ASSERT_TRUE(send(mixed, moof_with_offset([&](int32_t off) {
      return moof_box(i, {box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x201, {{0, i}, {0, 100 + i}}, off)}))});
    })));
    if (i % 3 == 0) continue;  // two taken for every three sent
    ASSERT_TRUE(Boxlane_Parse_GetFragment(mixed.c_str(), &info, samples, 3, &count));
    ++taken;
    EXPECT_EQ(std::tuple(info.nSequence, count, samples[0].nSize, samples[1].nSize), std::tuple(taken, 2, taken, 100 + taken));
  }
  // 2^32 - 1 samples in no bytes: an answer of the most samples, gone once taken. Past the answers that may wait,
  // the oldest go.
  const std::string many = extended("faults/many");
  ASSERT_TRUE(send(many, cat({head, based(1, [](int32_t off) { return trun_box(0, 0x001, {}, off, 0, 0xFFFFFFFF); })})));
  const std::vector<Fragment> most = take_fragments(many);
  ASSERT_EQ(std::tuple(most.size(), most[0].samples.size(), most[0].info.nProblems),
            std::tuple(std::size_t{1}, std::size_t{1} << 20, uint32_t{BOXLANE_FRAGMENT_COUNT_CUT}));
  for (uint32_t i = 1; i <= 4097; ++i)
    ASSERT_TRUE(send(many, moof_with_offset([&](int32_t off) {
      return moof_box(i, {box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x001, {}, off, 0, 1)}))});
    })));
  const BOXLANE_STREAMINFO stream = stream_info(many);
  EXPECT_EQ(std::tuple(stream.nPendingFragments, stream.nDroppedFragments, stream.nFragments, stream.nFragmentDuration),
            std::tuple(4096u, 1u, 4098u, uint64_t{1234}));
  const std::vector<Fragment> got = take_fragments(many);
  ASSERT_EQ(got.size(), 4096u);
  EXPECT_EQ(std::tuple(got.front().info.nSequence, got.back().info.nSequence), std::tuple(2u, 4097u));
}

}  // namespace
}  // namespace boxlane::test
