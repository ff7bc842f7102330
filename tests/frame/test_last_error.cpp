// The last error under concurrent failures (how it reads for one caller is
// checked from C, in tests/c/header_c99.c).
#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

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

}  // namespace
