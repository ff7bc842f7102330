// However a stream is cut into pieces, the parser hands out the same header
// records, reaches the same parse position and counts the same events as
// for one piece: every two-piece cut of a small stream, 1-byte pieces, and
// seeded random cuts, on hand-built streams and on files FFmpeg makes.
#include <boxlane/boxlane.h>

#include "intake_streams.hpp"
#include "support/paths.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace boxlane::test;

// Two seconds of 160x120 H.264 and AAC.
int make_file(const std::string& flags, const std::string& path) {
  return boxlane::test::run("ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=25 "
                            "-f lavfi -i sine=frequency=440:sample_rate=44100 -t 2 -c:v libx264 -preset ultrafast "
                            "-pix_fmt yuv420p -c:a aac " + flags + " " + path);
}

class CutInvariance : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Boxlane_Parse_Init(1)); }
  void TearDown() override { Boxlane_Parse_Destory(); }

  // Feeds the stream to a client of its own.
  FeedResult feed_fresh(const std::vector<uint8_t>& stream, const std::vector<std::size_t>& cuts, std::size_t piece = 0) {
    const std::string client = "cuts/" + std::to_string(++clients_);
    EXPECT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    FeedResult result = piece ? feed_pieces(client, stream, piece) : feed(client, stream, cuts);
    Boxlane_Parse_Delete(client.c_str());
    return result;
  }

  // Records field by field, events as the pool counted them, the final
  // position, and the position each mdat record came with (the end of the
  // mdat, whatever the cut).
  static void expect_same(const FeedResult& got, const FeedResult& want, const std::string& how) {
    ASSERT_EQ(got.headers.size(), want.headers.size()) << how;
    for (std::size_t i = 0; i < want.headers.size(); ++i) {
      const QORVANE_MP4HDR& a = got.headers[i];
      const QORVANE_MP4HDR& b = want.headers[i];
      ASSERT_TRUE(a.nBoxSize == b.nBoxSize && a.enHType == b.enHType && a.wUUIDHead == b.wUUIDHead &&
                  a.byVersion == b.byVersion && a.byFlags[0] == b.byFlags[0] && a.byFlags[1] == b.byFlags[1] &&
                  a.byFlags[2] == b.byFlags[2])
          << how << ", record " << i;
      if (b.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_MDAT) {
        EXPECT_EQ(got.positions[i], want.positions[i]) << how;
      }
    }
    EXPECT_EQ(got.final_position, want.final_position) << how;
    EXPECT_EQ(got.events, want.events) << how;
    EXPECT_TRUE(got.events_matched) << how;
    EXPECT_EQ(got.error, want.error) << how;
  }

  void expect_invariant(const std::vector<uint8_t>& stream, bool every_two_piece_cut) {
    const FeedResult whole = feed_fresh(stream, {});
    ASSERT_EQ(whole.error, 0u);
    ASSERT_EQ(whole.events, int64_t(whole.headers.size()));
    if (every_two_piece_cut)
      for (std::size_t cut = 1; cut < stream.size(); ++cut) {
        expect_same(feed_fresh(stream, {cut}), whole, "cut at " + std::to_string(cut));
        if (HasFatalFailure()) return;
      }
    expect_same(feed_fresh(stream, {}, 1), whole, "1-byte pieces");
    for (uint32_t seed = 1; seed <= 40; ++seed) {
      const std::size_t count = std::size_t{1} << (seed % 8);
      expect_same(feed_fresh(stream, random_cuts(stream.size(), count, seed)), whole,
                  "seed " + std::to_string(seed) + ", " + std::to_string(count) + " cuts");
      if (HasFatalFailure()) return;
    }
  }

  int clients_ = 0;
};

TEST_F(CutInvariance, HandBuiltStreams) {
  const Bytes file = movie_file(600);
  const FeedResult whole = feed_fresh(file, {});
  ASSERT_EQ(codes(whole.headers), movie_file_codes());
  EXPECT_EQ(whole.final_position, file.size());

  {
    SCOPED_TRACE("movie with mdat");
    expect_invariant(file, true);
  }
  {
    SCOPED_TRACE("upper-case MOOV, tiny mdat");
    expect_invariant(movie_file(3, "MOOV"), true);
  }
  {
    SCOPED_TRACE("stream ending in a size-1 box");
    expect_invariant(cat({movie_ftyp(), movie_moov(), box("mdat", Bytes{}.u64(100).zeros(20), 1)}), false);
  }
}

TEST_F(CutInvariance, FilesMadeByFfmpeg) {
  BOXLANE_REQUIRE_FFMPEG();
  const std::string dir = temp_dir();
  for (const std::string flags : {"-movflags +faststart", ""}) {
    SCOPED_TRACE(flags.empty() ? "moov after mdat" : "moov first");
    const std::string path = dir + "/cut" + std::to_string(flags.size()) + ".mp4";
    ASSERT_EQ(make_file(flags, path), 0);
    const std::vector<uint8_t> file = read_file(path);
    const FeedResult whole = feed_fresh(file, {});
    // The sender reached the end: every top-level box was seen.
    EXPECT_EQ(whole.final_position, file.size());
    int tracks = 0;
    for (const auto& h : whole.headers) tracks += h.enHType == ENUM_QORVANE_MORVALY_BOXLANE_HTYPE_TRAK;
    EXPECT_EQ(tracks, 2);
    expect_invariant(file, false);
  }
}

}  // namespace
