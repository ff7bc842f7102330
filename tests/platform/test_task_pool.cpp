#include "platform/task_pool.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using List = std::vector<std::pair<std::string, int>>;

// Long enough that a loaded machine never trips it; only a lost wake-up does.
constexpr int kLongMs = 20000;

// A wait on its own thread, given time to block (a waiter that has not blocked yet must still see the event;
// nothing asserts on durations).
std::future<std::pair<bool, uint64_t>> wait_on(void* pool, int index, int timeout_ms, std::atomic<int>* returned) {
  auto result = std::async(std::launch::async, [=] {
    const bool ok = Rendavo_TaskPool_WaitEventEx(pool, index, timeout_ms);
    const uint64_t code = Rendavo_GetLastError(nullptr);
    ++*returned;
    return std::pair{ok, code};
  });
  std::this_thread::sleep_for(100ms);
  return result;
}

bool refused(bool ok) { return !ok && Rendavo_GetLastError(nullptr) == RENDAVO_ERROR_TASKPOOL_PARAMETER; }
bool timed_out(bool ok) { return !ok && Rendavo_GetLastError(nullptr) == RENDAVO_ERROR_TASKPOOL_TIMEOUT; }

List listed(void* pool, int index) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int count = -1;
  EXPECT_TRUE(Rendavo_TaskPool_AddrGetEx(pool, index, &list, &count));
  List out;
  for (int i = 0; i < count; ++i) out.emplace_back(list[i]->tszClientAddr, list[i]->nEventCount);
  if (count == 0) {
    EXPECT_EQ(list, nullptr);
  }
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return out;
}

TEST(TaskPool, WaitWakesOnEventKeepsActivationsOnceElseTimesOut) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  ASSERT_NE(pool, nullptr);
  int index = -1;
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "10.0.0.1:5000", &index));
  ASSERT_EQ(index, 0);
  std::atomic<int> returned{0};
  // Bounded, so that a lost wake-up fails the check below instead of hanging.
  auto waiter = wait_on(pool, 0, 2 * kLongMs, &returned);
  EXPECT_EQ(returned, 0) << "a wait with nothing pending returned";
  // An event in the other pool must not wake this one.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 1));
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(returned, 0);
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "10.0.0.1:5000"));
  ASSERT_EQ(waiter.wait_for(std::chrono::milliseconds(kLongMs)), std::future_status::ready);
  EXPECT_TRUE(waiter.get().first);
  // A pending event keeps every wait returning at once until it is counted down.
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "10.0.0.1:5000"));
  EXPECT_TRUE(timed_out(Rendavo_TaskPool_WaitEventEx(pool, 0, 0)));
  // An activation with nobody waiting is kept for the next wait, once.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  // Pool 1 still holds its activation from above.
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 1, kLongMs));

  // Destroying wakes every blocked waiter of every pool with CLOSED.
  std::vector<std::future<std::pair<bool, uint64_t>>> waiters;
  for (const auto& [index, timeout] : {std::pair{0, -1}, std::pair{0, kLongMs}, std::pair{1, -1}})
    waiters.push_back(wait_on(pool, index, timeout, &returned));
  ASSERT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
  for (auto& w : waiters) {
    ASSERT_EQ(w.wait_for(std::chrono::milliseconds(kLongMs)), std::future_status::ready);
    EXPECT_EQ(w.get(), std::pair(false, uint64_t{RENDAVO_ERROR_TASKPOOL_CLOSED}));
  }
  // A new pool must not answer to the old handle.
  void* other = Rendavo_TaskPool_CreateEx(1);
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrIncEx(pool, 0, "peer")));
  EXPECT_TRUE(refused(Rendavo_TaskPool_DestoryEx(pool)));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(other));
}

TEST(TaskPool, BalancingCountsListOrderAndBadArguments) {
  for (int n : {0, -1}) EXPECT_TRUE(refused(Rendavo_TaskPool_CreateEx(n) != nullptr)) << n;
  void* pool = Rendavo_TaskPool_CreateEx(3);
  ASSERT_NE(pool, nullptr);
  // The fewest clients, lowest index on a tie; "b" again keeps its first placement; client strings are exact
  // bytes. After "a" leaves pool 0 it has the fewest again.
  const std::pair<const char*, int> inserts[] = {{"a", 0}, {"b", 1}, {"c", 2}, {"d", 0}, {"b", 1},
                                                 {"B", 1}, {"-a", 0}, {"e", 0}, {"f", 2}};
  int index = -1;
  for (const auto& [name, expected] : inserts) {
    if (name[0] == '-') {
      ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, expected, name + 1));
      continue;
    }
    ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, name, &index));
    EXPECT_EQ(index, expected) << name;
  }

  // Pool 0 holds d then e; the list follows insertion, not event order.
  EXPECT_TRUE(listed(pool, 0).empty());
  for (const char* name : {"e", "e", "d"}) ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, name));
  EXPECT_EQ(listed(pool, 0), (List{{"d", 1}, {"e", 2}}));
  // Counts stop at zero: two extra decrements are lost, not owed.
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "d"));
  EXPECT_EQ(listed(pool, 0), (List{{"e", 2}}));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "d"));
  EXPECT_EQ(listed(pool, 0), (List{{"d", 1}, {"e", 2}}));
  // Deleting clients with events takes their events out of the wait.
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, "d"));
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, "e"));
  EXPECT_TRUE(listed(pool, 0).empty());
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));

  // A client is only known in the pool it was placed in.
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrIncEx(pool, 0, "b")));

  // 127 bytes is the longest client string.
  const std::string longest(127, 'x'), too_long(128, 'x');
  EXPECT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, longest.c_str(), &index));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, index, longest.c_str()));
  EXPECT_EQ(listed(pool, index), (List{{longest, 1}}));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrInsertEx(pool, too_long.c_str(), &index)));
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  for (int bad : {-1, 3}) {
    EXPECT_TRUE(refused(Rendavo_TaskPool_AddrGetEx(pool, bad, &list, &index)));
    EXPECT_TRUE(refused(Rendavo_TaskPool_WaitEventEx(pool, bad, 0)));
  }
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

// Producers count events up from several threads while one worker per pool waits, lists and counts them down.
// A lost wake-up shows as a wait that runs into its long limit, a lost count as a wrong total.
TEST(TaskPool, WorkersSeeEveryEventFromConcurrentProducers) {
  constexpr int kPools = 2, kClients = 4, kEvents = 300;
  void* pool = Rendavo_TaskPool_CreateEx(kPools);
  ASSERT_NE(pool, nullptr);
  int index_of[kClients];
  for (int c = 0; c < kClients; ++c) {
    ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, ("client" + std::to_string(c)).c_str(), &index_of[c]));
  }
  std::vector<std::future<int>> workers;
  for (int p = 0; p < kPools; ++p) {
    workers.push_back(std::async(std::launch::async, [pool, p] {
      int taken = 0;
      while (taken < kEvents * kClients / kPools) {
        if (!Rendavo_TaskPool_WaitEventEx(pool, p, kLongMs)) return -1;
        QORVANE_RENDAVO_TASKEVENT** list = nullptr;
        int count = 0;
        if (!Rendavo_TaskPool_AddrGetEx(pool, p, &list, &count)) return -2;
        for (int i = 0; i < count; ++i) {
          for (int e = 0; e < list[i]->nEventCount; ++e) Rendavo_TaskPool_AddrDecEx(pool, p, list[i]->tszClientAddr);
          taken += list[i]->nEventCount;
        }
        Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
      }
      return taken;
    }));
  }
  std::vector<std::thread> producers;
  for (int c = 0; c < kClients; ++c) {
    producers.emplace_back([pool, c, index = index_of[c]] {
      const std::string name = "client" + std::to_string(c);
      for (int e = 0; e < kEvents; ++e) Rendavo_TaskPool_AddrIncEx(pool, index, name.c_str());
    });
  }
  for (auto& t : producers) t.join();
  for (auto& w : workers) {
    ASSERT_EQ(w.wait_for(std::chrono::milliseconds(2 * kLongMs)), std::future_status::ready);
    EXPECT_EQ(w.get(), kEvents * kClients / kPools);
  }
  for (int p = 0; p < kPools; ++p) EXPECT_TRUE(listed(pool, p).empty());
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

// Counts up and down from four threads at once on one client: nothing may be lost (a lost lock shows here now
// and then, under the thread sanitizer always).
TEST(TaskPool, CountsStayExactUnderContention) {
  constexpr int kTurns = 50000;
  void* pool = Rendavo_TaskPool_CreateEx(1);
  int index = -1;
  ASSERT_TRUE(pool && Rendavo_TaskPool_AddrInsertEx(pool, "busy", &index));
  for (int i = 0; i < 2 * kTurns; ++i) ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "busy"));
  std::vector<std::thread> threads;
  for (auto count : {Rendavo_TaskPool_AddrIncEx, Rendavo_TaskPool_AddrDecEx, Rendavo_TaskPool_AddrIncEx,
                     Rendavo_TaskPool_AddrDecEx}) {
    threads.emplace_back([pool, count] {
      for (int i = 0; i < kTurns; ++i) count(pool, 0, "busy");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(listed(pool, 0), (List{{"busy", 2 * kTurns}}));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

TEST(TaskPool, AnEntryCountsOnlyForItselfNeverForATwinEnteredLater) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  ASSERT_NE(pool, nullptr);
  int index = -1, again = -1, twin_index = -1;
  const auto entry = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &index);
  // Attaching a string already present hands out the same entry.
  const auto same = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &again);
  ASSERT_TRUE(entry && same);
  EXPECT_EQ(again, index);
  ASSERT_TRUE(Rendavo_TaskPool_EntryIncEx(*entry) && Rendavo_TaskPool_EntryIncEx(*same));
  ASSERT_TRUE(Rendavo_TaskPool_EntryDecEx(*entry));
  EXPECT_EQ(listed(pool, index), (List{{"peer", 1}}));

  // Gone from the pool, with its count; a new client of the same string starts at 0 and is not touched by the
  // old entry.
  ASSERT_TRUE(Rendavo_TaskPool_EntryDeleteEx(*entry));
  EXPECT_TRUE(listed(pool, index).empty());
  EXPECT_TRUE(timed_out(Rendavo_TaskPool_WaitEventEx(pool, index, 0)));
  const auto twin = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &twin_index);
  ASSERT_TRUE(twin);
  ASSERT_TRUE(Rendavo_TaskPool_EntryIncEx(*twin));
  EXPECT_TRUE(refused(Rendavo_TaskPool_EntryDecEx(*entry)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_EntryIncEx(*entry)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_EntryDeleteEx(*entry)));
  EXPECT_EQ(listed(pool, twin_index), (List{{"peer", 1}}));
  // Deleting by name reaches the twin's entry as well.
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, twin_index, "peer"));
  EXPECT_TRUE(refused(Rendavo_TaskPool_EntryIncEx(*twin)));
  ASSERT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

}  // namespace
