// Samples as probe lists them and remux copies them: the moov's, from the parser's
// per-sample index, and the fragments', which the workers take from the
// parser as each moof's header record arrives, so that the parser holds
// none of them for long.
#pragma once

#include <boxlane/boxlane.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace boxlane::tool {

struct IndexSample {
  uint64_t decode;
  int64_t composition;
  uint64_t offset;
  uint32_t duration;
  uint32_t size;
  bool sync;
};

// The track fragments taken so far, per track in stream order.
class FragmentLog {
 public:
  struct Track {
    std::vector<IndexSample> samples;
    uint32_t fragments = 0;
    uint32_t problems = 0;  // BOXLANE_FRAGMENT_* of any of its fragments
  };

  // Takes every track fragment the client has waiting. Call it under the
  // library gate: the error code it reads is process-wide.
  void take(const char* client);

  std::map<int32_t, Track> tracks;

 private:
  std::vector<BOXLANE_SAMPLEINFO> buffer_;
};

// The samples of a track's moov tables, in windows; false with `error` set
// when the query fails.
bool fetch_table_samples(const char* client, int32_t track, uint64_t count, std::vector<IndexSample>& out,
                         std::string& error);

}  // namespace boxlane::tool
