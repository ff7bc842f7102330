// The splitter: which records a run yields, in what order, with what sizes
// and codes; size fields that do not describe one buffered box; the parse
// position; Recv's answers.
#include <boxlane/boxlane.hpp>

#include "intake_streams.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace boxlane::test;

class Splitter : public ParseClientTest {
 protected:
  Splitter() : ParseClientTest("splitter", 1) {}
  // The major brand the ftyp reader stored.
  std::string major_brand(const std::string& client) {
    QORVANE_HDRFTYP ftyp{};
    EXPECT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
    Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
    return ftyp.tszMajorBrand;
  }
};

TEST_F(Splitter, OnePieceYieldsEveryBoxInStreamOrderUpToTheMdat) {
  const Bytes file = movie_file(600, "MOOV");
  const std::size_t mdat_at = file.size() - 608 - 11;
  // The piece ends 100 bytes into the mdat payload.
  ASSERT_TRUE(send(client_, file, 0, mdat_at + 108));
  std::vector<int> expected = movie_file_codes();
  expected.pop_back();  // the free box after the mdat is not reached
  EXPECT_EQ(pending_events(client_), int(expected.size()));

  std::vector<QORVANE_MP4HDR> headers;
  QORVANE_MP4HDR h;
  uint64_t pos = 0;
  while (Boxlane_Parse_Recv(client_.c_str(), &h, &pos)) {
    headers.push_back(h);
    EXPECT_EQ(pos, mdat_at + 608);  // the position at Recv: past the whole mdat
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NODATA);
  EXPECT_EQ(pending_events(client_), 0);
  ASSERT_EQ(codes(headers), expected);
  EXPECT_EQ(headers[0].nBoxSize, movie_ftyp().size());
  EXPECT_EQ(headers[1].nBoxSize, movie_moov().size());
  EXPECT_EQ(headers.back().nBoxSize, 608u);
  EXPECT_EQ(headers[4].byFlags[2], 3);  // tkhd: what its reader left in the record
  const auto* uuid_head = reinterpret_cast<const uint8_t*>(&headers[headers.size() - 2].wUUIDHead);
  EXPECT_EQ(uuid_head[0], 0xAB);
  EXPECT_EQ(uuid_head[1], 0xCD);
}

TEST_F(Splitter, SizeFieldsZeroAndOne) {
  // 0: the box takes the rest of its piece (its reader gets all of it) and
  // the next piece starts a new box.
  const Bytes ftyp = movie_ftyp();
  ASSERT_TRUE(send(client_, cat({box("ftyp", Bytes{}.str("qt  ").u32(0).str("qt  "), 0), ftyp})));
  auto headers = drain(client_);
  ASSERT_EQ(codes(headers), std::vector<int>{1});
  EXPECT_EQ(headers[0].nBoxSize, 0u);
  EXPECT_EQ(parse_position(client_), 20 + ftyp.size());
  EXPECT_EQ(major_brand(client_), "qt  ");
  ASSERT_TRUE(send(client_, ftyp));
  EXPECT_EQ(codes(drain(client_)), std::vector<int>{1});

  // 1: reported with size 0, its reader not called, nothing after it split,
  // and the stream refused from then on.
  const std::string second = other("splitter/1");
  ASSERT_TRUE(send(second, cat({box("ftyp", Bytes{}.u64(40).str("isom").u32(0), 1), movie_moov()})));
  headers = drain(second);
  ASSERT_EQ(codes(headers), std::vector<int>{1});
  EXPECT_EQ(headers[0].nBoxSize, 0u);
  EXPECT_EQ(major_brand(second), "");
  EXPECT_EQ(parse_position(second), 0u);
  EXPECT_FALSE(send(second, ftyp));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTSUPPORT);
}

TEST_F(Splitter, MalformedAndOversizedBoxesStopTheStream) {
  constexpr uint32_t limit = 256u << 20;
  // The box before is queued, nothing for the bad one, and later pieces are
  // refused. A bad header that arrives split is judged once complete.
  const auto expect_stopped = [&](const std::vector<Bytes>& pieces, uint64_t code, const std::string& what) {
    const std::string client = other(what);
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) ASSERT_TRUE(send(client, pieces[i])) << what;
    EXPECT_FALSE(send(client, pieces.back())) << what;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), code) << what;
    EXPECT_EQ(codes(drain(client)), std::vector<int>{1}) << what;
    const Peek p = peek(client);
    EXPECT_TRUE(p.stop && p.queued == 0) << what;
    EXPECT_FALSE(send(client, movie_ftyp())) << what;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTSUPPORT) << what;
  };
  for (uint32_t size = 2; size <= 7; ++size)
    expect_stopped({cat({movie_ftyp(), box("moov", Bytes{}.zeros(40), size)})}, BOXLANE_ERROR_PARSE_MALFORMED,
                   "size " + std::to_string(size));
  expect_stopped({cat({movie_ftyp(), Bytes{0, 0, 0}}), Bytes{4, 'f', 'r', 'e', 'e', 0, 0}},
                 BOXLANE_ERROR_PARSE_MALFORMED, "split size 4");
  expect_stopped({cat({movie_ftyp(), box("free", Bytes{}.zeros(100), limit + 1)})}, BOXLANE_ERROR_PARSE_NOTSUPPORT,
                 "256 MiB + 1");

  // Exactly the limit waits in a buffer of the initial size.
  ASSERT_TRUE(send(client_, box("moov", Bytes{}.zeros(100), limit)));
  const Peek p = peek(client_);
  EXPECT_TRUE(!p.back_finished && p.back_box_len == int32_t(limit) && p.back_buffer == 10'485'760u);
  // An mdat is never buffered, so any size goes.
  const std::string media = other("splitter/mdat");
  ASSERT_TRUE(send(media, box("mdat", Bytes{}.zeros(100), 0xFFFFFFF0u)));
  EXPECT_EQ(drain(media)[0].nBoxSize, 0xFFFFFFF0u);
  EXPECT_EQ(parse_position(media), 0xFFFFFFF0u);
}

TEST_F(Splitter, PartialTailsCountOnlyOnceSplit) {
  const Bytes ftyp = movie_ftyp();
  const Bytes moov = movie_moov();
  ASSERT_TRUE(send(client_, cat({ftyp, std::vector<uint8_t>(moov.begin(), moov.begin() + 3)})));
  QORVANE_MP4HDR h;
  uint64_t pos = 0;
  ASSERT_TRUE(Boxlane_Parse_Recv(client_.c_str(), &h, &pos));
  EXPECT_EQ(pos, ftyp.size());
  // A partial header: not ready, no event, 3 of 8 bytes held.
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, &pos));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTREADY);
  EXPECT_EQ(pending_events(client_), 0);
  const Peek p = peek(client_);
  EXPECT_TRUE(p.back_msg_len == 3 && p.back_box_len == 8);

  ASSERT_TRUE(send(client_, moov, 3));
  EXPECT_EQ(parse_position(client_), ftyp.size() + moov.size());
  EXPECT_EQ(codes(drain(client_)), kMovieMoovCodes);
  // An mdat header moves the position past the whole mdat.
  ASSERT_TRUE(send(client_, Bytes{0, 0, 0x10, 0, 'm', 'd', 'a', 't', 1, 2}));
  EXPECT_EQ(parse_position(client_), ftyp.size() + moov.size() + 0x1000);
}

}  // namespace
