// The frame every writer operation that names a client runs in: error flag
// cleared, a null client refused, the record found and marked in use by this
// thread while the work runs, an unknown client refused, allocation failure
// reported.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/packet_record.hpp"
#include "platform/in_use.hpp"

#include <atomic>
#include <new>

namespace boxlane::packet {

// The client's record, or null, published in the thread's in-use slot (which
// stays set until the caller clears it). A thread that names the same client
// as in its previous call, with no client deleted since, gets the record
// without the table lock or a hash: it writes only its own slot, so calls
// for different clients on different threads share no written cache line.
QORVANE_MP4PACKET* find_client(CBoxlane_Packet& self, const char* client, platform::InUseSlot& slot) noexcept;

// A version no table has had yet; taken under the table's exclusive lock.
uint64_t next_table_version() noexcept;

template <typename Work>
bool with_client(CBoxlane_Packet& self, const char* client, Work&& work) noexcept {
  clear_error();
  if (!client) return fail(BOXLANE_ERROR_PACKET_PARAMETER);
  platform::InUseSlot* slot = platform::in_use_slot();
  if (!slot) return fail(BOXLANE_ERROR_PACKET_MALLOC);
  QORVANE_MP4PACKET* record = find_client(self, client, *slot);
  if (!record) return fail(BOXLANE_ERROR_PACKET_NOTFOUND);
  struct Release {
    platform::InUseSlot& slot;
    ~Release() { slot.record.store(nullptr, std::memory_order_release); }
  } release{*slot};
  try {
    return work(*record);
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PACKET_MALLOC);
  }
}

}  // namespace boxlane::packet
