// Feeds a stream to a parse client the way a receiving application does:
// in pieces cut anywhere, taking the header records after every piece, and
// skipping each mdat payload once its header record has told its length.
#pragma once

#include <boxlane/boxlane.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace boxlane::test {

struct FeedResult {
  std::vector<QORVANE_MP4HDR> headers;  // in the order Recv handed them out
  std::vector<uint64_t> positions;      // Recv's position with each header
  uint64_t final_position = 0;          // the client's parse position at the end
  // Events the pool showed for the client before each drain, summed; -1
  // when there is no pool.
  int64_t events = -1;
  // False when some drain found a different number of records than the
  // pool had counted.
  bool events_matched = true;
  int sends = 0;
  // The first failed Send, which ends the feed: its code and stream offset.
  uint64_t error = 0;
  std::size_t error_offset = 0;
};

// `client` must be inserted. Pieces end at the given stream offsets (any
// order; 0, duplicates and offsets past the end are ignored) and at the end
// of the stream. After an mdat record the feed resumes at the box after the
// mdat; an mdat of size 0 ends it.
FeedResult feed(const std::string& client, const std::vector<uint8_t>& stream, const std::vector<std::size_t>& cuts);
inline FeedResult feed_whole(const std::string& client, const std::vector<uint8_t>& stream) {
  return feed(client, stream, {});
}
// Pieces of `piece` bytes.
FeedResult feed_pieces(const std::string& client, const std::vector<uint8_t>& stream, std::size_t piece);

// `count` distinct cut offsets in [1, size - 1], from a seeded generator.
std::vector<std::size_t> random_cuts(std::size_t size, std::size_t count, uint32_t seed);

// The event count the pool holds for the client, 0 when it has none, and -1
// when there is no pool or the client is unknown.
int pending_events(const std::string& client);
// The client's parse position read under its locks; 0 for an unknown client.
uint64_t parse_position(const std::string& client);

// Takes every finished header record of the client.
std::vector<QORVANE_MP4HDR> drain(const std::string& client);

}  // namespace boxlane::test
