// Fragment answers (ISO/IEC 14496-12 §8.8) as the caller takes them: arrays that move, the bound on answers that wait.
#include "parse_fixtures.hpp"

#include <tuple>

namespace boxlane::test {
namespace {

using Extended = ParseClientTest;

TEST_F(Extended, TakingAnswersAndTheirBound) {
  const Bytes head = fragment_prefix();
  BOXLANE_FRAGMENTINFO info{};
  BOXLANE_SAMPLEINFO samples[3];
  int32_t count = -1;
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
  // A trun of more entries than are copied at once keeps each in its place.
  std::vector<Entry> sized(1100);
  for (uint32_t i = 0; i < sized.size(); ++i) sized[i].size = i;
  ASSERT_TRUE(send(mixed, based(1, [&](int32_t off) { return trun_box(0, 0x201, sized, off); })));
  const auto [run, sizes] = take_fragments(mixed).back();
  EXPECT_EQ(std::tuple(sizes.size(), sizes[1023].nSize, sizes[1099].nSize, run.nDataEnd - run.nDataStart),
            std::tuple(1100u, 1023u, 1099u, uint64_t{1099 * 1100 / 2}));
  // 2^32 - 1 samples, and a trun of one size after it: an answer of the most samples, gone once taken. Past the
  // samples or answers that may wait, the oldest go.
  const std::string many = extended("faults/many");
  ASSERT_TRUE(send(many, cat({head, based(1, [](int32_t off) {
                                return cat({trun_box(0, 0x001, {}, off, 0, 0xFFFFFFFF), trun_box(0, 0x200, {{}})});
                              })})));
  const std::vector<Fragment> most = take_fragments(many);
  ASSERT_EQ(std::tuple(most.size(), most[0].samples.size(), most[0].info.nProblems),
            std::tuple(std::size_t{1}, std::size_t{1} << 20, uint32_t{BOXLANE_FRAGMENT_COUNT_CUT}));
  for (const uint32_t n : {(1u << 20) - 1, 1u})
    ASSERT_TRUE(send(many, based(1, [&](int32_t off) { return trun_box(0, 0x001, {}, off, 0, n); })));
  EXPECT_EQ(stream_info(many).nDroppedFragments, 0u);
  for (uint32_t i = 1; i <= 4097; ++i)
    ASSERT_TRUE(send(many, moof_with_offset([&](int32_t off) {
      return moof_box(i, {box("traf", cat({tfhd_box(0x020000, 1), trun_box(0, 0x001, {}, off, 0, 1)}))});
    })));
  const BOXLANE_STREAMINFO stream = stream_info(many);
  EXPECT_EQ(std::tuple(stream.nPendingFragments, stream.nDroppedFragments, stream.nFragments, stream.nFragmentDuration),
            std::tuple(4096u, 3u, 4100u, uint64_t{1234}));
  const std::vector<Fragment> got = take_fragments(many);
  ASSERT_EQ(got.size(), 4096u);
  EXPECT_EQ(std::tuple(got.front().info.nSequence, got.back().info.nSequence), std::tuple(2u, 4097u));
}

}  // namespace
}  // namespace boxlane::test
