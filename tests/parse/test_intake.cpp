// Parse clients and intake: argument checks, the client table, boxes that
// arrive in pieces, a box larger than the first buffer, and what still
// works while there is no task pool. Then the splitter: which records a run
// yields, in what order, with what sizes and codes; size fields that do not
// describe one buffered box (0 in both modes); the parse position; Recv's
// answers. Last, the same records, parse position and event counts however a
// stream is cut: every two-piece cut of a small stream, 1-byte pieces, and
// seeded random cuts.
#include <boxlane/boxlane.hpp>

#include "fragment_streams.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace boxlane::test;

using Intake = ParseClientTest;
using Splitter = ParseClientTest;

// The major brand the ftyp reader stored.
std::string major_brand(const std::string& client) {
  QORVANE_HDRFTYP ftyp{};
  EXPECT_TRUE(Boxlane_Parse_GetFTyp(client.c_str(), &ftyp));
  Fundrel_Memory_Free(reinterpret_cast<void***>(&ftyp.pptszCompatibleBrand), ftyp.nBrandCount);
  return ftyp.tszMajorBrand;
}

TEST_F(Intake, BadArgumentsFailWithParameterAndChangeNothing) {
  const std::string too_long(128, 'x');
  const Bytes ftyp = movie_ftyp();
  const std::size_t clients = m_MP4Parse.stl_MapClient.size();
  QORVANE_MP4HDR h;
  EXPECT_TRUE(fails_with(Boxlane_Parse_Insert(nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Insert(too_long.c_str()), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Delete(nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send(nullptr, ftyp.data(), 8), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send(too_long.c_str(), ftyp.data(), 8), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send(client_.c_str(), nullptr, 8), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send(client_.c_str(), ftyp.data(), -1), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(too_long.c_str(), &h, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), nullptr, nullptr), BOXLANE_ERROR_PARSE_PARAMETER));
  EXPECT_EQ(m_MP4Parse.stl_MapClient.size(), clients);
  // Length 0 does nothing, with or without data.
  EXPECT_TRUE(Boxlane_Parse_Send(client_.c_str(), nullptr, 0) && Boxlane_Parse_Send(client_.c_str(), ftyp.data(), 0));
  EXPECT_EQ(peek(client_).queued, 0u);
  // 127 bytes and the NUL fit.
  const std::string longest = other(std::string(127, 'x'));
  EXPECT_TRUE(send(longest, ftyp));
  EXPECT_EQ(pending_events(longest), 1);
}

TEST_F(Intake, ClientTableKeysExactBytesAndKeepsRecordsOnReinsert) {
  const Bytes ftyp = movie_ftyp();
  ASSERT_TRUE(send(client_, ftyp));
  EXPECT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  EXPECT_EQ(parse_position(client_), ftyp.size());
  EXPECT_EQ(pending_events(client_), 1);

  EXPECT_TRUE(fails_with(send("Intake", ftyp), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(Boxlane_Parse_Delete("Intake"));
  EXPECT_FALSE(Boxlane_IsErrorOccur);

  // Deleted with a pending tail; afterwards unknown, and inserted again it
  // starts afresh.
  ASSERT_TRUE(send(client_, movie_moov(), 0, 100));
  ASSERT_TRUE(Boxlane_Parse_Delete(client_.c_str()));
  QORVANE_MP4HDR h;
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr), BOXLANE_ERROR_PARSE_NOTFOUND));
  ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  EXPECT_EQ(parse_position(client_), 0u);
  EXPECT_EQ(peek(client_).queued, 0u);
  EXPECT_EQ(pending_events(client_), 0);
}

// The movie's moov grown to `size` bytes by one last child of an unknown type.
Bytes padded_moov(std::size_t size) {
  const Bytes inner = movie_moov();
  Bytes payload;
  payload.reserve(size);
  payload.insert(payload.end(), inner.begin() + 8, inner.end());
  const std::size_t filler = size - 16 - payload.size();
  payload.u32(uint32_t(filler + 8)).str("junk").zeros(filler);
  return box("moov", payload);
}

TEST_F(Intake, BoxesArrivingInPiecesAreSplitOnceWhole) {
  // A 5,000-byte moov in pieces of 1,000 and one of 40 MB in 64 KiB pieces:
  // nothing until the last piece. The big one's buffer is doubled from
  // 10 MiB to no more than the box needs.
  std::vector<int> expected = kMovieMoovCodes;
  expected.push_back(0);
  for (const auto& [size, piece] : {std::pair<std::size_t, std::size_t>{5000, 1000}, {40'000'000, 65536}}) {
    const std::string client = other("intake/" + std::to_string(size));
    const Bytes moov = padded_moov(size);
    std::size_t largest = 0;
    for (std::size_t at = 0; at < size; at += piece) {
      ASSERT_TRUE(send(client, moov, at, at + piece)) << at;
      EXPECT_EQ(pending_events(client), at + piece < size ? 0 : int(expected.size())) << at;
      const Peek p = peek(client);
      if (!p.back_finished) largest = std::max(largest, p.back_buffer);
    }
    EXPECT_EQ(largest, std::max<std::size_t>(size, 10'485'760));
    EXPECT_EQ(codes(drain(client)), expected);
    EXPECT_EQ(parse_position(client), size);
  }

  // A piece that completes a box, holds whole boxes and ends inside another
  // yields the whole ones at once and keeps only the unfinished tail.
  const Bytes ftyp = movie_ftyp();
  const Bytes moov = padded_moov(5000);
  const Bytes stream = cat({ftyp, ftyp, movie_uuid(), moov});
  const std::size_t tail_at = stream.size() - moov.size() + 30;
  ASSERT_TRUE(send(client_, stream, 0, 10));
  ASSERT_TRUE(send(client_, stream, 10, tail_at));
  EXPECT_EQ(codes(drain(client_)), (std::vector<int>{1, 1, 4}));
  const Peek p = peek(client_);
  EXPECT_TRUE(!p.back_finished && p.back_msg_len == 30 && p.back_box_len == 5000);
  ASSERT_TRUE(send(client_, stream, tail_at));
  EXPECT_EQ(codes(drain(client_)), expected);
  EXPECT_EQ(parse_position(client_), stream.size());
}

TEST_F(Intake, WithoutATaskPoolParsingGoesOnAndEventCallsFail) {
  ASSERT_TRUE(Boxlane_Parse_Destory());
  EXPECT_TRUE(Boxlane_Parse_Destory());
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetPool(0, &list, &count), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_WaitEvent(0, -1), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_ActiveEvent(0), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  ASSERT_TRUE(send(client_, movie_ftyp()));
  EXPECT_EQ(codes(drain(client_)), std::vector<int>{1});

  // A new pool knows only the clients inserted after it.
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  const std::string fresh = other("intake/fresh");
  ASSERT_TRUE(send(client_, movie_ftyp()) && send(fresh, movie_ftyp()));
  ASSERT_TRUE(Boxlane_Parse_GetPool(0, &list, &count));
  const auto listed = take_list(list, count);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(std::string(listed[0].tszClientAddr), fresh);

  // The pool's own codes come through unchanged.
  EXPECT_TRUE(fails_with(Boxlane_Parse_WaitEvent(1, 0), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  EXPECT_EQ(drain(fresh).size(), 1u);
  EXPECT_TRUE(fails_with(Boxlane_Parse_WaitEvent(0, 0), RENDAVO_ERROR_TASKPOOL_TIMEOUT));
}

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
  EXPECT_EQ((std::vector<uint64_t>{headers[0].nBoxSize, headers[1].nBoxSize, headers.back().nBoxSize}),
            (std::vector<uint64_t>{movie_ftyp().size(), movie_moov().size(), 608}));
  EXPECT_EQ(headers[4].byFlags[2], 3);  // tkhd: what its reader left in the record
  const auto* uuid_head = reinterpret_cast<const uint8_t*>(&headers[headers.size() - 2].wUUIDHead);
  EXPECT_TRUE(uuid_head[0] == 0xAB && uuid_head[1] == 0xCD);
}

// Size 0: the box runs to the end of the stream, in either mode. It takes
// the rest of its piece (its reader gets all of it), and every later piece is
// its payload: taken, counted in the position, never split or queued.
TEST_F(Splitter, SizeZeroTakesTheRestOfTheStream) {
  const Bytes ftyp = movie_ftyp();
  for (const std::string& c : {client_, extended("zero/extended")}) {
    SCOPED_TRACE(c);
    ASSERT_TRUE(send(c, cat({box("ftyp", Bytes{}.str("qt  ").u32(0).str("qt  "), 0), ftyp})));
    const auto headers = drain(c);
    ASSERT_EQ(codes(headers), std::vector<int>{1});
    EXPECT_EQ(headers[0].nBoxSize, 0u);
    EXPECT_EQ(major_brand(c), "qt  ");
    for (int i = 0; i < 64; ++i) ASSERT_TRUE(send(c, Bytes{}.zeros(65536)));
    EXPECT_TRUE(drain(c).empty());
    EXPECT_EQ(std::make_tuple(pending_events(c), peek(c).queued), std::make_tuple(0, std::size_t{0}));
    EXPECT_EQ(parse_position(c), 20 + ftyp.size() + 64 * 65536);
    BOXLANE_STREAMINFO stream{};
    ASSERT_TRUE(Boxlane_Parse_GetStream(c.c_str(), &stream));
    EXPECT_EQ(std::make_tuple(stream.nStop, stream.nStopOffset, std::string(stream.tszStopType)),
              std::make_tuple(uint32_t{BOXLANE_STOP_TOEND}, uint64_t{0}, std::string("ftyp")));
  }
  // A size-0 header that completes in the piece after: the rest of that
  // piece is its payload too.
  const std::string split = extended("zero/split");
  const Bytes mdat = cat({ftyp, box("mdat", {}, 0), ftyp});
  ASSERT_TRUE(send(split, mdat, 0, ftyp.size() + 3));
  ASSERT_TRUE(send(split, mdat, ftyp.size() + 3));
  EXPECT_EQ(codes(drain(split)), (std::vector<int>{1, 2}));
  EXPECT_EQ(parse_position(split), mdat.size());
  EXPECT_EQ(stream_info(split).nStopOffset, ftyp.size());
}

TEST_F(Splitter, MalformedAndOversizedBoxesStopTheStream) {
  constexpr uint32_t limit = 256u << 20;
  // The box before is queued, nothing for the bad one, and later pieces are
  // refused. A bad header that arrives split is judged once complete.
  const auto expect_stopped = [&](const std::vector<Bytes>& pieces, uint64_t code, const std::string& what) {
    const std::string client = other(what);
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) ASSERT_TRUE(send(client, pieces[i])) << what;
    EXPECT_TRUE(fails_with(send(client, pieces.back()), code)) << what;
    EXPECT_EQ(codes(drain(client)), std::vector<int>{1}) << what;
    const Peek p = peek(client);
    EXPECT_TRUE(p.stop && p.queued == 0) << what;
    EXPECT_TRUE(fails_with(send(client, movie_ftyp()), BOXLANE_ERROR_PARSE_NOTSUPPORT)) << what;
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
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), &h, &pos), BOXLANE_ERROR_PARSE_NOTREADY));
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

// The same records, positions and event counts however a stream is cut:
// every two-piece cut, 1-byte pieces and seeded random cuts. An mdat that lies
// wholly inside the piece is stepped over, unread, and the boxes after it are
// split in the same call.
TEST_F(ParseClientTest, CutsChangeNothing) {
  int clients = 0;
  const auto fresh = [&](const std::vector<uint8_t>& stream, const std::vector<std::size_t>& cuts, std::size_t piece) {
    const std::string client = other("cuts/" + std::to_string(++clients));
    return feed(client, stream, cuts, piece);
  };
  const std::pair<const char*, Bytes> streams[] = {
      {"movie with mdat", movie_file(600, "MOOV")},
      {"tiny mdat", movie_file(3)},
      {"ending in a size-1 box", cat({movie_ftyp(), movie_moov(), box("mdat", Bytes{}.u64(100).zeros(20), 1)})},
  };
  for (const auto& [what, stream] : streams) {
    SCOPED_TRACE(what);
    const FeedResult whole = fresh(stream, {}, 0);
    ASSERT_EQ(whole.error, 0u);
    ASSERT_EQ(whole.events, int64_t(whole.headers.size()));
    if (&stream == &streams[0].second) {
      EXPECT_EQ(codes(whole.headers), movie_file_codes());
      EXPECT_EQ(whole.final_position, stream.size());
    }
    for (std::size_t cut = 1; cut < stream.size() && !HasFatalFailure(); ++cut)
      expect_same_feed(fresh(stream, {cut}, 0), whole, "cut at " + std::to_string(cut));
    expect_same_feed(fresh(stream, {}, 1), whole, "1-byte pieces");
    for (uint32_t seed = 1; seed <= 8; ++seed)
      expect_same_feed(fresh(stream, random_cuts(stream.size(), std::size_t{2} << seed, seed), 0), whole,
                       "seed " + std::to_string(seed));
  }
}

}  // namespace
