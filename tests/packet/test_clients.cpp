// Writer clients: life cycle and lookups (what every writer refuses first is checked by WriterTest::box()).
#include "writer_fixture.hpp"

#include <cstddef>
#include <new>
#include <string>
#include <string_view>

namespace boxlane::test {
namespace {

using ClientTest = WriterTest;

TEST_F(ClientTest, DuplicateInsertKeepsTheRecord) {
  video(7, 1, 40, 0, 48);
  EXPECT_TRUE(Boxlane_Packet_Insert(client()) && !Boxlane_IsErrorOccur);
  EXPECT_EQ(box(Boxlane_Packet_STsz, true), bytes_hex("00000018 7374737A 00000000 00000000 00000001 00000007"));
  EXPECT_TRUE(!Boxlane_Packet_Delete(nullptr) && Boxlane_GetLastError(nullptr) == BOXLANE_ERROR_PACKET_PARAMETER);
  EXPECT_TRUE(Boxlane_Packet_Delete("writer/never inserted"));
}

// A thread reuses its last lookup; what it finds must follow the name's bytes, the table and its version.
TEST_F(ClientTest, LookupsFollowTheNameInTheBufferNotTheBuffer) {
  const auto rate = [](CBoxlane_Packet& table, const std::string& client) {
    return table.stl_MapClient.find(std::string_view(client))->second->nFrameRate;
  };
  // Short names sit in the lookup's own line, long ones are the table's.
  for (const std::string stem : {"lookup/", "lookup/a name longer than the thirty-two bytes kept/"}) {
    const std::string a = stem + "a", b = stem + "b";
    ASSERT_TRUE(Boxlane_Packet_Insert(a.c_str()) && Boxlane_Packet_Insert(b.c_str()));
    std::string buffer = a;
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(buffer.c_str(), 25, 0));
    buffer.back() = 'b';  // same address, another client
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(buffer.c_str(), 30, 0));
    EXPECT_EQ(std::pair(rate(m_MP4Packet, a), rate(m_MP4Packet, b)), std::pair(25, 30));
    // Deleted and entered again: the old record is not reached.
    buffer.back() = 'a';
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(buffer.c_str(), 50, 0));
    ASSERT_TRUE(Boxlane_Packet_Delete(a.c_str()) && Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(m_MP4Packet.Boxlane_Packet_SetTime(buffer.c_str(), 24, 0));
    // Another writer with the same client name keeps its own record.
    CBoxlane_Packet other;
    ASSERT_TRUE(other.Boxlane_Packet_Insert(a.c_str()));
    EXPECT_TRUE(other.Boxlane_Packet_SetTime(a.c_str(), 60, 0));
    EXPECT_EQ(std::pair(rate(other, a), rate(m_MP4Packet, a)), std::pair(60, 24));
    Boxlane_Packet_Delete(a.c_str());
    Boxlane_Packet_Delete(b.c_str());
  }
}

// A writer built where another was destroyed (one on the stack of a function called twice) knows none of the old
// one's clients, though this thread looked the same name up there last.
TEST(WriterTables, OneBuiltWhereAnotherWasKnowsNoneOfItsClients) {
  alignas(CBoxlane_Packet) std::byte place[sizeof(CBoxlane_Packet)];
  for (int call = 0; call < 2; ++call) {
    CBoxlane_Packet* writer = new (place) CBoxlane_Packet;
    EXPECT_FALSE(writer->Boxlane_Packet_SetTime("stack", 25, 0)) << call;
    EXPECT_EQ(Boxlane_GetLastError(nullptr), BOXLANE_ERROR_PACKET_NOTFOUND);
    EXPECT_TRUE(writer->Boxlane_Packet_Insert("stack") && writer->Boxlane_Packet_SetTime("stack", 25, 0));
    writer->~CBoxlane_Packet();
  }
}

}  // namespace
}  // namespace boxlane::test
