#include "platform/in_use.hpp"

#include <new>
#include <thread>

namespace boxlane::platform {
namespace {

// Slots are never freed: a list that only grows, walked without a lock.
std::atomic<InUseSlot*> g_slots{nullptr};

// Gives the thread's slot back when the thread ends.
struct SlotOwner {
  InUseSlot* slot = nullptr;
  ~SlotOwner() {
    if (!slot) return;
    slot->record.store(nullptr, std::memory_order_release);
    slot->owned.store(false, std::memory_order_release);
    t_in_use = nullptr;
  }
};
thread_local SlotOwner t_owner;

}  // namespace

InUseSlot* claim_in_use_slot() noexcept {
  InUseSlot* slot = nullptr;
  for (InUseSlot* s = g_slots.load(std::memory_order_acquire); s && !slot; s = s->next) {
    bool free = false;
    if (!s->owned.load(std::memory_order_relaxed) && s->owned.compare_exchange_strong(free, true)) slot = s;
  }
  if (!slot) {
    slot = new (std::nothrow) InUseSlot;
    if (!slot) return nullptr;
    slot->owned.store(true, std::memory_order_relaxed);
    InUseSlot* head = g_slots.load(std::memory_order_relaxed);
    do slot->next = head;
    while (!g_slots.compare_exchange_weak(head, slot, std::memory_order_release, std::memory_order_relaxed));
  }
  t_owner.slot = slot;
  t_in_use = slot;
  return slot;
}

void wait_until_unused(const void* record) noexcept {
  for (InUseSlot* s = g_slots.load(std::memory_order_acquire); s; s = s->next)
    while (s->record.load(std::memory_order_seq_cst) == record) std::this_thread::yield();
}

}  // namespace boxlane::platform
