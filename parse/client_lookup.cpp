// Finding a parse client's record: a thread's last lookup, reused while no
// parse client has been deleted since, else the table under its shared lock.
#include "parse/client_lookup.hpp"
#include "platform/last_lookup.hpp"

#include <atomic>
#include <cstring>
#include <shared_mutex>
#include <string>
#include <string_view>

namespace boxlane::parse {
namespace {

// Changed by every Delete of every parse table, under that table's exclusive
// lock; every other call only reads it, so its line is shared, never written.
alignas(64) std::atomic<uint64_t> g_deletions{0};

[[gnu::tls_model("initial-exec")]] constinit thread_local platform::LastLookup t_last;

}  // namespace

void note_deletion() noexcept { g_deletions.fetch_add(1, std::memory_order_seq_cst); }

QORVANE_MP4PARSE* find_client(CBoxlane_Parse& self, const char* client, platform::InUseSlot& slot) noexcept {
  platform::LastLookup& last = t_last;
  if (last.table == &self) {
    // Published before the count is read: either Delete's change comes after
    // this read, and its wait sees the slot, or this read sees the change.
    // The key is compared only once the count holds, since a long key is the
    // table's own string.
    slot.record.store(last.record, std::memory_order_seq_cst);
    if (g_deletions.load(std::memory_order_seq_cst) == last.version && std::strcmp(last.key, client) == 0)
      return static_cast<QORVANE_MP4PARSE*>(last.record);
    slot.record.store(nullptr, std::memory_order_relaxed);
  }
  std::shared_lock table(self.st_RWLocker);
  const auto it = self.stl_MapClient.find(std::string_view(client));
  if (it == self.stl_MapClient.end()) return nullptr;
  // Published under the table lock, which Delete takes before it waits.
  slot.record.store(it->second.get(), std::memory_order_seq_cst);
  last.remember(&self, g_deletions.load(std::memory_order_relaxed), it->second.get(), it->first);
  return it->second.get();
}

}  // namespace boxlane::parse
