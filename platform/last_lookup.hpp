// A thread's last successful client lookup, in one cache line, reused while
// its table's version is unchanged. A short key is copied into the line; a
// longer one is the table's own copy of the string, alive as long as the
// version holds, so it is compared only once the version has been checked.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

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

}  // namespace boxlane::platform
