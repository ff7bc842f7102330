// A thread's last successful client lookup, in one cache line, reused while
// its table's version is unchanged. A short key is copied into the line; a
// longer one is the table's own copy of the string, alive as long as the
// version holds, so it is compared only once the version has been checked.
#pragma once

#include "platform/in_use.hpp"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

namespace boxlane::platform {

struct alignas(64) LastLookup {
  const void* table = nullptr;
  uint64_t version = 0;
  void* record = nullptr;
  const char* key = nullptr;
  char short_key[32] = {};

  void remember(const void* found_in, uint64_t at_version, void* found, const std::string& table_key) noexcept {
    table = found_in;
    version = at_version;
    record = found;
    if (table_key.size() < sizeof short_key) {
      std::memcpy(short_key, table_key.c_str(), table_key.size() + 1);
      key = short_key;
    } else {
      key = table_key.c_str();
    }
  }
};

// The record `client` names in `table` (a client table with its shared lock),
// or null, published in the thread's in-use slot, which stays set until the
// caller clears it. `version(order)` reads the number whoever removes a record
// changes under the table's exclusive lock before waiting on the slots. A
// thread naming the client of its previous lookup, at the same version, gets
// the record without the lock: it writes only its own slot and line.
template <typename Table, typename Version>
auto find_published(Table& table, const char* client, InUseSlot& slot, LastLookup& last, Version version) noexcept {
  using Record = decltype(table.stl_MapClient.begin()->second.get());
  if (last.table == &table) {
    // Published before the version is read: either the remover's change comes
    // after this read, and its wait sees the slot, or this read sees it.
    slot.record.store(last.record, std::memory_order_seq_cst);
    if (version(std::memory_order_seq_cst) == last.version && std::strcmp(last.key, client) == 0)
      return static_cast<Record>(last.record);
    slot.record.store(nullptr, std::memory_order_relaxed);
  }
  std::shared_lock lock(table.st_RWLocker);
  const auto it = table.stl_MapClient.find(std::string_view(client));
  if (it == table.stl_MapClient.end()) return Record{};
  // Published under the table lock, which the remover takes before it waits.
  slot.record.store(it->second.get(), std::memory_order_seq_cst);
  last.remember(&table, version(std::memory_order_relaxed), it->second.get(), it->first);
  return it->second.get();
}

}  // namespace boxlane::platform
