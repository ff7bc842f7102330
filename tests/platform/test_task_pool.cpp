#include "platform/task_pool.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Long enough that a loaded machine never trips it; only a lost wake-up does.
constexpr int kLongMs = 20000;
constexpr auto kLong = std::chrono::milliseconds(kLongMs);

struct WaitResult {
  bool ok;
  uint64_t code;
};

// Starts a waiter on its own thread; `returned` flips when the wait is over.
std::future<WaitResult> start_waiter(void* pool, int index, int timeout_ms, std::atomic<bool>& returned) {
  return std::async(std::launch::async, [=, &returned] {
    const bool ok = Rendavo_TaskPool_WaitEventEx(pool, index, timeout_ms);
    const uint64_t code = Rendavo_GetLastError(nullptr);
    returned = true;
    return WaitResult{ok, code};
  });
}

// Gives a waiter time to block. Nothing asserts on how long anything took:
// a waiter that has not blocked yet still has to see the event.
void let_waiter_block() { std::this_thread::sleep_for(100ms); }

bool refused(bool ok) { return !ok && Rendavo_GetLastError(nullptr) == RENDAVO_ERROR_TASKPOOL_PARAMETER; }

std::vector<std::pair<std::string, int>> listed(void* pool, int index) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int count = -1;
  EXPECT_TRUE(Rendavo_TaskPool_AddrGetEx(pool, index, &list, &count));
  std::vector<std::pair<std::string, int>> out;
  for (int i = 0; i < count; ++i) out.emplace_back(list[i]->tszClientAddr, list[i]->nEventCount);
  if (count == 0) {
    EXPECT_EQ(list, nullptr);
  }
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return out;
}

TEST(TaskPool, WaitWakesOnEventOrActivationElseTimesOut) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  ASSERT_NE(pool, nullptr);
  int index = -1;
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "10.0.0.1:5000", &index));
  ASSERT_EQ(index, 0);

  std::atomic<bool> returned{false};
  auto waiter = start_waiter(pool, 0, -1, returned);
  let_waiter_block();
  EXPECT_FALSE(returned) << "a wait with nothing pending returned";
  // An event in the other pool must not wake this one.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 1));
  let_waiter_block();
  EXPECT_FALSE(returned);
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "10.0.0.1:5000"));
  ASSERT_EQ(waiter.wait_for(kLong), std::future_status::ready);
  EXPECT_TRUE(waiter.get().ok);
  // A pending event keeps every wait returning at once until it is counted down.
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "10.0.0.1:5000"));

  returned = false;
  waiter = start_waiter(pool, 0, kLongMs, returned);
  let_waiter_block();
  EXPECT_FALSE(returned);
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  ASSERT_EQ(waiter.wait_for(kLong), std::future_status::ready);
  EXPECT_TRUE(waiter.get().ok);
  // The activation was used up by the wait it woke.
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_TIMEOUT);

  // An activation with nobody waiting is kept for the next wait, once.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  // Pool 1 still holds its activation from above.
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 1, kLongMs));

  // With nothing pending a bounded wait gives up.
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 30));
  EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_TIMEOUT);

  // Another thread's failure does not overwrite this thread's code.
  std::thread([pool] {
    EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 7, 0));
    EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  }).join();
  EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_TIMEOUT);

  int sys = 0;
  errno = EINTR;
  EXPECT_EQ(Rendavo_GetLastError(&sys), RENDAVO_ERROR_TASKPOOL_TIMEOUT);
  EXPECT_EQ(sys, EINTR);
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

TEST(TaskPool, DestroyWakesBlockedWaitersAndRetiresTheHandle) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  ASSERT_NE(pool, nullptr);
  int index = -1;
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "peer", &index));

  std::atomic<bool> first{false}, second{false}, third{false};
  auto w0 = start_waiter(pool, 0, -1, first);
  auto w0b = start_waiter(pool, 0, kLongMs, second);
  auto w1 = start_waiter(pool, 1, -1, third);
  let_waiter_block();
  ASSERT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
  for (auto* waiter : {&w0, &w0b, &w1}) {
    ASSERT_EQ(waiter->wait_for(kLong), std::future_status::ready);
    const WaitResult result = waiter->get();
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.code, RENDAVO_ERROR_TASKPOOL_CLOSED);
  }

  // A new pool must not answer to the old handle.
  void* other = Rendavo_TaskPool_CreateEx(1);
  ASSERT_NE(other, nullptr);
  EXPECT_NE(other, pool);
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrInsertEx(pool, "peer", &index)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrIncEx(pool, 0, "peer")));
  EXPECT_TRUE(refused(Rendavo_TaskPool_WaitEventEx(pool, 0, 0)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_DestoryEx(pool)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_DestoryEx(nullptr)));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(other));
}

TEST(TaskPool, BalancingCountsAndListOrder) {
  void* pool = Rendavo_TaskPool_CreateEx(3);
  ASSERT_NE(pool, nullptr);
  int index = -1;
  const char* names[] = {"a", "b", "c", "d"};
  const int expected[] = {0, 1, 2, 0};
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, names[i], &index));
    EXPECT_EQ(index, expected[i]) << names[i];
  }
  // A repeated insert keeps the first placement.
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "b", &index));
  EXPECT_EQ(index, 1);
  // Client strings are exact bytes.
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "B", &index));
  EXPECT_EQ(index, 1);
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, "a"));
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "e", &index));
  EXPECT_EQ(index, 0);
  ASSERT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, "f", &index));
  EXPECT_EQ(index, 2);

  // Pool 0 holds d then e; the list follows insertion, not event order.
  EXPECT_TRUE(listed(pool, 0).empty());
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "e"));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "e"));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "d"));
  using List = std::vector<std::pair<std::string, int>>;
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
  EXPECT_FALSE(Rendavo_TaskPool_AddrIncEx(pool, 0, "b"));
  EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  EXPECT_FALSE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, "b"));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

TEST(TaskPool, RefusesBadArguments) {
  for (int n : {0, -1}) {
    EXPECT_EQ(Rendavo_TaskPool_CreateEx(n), nullptr);
    EXPECT_EQ(Rendavo_GetLastError(nullptr), RENDAVO_ERROR_TASKPOOL_PARAMETER);
  }
  void* pool = Rendavo_TaskPool_CreateEx(2);
  ASSERT_NE(pool, nullptr);
  int index = 0;
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  const std::string longest(127, 'x');
  const std::string too_long(128, 'x');
  EXPECT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, longest.c_str(), &index));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, index, longest.c_str()));
  EXPECT_EQ(listed(pool, index), (std::vector<std::pair<std::string, int>>{{longest, 1}}));

  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrInsertEx(pool, too_long.c_str(), &index)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrInsertEx(pool, nullptr, &index)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrInsertEx(pool, "x", nullptr)));
  for (int bad : {-1, 2}) {
    EXPECT_TRUE(refused(Rendavo_TaskPool_AddrGetEx(pool, bad, &list, &index)));
    EXPECT_TRUE(refused(Rendavo_TaskPool_WaitEventEx(pool, bad, 0)));
  }
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrGetEx(pool, 0, nullptr, &index)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrGetEx(pool, 0, &list, nullptr)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrIncEx(pool, 0, nullptr)));
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrDecEx(pool, 0, "never inserted")));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

// Producers count events up from several threads while one worker per pool
// waits, lists and counts them down. A lost wake-up shows as a wait that runs
// into its long limit.
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
    ASSERT_EQ(w.wait_for(kLong * 2), std::future_status::ready);
    EXPECT_EQ(w.get(), kEvents * kClients / kPools);
  }
  for (int p = 0; p < kPools; ++p) EXPECT_TRUE(listed(pool, p).empty());
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

}  // namespace
