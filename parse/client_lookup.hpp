// The frame of the parser's client operations: error flag cleared, the client
// string checked, the record found and published in the thread's in-use slot,
// and the record's mutex held while the work runs. No call waits for another
// client's work, and Insert and Delete hold the table lock only for the map
// change.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/parse_record.hpp"
#include "platform/in_use.hpp"

#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

namespace boxlane::parse {

// Client strings are NUL-terminated and shorter than the record's 128 bytes.
inline bool valid_client(const char* client) noexcept {
  return client && ::strnlen(client, sizeof(QORVANE_MP4PARSE::tszClient)) < sizeof(QORVANE_MP4PARSE::tszClient);
}

// The client's record, or null, published in the thread's in-use slot (which
// stays set until the caller clears it). A thread that names the same client
// as in its previous call, with no parse client deleted since, gets the
// record without the table lock: it writes only its own slot, so calls for
// different clients on different threads share no written cache line.
QORVANE_MP4PARSE* find_client(CBoxlane_Parse& self, const char* client, platform::InUseSlot& slot) noexcept;
// Makes every thread's last lookup stale; Delete calls it under the table's
// exclusive lock once the record has left the map.
void note_deletion() noexcept;

template <typename Work>
bool with_client(CBoxlane_Parse& self, const char* client, Work&& work) noexcept {
  clear_error();
  if (!valid_client(client)) return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  platform::InUseSlot* slot = platform::in_use_slot();
  if (!slot) return fail(BOXLANE_ERROR_PARSE_MALLOC);
  QORVANE_MP4PARSE* found = find_client(self, client, *slot);
  if (!found) return fail(BOXLANE_ERROR_PARSE_NOTFOUND);
  // Delete waits until no slot names the record before it frees it.
  struct Release {
    platform::InUseSlot& slot;
    ~Release() { slot.record.store(nullptr, std::memory_order_release); }
  } release{*slot};
  QORVANE_MP4PARSE& record = *found;
  std::lock_guard guard(*record.st_Locker);
  // Deleted between the lookup and the mutex: as if the lookup had come after.
  if (record.bDeleted) return fail(BOXLANE_ERROR_PARSE_NOTFOUND);
  try {
    return work(record);
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
}

}  // namespace boxlane::parse
