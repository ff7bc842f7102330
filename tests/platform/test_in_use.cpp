// The in-use slots a Delete waits on, and a thread's last client lookup, on a client table of the test's own.
#include <boxlane/boxlane.hpp>
#include <gtest/gtest.h>

#include <array>
#include <barrier>
#include <future>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/last_lookup.hpp"

namespace {

using namespace boxlane::platform;

TEST(InUse, OneSlotPerLiveThreadGivenBackAtItsEndAndWaitedOn) {
  InUseSlot* mine = in_use_slot();
  ASSERT_TRUE(mine && in_use_slot() == mine);
  const int record = 0;
  // A thread that ends while its slot names a record clears it and frees the slot for the next thread.
  InUseSlot *ended = nullptr, *next = nullptr;
  std::thread([&] { (ended = in_use_slot())->record.store(&record); }).join();
  std::thread([&] { next = in_use_slot(); }).join();
  EXPECT_TRUE(ended->record.load() == nullptr && next == ended);
  // A live thread has a slot of its own; a wait for its record lasts until the slot lets go of it.
  std::promise<void> release;
  std::promise<InUseSlot*> published;
  std::thread user([&] {
    InUseSlot* slot = in_use_slot();
    slot->record.store(&record);
    published.set_value(slot);
    release.get_future().wait();
    slot->record.store(nullptr);
  });
  InUseSlot* const users = published.get_future().get();
  auto waiting = std::async(std::launch::async, [&] {
    InUseSlot* const own = in_use_slot();
    wait_until_unused(&record);
    return own;
  });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  release.set_value();
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const InUseSlot* const waiters = waiting.get();
  EXPECT_TRUE(users != mine && waiters != mine && waiters != users);
  user.join();
  // A thread takes one free slot, not every free one: three threads at once, one alone, and three at once again use
  // the same three slots, so threads that come and go add none.
  const auto three_at_once = [] {
    std::array<InUseSlot*, 3> slots{};
    std::barrier all(3);
    std::vector<std::thread> threads;
    for (auto& slot : slots) threads.emplace_back([&] { slot = in_use_slot(), all.arrive_and_wait(); });
    for (auto& t : threads) t.join();
    return std::set<InUseSlot*>(slots.begin(), slots.end());
  };
  const auto first = three_at_once();
  std::thread([] { in_use_slot(); }).join();
  EXPECT_EQ(three_at_once(), first);
}

TEST(LastLookup, ReusedOnlyForTheSameKeyAtTheSameVersionAndAlwaysPublished) {
  struct {
    BOXLANE_CLIENTMAP<int> stl_MapClient;
    std::shared_mutex st_RWLocker;
    std::atomic<uint64_t> version{1};
  } table, other;
  // Keys of 31 and 32 bytes lie on both sides of the copy kept in the thread's line.
  const std::string k31a = std::string(30, 'k') + "a", k31b = std::string(30, 'k') + "b";
  const std::string k32a = std::string(31, 'k') + "a", k32b = std::string(31, 'k') + "b";
  int value = 0;
  for (const std::string& key : {std::string("abcdef"), std::string("abc"), k31a, k31b, k32a, k32b})
    table.stl_MapClient.emplace(key, std::make_unique<int>(value++));
  InUseSlot slot;
  LastLookup last;
  // Each row looks a client up ("-" removes it first, as a Delete does) and expects its value, or -1 for none.
  const std::pair<std::string, int> rows[] = {
      {"abcdef", 0}, {"abcdef", 0}, {"abcde", -1}, {"abc", 1}, {"abcdef", 0}, {k31a, 2},    {k31b, 3},  {k31a, 2},
      {k32a, 4},     {k32b, 5},     {k32a, 4},  {"nobody", -1}, {"abc", 1}, {"-abc", -1}, {"abcdef", 0}};
  for (auto [client, expected] : rows) {
    if (client[0] == '-') {
      client.erase(0, 1);
      std::unique_lock lock(table.st_RWLocker);
      table.stl_MapClient.erase(client);
      ++table.version;
    }
    const int* found = find_published(table, client.c_str(), slot, last,
                                      [&](std::memory_order order) { return table.version.load(order); });
    EXPECT_EQ(found ? *found : -1, expected) << client;
    EXPECT_EQ(slot.record.load(), found) << client << ": the slot names what the call uses, or nothing";
    slot.record.store(nullptr);
  }
  // The same name in another table, at the same version, is that table's own record.
  other.version = table.version.load();
  other.stl_MapClient.emplace("abcdef", std::make_unique<int>(99));
  const int* own = find_published(other, "abcdef", slot, last, [&](auto order) { return other.version.load(order); });
  EXPECT_EQ(own ? *own : -1, 99);
}

}  // namespace
