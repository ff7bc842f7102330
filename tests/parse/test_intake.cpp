// Parse clients and intake: argument checks, the client table, boxes that
// arrive in pieces, reassembly of a box larger than the first buffer, and
// what still works while there is no task pool.
#include <boxlane/boxlane.hpp>

#include "support/box_builder.hpp"
#include "support/stream_feeder.hpp"
#include "intake_streams.hpp"
#include "record_peek.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace boxlane::test;

std::vector<int> codes(const std::vector<QORVANE_MP4HDR>& headers) {
  std::vector<int> out;
  for (const auto& h : headers) out.push_back(static_cast<int>(h.enHType));
  return out;
}

bool send(const std::string& client, const std::vector<uint8_t>& bytes, std::size_t from = 0,
          std::size_t to = std::string::npos) {
  to = std::min(to, bytes.size());
  return Boxlane_Parse_Send(client.c_str(), bytes.data() + from, static_cast<int32_t>(to - from));
}

class Intake : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Boxlane_Parse_Init(2));
    client_ = std::string("intake/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  }
  void TearDown() override {
    Boxlane_Parse_Delete(client_.c_str());
    Boxlane_Parse_Destory();
  }
  std::string client_;
};

TEST_F(Intake, BadArgumentsFailWithParameterAndChangeNothing) {
  const std::string long_client(128, 'x');
  const std::string longest_client(127, 'x');
  const Bytes ftyp = movie_ftyp();
  const auto expect_parameter = [](bool result, const char* what) {
    EXPECT_FALSE(result) << what;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_PARAMETER) << what;
  };
  const std::size_t clients = m_MP4Parse.stl_MapClient.size();
  expect_parameter(Boxlane_Parse_Insert(nullptr), "insert null");
  expect_parameter(Boxlane_Parse_Insert(long_client.c_str()), "insert 128 bytes");
  EXPECT_EQ(m_MP4Parse.stl_MapClient.size(), clients);
  expect_parameter(Boxlane_Parse_Delete(nullptr), "delete null");
  expect_parameter(Boxlane_Parse_Send(nullptr, ftyp.data(), 8), "send null client");
  expect_parameter(Boxlane_Parse_Send(long_client.c_str(), ftyp.data(), 8), "send 128 bytes");
  expect_parameter(Boxlane_Parse_Send(client_.c_str(), nullptr, 8), "send null data");
  expect_parameter(Boxlane_Parse_Send(client_.c_str(), ftyp.data(), -1), "send negative length");
  expect_parameter(Boxlane_Parse_Recv(long_client.c_str(), nullptr, nullptr), "recv 128 bytes");
  EXPECT_EQ(peek(client_).queued, 0u);
  EXPECT_EQ(parse_position(client_), 0u);

  // Length 0 does nothing, with or without data.
  EXPECT_TRUE(Boxlane_Parse_Send(client_.c_str(), nullptr, 0));
  EXPECT_TRUE(Boxlane_Parse_Send(client_.c_str(), ftyp.data(), 0));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
  EXPECT_EQ(peek(client_).queued, 0u);

  // 127 bytes and the NUL fit.
  ASSERT_TRUE(Boxlane_Parse_Insert(longest_client.c_str()));
  EXPECT_TRUE(send(longest_client, ftyp));
  EXPECT_EQ(pending_events(longest_client), 1);
  EXPECT_EQ(codes(drain(longest_client)), std::vector<int>{1});
  EXPECT_TRUE(Boxlane_Parse_Delete(longest_client.c_str()));
}

TEST_F(Intake, ClientTableKeysExactBytesAndKeepsRecordsOnReinsert) {
  const Bytes ftyp = movie_ftyp();
  ASSERT_TRUE(send(client_, ftyp));
  // A second Insert keeps the queued record, its position and its event.
  EXPECT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  EXPECT_EQ(parse_position(client_), ftyp.size());
  EXPECT_EQ(pending_events(client_), 1);

  // Case matters: another client.
  std::string other = client_;
  other[0] = 'I';
  EXPECT_FALSE(send(other, ftyp));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTFOUND);
  // Deleting an unknown client is no error.
  EXPECT_TRUE(Boxlane_Parse_Delete(other.c_str()));
  EXPECT_FALSE(Boxlane_IsErrorOccur);

  // A pending tail is released with the client; after Delete the client is
  // unknown, and inserted again it starts afresh.
  ASSERT_TRUE(send(client_, movie_moov(), 0, 100));
  ASSERT_TRUE(Boxlane_Parse_Delete(client_.c_str()));
  QORVANE_MP4HDR h;
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTFOUND);
  EXPECT_FALSE(send(client_, ftyp));
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
  ASSERT_EQ(moov.size(), 5000u);
  for (std::size_t at = 0; at < 4000; at += 1000) {
    ASSERT_TRUE(send(client_, moov, at, at + 1000));
    EXPECT_EQ(pending_events(client_), 0) << at;
    EXPECT_EQ(parse_position(client_), 0u) << at;
  }
  ASSERT_TRUE(send(client_, moov, 4000, 5000));
  std::vector<int> expected = kMovieMoovCodes;
  expected.push_back(0);
  EXPECT_EQ(pending_events(client_), int(expected.size()));
  EXPECT_EQ(codes(drain(client_)), expected);

  // A piece that completes a box, holds whole boxes after it and ends inside
  // another: all whole boxes come in that Send, and only the unfinished
  // tail is kept.
  const Bytes ftyp = movie_ftyp();
  const Bytes stream = cat({ftyp, ftyp, movie_uuid(), moov});
  ASSERT_TRUE(send(client_, stream, 0, 10));
  ASSERT_TRUE(send(client_, stream, 10, 2 * ftyp.size() + movie_uuid().size() + 30));
  EXPECT_EQ(codes(drain(client_)), (std::vector<int>{1, 1, 4}));
  const Peek p = peek(client_);
  EXPECT_FALSE(p.back_finished);
  EXPECT_EQ(p.back_msg_len, 30);
  EXPECT_EQ(p.back_box_len, 5000);
  ASSERT_TRUE(send(client_, stream, 2 * ftyp.size() + movie_uuid().size() + 30));
  EXPECT_EQ(codes(drain(client_)), expected);
  EXPECT_EQ(parse_position(client_), 5000 + stream.size());
}

TEST_F(Intake, MoovLargerThanTheFirstBufferParsesFromSmallPieces) {
  // 40 MB of moov, most of it one unknown child, sent in 64 KiB pieces.
  Bytes payload;
  payload.reserve(40'000'000);
  const Bytes inner = movie_moov();
  payload.insert(payload.end(), inner.begin() + 8, inner.end());
  const std::size_t filler = 40'000'000 - 16 - payload.size();
  payload.u32(uint32_t(filler + 8)).str("junk").zeros(filler);
  const Bytes moov = box("moov", payload);
  ASSERT_EQ(moov.size(), 40'000'000u);

  std::size_t largest_buffer = 0;
  for (std::size_t at = 0; at < moov.size(); at += 65536) {
    ASSERT_TRUE(send(client_, moov, at, at + 65536)) << at;
    const Peek p = peek(client_);
    if (at == 0) {
      EXPECT_EQ(p.back_buffer, 10'485'760u);
    }
    if (!p.back_finished) largest_buffer = std::max(largest_buffer, p.back_buffer);
  }
  // Doubled from the initial size, and no larger than the box.
  EXPECT_GE(largest_buffer, moov.size());
  EXPECT_LE(largest_buffer, 41'943'040u);
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

  const std::string late = client_ + "/late";
  ASSERT_TRUE(Boxlane_Parse_Insert(late.c_str()));
  ASSERT_TRUE(send(client_, movie_ftyp()));
  ASSERT_TRUE(send(late, movie_ftyp()));
  EXPECT_EQ(codes(drain(client_)), std::vector<int>{1});

  // A new pool knows only clients inserted after it.
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  const std::string fresh = client_ + "/fresh";
  ASSERT_TRUE(Boxlane_Parse_Insert(fresh.c_str()));
  ASSERT_TRUE(send(late, movie_ftyp()));
  ASSERT_TRUE(send(fresh, movie_ftyp()));
  ASSERT_TRUE(Boxlane_Parse_GetPool(0, &list, &count));
  ASSERT_EQ(count, 1);
  EXPECT_EQ(std::string(list[0]->tszClientAddr), fresh);
  EXPECT_EQ(list[0]->nEventCount, 1);
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  EXPECT_EQ(codes(drain(late)), (std::vector<int>{1, 1}));
  EXPECT_EQ(codes(drain(fresh)), std::vector<int>{1});
  EXPECT_EQ(pending_events(fresh), 0);

  // The pool's own codes come through unchanged.
  EXPECT_FALSE(Boxlane_Parse_WaitEvent(0, 0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_TIMEOUT);
  EXPECT_FALSE(Boxlane_Parse_WaitEvent(7, 0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_FALSE(Boxlane_Parse_Init(0));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_TRUE(Boxlane_Parse_ActiveEvent(0));  // the pool made above is still there
  Boxlane_Parse_Delete(late.c_str());
  Boxlane_Parse_Delete(fresh.c_str());
}

}  // namespace
