// Writer clients: life cycle, the last-error model, timing, and the checks
// every writer operation makes before it touches anything.
#include "writer_fixture.hpp"

#include <cctype>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace boxlane::test {
namespace {

using ClientTest = WriterTest;

const uint8_t kFrame[] = {0, 0, 0, 1, 0x65, 0x88, 0x84};

TEST_F(ClientTest, LifeCycleKeepsRecordsAcrossDuplicateInsertAndRenumbersAfterDelete) {
  const auto track_id = [&] { return box(Boxlane_Packet_TKhd, 0, 160, 120, 0).substr(20 * 3, 11); };
  box(Boxlane_Packet_FrameVideo, kFrame, int32_t{sizeof kFrame}, int64_t{48}, 1, 40, 0);
  EXPECT_EQ(track_id(), "00 00 00 01");
  // A second Insert succeeds and keeps the frame and the track count.
  EXPECT_TRUE(Boxlane_Packet_Insert(client()));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000018 7374737A 00000000 00000000 00000001 00000007"));
  EXPECT_EQ(track_id(), "00 00 00 02");
  // Deleting removes the client; a new Insert starts over at track 1.
  EXPECT_TRUE(Boxlane_Packet_Delete(client()));
  refuses(BOXLANE_ERROR_PACKET_NOTFOUND, Boxlane_Packet_FTyp);
  ASSERT_TRUE(Boxlane_Packet_Insert(client()));
  EXPECT_EQ(track_id(), "00 00 00 01");
  EXPECT_TRUE(record().listVideoSample.empty());
}

// A thread reuses its last lookup while the table is unchanged; what it
// finds must still follow the bytes of the name, the table and the version.
TEST_F(ClientTest, LookupsFollowTheNameInTheBufferNotTheBuffer) {
  const auto frames = [](CBoxlane_Packet& table, const char* client) {
    return table.stl_MapClient.find(std::string_view(client))->second->listVideoSample.size();
  };
  const auto frame = [](CBoxlane_Packet& table, const char* client) {
    uint8_t out[sizeof kFrame];
    int32_t length = 0;
    return table.Boxlane_Packet_FrameVideo(client, out, &length, kFrame, sizeof kFrame, 48, 1, 40, 0);
  };
  // Short names sit in the lookup's own line, long ones are the table's.
  for (const std::string stem : {"lookup/", "lookup/a name longer than the thirty-two bytes kept/"}) {
    const std::string a = stem + "a", b = stem + "b", c = stem + "c";
    ASSERT_TRUE(Boxlane_Packet_Insert(a.c_str()) && Boxlane_Packet_Insert(b.c_str()));
    std::string buffer = a;
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    buffer.back() = 'b';  // same address, another client
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_EQ(frames(m_MP4Packet, a.c_str()), 1u);
    EXPECT_EQ(frames(m_MP4Packet, b.c_str()), 2u);
    buffer.back() = 'c';
    EXPECT_FALSE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_NOTFOUND);
    // Deleted and entered again: the old record is not reached.
    buffer.back() = 'a';
    ASSERT_TRUE(Boxlane_Packet_Delete(a.c_str()));
    EXPECT_FALSE(frame(m_MP4Packet, buffer.c_str()));
    ASSERT_TRUE(Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(frame(m_MP4Packet, buffer.c_str()));
    EXPECT_EQ(frames(m_MP4Packet, a.c_str()), 1u);
    // Another writer with the same client name keeps its own record.
    CBoxlane_Packet other;
    ASSERT_TRUE(other.Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(frame(other, a.c_str()));
    EXPECT_TRUE(frame(m_MP4Packet, a.c_str()));
    EXPECT_EQ(frames(other, a.c_str()), 1u);
    EXPECT_EQ(frames(m_MP4Packet, a.c_str()), 2u);
    Boxlane_Packet_Delete(a.c_str());
    Boxlane_Packet_Delete(b.c_str());
  }
}

TEST_F(ClientTest, SetTimeAndDeleteRefuseBadNamesAndNamesAreExactBytes) {
  const auto failed = [](bool ok, uint64_t code) {
    return !ok && Boxlane_IsErrorOccur && Boxlane_GetLastError(nullptr) == code;
  };
  // (The flag and code after Insert and Delete are followed in the LastError tests.)
  EXPECT_TRUE(failed(m_MP4Packet.Boxlane_Packet_SetTime("writer/never inserted", 25, 44100),
                     BOXLANE_ERROR_PACKET_NOTFOUND));
  EXPECT_TRUE(failed(m_MP4Packet.Boxlane_Packet_SetTime(nullptr, 25, 44100), BOXLANE_ERROR_PACKET_PARAMETER));
  EXPECT_TRUE(failed(Boxlane_Packet_Delete(nullptr), BOXLANE_ERROR_PACKET_PARAMETER));

  // Client strings are exact bytes: case matters.
  std::string lower = name_;
  for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
  ASSERT_NE(lower, name_);
  expect_refused([&](uint8_t* b, int32_t* l) { return Boxlane_Packet_FTyp(lower.c_str(), b, l); },
                 BOXLANE_ERROR_PACKET_NOTFOUND);
  EXPECT_NE(box(Boxlane_Packet_FTyp), "");
}

TEST_F(ClientTest, SetTimeDerivesFrameTimesAndTimeCountDividesByTheTimeScale) {
  struct Case {
    int frame_rate, sample_rate;
    int64_t video_ms, audio_ms;
  };
  // Each row is applied on top of the previous one.
  const Case cases[] = {
      {25, 44100, 40, 23}, {30, 48000, 33, 21}, {24, 8000, 41, 128},
      {0, 22050, 41, 46},  {1001, -1, 0, 46},   {-5, 0, 0, 46},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.frame_rate << " fps, " << c.sample_rate << " Hz");
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(client(), c.frame_rate, c.sample_rate));
    EXPECT_EQ(record().nVideoFrameTime, c.video_ms);
    EXPECT_EQ(record().nAudioFrameTime, c.audio_ms);
  }
  EXPECT_EQ(record().nFrameRate, 1001);
  EXPECT_EQ(record().nSampleRate, 22050);

  // TimeCount divides the frame time by the time scale and survives zero.
  ASSERT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(client(), 25, 0));
  EXPECT_EQ(m_MP4Packet.Boxlane_Packet_TimeCount(&record()), 0);  // no mvhd: time scale 0
  EXPECT_EQ(m_MP4Packet.Boxlane_Packet_TimeCount(nullptr), 0);

  // The duration fields of mvhd and tkhd fall back on it when given 0.
  auto field = [](const std::string& box_hex, int offset) { return box_hex.substr(offset * 3, 11); };
  EXPECT_EQ(field(box(Boxlane_Packet_MVhd, 0, 0), 24), "00 00 00 00");
  EXPECT_EQ(field(box(Boxlane_Packet_TKhd, 0, 160, 120, 0), 28), "00 00 00 00");
  EXPECT_EQ(field(box(Boxlane_Packet_MVhd, 0, 1000), 24), "00 00 00 00");  // 40 / 1000
  EXPECT_EQ(field(box(Boxlane_Packet_MVhd, 0, 1), 24), "00 00 00 28");
  EXPECT_EQ(field(box(Boxlane_Packet_TKhd, 0, 160, 120, 0), 28), "00 00 00 28");
  EXPECT_EQ(record().nVideoDuration, 40u);
  EXPECT_EQ(m_MP4Packet.Boxlane_Packet_TimeCount(&record()), 40);
}

// Every operation that names a client refuses a null client and an unknown
// one, and every writer a null buffer or length pointer, without writing.
TEST_F(ClientTest, EveryWriterRefusesMissingClientBufferOrLength) {
  using Writer = std::function<bool(const char*, uint8_t*, int32_t*)>;
  static const uint8_t payload[4] = {1, 2, 3, 4};
  static const uint8_t* const nalus[1] = {kFrame + 4};
  static const int32_t nalu_lengths[1] = {3};
#define WRITER(name, ...) \
  { #name, [](auto c, auto b, auto l) { return Boxlane_Packet_##name(c, b, l __VA_OPT__(, ) __VA_ARGS__); } }
  const std::pair<const char*, Writer> writers[] = {
      WRITER(HDRBox, "free", payload, 4), WRITER(FTyp), WRITER(MVhd, 0, 1000), WRITER(TKhd, 0, 1, 1, 0),
      WRITER(MDhd, 0), WRITER(MDhdEx, 0, 1), WRITER(HDlr, 0), WRITER(VMhd), WRITER(SMhd, 0), WRITER(DInf),
      WRITER(EDts, 1, 0), WRITER(CTts), WRITER(STts, true), WRITER(STss), WRITER(STsc), WRITER(STsz, false),
      WRITER(STco, false), WRITER(HDRBox64, "mdat", 0), WRITER(MVhd64, 0, 1000), WRITER(TKhd64, 0, 1, 1, 0),
      WRITER(MDhd64, 0, 1), WRITER(EDts64, 1, 0), WRITER(STco64, true, 0), WRITER(FrameVideo, kFrame, sizeof kFrame, 0, 1, 40, 40),
      WRITER(FrameAccessUnit, nalus, nalu_lengths, 1, 0, 1, 40, 40), WRITER(FrameAudio, payload, 4, 0, 1024),
  };
#undef WRITER
  for (const auto& row : writers) {
    SCOPED_TRACE(row.first);
    const auto& call = row.second;  // Clang 14 cannot capture a structured binding
    expect_refused([&](uint8_t* b, int32_t* l) { return call(nullptr, b, l); }, BOXLANE_ERROR_PACKET_PARAMETER);
    expect_refused([&](uint8_t* b, int32_t* l) { return call("writer/nobody", b, l); }, BOXLANE_ERROR_PACKET_NOTFOUND);
    expect_refused([&](uint8_t*, int32_t* l) { return call(client(), nullptr, l); }, BOXLANE_ERROR_PACKET_PARAMETER);
    expect_refused([&](uint8_t* b, int32_t*) { return call(client(), b, nullptr); }, BOXLANE_ERROR_PACKET_PARAMETER);
  }
  // None of the refused frames reached the record.
  EXPECT_EQ(record().nVideoCount, 0u);
  EXPECT_EQ(record().nTrackID, 1u);
  EXPECT_EQ(record().nTimeScale, 0);
  EXPECT_TRUE(record().listVideoSample.empty());
  EXPECT_TRUE(record().listAudioSize.empty());
}

}  // namespace
}  // namespace boxlane::test
