// The last-error model as callers see it, and the flat forwarders.
#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace {

TEST(LastError, FlagFollowsEachCallWhileTheCodeAndErrnoStay) {
  ASSERT_FALSE(Boxlane_Packet_Insert(nullptr));
  EXPECT_TRUE(Boxlane_IsErrorOccur);
  for (const int code : {EACCES, ENOENT}) {
    int32_t sys = -1;
    errno = code;
    EXPECT_EQ(Boxlane_GetLastError(&sys), uint64_t{BOXLANE_ERROR_PACKET_PARAMETER});
    EXPECT_EQ(sys, code);
  }
  ASSERT_TRUE(Boxlane_Packet_Insert("last-error"));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
  EXPECT_EQ(Boxlane_GetLastError(nullptr), uint64_t{BOXLANE_ERROR_PACKET_PARAMETER}) << "success keeps the code";
  EXPECT_FALSE(Boxlane_Parse_Recv("nobody", nullptr, nullptr));
  EXPECT_TRUE(Boxlane_IsErrorOccur);
  EXPECT_TRUE(Boxlane_Packet_Delete("last-error"));
  EXPECT_FALSE(Boxlane_IsErrorOccur);
}

// Failures on many threads at once touch the globals concurrently; under the
// thread sanitizer this must stay quiet, and every code seen is one of ours.
TEST(LastError, ConcurrentFailuresAreNoDataRace) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      uint8_t box[64];
      int32_t size;
      for (int i = 0; i < 2000; ++i) {
        t % 2 ? Boxlane_Packet_FTyp("absent", box, &size) : Boxlane_Packet_Insert(nullptr);
        const uint64_t code = Boxlane_GetLastError(nullptr);
        EXPECT_TRUE(code == BOXLANE_ERROR_PACKET_NOTFOUND || code == BOXLANE_ERROR_PACKET_PARAMETER) << code;
      }
    });
  }
  for (auto& t : threads) t.join();
}

// The flat Recv hands the caller the parse position its member gives.
TEST(Forwarding, RecvPassesTheParsePosition) {
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  ASSERT_TRUE(Boxlane_Parse_Insert("fwd"));
  const uint8_t two_boxes[] = {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 9, 's', 'k', 'i', 'p', 0};
  ASSERT_TRUE(Boxlane_Parse_Send("fwd", two_boxes, sizeof two_boxes));
  QORVANE_MP4HDR header{};
  uint64_t position = 0;
  ASSERT_TRUE(Boxlane_Parse_Recv("fwd", &header, &position));
  EXPECT_EQ(position, 17u);
  EXPECT_TRUE(Boxlane_Parse_Delete("fwd"));
  EXPECT_TRUE(Boxlane_Parse_Destory());
}

}  // namespace
