// Parse clients and intake: argument checks, the client table, boxes that
// arrive in pieces, a box larger than the first buffer, and what still
// works while there is no task pool.
#include <boxlane/boxlane.hpp>

#include "intake_streams.hpp"
#include "support/stream_feeder.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace boxlane::test;

class Intake : public ParseClientTest {
 protected:
  Intake() : ParseClientTest("intake", 2) {}
};

TEST_F(Intake, BadArgumentsFailWithParameterAndChangeNothing) {
  const std::string too_long(128, 'x');
  const Bytes ftyp = movie_ftyp();
  const std::size_t clients = m_MP4Parse.stl_MapClient.size();
  QORVANE_MP4HDR h;
  int call = 0;
  const auto expect_parameter = [&call](bool result) {
    ++call;
    EXPECT_FALSE(result) << "call " << call;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_PARAMETER) << "call " << call;
  };
  expect_parameter(Boxlane_Parse_Insert(nullptr));
  expect_parameter(Boxlane_Parse_Insert(too_long.c_str()));
  expect_parameter(Boxlane_Parse_Delete(nullptr));
  expect_parameter(Boxlane_Parse_Send(nullptr, ftyp.data(), 8));
  expect_parameter(Boxlane_Parse_Send(too_long.c_str(), ftyp.data(), 8));
  expect_parameter(Boxlane_Parse_Send(client_.c_str(), nullptr, 8));
  expect_parameter(Boxlane_Parse_Send(client_.c_str(), ftyp.data(), -1));
  expect_parameter(Boxlane_Parse_Recv(too_long.c_str(), &h, nullptr));
  expect_parameter(Boxlane_Parse_Recv(client_.c_str(), nullptr, nullptr));
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

  EXPECT_FALSE(send("Intake", ftyp));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTFOUND);
  EXPECT_TRUE(Boxlane_Parse_Delete("Intake"));
  EXPECT_FALSE(Boxlane_IsErrorOccur);

  // Deleted with a pending tail; afterwards unknown, and inserted again it
  // starts afresh.
  ASSERT_TRUE(send(client_, movie_moov(), 0, 100));
  ASSERT_TRUE(Boxlane_Parse_Delete(client_.c_str()));
  QORVANE_MP4HDR h;
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTFOUND);
  ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  EXPECT_EQ(parse_position(client_), 0u);
  EXPECT_EQ(peek(client_).queued, 0u);
  EXPECT_EQ(pending_events(client_), 0);
}

TEST_F(Intake, BoxesArrivingInPiecesAreSplitOnceWhole) {
  // A 5,000-byte moov in five pieces of 1,000: nothing until the fifth.
  const Bytes inner = movie_moov();
  const Bytes moov = box("moov", cat({std::vector<uint8_t>(inner.begin() + 8, inner.end()),
                                      box("free", Bytes{}.zeros(5000 - inner.size() - 8))}));
  std::vector<int> expected = kMovieMoovCodes;
  expected.push_back(0);
  for (std::size_t at = 0; at < 5000; at += 1000) {
    ASSERT_TRUE(send(client_, moov, at, at + 1000));
    EXPECT_EQ(pending_events(client_), at < 4000 ? 0 : int(expected.size())) << at;
  }
  EXPECT_EQ(codes(drain(client_)), expected);

  // A piece that completes a box, holds whole boxes and ends inside another
  // yields the whole ones at once and keeps only the unfinished tail.
  const Bytes ftyp = movie_ftyp();
  const Bytes stream = cat({ftyp, ftyp, movie_uuid(), moov});
  const std::size_t tail_at = stream.size() - moov.size() + 30;
  ASSERT_TRUE(send(client_, stream, 0, 10));
  ASSERT_TRUE(send(client_, stream, 10, tail_at));
  EXPECT_EQ(codes(drain(client_)), (std::vector<int>{1, 1, 4}));
  const Peek p = peek(client_);
  EXPECT_TRUE(!p.back_finished && p.back_msg_len == 30 && p.back_box_len == 5000);
  ASSERT_TRUE(send(client_, stream, tail_at));
  EXPECT_EQ(codes(drain(client_)), expected);
  EXPECT_EQ(parse_position(client_), 5000 + stream.size());
}

TEST_F(Intake, MoovLargerThanTheFirstBufferParsesFromSmallPieces) {
  // 40 MB of moov, most of it one unknown child, in 64 KiB pieces.
  const Bytes inner = movie_moov();
  Bytes payload;
  payload.reserve(40'000'000);
  payload.insert(payload.end(), inner.begin() + 8, inner.end());
  const std::size_t filler = 40'000'000 - 16 - payload.size();
  payload.u32(uint32_t(filler + 8)).str("junk").zeros(filler);
  const Bytes moov = box("moov", payload);

  std::size_t largest = 0;
  for (std::size_t at = 0; at < moov.size(); at += 65536) {
    ASSERT_TRUE(send(client_, moov, at, at + 65536)) << at;
    const Peek p = peek(client_);
    if (!p.back_finished) largest = std::max(largest, p.back_buffer);
  }
  // Doubled from 10 MiB, to no more than the box needs.
  EXPECT_EQ(largest, moov.size());
  std::vector<int> expected = kMovieMoovCodes;
  expected.push_back(0);
  EXPECT_EQ(codes(drain(client_)), expected);
  EXPECT_EQ(parse_position(client_), moov.size());
}

TEST_F(Intake, WithoutATaskPoolParsingGoesOnAndEventCallsFail) {
  ASSERT_TRUE(Boxlane_Parse_Destory());
  EXPECT_TRUE(Boxlane_Parse_Destory());
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  EXPECT_FALSE(Boxlane_Parse_GetPool(0, &list, &count));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_FALSE(Boxlane_Parse_WaitEvent(0, -1));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_FALSE(Boxlane_Parse_ActiveEvent(0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  ASSERT_TRUE(send(client_, movie_ftyp()));
  EXPECT_EQ(codes(drain(client_)), std::vector<int>{1});

  // A new pool knows only the clients inserted after it.
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  const std::string fresh = other("intake/fresh");
  ASSERT_TRUE(send(client_, movie_ftyp()) && send(fresh, movie_ftyp()));
  ASSERT_TRUE(Boxlane_Parse_GetPool(0, &list, &count));
  ASSERT_EQ(count, 1);
  EXPECT_EQ(std::string(list[0]->tszClientAddr), fresh);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);

  // The pool's own codes come through unchanged.
  EXPECT_FALSE(Boxlane_Parse_WaitEvent(1, 0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_TRUE(drain(fresh).size() == 1 && !Boxlane_Parse_WaitEvent(0, 0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_TIMEOUT);
}

}  // namespace
