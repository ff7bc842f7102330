// The per-sample index of the moov's tables, worked out by hand (ISO/IEC 14496-12 §8.6, §8.7).
#include "parse_fixtures.hpp"

#include <tuple>

namespace boxlane::test {
namespace {

using Index = ParseClientTest;

Bytes movie(const std::vector<Bytes>& tables) { return cat({movie_ftyp(), moov_box({trak_box(1, 1000, tables)})}); }

// Track 1's samples from the first; windows of two from every start, backwards, agree (fuzz_index: unsorted stss).
std::vector<std::string> walked(const std::string& client) {
  const std::vector<BOXLANE_SAMPLEINFO> all = table_samples(client, 1);
  for (uint32_t first = uint32_t(all.size()); first-- > 0;) {
    BOXLANE_SAMPLEINFO two[2];
    int32_t n = 0;
    EXPECT_TRUE(Boxlane_Parse_GetTrackSamples(client.c_str(), 1, first, two, 2, &n));
    EXPECT_EQ(std::tuple(n, text(two[0])), std::tuple(first + 1 < all.size() ? 2 : 1, text(all[first]))) << first;
  }
  return texts(all);
}

TEST_F(Index, SamplesOfTheMoovTables) {
  // Five samples in chunks of 2, 2 and 1 (a fourth stays empty); every table.
  ASSERT_EQ(feed(client_, movie({table_box("stts", {{3, 1000}, {2, 500}}), table_box("ctts", {{1, 2000}, {2, 0}, {2, 1000}}),
                                 table_box("stsc", {{1, 2, 1}, {3, 1, 1}}), stsz_box(0, 5, {10, 20, 30, 40, 50}),
                                 table_box("stco", {{100}, {200}, {300}, {400}}), table_box("stss", {{1}, {4}}),
                                 full_box("sdtp", 0, 0, Bytes{0x20, 0x10, 0x10, 0x24, 0x10})}))
                .error,
            0u);
  EXPECT_EQ(walked(client_),
            (std::vector<std::string>{
                sample(0, 2000, 1000, 10, 100, 0x02000000, true, true), sample(1000, 1000, 1000, 20, 110, 0x01010000, false, true),
                sample(2000, 2000, 1000, 30, 200, 0x01010000, false, true), sample(3000, 4000, 500, 40, 230, 0x02400000, true, true),
                sample(3500, 4500, 500, 50, 300, 0x01010000, false, true)}));
  int32_t n = -1;
  EXPECT_TRUE(Boxlane_Parse_GetTrackSamples(client_.c_str(), 1, 0, nullptr, 0, &n) && n == 0);
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackSamples(client_.c_str(), 1, 0, nullptr, 1, &n), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetTrackSamples(client_.c_str(), 2, 0, nullptr, 0, &n), BOXLANE_ERROR_PARSE_NOTFOUND));
  BOXLANE_TRACKINDEX index{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackIndex(client_.c_str(), 1, &index));
  EXPECT_EQ(std::tuple(index.nTableSamples, index.nTableDuration, index.nSizeCount, index.nChunkCount),
            std::tuple(uint64_t{5}, uint64_t{4000}, 5u, 4u));
  // The walk ends at sample 5; the track again gains two samples and a fifth chunk, walked anew from sample 5.
  ASSERT_EQ(table_samples(client_, 1).size(), 5u);
  ASSERT_TRUE(send(client_, moov_box({trak_box(1, 1000, {table_box("stts", {{2, 7}}), stsz_box(0, 2, {60, 70}),
                                                         table_box("stco", {{500}})})})));
  BOXLANE_SAMPLEINFO got[2];
  ASSERT_TRUE(Boxlane_Parse_GetTrackSamples(client_.c_str(), 1, 5, got, 2, &n));
  EXPECT_EQ((std::vector<std::string>{text(got[0]), text(got[1])}),
            (std::vector<std::string>{sample(4000, 4000, 7, 60, 400, 0x00010000, false, false),
                                      sample(4007, 4007, 7, 70, 500, 0x00010000, false, false)}));
}

TEST_F(Index, ConstantSizesLargeOffsetsAndSignedCompositionOffsets) {
  // A constant size, co64 past 4 GiB, a negative ctts v1 offset, no stss, no sdtp.
  const uint64_t far = uint64_t{5} << 30;
  const Bytes stream = movie({table_box("stts", {{4, 10}}), table_box("ctts", {{1, 20}, {3, uint32_t(-10)}}, 1),
                              table_box("stsc", {{1, 3, 1}}), stsz_box(8, 4),
                              full_box("co64", 0, 0, Bytes{}.u32(2).u64(far).u64(far + 1000))});
  const std::string wide = extended("index/co64");
  ASSERT_EQ(feed(wide, stream).error, 0u);
  EXPECT_EQ(walked(wide),
            (std::vector<std::string>{sample(0, 20, 10, 8, far, 0, true, false), sample(10, 0, 10, 8, far + 8, 0, true, false),
                                      sample(20, 10, 10, 8, far + 16, 0, true, false),
                                      sample(30, 20, 10, 8, far + 1000, 0, true, false)}));
  // The basic mode reads no co64, so no samples; the co64 is noted.
  ASSERT_EQ(feed(client_, stream).error, 0u);
  EXPECT_TRUE(table_samples(client_, 1).empty());
  BOXLANE_TRACKINDEX index{};
  ASSERT_TRUE(Boxlane_Parse_GetTrackIndex(client_.c_str(), 1, &index));
  EXPECT_EQ(std::tuple(index.bLargeOffsets, index.nChunkCount), std::tuple(uint8_t{1}, 0u));
}

// Tables that disagree give the samples all of them cover: the count, and whether the last (1) and first (2) sync.
TEST_F(Index, TablesThatDisagree) {
  const auto samples_of = [&](const std::vector<Bytes>& tables) {
    const std::string client = other("index/disagree/" + std::to_string(others_.size()));
    EXPECT_EQ(feed(client, movie(tables)).error, 0u);
    BOXLANE_TRACKINDEX index{};
    EXPECT_TRUE(Boxlane_Parse_GetTrackIndex(client.c_str(), 1, &index));
    const std::vector<std::string> all = walked(client);
    EXPECT_EQ(all.size(), index.nTableSamples);
    return std::pair(index.nTableSamples, all.empty() ? 0 : (all.back().find(" S") != std::string::npos) +
                                                                  2 * (all.front().find(" S") != std::string::npos));
  };
  const Bytes stts = table_box("stts", {{5, 1}}), stsz = stsz_box(0, 5, {1, 2, 3, 4, 5});
  const Bytes stco = table_box("stco", {{10}, {20}}), stsc = table_box("stsc", {{1, 3, 1}});
  const auto want = [](uint64_t samples, int sync) { return std::pair(samples, sync); };
  EXPECT_EQ(samples_of({table_box("stts", {{3, 1}}), stsc, stsz, stco}), want(3, 3));         // times run out
  EXPECT_EQ(samples_of({stts, stsc, stsz_box(0, 4, {1, 2, 3, 4}), stco}), want(4, 3));        // sizes run out
  EXPECT_EQ(samples_of({stts, table_box("stsc", {{1, 2, 1}}), stsz, stco}), want(4, 3));      // chunks run out
  EXPECT_EQ(samples_of({stts, table_box("stsc", {{0, 3, 1}}), stsz, stco}), want(0, 0));      // first_chunk 0
  EXPECT_EQ(samples_of({stts, table_box("stsc", {{1, 1, 1}, {1, 4, 1}}), stsz, stco}), want(0, 0));  // not increasing
  EXPECT_EQ(samples_of({stts, table_box("stsc", {{1, 1, 1}, {3, 4, 1}}), stsz, stco}), want(2, 3));  // past the chunks
  EXPECT_EQ(samples_of({stts, table_box("stsc", {{1, 0, 1}, {2, 3, 1}}), stsz, stco}), want(3, 3));  // an empty chunk
  EXPECT_EQ(samples_of({stts, stsc, stsz_box(7, 0), stco}), want(0, 0));                      // constant, none
  // A sync sample on the last sample and none on the first; an unsorted stss.
  EXPECT_EQ(samples_of({stts, stsc, stsz, stco, table_box("stss", {{3}, {5}})}), want(5, 1));
  EXPECT_EQ(samples_of({table_box("stts", {{6, 1}}), table_box("stsc", {{1, 6, 1}}), stsz_box(1, 6), stco,
                        table_box("stss", {{196609}, {2}, {5}, {4}})}),
            want(6, 0));
}

}  // namespace
}  // namespace boxlane::test
