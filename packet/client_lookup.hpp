// The frame every writer operation that names a client runs in: error flag
// cleared, a null client refused, the table lock held shared while the work
// runs, an unknown client refused, allocation failure reported.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/packet_record.hpp"

#include <mutex>
#include <new>

namespace boxlane::packet {

// The client's record, or null. The caller holds the table lock. A thread that
// names the same client as in its previous call, with the table unchanged
// since, gets the record without hashing: a recording thread names one client
// for every frame.
QORVANE_MP4PACKET* find_client(CBoxlane_Packet& self, const char* client) noexcept;

// A version no table has had yet; taken under the table's exclusive lock.
uint64_t next_table_version() noexcept;

template <typename Work>
bool with_client(CBoxlane_Packet& self, const char* client, Work&& work) noexcept {
  clear_error();
  if (!client) return fail(BOXLANE_ERROR_PACKET_PARAMETER);
  std::shared_lock lock(self.st_RWLocker);
  QORVANE_MP4PACKET* record = find_client(self, client);
  if (!record) return fail(BOXLANE_ERROR_PACKET_NOTFOUND);
  try {
    return work(*record);
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PACKET_MALLOC);
  }
}

}  // namespace boxlane::packet
