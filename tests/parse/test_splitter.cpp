// The splitter: which records a run yields, in what order and with what
// sizes and codes; size fields that do not describe one whole box; the parse
// position; and Recv's answers.
#include <boxlane/boxlane.hpp>

#include "support/box_builder.hpp"
#include "support/stream_feeder.hpp"
#include "intake_streams.hpp"
#include "record_peek.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace boxlane::test;

std::vector<int> codes(const std::vector<QORVANE_MP4HDR>& headers) {
  std::vector<int> out;
  for (const auto& h : headers) out.push_back(static_cast<int>(h.enHType));
  return out;
}

bool send(const std::string& client, const std::vector<uint8_t>& bytes) {
  return Boxlane_Parse_Send(client.c_str(), bytes.data(), static_cast<int32_t>(bytes.size()));
}

class Splitter : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Boxlane_Parse_Init(1));
    client_ = std::string("splitter/") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  }
  void TearDown() override {
    Boxlane_Parse_Delete(client_.c_str());
    Boxlane_Parse_Destory();
  }
  std::string client_;
};

TEST_F(Splitter, WholeFileYieldsOneRecordPerBoxInStreamOrder) {
  const Bytes file = movie_file(600);
  const Bytes moov = movie_moov();
  const std::size_t mdat_at = movie_ftyp().size() + moov.size() + 13 + movie_uuid().size();

  // One piece up to 100 bytes into the mdat payload: everything before the
  // mdat is split, the mdat is reported whole, and its payload (which looks
  // like ftyp boxes) is not looked at.
  ASSERT_TRUE(send(client_, std::vector<uint8_t>(file.begin(), file.begin() + mdat_at + 108)));
  std::vector<int> expected = movie_file_codes();
  expected.pop_back();  // the free box after the mdat is never reached
  EXPECT_EQ(pending_events(client_), int(expected.size()));
  std::vector<QORVANE_MP4HDR> headers;
  std::vector<uint64_t> positions;
  QORVANE_MP4HDR h;
  uint64_t pos = 0;
  while (Boxlane_Parse_Recv(client_.c_str(), &h, &pos)) {
    headers.push_back(h);
    positions.push_back(pos);
  }
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NODATA);
  EXPECT_EQ(pending_events(client_), 0);

  ASSERT_EQ(codes(headers), expected);
  EXPECT_EQ(headers[0].nBoxSize, movie_ftyp().size());
  EXPECT_EQ(headers[1].nBoxSize, moov.size());
  EXPECT_EQ(headers.back().nBoxSize, 608u);
  // The track header's flags (3) are what its reader left in the record.
  EXPECT_EQ(headers[4].byFlags[2], 3);
  // uuid: the two bytes after the fourcc, in stored order.
  const uint8_t* uuid_head = reinterpret_cast<const uint8_t*>(&headers[headers.size() - 2].wUUIDHead);
  EXPECT_EQ(uuid_head[0], 0xAB);
  EXPECT_EQ(uuid_head[1], 0xCD);
  // Every record reports the position at the time of Recv: past the mdat.
  for (uint64_t p : positions) EXPECT_EQ(p, mdat_at + 608);
}

TEST_F(Splitter, EveryKnownFourccHasItsCodeInAnyLetterCase) {
  // Empty boxes side by side: a container of size 8 has no children, so each
  // is split as its own box.
  const std::vector<std::pair<const char*, int>> table = {
      {"free", 0},      {"ftyp", 1},      {"MDAT", -1},     {"moov", 3},      {"uuid", 4},      {"mvhd", 30},
      {"trak", 31},     {"tkhd", 311},    {"edts", 312},    {"elst", 3121},   {"mdia", 313},    {"mdhd", 3131},
      {"hdlr", 3132},   {"minf", 3133},   {"vmhd", 31331},  {"smhd", 31332},  {"hmhd", 31333},  {"nmhd", 31334},
      {"dinf", 31335},  {"stbl", 31336},  {"stsd", 313361}, {"stts", 313362}, {"stsc", 313363}, {"stsz", 313364},
      {"stco", 313365}, {"stss", 313366}, {"ctts", 313367}, {"sdtp", 313368}, {"MoOv", 3},      {"STBL", 31336},
      {"Sdtp", 313368}, {"skip", 0},      {"dref", 0},      {"mdaT", -1},
  };
  Bytes run;
  std::vector<int> expected;
  for (const auto& [fourcc, code] : table) {
    if (code < 0) continue;  // mdat ends a run; checked below
    run.add(box(fourcc));
    expected.push_back(code);
  }
  run.add(box("mdaT"));
  expected.push_back(2);
  ASSERT_TRUE(send(client_, run));
  EXPECT_EQ(codes(drain(client_)), expected);
}

TEST_F(Splitter, SizeFieldZeroRunsToTheEndOfThePiece) {
  const Bytes ftyp = movie_ftyp();
  ASSERT_TRUE(send(client_, cat({ftyp, box("free", Bytes{}.zeros(20), 0)})));
  auto headers = drain(client_);
  ASSERT_EQ(codes(headers), (std::vector<int>{1, 0}));
  EXPECT_EQ(headers[1].nBoxSize, 0u);
  EXPECT_EQ(parse_position(client_), ftyp.size() + 28);

  // The box took the rest of its piece; the next piece starts a new box, and
  // a size-0 ftyp hands its reader everything after its header.
  ASSERT_TRUE(send(client_, box("ftyp", Bytes{}.str("qt  ").u32(0).str("qt  mp41"), 0)));
  ASSERT_EQ(codes(drain(client_)), (std::vector<int>{1}));
  EXPECT_EQ(peek(client_).major_brand, "qt  ");
}

TEST_F(Splitter, SizeFieldOneReportsSizeZeroAndStopsTheStream) {
  // The reader is not called (the brand stays empty) and the moov after it
  // in the same piece is not split.
  ASSERT_TRUE(send(client_, cat({box("ftyp", Bytes{}.u64(40).str("isom").u32(0), 1), movie_moov()})));
  const auto headers = drain(client_);
  ASSERT_EQ(codes(headers), (std::vector<int>{1}));
  EXPECT_EQ(headers[0].nBoxSize, 0u);
  EXPECT_TRUE(peek(client_).stop);
  EXPECT_EQ(peek(client_).major_brand, "");
  EXPECT_EQ(parse_position(client_), 0u);

  EXPECT_FALSE(send(client_, movie_ftyp()));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTSUPPORT);
}

TEST_F(Splitter, SizeFieldsTwoToSevenAreMalformed) {
  for (uint32_t size = 2; size <= 7; ++size) {
    const std::string client = client_ + "/" + std::to_string(size);
    ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
    // The ftyp before it is split and queued; nothing is queued for the bad box.
    EXPECT_FALSE(send(client, cat({movie_ftyp(), box("moov", Bytes{}.zeros(40), size)}))) << size;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_MALFORMED) << size;
    EXPECT_EQ(codes(drain(client)), std::vector<int>{1}) << size;
    EXPECT_FALSE(send(client, movie_ftyp())) << size;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTSUPPORT) << size;
    Boxlane_Parse_Delete(client.c_str());
  }
  // The same when the bad header arrives split: it is judged once complete.
  ASSERT_TRUE(send(client_, Bytes{0, 0, 0}));
  EXPECT_FALSE(send(client_, Bytes{4, 'f', 'r', 'e', 'e', 0, 0}));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_MALFORMED);
}

TEST_F(Splitter, BoxesPast256MiBAreRefusedExceptMdat) {
  constexpr uint32_t limit = 256u << 20;
  // Exactly the limit is taken as a pending box in a buffer of the initial
  // size, which would grow as the box arrives.
  ASSERT_TRUE(send(client_, box("moov", Bytes{}.zeros(100), limit)));
  Peek p = peek(client_);
  EXPECT_FALSE(p.back_finished);
  EXPECT_EQ(p.back_box_len, int32_t(limit));
  EXPECT_EQ(p.back_buffer, 10'485'760u);

  // One byte more is refused when its header is read, before any buffer.
  const std::string big = client_ + "/big";
  ASSERT_TRUE(Boxlane_Parse_Insert(big.c_str()));
  EXPECT_FALSE(send(big, cat({movie_ftyp(), box("free", Bytes{}.zeros(100), limit + 1)})));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTSUPPORT);
  p = peek(big);
  EXPECT_TRUE(p.stop);
  EXPECT_EQ(p.queued, 1u);  // the ftyp
  EXPECT_TRUE(p.back_finished);
  Boxlane_Parse_Delete(big.c_str());

  // An mdat is never buffered, so its size is no concern.
  const std::string media = client_ + "/mdat";
  ASSERT_TRUE(Boxlane_Parse_Insert(media.c_str()));
  ASSERT_TRUE(send(media, box("mdat", Bytes{}.zeros(100), 0xFFFFFFF0u)));
  const auto headers = drain(media);
  ASSERT_EQ(codes(headers), std::vector<int>{2});
  EXPECT_EQ(headers[0].nBoxSize, 0xFFFFFFF0u);
  EXPECT_EQ(parse_position(media), 0xFFFFFFF0u);
  Boxlane_Parse_Delete(media.c_str());
}

TEST_F(Splitter, ParsePositionCountsOnlySplitBoxes) {
  const Bytes ftyp = movie_ftyp();
  const Bytes moov = movie_moov();
  // A stored tail does not count until its box is split.
  ASSERT_TRUE(send(client_, cat({ftyp, std::vector<uint8_t>(moov.begin(), moov.begin() + 3)})));
  EXPECT_EQ(parse_position(client_), ftyp.size());
  QORVANE_MP4HDR h;
  uint64_t pos = 0;
  ASSERT_TRUE(Boxlane_Parse_Recv(client_.c_str(), &h, &pos));
  EXPECT_EQ(pos, ftyp.size());
  // Only the partial header is left: not ready, and no event for it.
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, &pos));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTREADY);
  EXPECT_EQ(pending_events(client_), 0);
  Peek p = peek(client_);
  EXPECT_EQ(p.back_msg_len, 3);
  EXPECT_EQ(p.back_box_len, 8);

  ASSERT_TRUE(send(client_, std::vector<uint8_t>(moov.begin() + 3, moov.end())));
  EXPECT_EQ(parse_position(client_), ftyp.size() + moov.size());
  EXPECT_EQ(codes(drain(client_)), kMovieMoovCodes);

  // mdat: the full size, whatever part of it came.
  ASSERT_TRUE(send(client_, Bytes{0, 0, 0x10, 0, 'm', 'd', 'a', 't', 1, 2}));
  EXPECT_EQ(parse_position(client_), ftyp.size() + moov.size() + 0x1000);
}

TEST_F(Splitter, RecvRefusesWhatItCannotHandOut) {
  QORVANE_MP4HDR h;
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NODATA);
  EXPECT_FALSE(Boxlane_Parse_Recv("splitter/nobody", &h, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NOTFOUND);
  ASSERT_TRUE(send(client_, movie_ftyp()));
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), nullptr, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_PARAMETER);
  // The refused call took nothing.
  EXPECT_TRUE(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
  EXPECT_FALSE(Boxlane_Parse_Recv(client_.c_str(), &h, nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PARSE_NODATA);
}

}  // namespace
