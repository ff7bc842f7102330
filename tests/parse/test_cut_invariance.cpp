// However a stream is cut into pieces, the parser hands out the same header
// records, reaches the same parse position and counts the same events as
// for one piece: every two-piece cut of a small stream, 1-byte pieces, and
// seeded random cuts. The FFmpeg files get the same comparison in
// test_ffmpeg_files.cpp.
#include <boxlane/boxlane.h>

#include "intake_streams.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace boxlane::test;

class CutInvariance : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Boxlane_Parse_Init(1)); }
  void TearDown() override { Boxlane_Parse_Destory(); }

  // Feeds the stream to a client of its own.
  FeedResult feed_fresh(const std::vector<uint8_t>& stream, const std::vector<std::size_t>& cuts, std::size_t piece = 0) {
    const std::string client = "cuts/" + std::to_string(++clients_);
    EXPECT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    FeedResult result = feed(client, stream, cuts, piece);
    Boxlane_Parse_Delete(client.c_str());
    return result;
  }

  void expect_invariant(const std::vector<uint8_t>& stream, bool every_two_piece_cut) {
    const FeedResult whole = feed_fresh(stream, {});
    ASSERT_EQ(whole.error, 0u);
    ASSERT_EQ(whole.events, int64_t(whole.headers.size()));
    for (std::size_t cut = 1; every_two_piece_cut && cut < stream.size() && !HasFatalFailure(); ++cut)
      expect_same_feed(feed_fresh(stream, {cut}), whole, "cut at " + std::to_string(cut));
    expect_same_feed(feed_fresh(stream, {}, 1), whole, "1-byte pieces");
    for (uint32_t seed = 1; seed <= 40 && !HasFatalFailure(); ++seed) {
      const std::size_t count = std::size_t{1} << (seed % 8);
      expect_same_feed(feed_fresh(stream, random_cuts(stream.size(), count, seed)), whole,
                       "seed " + std::to_string(seed) + ", " + std::to_string(count) + " cuts");
    }
  }

  int clients_ = 0;
};

TEST_F(CutInvariance, HandBuiltStreams) {
  const Bytes file = movie_file(600);
  const FeedResult whole = feed_fresh(file, {});
  ASSERT_EQ(codes(whole.headers), movie_file_codes());
  EXPECT_EQ(whole.final_position, file.size());

  const std::tuple<const char*, Bytes, bool> streams[] = {
      {"movie with mdat", file, true},
      {"upper-case MOOV, tiny mdat", movie_file(3, "MOOV"), true},
      {"stream ending in a size-1 box", cat({movie_ftyp(), movie_moov(), box("mdat", Bytes{}.u64(100).zeros(20), 1)}), false},
  };
  for (const auto& [what, stream, every_two_piece_cut] : streams) {
    SCOPED_TRACE(what);
    expect_invariant(stream, every_two_piece_cut);
  }
}

}  // namespace
