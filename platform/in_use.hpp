// Which record each thread's call is using, published in a slot of the
// thread's own (hazard pointers). A call that finds its record without the
// table lock writes only its own slot, never a line other threads write;
// whoever removes a record from its table waits until no slot names it
// before freeing it.
#pragma once

#include <atomic>

namespace boxlane::platform {

// One per thread, in a cache line of its own; reused after the thread ends.
struct alignas(64) InUseSlot {
  std::atomic<const void*> record{nullptr};
  std::atomic<bool> owned{false};
  InUseSlot* next = nullptr;
};

// Null only when the memory for a new slot could not be had.
InUseSlot* claim_in_use_slot() noexcept;

[[gnu::tls_model("initial-exec")]] inline constinit thread_local InUseSlot* t_in_use = nullptr;

// The calling thread's slot, or null (out of memory).
inline InUseSlot* in_use_slot() noexcept {
  InUseSlot* slot = t_in_use;
  return slot ? slot : claim_in_use_slot();
}

// Returns once no thread's slot names `record`. The record must already be
// out of its table, and the table's version changed, so no new call finds it.
void wait_until_unused(const void* record) noexcept;

}  // namespace boxlane::platform
