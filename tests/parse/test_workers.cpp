// Senders and workers on several threads through the task pool: every
// queued record reaches a worker exactly once and in order per client,
// ActiveEvent wakes a waiting worker, and clients may be deleted (and the
// pool destroyed) while workers run.
#include <boxlane/boxlane.h>

#include "support/box_builder.hpp"
#include "support/stream_feeder.hpp"
#include "intake_streams.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace boxlane::test;
using namespace std::chrono_literals;

constexpr int kPools = 3;
constexpr int kClients = 24;
constexpr int kSenders = 3;
constexpr int kWorkersPerPool = 2;

std::string client_name(int i) { return "workers/" + std::to_string(i); }

// A stream whose records are told apart by size: box i of client c has
// size 8 + (c * 7 + i) % 50, so a record out of order or twice shows.
Bytes client_stream(int c, int boxes) {
  Bytes stream;
  for (int i = 0; i < boxes; ++i) stream.add(box("free", Bytes{}.zeros(std::size_t((c * 7 + i) % 50))));
  return stream;
}

struct Received {
  std::mutex mutex;
  std::map<std::string, std::vector<uint64_t>> sizes;
};

// Waits, lists its pool's clients and drains them until told to stop and
// the pool has nothing left.
void worker(int pool, Received& received, std::atomic<bool>& stop) {
  while (true) {
    const bool woke = Boxlane_Parse_WaitEvent(pool, 50);
    QORVANE_RENDAVO_TASKEVENT** list = nullptr;
    int32_t count = 0;
    if (!Boxlane_Parse_GetPool(pool, &list, &count)) return;
    for (int32_t i = 0; i < count; ++i) {
      const std::string client = list[i]->tszClientAddr;
      // Two workers of a pool may drain one client at once; taking and
      // noting a record under one lock keeps the noted order Recv's order.
      for (QORVANE_MP4HDR h;;) {
        std::lock_guard lock(received.mutex);
        if (!Boxlane_Parse_Recv(client.c_str(), &h, nullptr)) break;
        received.sizes[client].push_back(h.nBoxSize);
      }
    }
    Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
    if (!woke && count == 0 && stop.load()) return;
  }
}

TEST(Workers, EveryRecordReachesAWorkerOnceAndInOrder) {
  ASSERT_TRUE(Boxlane_Parse_Init(kPools));
  for (int c = 0; c < kClients; ++c) ASSERT_TRUE(Boxlane_Parse_Insert(client_name(c).c_str()));

  Received received;
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int p = 0; p < kPools; ++p)
    for (int w = 0; w < kWorkersPerPool; ++w) workers.emplace_back(worker, p, std::ref(received), std::ref(stop));

  // Each sender owns every kSenders-th client and interleaves them, cutting
  // each stream at random.
  const int boxes = 60;
  std::vector<std::thread> senders;
  std::atomic<int> failed_sends{0};
  for (int s = 0; s < kSenders; ++s)
    senders.emplace_back([s, &failed_sends] {
      std::mt19937 rng(uint32_t(s + 1));
      std::vector<std::pair<int, Bytes>> mine;
      std::vector<std::size_t> offsets;
      for (int c = s; c < kClients; c += kSenders) {
        mine.emplace_back(c, client_stream(c, boxes));
        offsets.push_back(0);
      }
      for (bool more = true; more;) {
        more = false;
        for (std::size_t k = 0; k < mine.size(); ++k) {
          const Bytes& stream = mine[k].second;
          std::size_t& at = offsets[k];
          if (at == stream.size()) continue;
          const std::size_t n = std::min<std::size_t>(stream.size() - at, 1 + rng() % 97);
          if (!Boxlane_Parse_Send(client_name(mine[k].first).c_str(), stream.data() + at, int32_t(n))) ++failed_sends;
          at += n;
          more = true;
        }
      }
    });
  for (auto& t : senders) t.join();
  stop = true;
  for (auto& t : workers) t.join();
  EXPECT_EQ(failed_sends.load(), 0);

  for (int c = 0; c < kClients; ++c) {
    std::vector<uint64_t> want;
    for (int i = 0; i < boxes; ++i) want.push_back(uint64_t(8 + (c * 7 + i) % 50));
    EXPECT_EQ(received.sizes[client_name(c)], want) << client_name(c);
    EXPECT_EQ(pending_events(client_name(c)), 0) << client_name(c);
  }
  for (int c = 0; c < kClients; ++c) Boxlane_Parse_Delete(client_name(c).c_str());
  Boxlane_Parse_Destory();
}

TEST(Workers, ActiveEventAndDestoryWakeAWaitingWorker) {
  ASSERT_TRUE(Boxlane_Parse_Init(2));
  // No client has events: only ActiveEvent ends the wait.
  auto waiting = std::async(std::launch::async, [] { return Boxlane_Parse_WaitEvent(1, -1); });
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  ASSERT_TRUE(Boxlane_Parse_ActiveEvent(1));
  ASSERT_EQ(waiting.wait_for(30s), std::future_status::ready);
  EXPECT_TRUE(waiting.get());

  // Destory wakes a waiter, which then reports the pool closed.
  waiting = std::async(std::launch::async, [] {
    // CLOSED when it was waiting; PARAMETER if Destory came first.
    const bool woke = Boxlane_Parse_WaitEvent(0, -1);
    const uint64_t code = Boxlane_GetLastError(nullptr);
    return !woke && (code == RENDAVO_ERROR_TASKPOOL_CLOSED || code == RENDAVO_ERROR_TASKPOOL_PARAMETER);
  });
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  ASSERT_TRUE(Boxlane_Parse_Destory());
  ASSERT_EQ(waiting.wait_for(30s), std::future_status::ready);
  EXPECT_TRUE(waiting.get());
}

TEST(Workers, DeletingClientsWhileWorkersRunIsSafe) {
  ASSERT_TRUE(Boxlane_Parse_Init(2));
  Received received;
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int p = 0; p < 2; ++p) workers.emplace_back(worker, p, std::ref(received), std::ref(stop));

  // Clients come and go while their streams are being sent and drained;
  // the sanitizers watch for what a Send, Recv or Delete left behind.
  const Bytes stream = movie_file(64);
  std::vector<std::thread> churn;
  std::atomic<int> refused{0};
  for (int t = 0; t < 3; ++t)
    churn.emplace_back([t, &stream, &refused] {
      for (int round = 0; round < 40; ++round) {
        const std::string client = "churn/" + std::to_string(t) + "/" + std::to_string(round % 4);
        Boxlane_Parse_Insert(client.c_str());
        for (std::size_t at = 0; at < stream.size(); at += 100) {
          const int32_t n = int32_t(std::min<std::size_t>(100, stream.size() - at));
          if (!Boxlane_Parse_Send(client.c_str(), stream.data() + at, n)) ++refused;
          if (at == 300 && round % 3 == 0) Boxlane_Parse_Delete(client.c_str());
        }
        if (round % 2) Boxlane_Parse_Delete(client.c_str());
      }
    });
  for (auto& t : churn) t.join();
  stop = true;
  for (auto& t : workers) t.join();
  // Only Sends after a Delete in the same round fail.
  EXPECT_GT(refused.load(), 0);
  for (int t = 0; t < 3; ++t)
    for (int k = 0; k < 4; ++k) Boxlane_Parse_Delete(("churn/" + std::to_string(t) + "/" + std::to_string(k)).c_str());
  Boxlane_Parse_Destory();
}

}  // namespace
