// The frame every writer operation that names a client runs in: error flag
// cleared, a null client refused, the table lock held shared while the work
// runs, an unknown client refused, allocation failure reported.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/packet_record.hpp"

#include <mutex>
#include <new>
#include <string_view>

namespace boxlane::packet {

template <typename Work>
bool with_client(CBoxlane_Packet& self, const char* client, Work&& work) noexcept {
  clear_error();
  if (!client) return fail(BOXLANE_ERROR_PACKET_PARAMETER);
  std::shared_lock lock(self.st_RWLocker);
  const auto it = self.stl_MapClient.find(std::string_view(client));
  if (it == self.stl_MapClient.end()) return fail(BOXLANE_ERROR_PACKET_NOTFOUND);
  try {
    return work(*it->second);
  } catch (const std::bad_alloc&) {
    return fail(BOXLANE_ERROR_PACKET_MALLOC);
  }
}

}  // namespace boxlane::packet
