// Parse clients and intake: arguments, the client table, records, the same answers however cut.
#include "parse_fixtures.hpp"

#include <cstddef>
#include <new>
#include <tuple>

namespace boxlane::test {
namespace {

using Intake = ParseClientTest;

// Every box the splitter knows in moov (fourccs in either case); boxes whose children get none (dref, avc1, udta's).
Bytes movie_moov(const std::string& fourcc = "moov") {
  const auto leaf = [](const char* type, std::size_t n, uint32_t flags = 0) {
    return full_box(type, 0, flags, Bytes{}.zeros(n));
  };
  const Bytes avc1 = box("avc1", Bytes{}.zeros(78).add(box("avcC", Bytes{1, 0x42, 0xC0, 0x0D, 0xFF, 0xE0, 0})));
  const Bytes stbl = box("stbl", cat({full_box("stsd", 0, 0, Bytes{}.u32(1).add(avc1)), leaf("stts", 4), leaf("stss", 4),
                                      leaf("ctts", 4), leaf("stsc", 4), leaf("STSZ", 8), leaf("stco", 4), leaf("sdtp", 3)}));
  const Bytes dinf = box("dinf", full_box("dref", 0, 0, Bytes{}.u32(1).add(full_box("url ", 0, 1))));
  const Bytes minf = box("minf", cat({leaf("vmhd", 8, 1), leaf("smhd", 4), leaf("hmhd", 16), leaf("nmhd", 0), dinf, stbl}));
  const Bytes mdia = box("mdia", cat({leaf("mdhd", 20), leaf("hdlr", 25), minf}));
  const Bytes trak = box("trak", cat({leaf("tkhd", 80, 3), box("edts", leaf("elst", 4)), mdia}));
  return box(fourcc, cat({leaf("mvhd", 96), trak, box("udta", box("meta", box("hdlr", Bytes{}.zeros(24))))}));
}

// ftyp, moov, free, uuid (AB CD), an mdat of what looks like ftyp boxes, free.
Bytes movie_file(std::size_t payload = 600, const std::string& moov = "moov") {
  Bytes media;
  while (media.size() + 8 <= payload) media.u32(8).str("ftyp");
  media.zeros(payload - media.size());
  return cat({movie_ftyp(), movie_moov(moov), box("free", Bytes{}.zeros(5)), box("uuid", Bytes{0xAB, 0xCD}.zeros(14)),
              box("mdat", media), box("free")});
}
const Codes kFileCodes = {1,     3,     30,    31,    311,    312,    3121,   313,    3131,   3132,   3133,   31331, 31332,
                          31333, 31334, 31335, 31336, 313361, 313362, 313366, 313367, 313363, 313364, 313365, 313368,
                          0,     0,     4,     2,     0};

TEST_F(Intake, ArgumentsAndTheClientTable) {
  const Bytes ftyp = movie_ftyp();
  // A wake-up for pool 1 ends a wait on pool 1, not one on pool 0.
  ASSERT_TRUE(Boxlane_Parse_ActiveEvent(1));
  EXPECT_TRUE(fails_with(Boxlane_Parse_WaitEvent(0, 0), RENDAVO_ERROR_TASKPOOL_TIMEOUT));
  EXPECT_TRUE(Boxlane_Parse_WaitEvent(1, 0));
  QORVANE_MP4HDR header;
  // Length 0 does nothing, but only for a client that is there; a box still arriving is not ready; 127 bytes and
  // the NUL fit.
  EXPECT_TRUE(Boxlane_Parse_Send(client_.c_str(), nullptr, 0) && Boxlane_Parse_Send(client_.c_str(), ftyp.data(), 0));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Send("intake/absent", nullptr, 0), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), &header, nullptr), BOXLANE_ERROR_PARSE_NODATA));
  EXPECT_TRUE(send(client_, ftyp, 0, 9));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), &header, nullptr), BOXLANE_ERROR_PARSE_NOTREADY));
  const std::string longest = other(std::string(127, 'x'));
  EXPECT_TRUE(send(longest, ftyp));
  EXPECT_EQ(pending_events(longest), 1);
  // Inserting again keeps the client, its mode and records; names match byte for byte.
  EXPECT_TRUE(Boxlane_Parse_InsertEx(client_.c_str(), BOXLANE_PARSE_EXTENDED));
  EXPECT_EQ(stream_info(client_).nFlags, 0u);
  EXPECT_TRUE(Boxlane_Parse_Insert(longest.c_str()));
  EXPECT_EQ(std::tuple(stream_info(longest).nParsePos, pending_events(longest)), std::tuple(ftyp.size(), 1));
  EXPECT_TRUE(fails_with(send("Intake", ftyp), BOXLANE_ERROR_PARSE_NOTFOUND));
  // A deleted client is gone, and starts afresh when inserted again.
  ASSERT_TRUE(send(client_, movie_moov(), 0, 100));
  ASSERT_TRUE(Boxlane_Parse_Delete(client_.c_str()));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Recv(client_.c_str(), &header, nullptr), BOXLANE_ERROR_PARSE_NOTFOUND));
  EXPECT_TRUE(fails_with(send(client_, movie_ftyp()), BOXLANE_ERROR_PARSE_NOTFOUND));
  ASSERT_TRUE(Boxlane_Parse_Insert(client_.c_str()));
  EXPECT_EQ(std::tuple(stream_info(client_).nParsePos, pending_events(client_)), std::tuple(0u, 0));
  // A pool index past the pools, or no pool at all: the pool's calls fail as the pool does.
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int32_t count = 0;
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetPool(2, &list, &count), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  // Init again replaces the pool: three pools now.
  ASSERT_TRUE(Boxlane_Parse_Init(3));
  EXPECT_TRUE(Boxlane_Parse_GetPool(2, &list, &count));
  EXPECT_TRUE(fails_with(Boxlane_Parse_Init(0), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  ASSERT_TRUE(Boxlane_Parse_Destory());
  ASSERT_TRUE(send(client_, movie_ftyp()));
  EXPECT_EQ(codes(drain(client_)), Codes{1});
  EXPECT_TRUE(fails_with(Boxlane_Parse_GetPool(0, &list, &count), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_WaitEvent(0, 0), RENDAVO_ERROR_TASKPOOL_PARAMETER));
  EXPECT_TRUE(fails_with(Boxlane_Parse_ActiveEvent(0), RENDAVO_ERROR_TASKPOOL_PARAMETER));
}

// A parser built where another was destroyed (one on the stack of a function called twice) knows none of the old
// one's clients, though this thread looked the same name up there last; a box one was still taking went with it.
TEST(ParseTables, OneBuiltWhereAnotherWasKnowsNoneOfItsClients) {
  alignas(CBoxlane_Parse) std::byte place[sizeof(CBoxlane_Parse)];
  QORVANE_HDRMVHD mvhd;
  for (int call = 0; call < 2; ++call) {
    CBoxlane_Parse* parser = new (place) CBoxlane_Parse;
    EXPECT_TRUE(fails_with(parser->Boxlane_Parse_GetMVhd("stack", &mvhd), BOXLANE_ERROR_PARSE_NOTFOUND)) << call;
    EXPECT_TRUE(parser->Boxlane_Parse_Insert("stack") && parser->Boxlane_Parse_GetMVhd("stack", &mvhd) &&
                parser->Boxlane_Parse_Send("stack", movie_ftyp().data(), 9));
    parser->~CBoxlane_Parse();
  }
}

// Size 0: the box takes the rest of its piece and every later piece, counted, never split.
TEST_F(Intake, SizeZeroTakesTheRestOfTheStream) {
  const Bytes ftyp = movie_ftyp();
  const std::string whole = extended("zero/whole");
  ASSERT_TRUE(send(whole, cat({box("ftyp", Bytes{}.str("qt  ").u32(0).str("qt  "), 0), ftyp})));
  EXPECT_EQ(codes(drain(whole)), Codes{1});
  ASSERT_TRUE(send(whole, ftyp));
  EXPECT_TRUE(drain(whole).empty());
  const BOXLANE_STREAMINFO stream = stream_info(whole);
  EXPECT_EQ(std::tuple(stream.nParsePos, stream.nStop, stream.nStopOffset, std::string(stream.tszStopType)),
            std::tuple(20 + 2 * ftyp.size(), uint32_t{BOXLANE_STOP_TOEND}, uint64_t{0}, std::string("ftyp")));
  // A size-0 header completed by the next piece: the rest of that piece is its payload.
  const Bytes mdat = cat({ftyp, box("mdat", {}, 0), ftyp});
  ASSERT_TRUE(send(client_, mdat, 0, ftyp.size() + 3));
  ASSERT_TRUE(send(client_, mdat, ftyp.size() + 3));
  EXPECT_EQ(codes(drain(client_)), (Codes{1, 2}));
  EXPECT_EQ(stream_info(client_).nParsePos, mdat.size());
}

// Every two-piece cut and 1-byte pieces: the same records, positions and events; an mdat in a piece is stepped over.
TEST_F(Intake, CutsChangeNothing) {
  int clients = 0;
  const std::pair<const char*, Bytes> streams[] = {
      {"movie with mdat", movie_file(600, "MOOV")},
      {"tiny mdat", movie_file(3)},
      {"ending in a size-1 box", cat({movie_ftyp(), movie_moov(), box("mdat", Bytes{}.u64(100).zeros(20), 1)})},
  };
  for (const auto& [what, stream] : streams) {
    SCOPED_TRACE(what);
    const FeedResult whole = feed(other("cuts/" + std::to_string(++clients)), stream);
    ASSERT_EQ(whole.error, 0u);
    ASSERT_TRUE(whole.events_matched);
    if (&stream == &streams[0].second) {
      // Every box in order; sizes, tkhd's flags (3), the uuid's first bytes as sent.
      EXPECT_EQ(codes(whole.headers), kFileCodes);
      EXPECT_EQ(std::tuple(whole.final_position, whole.records[0], whole.records[1], whole.records[4],
                           whole.records[whole.records.size() - 3], whole.records[whole.records.size() - 2]),
                std::tuple(uint64_t(stream.size()), "1 size 32 v0 flags 000000 uuid 0000",
                           "3 size " + std::to_string(movie_moov().size()) + " v0 flags 000000 uuid 0000",
                           "311 size 92 v0 flags 000003 uuid 0000", "4 size 24 v0 flags 000000 uuid CDAB",
                           "2 size 608 v0 flags 000000 uuid 0000"));
      for (std::size_t cut = 1; cut < stream.size() && !HasFatalFailure(); ++cut)
        expect_same_feed(feed(other("cuts/" + std::to_string(++clients)), stream, {cut}), whole, "cut at " + std::to_string(cut));
    }
    expect_same_feed(feed(other("cuts/" + std::to_string(++clients)), stream, {}, 1), whole, "1-byte pieces");
  }
}

// Build and Packet on a caller's own record: their refusals, and a whole stream gives a client's records.
TEST_F(Intake, BuildAndPacketOnTheCallersRecord) {
  const auto queued = [](const QORVANE_MP4PARSE& record) {
    std::vector<std::string> lines;
    for (const auto& entry : *record.stl_ListMsg) lines.push_back(record_line(entry.st_MP4Hdr));
    return std::tuple(lines, record.nParsePos);
  };
  const Bytes stream = movie_file();
  const FeedResult want = feed(client_, stream);
  for (const auto call : {&CBoxlane_Parse::Boxlane_Parse_Build, &CBoxlane_Parse::Boxlane_Parse_Packet}) {
    QORVANE_MP4PARSE record;
    const auto split = [&](QORVANE_MP4PARSE* r, const uint8_t* p, int n) { return (m_MP4Parse.*call)(r, p, n); };
    for (const auto& [r, p, n] :
         {std::tuple(&record, stream.data(), -1), {nullptr, stream.data(), 8}, {&record, nullptr, 8}})
      EXPECT_TRUE(fails_with(split(r, p, n), BOXLANE_ERROR_PARSE_PARAMETER)) << n;
    ASSERT_TRUE(split(&record, nullptr, 0) && split(&record, stream.data(), int(stream.size())));
    EXPECT_EQ(queued(record), std::tuple(want.records, want.final_position));
    // A stream it refuses: a box of size 7 (ISO/IEC 14496-12 §4.2: no size below its header).
    QORVANE_MP4PARSE refused;
    const Bytes seven = cat({movie_ftyp(), box("moov", Bytes{}.zeros(40), 7)});
    EXPECT_TRUE(fails_with(split(&refused, seven.data(), int(seven.size())), BOXLANE_ERROR_PARSE_MALFORMED));
  }
  // Both take a piece that ends inside an mdat's payload, and one whose last box runs to the end of the stream
  // (size 0), the boxes before them queued.
  const Bytes media = cat({movie_ftyp(), Bytes{}.u32(1000).str("mdat").zeros(10)});
  const Bytes to_end = cat({movie_ftyp(), box("free", Bytes{}.zeros(6), 0)});
  for (const auto call : {&CBoxlane_Parse::Boxlane_Parse_Build, &CBoxlane_Parse::Boxlane_Parse_Packet}) {
    for (const auto& [piece, last] : {std::pair(&media, "2 size 1000"), {&to_end, "0 size 0"}}) {
      QORVANE_MP4PARSE record;
      EXPECT_TRUE((m_MP4Parse.*call)(&record, piece->data(), int(piece->size()))) << last;
      EXPECT_EQ(std::get<0>(queued(record)), (std::vector<std::string>{"1 size 32 v0 flags 000000 uuid 0000",
                                                                       last + std::string(" v0 flags 000000 uuid 0000")}));
    }
  }
}

}  // namespace
}  // namespace boxlane::test
