#include "platform/task_pool.hpp"

#include <gtest/gtest.h>

#include <barrier>
#include <cerrno>
#include <climits>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using List = std::vector<std::pair<std::string, int>>;
using Waited = std::future<std::pair<bool, uint64_t>>;

// Long enough that a loaded machine never trips it; only a lost wake-up does.
constexpr auto kLong = 20000ms;

// A wait on its own thread, given time to fall asleep (nothing asserts on durations).
Waited wait_on(void* pool, int index, int timeout_ms) {
  auto result = std::async(std::launch::async, [=] {
    const bool ok = Rendavo_TaskPool_WaitEventEx(pool, index, timeout_ms);
    return std::pair{ok, Rendavo_GetLastError(nullptr)};
  });
  std::this_thread::sleep_for(100ms);
  return result;
}
bool ready(Waited& waited, std::chrono::milliseconds within) {
  return waited.wait_for(within) == std::future_status::ready;
}
bool refused(bool ok) { return !ok && Rendavo_GetLastError(nullptr) == RENDAVO_ERROR_TASKPOOL_PARAMETER; }
bool timed_out(bool ok) { return !ok && Rendavo_GetLastError(nullptr) == RENDAVO_ERROR_TASKPOOL_TIMEOUT; }

List listed(void* pool, int index) {
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int count = -1;
  EXPECT_TRUE(Rendavo_TaskPool_AddrGetEx(pool, index, &list, &count));
  List out;
  for (int i = 0; i < count; ++i) out.emplace_back(list[i]->tszClientAddr, list[i]->nEventCount);
  EXPECT_TRUE(count > 0 || (count == 0 && list == nullptr));
  Fundrel_Memory_Free(reinterpret_cast<void***>(&list), count);
  return out;
}

TEST(TaskPool, WaitWakesOnItsOwnPoolsEventsAndActivationsOnly) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  int index = -1;
  ASSERT_TRUE(pool && Rendavo_TaskPool_AddrInsertEx(pool, "10.0.0.1:5000", &index) && index == 0);
  // Bounded, so that a lost wake-up fails a check instead of hanging.
  Waited on_event = wait_on(pool, 0, 40000), also = wait_on(pool, 0, 40000), on_activation = wait_on(pool, 1, 40000);
  EXPECT_FALSE(ready(on_event, 0ms) || ready(on_activation, 0ms)) << "a wait with nothing pending returned";
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 1));
  ASSERT_TRUE(ready(on_activation, kLong));
  EXPECT_TRUE(on_activation.get().first);
  EXPECT_FALSE(ready(on_event, 100ms)) << "woken by the other pool";
  // An event wakes every waiter of its pool, not one.
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "10.0.0.1:5000"));
  ASSERT_TRUE(ready(on_event, kLong) && ready(also, kLong));
  EXPECT_TRUE(on_event.get().first && also.get().first);
  // A pending event keeps every wait returning at once until it is counted down; an activation made meanwhile is
  // used up by the first of them.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0));
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0) && Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "10.0.0.1:5000"));
  EXPECT_TRUE(timed_out(Rendavo_TaskPool_WaitEventEx(pool, 0, 0)));
  // A waiter alone on its pool is woken by an event too.
  Waited alone = wait_on(pool, 0, 40000);
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "10.0.0.1:5000") && ready(alone, kLong) && alone.get().first);
  ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "10.0.0.1:5000"));
  // A bounded wait ends by its time-out in milliseconds (50 here: 50 s would outlast kLong).
  Waited brief = wait_on(pool, 0, 50);
  ASSERT_TRUE(ready(brief, kLong));
  EXPECT_EQ(brief.get(), std::pair(false, uint64_t{RENDAVO_ERROR_TASKPOOL_TIMEOUT}));
  // An activation with nobody waiting is kept for the next wait, once.
  ASSERT_TRUE(Rendavo_TaskPool_ActiveEventEx(pool, 0) && Rendavo_TaskPool_ActiveEventEx(pool, 0));
  EXPECT_TRUE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));

  // Destroying wakes every blocked waiter of every pool with CLOSED, those of any negative time-out (no limit) too,
  // and leaves this thread's last error its own; a new pool does not answer to the old handle.
  std::vector<Waited> waiters;
  for (const auto& [index, timeout] : {std::pair{0, -1}, std::pair{0, 40000}, std::pair{1, INT_MIN}})
    waiters.push_back(wait_on(pool, index, timeout));
  ASSERT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
  for (auto& w : waiters) {
    ASSERT_TRUE(ready(w, kLong));
    EXPECT_EQ(w.get(), std::pair(false, uint64_t{RENDAVO_ERROR_TASKPOOL_CLOSED}));
  }
  EXPECT_TRUE(timed_out(false)) << "the waiters' CLOSED, not this thread's TIMEOUT";
  void* other = Rendavo_TaskPool_CreateEx(1);
  EXPECT_TRUE(refused(Rendavo_TaskPool_AddrIncEx(pool, 0, "peer")) && refused(Rendavo_TaskPool_DestoryEx(pool)));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(other));
}

TEST(TaskPool, BalancingCountsListOrderAndBadArguments) {
  for (int n : {0, -1}) EXPECT_TRUE(refused(Rendavo_TaskPool_CreateEx(n) != nullptr)) << n;
  void* pool = Rendavo_TaskPool_CreateEx(3);
  ASSERT_NE(pool, nullptr);
  // The fewest clients, lowest index on a tie; "b" again keeps its first pool; client strings are exact bytes.
  // Once "a" has left ("-a"), pool 0 has the fewest again.
  const std::pair<const char*, int> inserts[] = {{"a", 0}, {"b", 1}, {"c", 2},  {"d", 0}, {"b", 1},
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
  // Pool 0 holds d then e; the list follows insertion, not event order, and counts stop at zero.
  EXPECT_TRUE(listed(pool, 0).empty());
  for (const char* name : {"e", "e", "d"}) ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, name));
  EXPECT_EQ(listed(pool, 0), (List{{"d", 1}, {"e", 2}}));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Rendavo_TaskPool_AddrDecEx(pool, 0, "d"));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, 0, "d"));
  EXPECT_EQ(listed(pool, 0), (List{{"d", 1}, {"e", 2}}));
  // Deleting clients with events takes their events out of the wait.
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, "d") && Rendavo_TaskPool_AddrDeleteEx(pool, 0, "e"));
  EXPECT_TRUE(listed(pool, 0).empty());
  EXPECT_FALSE(Rendavo_TaskPool_WaitEventEx(pool, 0, 0));

  // 127 bytes is the longest client string; a client is known only in its own pool.
  const std::string longest(127, 'x'), too_long(128, 'x');
  EXPECT_TRUE(Rendavo_TaskPool_AddrInsertEx(pool, longest.c_str(), &index));
  ASSERT_TRUE(Rendavo_TaskPool_AddrIncEx(pool, index, longest.c_str()));
  EXPECT_EQ(listed(pool, index), (List{{longest, 1}}));
  QORVANE_RENDAVO_TASKEVENT** list = nullptr;
  int row = 0;
  for (const bool bad :
       {Rendavo_TaskPool_AddrInsertEx(pool, too_long.c_str(), &index), Rendavo_TaskPool_AddrInsertEx(pool, "g", 0),
        Rendavo_TaskPool_AddrIncEx(pool, 0, "b"), Rendavo_TaskPool_AddrIncEx(pool, 0, nullptr),
        Rendavo_TaskPool_AddrDecEx(pool, 0, nullptr), Rendavo_TaskPool_AddrDecEx(pool, 0, "b"),
        Rendavo_TaskPool_AddrDeleteEx(pool, 0, nullptr), Rendavo_TaskPool_AddrDeleteEx(pool, 0, "b"),
        Rendavo_TaskPool_AddrInsertEx(pool, nullptr, &index),
        Rendavo_TaskPool_AddrInsertEx(reinterpret_cast<void*>(~uintptr_t{0}), "g", &index),
        Rendavo_TaskPool_AddrGetEx(pool, -1, &list, &index), Rendavo_TaskPool_AddrGetEx(pool, 3, &list, &index),
        Rendavo_TaskPool_AddrGetEx(pool, 0, &list, nullptr), Rendavo_TaskPool_AddrGetEx(pool, 0, nullptr, &index),
        Rendavo_TaskPool_WaitEventEx(pool, 3, 0)})
    EXPECT_FALSE(bad) << row++;
  // The last error comes with errno as it stands.
  errno = ERANGE;
  int sys = 0;
  EXPECT_EQ(std::pair(Rendavo_GetLastError(&sys), sys), std::pair(uint64_t{RENDAVO_ERROR_TASKPOOL_PARAMETER}, ERANGE));
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

// Counts up and down from four threads at once on one client: nothing may be lost (a lost lock shows here).
TEST(TaskPool, CountsAndWakeUpsSurviveContention) {
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
  // Four threads entering one new client at once share one entry: it is listed once, with all four counts.
  for (int round = 0; round < 300; ++round) {
    const std::string name = "at once " + std::to_string(round);
    std::barrier start(4);
    std::vector<std::thread> entering;
    for (int t = 0; t < 4; ++t)
      entering.emplace_back([&] {
        int own = -1;
        start.arrive_and_wait();
        const auto entry = Rendavo_TaskPool_AddrAttachEx(pool, name.c_str(), &own);
        EXPECT_TRUE(entry && Rendavo_TaskPool_EntryIncEx(*entry));
      });
    for (auto& t : entering) t.join();
    ASSERT_EQ(listed(pool, 0), (List{{"busy", 2 * kTurns}, {name, 4}}));
    ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, 0, name.c_str()));
  }
  EXPECT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

TEST(TaskPool, AnEntryCountsOnlyForItselfNeverForATwinEnteredLater) {
  void* pool = Rendavo_TaskPool_CreateEx(2);
  int index = -1, again = -1, twin_index = -1;
  ASSERT_NE(pool, nullptr);
  // Attaching a string already present hands out the same entry.
  const auto entry = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &index);
  const auto same = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &again);
  ASSERT_TRUE(entry && same);
  EXPECT_EQ(again, index);
  ASSERT_TRUE(Rendavo_TaskPool_EntryIncEx(*entry) && Rendavo_TaskPool_EntryIncEx(*same));
  ASSERT_TRUE(Rendavo_TaskPool_EntryDecEx(*entry));
  EXPECT_EQ(listed(pool, index), (List{{"peer", 1}}));
  // Gone with its count; a new client of the same string starts at 0 and the old entry cannot touch it.
  ASSERT_TRUE(Rendavo_TaskPool_EntryDeleteEx(*entry));
  EXPECT_TRUE(listed(pool, index).empty());
  EXPECT_TRUE(timed_out(Rendavo_TaskPool_WaitEventEx(pool, index, 0)));
  const auto twin = Rendavo_TaskPool_AddrAttachEx(pool, "peer", &twin_index);
  ASSERT_TRUE(twin && Rendavo_TaskPool_EntryIncEx(*twin));
  // Each refusal sets its own code over the one an earlier call left (a time-out of the other pool).
  for (const auto refuse : {Rendavo_TaskPool_EntryDecEx, Rendavo_TaskPool_EntryIncEx, Rendavo_TaskPool_EntryDeleteEx}) {
    EXPECT_TRUE(timed_out(Rendavo_TaskPool_WaitEventEx(pool, 1 - twin_index, 0)));
    EXPECT_TRUE(refused(refuse(*entry)));
  }
  EXPECT_EQ(listed(pool, twin_index), (List{{"peer", 1}}));
  // Deleting by name reaches the twin's entry as well.
  ASSERT_TRUE(Rendavo_TaskPool_AddrDeleteEx(pool, twin_index, "peer"));
  EXPECT_TRUE(refused(Rendavo_TaskPool_EntryIncEx(*twin)));
  ASSERT_TRUE(Rendavo_TaskPool_DestoryEx(pool));
}

}  // namespace
