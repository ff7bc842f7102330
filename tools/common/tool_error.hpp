// The one failure type of the commands: a message for the user. Thrown
// anywhere in a command and turned into "boxlane <command>: <message>" and a
// non-zero exit by the command's main function.
#pragma once

#include <stdexcept>
#include <string>

namespace boxlane::tool {

struct ToolError : std::runtime_error {
  explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace boxlane::tool
