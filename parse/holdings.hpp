// What a parse client holds, in bytes, and the bound Boxlane_Parse_SetLimit
// puts on it. Everything is summed from container sizes and capacities, so
// the count costs a few loads per box; the tables of a track are summed when
// a box is read into the track and kept in the record.
#pragma once

#include <boxlane/boxlane.h>

#include "parse/parse_record.hpp"

#include <cstdint>

namespace boxlane::parse {

// The bound for every client; 0 for none.
uint64_t client_limit() noexcept;
void set_client_limit(uint64_t bytes) noexcept;

// The heap behind one track record's tables and descriptions.
uint64_t track_bytes(const BOXLANE_TRACKINFO& track) noexcept;

// Everything the client holds: the record, its queue and reassembly buffer,
// brands, track records and tables, trex defaults and fragment answers.
uint64_t held_bytes(const QORVANE_MP4PARSE& record) noexcept;

// The most the reader of a box of this type can hold at once beyond what the
// client holds: what it adds, and a list's old block while it moves.
uint64_t reader_growth(const QORVANE_MP4PARSE& record, ENUM_QORVANE_MORVALY_BOXLANE_HTYPE code,
                       uint64_t payload_length) noexcept;

// What one queued header record costs.
inline constexpr uint64_t kQueuedRecordBytes = sizeof(BOXLANE_MSGBUFFER);

}  // namespace boxlane::parse
