// The library's last-error flag and code are process-wide and unsynchronised,
// and probe and remux call the library from the receiving loop and from its
// workers at once. Every call whose error they read, and every call that could
// overwrite that error in between, runs under this one lock. The workers'
// Boxlane_Parse_WaitEvent is the exception: it blocks, so it runs outside, and
// it is only ever called without a time limit, so it sets no code while the
// run lasts.
#pragma once

#include <mutex>

namespace boxlane::tool {

inline std::mutex& library_gate() {
  static std::mutex gate;
  return gate;
}

}  // namespace boxlane::tool
