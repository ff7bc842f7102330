// What every parser benchmark does with a client: hand it a movie header in
// pieces, take the queued header records, and take every table back through
// the queries, counting what came back so a run can check it against the
// movie it sent.
#pragma once

#include "bench/synthetic_movie.hpp"

#include <cstddef>
#include <cstdint>
#include <string>

namespace boxlane::bench {

// Sends `size` bytes in pieces of `piece` bytes (0: one piece). False when
// the parser refused a piece.
bool send_in_pieces(const char* client, const uint8_t* data, std::size_t size, std::size_t piece);

// Takes every queued header record; returns how many there were.
int drain_headers(const char* client);

// Takes one track's headers, codec and every table, releasing each array.
// Returns the entries the queries handed out, per table.
TableCounts take_track_tables(const char* client, int32_t track_id);

// Takes the file type, the movie header and the track list, then every
// listed track's tables; returns the table entries handed out.
uint64_t take_everything(const char* client);

// Empty when the parser's tables for tracks 1 and 2 match what the movie
// holds; otherwise a description of the first difference.
std::string check_tables(const char* client, const SyntheticMovie& movie);

}  // namespace boxlane::bench
