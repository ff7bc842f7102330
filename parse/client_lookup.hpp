// The frame of the parser's client operations: error flag cleared, the client
// string checked, the record found under the table lock held shared and
// marked used, the table lock let go, and the record's mutex held while the
// work runs. No call waits for another client's work, and Insert and Delete
// hold the table lock only for the map change.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "parse/parse_record.hpp"

#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

namespace boxlane::parse {

// Client strings are NUL-terminated and shorter than the record's 128 bytes.
inline bool valid_client(const char* client) noexcept {
  return client && ::strnlen(client, sizeof(QORVANE_MP4PARSE::tszClient)) < sizeof(QORVANE_MP4PARSE::tszClient);
}

template <typename Work>
bool with_client(CBoxlane_Parse& self, const char* client, Work&& work) noexcept {
  clear_error();
  if (!valid_client(client)) return fail(BOXLANE_ERROR_PARSE_PARAMETER);
  QORVANE_MP4PARSE* found = nullptr;
  {
    std::shared_lock table(self.st_RWLocker);
    const auto it = self.stl_MapClient.find(std::string_view(client));
    if (it == self.stl_MapClient.end()) return fail(BOXLANE_ERROR_PARSE_NOTFOUND);
    found = it->second.get();
    // Marked while the table still holds it: Delete then waits for this call.
    found->stUsers.n.fetch_add(1, std::memory_order_relaxed);
  }
  QORVANE_MP4PARSE& record = *found;
  struct Unmark {
    QORVANE_MP4PARSE& record;
    ~Unmark() {
      if (record.stUsers.n.fetch_sub(1, std::memory_order_acq_rel) == 1) record.stUsers.n.notify_all();
    }
  } unmark{record};
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
