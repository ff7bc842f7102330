// Senders and workers on several threads through the task pool: every
// queued record reaches a worker exactly once and in order per client, and
// clients may be deleted and inserted again while workers run (the thread
// sanitizer watches these).
#include "parse_fixtures.hpp"

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>

namespace boxlane::test {
namespace {

using namespace std::chrono_literals;

// Workers that wait on their pool, list the clients with events and drain
// them, noting each record's size per client, until told to stop.
struct Workers {
  std::mutex mutex;
  std::map<std::string, std::vector<uint64_t>> sizes;
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;

  Workers(int pools, int per_pool) {
    for (int p = 0; p < pools * per_pool; ++p) threads.emplace_back([this, pool = p % pools] { run(pool); });
  }
  void join() {
    stop = true;
    for (auto& t : threads) t.join();
  }
  void run(int pool) {
    for (;;) {
      const bool woke = Boxlane_Parse_WaitEvent(pool, 50);
      QORVANE_RENDAVO_TASKEVENT** list = nullptr;
      int32_t count = 0;
      if (!Boxlane_Parse_GetPool(pool, &list, &count)) return;
      for (const auto& event : take_list(list, count))
        // Taking and noting under one lock keeps the noted order Recv's order.
        for (QORVANE_MP4HDR h;;) {
          std::lock_guard lock(mutex);
          if (!Boxlane_Parse_Recv(event.tszClientAddr, &h, nullptr)) break;
          sizes[event.tszClientAddr].push_back(h.nBoxSize);
        }
      if (!woke && count == 0 && stop) return;
    }
  }
};

TEST(Workers, EveryRecordReachesAWorkerOnceAndInOrder) {
  constexpr int kClients = 12, kSenders = 3, kBoxes = 40;
  ASSERT_TRUE(Boxlane_Parse_Init(3));
  const auto name = [](int c) { return "workers/" + std::to_string(c); };
  // Box i of client c has its own size, so a record lost, doubled or out of order shows.
  std::vector<Bytes> streams(kClients);
  std::vector<std::vector<uint64_t>> want(kClients);
  for (int c = 0; c < kClients; ++c) {
    ASSERT_TRUE(Boxlane_Parse_Insert(name(c).c_str()));
    for (int i = 0; i < kBoxes; ++i) {
      want[c].push_back(8 + (c * 7 + i) % 50);
      streams[c].add(box("free", Bytes{}.zeros(want[c].back() - 8)));
    }
  }
  Workers workers(3, 2);
  // Each sender interleaves its clients, cutting every stream at random.
  std::atomic<int> failed{0};
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s)
    senders.emplace_back([&, s] {
      std::mt19937 rng(uint32_t(s + 1));
      std::vector<std::size_t> at(kClients);
      for (bool more = true; more;) {
        more = false;
        for (int c = s; c < kClients; c += kSenders) {
          const std::size_t n = std::min<std::size_t>(streams[c].size() - at[c], 1 + rng() % 97);
          failed += n && !send(name(c), streams[c], at[c], at[c] + n);
          at[c] += n;
          more = more || n;
        }
      }
    });
  for (auto& t : senders) t.join();
  workers.join();
  EXPECT_EQ(failed.load(), 0);
  for (int c = 0; c < kClients; ++c) {
    EXPECT_EQ(workers.sizes[name(c)], want[c]) << name(c);
    Boxlane_Parse_Delete(name(c).c_str());
  }
  Boxlane_Parse_Destory();
}

// A worker's Recv races a thread that deletes the client, inserts it again
// and sends it one box, while other threads send and delete too. Afterwards
// the pool lists as many events for the name as records are queued: a count
// taken for the old client must not land on the new one.
TEST(Workers, EventsFollowRecordsWhileClientsAreDeletedAndReinserted) {
  ASSERT_TRUE(Boxlane_Parse_Init(1));
  const std::string client = "reinserted";
  const Bytes one_box = Bytes{}.u32(8).str("free");
  ASSERT_TRUE(Boxlane_Parse_Insert(client.c_str()));
  ASSERT_TRUE(send(client, one_box));
  std::atomic<int> go{-1}, done{-1};
  std::atomic<bool> stop{false};
  std::vector<std::thread> others;
  for (int t = 0; t < 2; ++t)
    others.emplace_back([&, t] {
      const std::string other = "reinserted/other-" + std::to_string(t);
      for (int round = 0; !stop; ++round) {
        Boxlane_Parse_Insert(other.c_str());
        (void)send(other, one_box);
        (void)drain(other);
        if (round % 3 == t) Boxlane_Parse_Delete(other.c_str());
      }
      Boxlane_Parse_Delete(other.c_str());
    });
  constexpr int kLast = 1 << 30;
  std::thread worker([&] {
    QORVANE_MP4HDR h;
    for (int round = 0;; ++round) {
      while (go.load() < round) std::this_thread::yield();
      if (go.load() == kLast) return;
      (void)Boxlane_Parse_Recv(client.c_str(), &h, nullptr);
      done.store(round);
    }
  });
  const auto until = std::chrono::steady_clock::now() + 4s;
  int mismatched = 0, rounds = 0;
  for (; std::chrono::steady_clock::now() < until; ++rounds) {
    go.store(rounds);
    Boxlane_Parse_Delete(client.c_str());
    Boxlane_Parse_Insert(client.c_str());
    const bool sent = send(client, one_box);
    while (done.load() != rounds) std::this_thread::yield();
    const int listed = pending_events(client);
    mismatched += !sent || listed != int(drain(client).size());
    mismatched += !send(client, one_box);  // the record the next round's Recv races for
  }
  go.store(kLast);
  worker.join();
  stop = true;
  for (auto& t : others) t.join();
  EXPECT_EQ(mismatched, 0) << "of " << rounds << " rounds";
  Boxlane_Parse_Delete(client.c_str());
  Boxlane_Parse_Destory();
}

}  // namespace
}  // namespace boxlane::test
