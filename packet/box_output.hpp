// The frame every writer that fills a caller buffer runs in: the client
// lookup, refusal of a null buffer or length pointer, a write cursor at the
// start of the buffer, and the length reported only when the write succeeds.
#pragma once

#include <boxlane/boxlane.hpp>

#include "frame/last_error.hpp"
#include "packet/client_lookup.hpp"
#include "packet/packet_record.hpp"
#include "platform/be_writer.hpp"

#include <climits>
#include <cstdint>

namespace boxlane::packet {

// `write(record, writer)` returns false (through fail()) before it writes
// anything; on success the bytes written go to *length.
template <typename Write>
bool write_box(CBoxlane_Packet& self, const char* client, uint8_t* buffer, int* length, Write&& write) noexcept {
  return with_client(self, client, [&](QORVANE_MP4PACKET& record) {
    if (!buffer || !length) return fail(BOXLANE_ERROR_PACKET_PARAMETER);
    BeWriter out(buffer);
    if (!write(record, out)) return false;
    *length = static_cast<int>(out.size());
    return true;
  });
}

// Whether head + count * each bytes still fits the signed 32-bit length.
constexpr bool fits_length(uint64_t head, uint64_t count, uint64_t each) noexcept {
  return count <= (static_cast<uint64_t>(INT_MAX) - head) / each;
}

}  // namespace boxlane::packet
