// One run of the parser road, as probe and remux read a file: the receiving
// loop (the caller's thread) reads the input in pieces and hands them to
// Boxlane_Parse_Send, while one worker per task pool waits for events and
// takes the header records.
#pragma once

#include <boxlane/boxlane.h>

#include "tools/common/box_walk.hpp"
#include "tools/common/parse_samples.hpp"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace boxlane::tool {

class ParseInput;

// Successive read sizes: all equal, or drawn from 1..max by a seeded
// generator whose sequence is the same on every platform.
class PieceSizes {
 public:
  static PieceSizes fixed(uint32_t size) { return PieceSizes(size, 0, false); }
  static PieceSizes random(uint32_t max, uint64_t seed) { return PieceSizes(max, seed, true); }
  uint32_t next();

 private:
  PieceSizes(uint32_t size, uint64_t seed, bool random) : size_(size), state_(seed), random_(random) {}
  uint32_t size_;
  uint64_t state_;
  bool random_;
};

struct SessionResult {
  bool ok = false;
  std::string error;             // set when !ok: what went wrong and where
  uint64_t stream_bytes = 0;     // bytes of input seen, mdat payloads included
  uint64_t sent_bytes = 0;       // bytes handed to the parser
  std::deque<BOXLANE_BOXINFO> records;  // in the order the workers took them, when kept
  RecordSummary summary;                // of every record, kept or not
  FragmentLog fragments;                // the track fragments they took
  // The parser's code when it stopped the stream by refusing a box (0 when
  // it did not, or took the box and stopped after it).
  uint64_t stop_code = 0;
  bool stopped_box_ends_input = false;  // see ProbeFeed
};

// Runs the whole road for one client on an initialised parser.
// `extended`: the client was inserted in the extended mode. `keep_records`:
// every header record is kept in the result, not only summed up.
SessionResult run_session(const char* client, int pools, ParseInput& input, PieceSizes sizes, bool extended,
                          bool keep_records = false);

}  // namespace boxlane::tool
