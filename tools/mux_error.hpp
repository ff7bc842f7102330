// The one failure type of `boxlane mux`: a message for the user. Thrown
// anywhere in the command and turned into "boxlane mux: <message>" and a
// non-zero exit in mux_main.
#pragma once

#include <stdexcept>
#include <string>

namespace boxlane::tool {

struct MuxError : std::runtime_error {
  explicit MuxError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace boxlane::tool
