// Writer clients: life cycle, lookups, and the checks every writer operation
// makes first: a null, unknown or deleted client, a null buffer or length.
#include "writer_fixture.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace boxlane::test {
namespace {

using ClientTest = WriterTest;

const uint8_t kFrame[] = {0, 0, 0, 1, 0x65, 0x88, 0x84};

TEST_F(ClientTest, DuplicateInsertKeepsTheRecordAndDeleteStartsOver) {
  video(7, 1, 40, 0, 48);
  EXPECT_TRUE(Boxlane_Packet_Insert(client()));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000018 7374737A 00000000 00000000 00000001 00000007"));
  EXPECT_TRUE(Boxlane_Packet_Delete(client()));
  refuses(BOXLANE_ERROR_PACKET_NOTFOUND, Boxlane_Packet_FTyp);
  ASSERT_TRUE(Boxlane_Packet_Insert(client()));
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000014 7374737A 00000000 00000000 00000000"));
  EXPECT_FALSE(Boxlane_Packet_Delete(nullptr));
  EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_TRUE(Boxlane_Packet_Delete("writer/never inserted"));
}

// A thread reuses its last lookup while the table is unchanged; what it
// finds must still follow the bytes of the name, the table and the version.
TEST_F(ClientTest, LookupsFollowTheNameInTheBufferNotTheBuffer) {
  const auto frames = [](CBoxlane_Packet& table, const std::string& client) {
    return table.stl_MapClient.find(std::string_view(client))->second->listVideoSample.size();
  };
  const auto frame = [](CBoxlane_Packet& table, const char* client) {
    uint8_t out[sizeof kFrame];
    int32_t length = 0;
    return table.Boxlane_Packet_FrameVideo(client, out, &length, kFrame, sizeof kFrame, 48, 1, 40, 0);
  };
  // Short names sit in the lookup's own line, long ones are the table's.
  for (const std::string stem : {"lookup/", "lookup/a name longer than the thirty-two bytes kept/"}) {
    const std::string a = stem + "a", b = stem + "b";
    ASSERT_TRUE(Boxlane_Packet_Insert(a.c_str()) && Boxlane_Packet_Insert(b.c_str()));
    std::string buffer = a;
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    buffer.back() = 'b';  // same address, another client
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_EQ(frames(m_MP4Packet, a), 1u);
    EXPECT_EQ(frames(m_MP4Packet, b), 1u);
    // Deleted and entered again: the old record is not reached.
    buffer.back() = 'a';
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    ASSERT_TRUE(Boxlane_Packet_Delete(a.c_str()));
    EXPECT_FALSE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_NOTFOUND);
    ASSERT_TRUE(Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    // Another writer with the same client name keeps its own record.
    CBoxlane_Packet other;
    ASSERT_TRUE(other.Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(frame(other, a.c_str()));
    EXPECT_EQ(frames(other, a), 1u);
    EXPECT_EQ(frames(m_MP4Packet, a), 1u);
    Boxlane_Packet_Delete(a.c_str());
    Boxlane_Packet_Delete(b.c_str());
  }
}

// Every writer refuses a null client and one deleted after this thread
// reached it, then a null buffer or length, writing nothing.
TEST_F(ClientTest, EveryWriterRefusesMissingClientBufferOrLength) {
  using Writer = std::function<bool(const char*, uint8_t*, int32_t*)>;
  static const uint8_t payload[4] = {1, 2, 3, 4};
  static const uint8_t* const nalus[1] = {kFrame + 4};
  static const int32_t nalu_lengths[1] = {3};
  static const tag_Qorvane_AVProtocol av{};
#define WRITER(name, ...) \
  { #name, [](auto c, auto b, auto l) { return Boxlane_Packet_##name(c, b, l __VA_OPT__(, ) __VA_ARGS__); } }
  const std::pair<const char*, Writer> writers[] = {
      WRITER(HDRBox, "free", payload, 4), WRITER(FTyp), WRITER(MVhd, 0, 1000), WRITER(TKhd, 0, 1, 1, 0),
      WRITER(MDhd, 0), WRITER(MDhdEx, 0, 1), WRITER(HDlr, 0), WRITER(VMhd), WRITER(SMhd, 0), WRITER(DInf),
      WRITER(EDts, 1, 0), WRITER(CTts), WRITER(STts, true), WRITER(STss), WRITER(STsc), WRITER(STsz, false),
      WRITER(STco, false), WRITER(HDRBox64, "mdat", 0), WRITER(MVhd64, 0, 1000), WRITER(TKhd64, 0, 1, 1, 0),
      WRITER(MDhd64, 0, 1), WRITER(EDts64, 1, 0), WRITER(STco64, true, 0), WRITER(STsd, &av),
      WRITER(STsdHEVC, payload, 4), WRITER(STsdParamSets, nalus, nalu_lengths, 1), WRITER(MVex, 0),
      WRITER(Fragment, 0), WRITER(STyp), WRITER(SIdx), WRITER(MFra),
      WRITER(FrameVideo, kFrame, sizeof kFrame, 0, 1, 40, 40),
      WRITER(FrameAccessUnit, nalus, nalu_lengths, 1, 0, 1, 40, 40), WRITER(FrameAudio, payload, 4, 0, 1024),
  };
#undef WRITER
  const std::string gone = name_ + ".gone";
  for (const auto& row : writers) {
    SCOPED_TRACE(row.first);
    const auto& call = row.second;  // Clang 14 cannot capture a structured binding
    expect_refused([&](uint8_t* b, int32_t* l) { return call(nullptr, b, l); }, BOXLANE_ERROR_PACKET_PARAMETER);
    ASSERT_TRUE(Boxlane_Packet_Insert(gone.c_str()));
    expect_refused([&](uint8_t*, int32_t* l) { return call(gone.c_str(), nullptr, l); }, BOXLANE_ERROR_PACKET_PARAMETER);
    ASSERT_TRUE(Boxlane_Packet_Delete(gone.c_str()));
    expect_refused([&](uint8_t* b, int32_t* l) { return call(gone.c_str(), b, l); }, BOXLANE_ERROR_PACKET_NOTFOUND);
    expect_refused([&](uint8_t* b, int32_t*) { return call(client(), b, nullptr); }, BOXLANE_ERROR_PACKET_PARAMETER);
  }
  EXPECT_EQ(record().nVideoCount, 0u);
  EXPECT_TRUE(record().listAudioSize.empty());
}

}  // namespace
}  // namespace boxlane::test
