#include "tools/common/parse_session.hpp"

#include "tools/common/parse_feed.hpp"
#include "tools/common/library_gate.hpp"
#include "tools/common/names.hpp"
#include "tools/common/parse_workers.hpp"

namespace boxlane::tool {

uint32_t PieceSizes::next() {
  if (!random_) return size_;
  // splitmix64: a fixed sequence for a seed on every platform, unlike the
  // standard distributions.
  uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  z ^= z >> 31;
  return static_cast<uint32_t>(z % size_) + 1;
}

SessionResult run_session(const char* client, int pools, ParseInput& input, PieceSizes sizes, bool extended,
                          bool keep_records) {
  SessionResult result;
  ParseWorkers workers(pools, keep_records);
  workers.start();
  ParseFeed feed(client, input, extended, [&] { workers.drain_client(client); });
  const bool fed = feed.run(sizes);
  workers.stop();
  uint64_t code = 0;
  // The input is complete, yet the parser may still wait for the rest of a
  // box: one nested inside a top-level box that claims to reach past it.
  if (fed) {
    workers.drain_client(client);
    code = Boxlane_GetLastError(nullptr);
  }
  result.records = workers.take_records();
  result.summary = workers.summary();
  result.fragments = workers.take_fragments();
  result.stream_bytes = feed.stream_bytes();
  result.sent_bytes = feed.sent_bytes();
  result.stop_code = feed.stop_code();
  result.stopped_box_ends_input = feed.stopped_box_ends_input();
  if (!fed) {
    result.error = feed.error();
    return result;
  }
  result.fragments.take(client);
  // After a refusal a box may stay unfinished: it is the one refused.
  if (code == BOXLANE_ERROR_PARSE_NOTREADY && result.stop_code == 0) {
    result.error = "truncated: the parser still waits for the end of a box when the input ends "
                   "(a box inside reaches past its parent)";
    return result;
  }
  if (code != BOXLANE_ERROR_PARSE_NODATA && code != BOXLANE_ERROR_PARSE_NOTREADY) {
    result.error = "cannot take header records: " + hex_code(code) + " " + error_name(code);
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace boxlane::tool
