// Runs `boxlane mux` as a user does, for the tools suites.
#pragma once

#include <string>

#include "support/ffmpeg.hpp"
#include "support/paths.hpp"

namespace boxlane::test {

struct MuxResult {
  int status;
  std::string output;  // stdout and stderr
};

inline MuxResult mux(const std::string& args) {
  MuxResult r;
  r.status = run(shell_quote(tool_path()) + " mux " + args + " 2>&1", &r.output);
  return r;
}

}  // namespace boxlane::test
