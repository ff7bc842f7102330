// The writer under load: clients written on several threads while another is deleted and inserted under a writing
// thread, and failing calls on every thread setting the process-wide last error at once. CI runs it under the
// thread sanitizer; each writer's bytes must equal a single-threaded run.
#include <boxlane/boxlane.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// A fixed writer session; its bytes must not depend on what other threads do.
std::vector<uint8_t> writer_session(const std::string& name) {
  const char* client = name.c_str();
  std::vector<uint8_t> out, buffer(1 << 16), frame(69, 0x41);
  int32_t size = 0;
  const auto append = [&](bool ok) {
    EXPECT_TRUE(ok);
    out.insert(out.end(), buffer.begin(), buffer.begin() + size);
  };
  EXPECT_TRUE(Boxlane_Packet_Insert(client));
  for (int i = 0; i < 200; ++i) {
    append(Boxlane_Packet_FrameVideo(client, buffer.data(), &size, frame.data(), 69, 48 + i * 100, i % 30 == 0,
                                     40 + (i % 3 == 0), i % 2 ? 80 : 0));
    append(Boxlane_Packet_FrameAudio(client, buffer.data(), &size, frame.data(), 69, 5000 + i * 10, 1024));
  }
  append(Boxlane_Packet_STts(client, buffer.data(), &size, true));
  append(Boxlane_Packet_CTts(client, buffer.data(), &size));
  EXPECT_TRUE(Boxlane_Packet_Delete(client));
  return out;
}

// Calls racing a Delete of their client either complete or fail as not found; the sanitizers see any use of a freed
// record.
TEST(Stress, WritersOnSeveralThreadsAndAClientDeletedUnderAWriter) {
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> bad_code{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    while (!stop) {
      EXPECT_TRUE(Boxlane_Packet_Insert("wflip"));
      std::this_thread::yield();
      EXPECT_TRUE(Boxlane_Packet_Delete("wflip"));
    }
  });
  // A writer of that client, and failing calls on two more threads: the last error is written by all at once.
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      const uint8_t frame[16] = {0x21, 0x10, 0x05};
      uint8_t out[64];
      int32_t size = 0;
      while (!stop) {
        const bool ok = t == 0   ? Boxlane_Packet_FrameAudio("wflip", out, &size, frame, sizeof frame, 0, 1024)
                        : t == 1 ? Boxlane_Packet_FTyp("absent", out, &size)
                                 : Boxlane_Packet_Insert(nullptr);
        if (ok) continue;  // the writer, while its client exists
        const uint64_t code = Boxlane_GetLastError(nullptr);
        if (code != BOXLANE_ERROR_PACKET_NOTFOUND && code != BOXLANE_ERROR_PACKET_PARAMETER) bad_code = code;
      }
    });
  const std::vector<uint8_t> session = writer_session("writer-alone");
  std::vector<std::vector<uint8_t>> sessions(2);
  std::vector<std::thread> senders;
  for (int t = 0; t < 2; ++t)
    senders.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) sessions[t] = writer_session("wkept-" + std::to_string(t));
    });
  for (auto& t : senders) t.join();
  stop = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(bad_code.load(), 0u);
  for (const auto& got : sessions) EXPECT_EQ(got, session);
  Boxlane_Packet_Delete("wflip");
}

}  // namespace
