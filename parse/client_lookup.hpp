// The frame of the parser's client operations: error flag cleared, the client
// string checked, the table lock held shared and then the record's mutex
// (always in that order) while the work runs.
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
  std::shared_lock table(self.st_RWLocker);
  const auto it = self.stl_MapClient.find(std::string_view(client));
  if (it == self.stl_MapClient.end()) return fail(BOXLANE_ERROR_PARSE_NOTFOUND);
  QORVANE_MP4PARSE& record = *it->second;
  std::lock_guard guard(*record.st_Locker);
  try {
    return work(record);
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PARSE_MALLOC);
  }
}

}  // namespace boxlane::parse
