// Finding a parse client's record: a thread's last lookup, reused while no
// parse client has been deleted since, else the table under its shared lock.
#include "parse/client_lookup.hpp"
#include "platform/last_lookup.hpp"

#include <atomic>

namespace boxlane::parse {
namespace {

// Changed by every Delete of every parse table, under that table's exclusive
// lock; every other call only reads it, so its line is shared, never written.
alignas(64) std::atomic<uint64_t> g_deletions{0};

[[gnu::tls_model("initial-exec")]] constinit thread_local platform::LastLookup t_last;

}  // namespace

void note_deletion() noexcept { g_deletions.fetch_add(1, std::memory_order_seq_cst); }

QORVANE_MP4PARSE* find_client(CBoxlane_Parse& self, const char* client, platform::InUseSlot& slot) noexcept {
  return platform::find_published(self, client, slot, t_last,
                                  [](std::memory_order order) { return g_deletions.load(order); });
}

}  // namespace boxlane::parse
