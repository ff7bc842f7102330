// Track fragments that lie: counts past their box, data inside the moof or
// past 64-bit offsets, unknown tracks, boxes shorter than their fields,
// overlapping and misplaced data, nested boxes that must not count. Each
// gets a defined answer or is left out, and is counted. Then the queue of
// answers: how a caller takes them, and the bounds on what waits.
#include "fragment_streams.hpp"
#include "support/stream_feeder.hpp"

#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace boxlane::test {
namespace {

using Faults = ParseClientTest;

// Tracks 1 and 2 have trex defaults (duration 10, size 100, flags 0),
// track 3 has none.
Bytes prefix() {
  return cat({movie_ftyp(),
              moov_box({trak_box(1, 1000, {}), trak_box(2, 1000, {}), trak_box(3, 1000, {}),
                        box("mvex", cat({trex_box(1, 1, 10, 100, 0), trex_box(2, 1, 10, 100, 0)}))})});
}

// A moof built twice, so that a data_offset can name the byte after it and
// the mdat header (size + 8).
Bytes moof_with_offset(const std::function<Bytes(int32_t)>& make) { return make(int32_t(make(0).size() + 8)); }

Bytes traf(const std::vector<Bytes>& children) {
  Bytes body;
  for (const Bytes& c : children) body.add(c);
  return box("traf", body);
}

struct Answer {
  uint32_t samples;
  uint32_t problems;
};

struct FaultCase {
  const char* what;
  std::function<Bytes(uint64_t moof_at)> moof;
  std::size_t mdat;  // payload bytes of the mdat after the moof
  std::vector<Answer> answers;
  uint32_t skipped = 0;
  uint32_t outside = 0;
  std::string first = "";  // the first sample, @ standing for where the mdat's payload starts
};

TEST_F(Faults, EachLieGetsADefinedAnswerOrIsLeftOut) {
  constexpr uint32_t base_is_moof = 0x020000;
  const FaultCase cases[] = {
      {"count past the box",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x201, {{0, 7}, {0, 8}}, off, 0, 5)})});
         });
       },
       15, {{2, BOXLANE_FRAGMENT_COUNT_CUT}}},
      {"data inside the moof",
       [](uint64_t) { return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x001, {{}}, 0)})}); }, 100,
       {{0, BOXLANE_FRAGMENT_BAD_OFFSET}}},
      {"data before the stream",
       [](uint64_t at) {
         return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x001, {{}}, -int32_t(at) - 1)})});
       },
       100, {{0, BOXLANE_FRAGMENT_BAD_OFFSET}}},
      {"offsets past 64 bits",
       [](uint64_t) { return moof_box(1, {traf({tfhd_box({0x01, 1, UINT64_MAX - 50}), trun_box(0, 0, {{}})})}); }, 100,
       {{0, BOXLANE_FRAGMENT_BAD_OFFSET}}},
      {"a track no tkhd made",
       [](uint64_t) { return moof_box(1, {traf({tfhd_box({0, 9}), trun_box(0, 0, {{}})})}); }, 100, {}, 1},
      {"tfhd without its track_ID",
       [](uint64_t) { return moof_box(1, {traf({full_box("tfhd", 0, 0), trun_box(0, 0, {{}})})}); }, 100, {}, 1},
      {"tfhd without the base offset its flags name",
       [](uint64_t) { return moof_box(1, {traf({full_box("tfhd", 0, 1, Bytes{}.u32(1)), trun_box(0, 0, {{}})})}); },
       100, {}, 1},
      {"traf without tfhd", [](uint64_t) { return moof_box(1, {traf({trun_box(0, 0, {{}})})}); }, 100, {}, 1},
      {"trun shorter than its count",
       [](uint64_t) { return moof_box(1, {traf({tfhd_box({0, 1}), full_box("trun", 0, 0, Bytes{0, 0})})}); }, 0,
       {{0, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"trun without the data_offset its flags name",
       [](uint64_t) { return moof_box(1, {traf({tfhd_box({0, 1}), full_box("trun", 0, 1, Bytes{}.u32(1))})}); }, 0,
       {{0, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"tfdt of version 1 with 32 bits",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), full_box("tfdt", 1, 0, Bytes{}.u32(5)),
                                     trun_box(0, 0x001, {{}}, off)})});
         });
       },
       100, {{1, BOXLANE_FRAGMENT_SHORT_BOX}}},
      {"two trafs on the same data",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x001, {{}}, off)}),
                               traf({tfhd_box({base_is_moof, 2}), trun_box(0, 0x001, {{}}, off + 50)})});
         });
       },
       150, {{1, 0}, {1, BOXLANE_FRAGMENT_OVERLAP}}},
      // What trun and tfhd leave out is 0, and flags of 0 mean a sync
      // sample whose dependencies nobody stated.
      {"a track without trex",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 3}), full_box("tfdt", 0, 0, Bytes{}.u32(77)),
                                     trun_box(0, 0x201, {{0, 5}}, off)})});
         });
       },
       5, {{1, BOXLANE_FRAGMENT_NO_DEFAULTS}}, 0, 0, "dts 77 cts 77 dur 0 size 5 at @ flags 00000000 S"},
      {"data past the mdat after it",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x001, {{}}, off)})});
         });
       },
       50, {{1, 0}}, 0, 1},
      {"2^32 - 1 samples of no bytes in the box",
       [](uint64_t) {
         return moof_with_offset([](int32_t off) {
           return moof_box(1, {traf({tfhd_box({base_is_moof, 1}), trun_box(0, 0x001, {}, off, 0, 0xFFFFFFFF)})});
         });
       },
       100, {{1u << 20, BOXLANE_FRAGMENT_COUNT_CUT}}, 0, 1},
      {"a moof and a tkhd inside a moof",
       [](uint64_t) {
         return moof_box(1, {box("tkhd", tkhd_payload(7)),
                             moof_box(2, {traf({tfhd_box({0, 1}), trun_box(0, 0, {{}})})})});
       },
       0, {}},
  };
  const Bytes head = prefix();
  int n = 0;
  for (const FaultCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string client = extended("faults/" + std::to_string(++n));
    const Bytes stream = cat({head, c.moof(head.size()), box("mdat", Bytes{}.zeros(c.mdat))});
    const FeedResult fed = feed(client, stream);
    EXPECT_EQ(fed.error, 0u);
    EXPECT_EQ(fed.final_position, stream.size());
    const std::vector<Fragment> got = take_fragments(client);
    ASSERT_EQ(got.size(), c.answers.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(got[i].info.nSampleCount, c.answers[i].samples) << "answer " << i;
      EXPECT_EQ(got[i].samples.size(), c.answers[i].samples) << "answer " << i;
      EXPECT_EQ(got[i].info.nProblems, c.answers[i].problems) << "answer " << i;
    }
    if (!c.first.empty()) {
      std::string want = c.first;
      want.replace(want.find('@'), 1, std::to_string(stream.size() - c.mdat));
      ASSERT_FALSE(got.empty());
      EXPECT_EQ(text(got[0].samples.at(0)), want);
      EXPECT_EQ(got[0].info.nDescriptionIndex, 0u);
    }
    const BOXLANE_STREAMINFO info = stream_info(client);
    EXPECT_EQ(info.nSkippedTrafs, c.skipped);
    EXPECT_EQ(info.nOutsideData, c.outside);
    EXPECT_EQ(info.nFragments, 1u);
    int32_t** ids = nullptr;
    int32_t count = 0;
    ASSERT_TRUE(Boxlane_Parse_GetTrackIDs(client.c_str(), &ids, &count));
    EXPECT_EQ(take_list(ids, count), (std::vector<int32_t>{1, 2, 3}));
  }
}

TEST_F(Faults, TakingAnswers) {
  const std::string client = extended("faults/take");
  const Bytes head = prefix();
  const Bytes moof = moof_with_offset([](int32_t off) {
    return moof_box(1, {traf({tfhd_box({0x020000, 1}), trun_box(0, 0x001, {{}, {}, {}}, off)})});
  });
  ASSERT_EQ(feed(client, cat({head, moof, box("mdat", Bytes{}.zeros(300))})).error, 0u);

  BOXLANE_FRAGMENTINFO info{};
  BOXLANE_SAMPLEINFO samples[3];
  int32_t count = -1;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), nullptr, samples, 3, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), &info, samples, 3, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), &info, samples, -1, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), &info, nullptr, 3, &count), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment("faults/nobody", &info, samples, 3, &count), BOXLANE_ERROR_PARSE_NOTFOUND));
  // One short: the record comes, the samples and the answer stay.
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), &info, samples, 2, &count), BOXLANE_ERROR_PARSE_BUFFER));
  EXPECT_EQ(info.nSampleCount, 3u);
  EXPECT_EQ(count, -1);
  EXPECT_EQ(stream_info(client).nPendingFragments, 1u);
  ASSERT_TRUE(Boxlane_Parse_GetFragment(client.c_str(), &info, samples, 3, &count));
  EXPECT_EQ(count, 3);
  EXPECT_EQ(samples[2].nOffset, head.size() + moof.size() + 8 + 200);
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(client.c_str(), &info, samples, 3, &count), BOXLANE_ERROR_PARSE_NODATA));
  // A client of the specified mode never has any.
  const std::string strict = other("faults/take/strict");
  ASSERT_EQ(feed(strict, cat({head, moof})).error, 0u);
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetFragment(strict.c_str(), &info, samples, 3, &count), BOXLANE_ERROR_PARSE_NODATA));
}

// Bytes the client keeps for the entries of waiting truns.
std::size_t entry_capacity(const std::string& client) {
  std::shared_lock table(m_MP4Parse.st_RWLocker);
  const QORVANE_MP4PARSE& record = *m_MP4Parse.stl_MapClient.find(std::string_view(client))->second;
  std::lock_guard guard(*record.st_Locker);
  return record.stFragments.stl_ListByte.capacity();
}

TEST_F(Faults, WaitingAnswersAreBounded) {
  const Bytes head = prefix();
  const auto moof = [](uint32_t sequence, uint32_t samples) {
    return moof_with_offset([&](int32_t off) {
      return moof_box(sequence, {traf({tfhd_box({0x020000, 1}), trun_box(0, 0x001, {}, off, 0, samples)})});
    });
  };
  // A trun with a size per sample keeps 4 bytes a sample until taken.
  const auto sized_moof = [](uint32_t sequence, uint32_t samples) {
    return moof_with_offset([&](int32_t off) {
      return moof_box(sequence, {traf({tfhd_box({0x020000, 1}), trun_box(0, 0x201, std::vector<Entry>(samples, Entry{0, 9}), off)})});
    });
  };
  // More answers than may wait: the oldest go.
  const std::string many = extended("faults/many");
  ASSERT_TRUE(send(many, head));
  for (uint32_t i = 1; i <= 4100; ++i) ASSERT_TRUE(send(many, moof(i, 1)));
  BOXLANE_STREAMINFO info = stream_info(many);
  EXPECT_EQ(std::make_tuple(info.nPendingFragments, info.nDroppedFragments, info.nFragments),
            std::make_tuple(4096u, 4u, 4100u));
  std::vector<Fragment> got = take_fragments(many);
  ASSERT_EQ(got.size(), 4096u);
  EXPECT_EQ(got.front().info.nSequence, 5u);
  EXPECT_EQ(got.back().info.nSequence, 4100u);

  // More samples than may wait: a whole answer of 2^20 samples stays, the
  // one before it goes.
  const std::string large = extended("faults/large");
  ASSERT_TRUE(send(large, head));
  ASSERT_TRUE(send(large, moof(1, 3)));
  ASSERT_TRUE(send(large, sized_moof(2, 1u << 20)));
  info = stream_info(large);
  EXPECT_EQ(std::make_tuple(info.nPendingFragments, info.nDroppedFragments), std::make_tuple(1u, 1u));
  got = take_fragments(large);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].info.nSequence, 2u);
  EXPECT_EQ(got[0].samples.size(), std::size_t{1} << 20);
  EXPECT_EQ(got[0].samples.back().nSize, 9u);
  EXPECT_GE(entry_capacity(large), std::size_t{4} << 20);
  // Once taken, the next small moof does not keep that array.
  ASSERT_TRUE(send(large, moof(3, 2)));
  EXPECT_LT(entry_capacity(large), std::size_t{1} << 20);
}

}  // namespace
}  // namespace boxlane::test
