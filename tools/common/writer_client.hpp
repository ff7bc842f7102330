// The writer client a command uses, removed however the run ends, the
// message for a call the library refused, and one writer call into a buffer
// of its own.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "boxlane/boxlane.h"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

using Bytes = std::vector<uint8_t>;

[[noreturn]] inline void refused(const char* what) {
  char code[32];
  std::snprintf(code, sizeof code, "0x%08llX", static_cast<unsigned long long>(Boxlane_GetLastError(nullptr)));
  throw ToolError(std::string("the MP4 writer refused ") + what + " (error " + code + ")");
}

class WriterClient {
 public:
  // `command` names the client, with the process id: "boxlane-mux-1234".
  explicit WriterClient(const char* command = "mux") {
    std::snprintf(name_, sizeof name_, "boxlane-%s-%ld", command, static_cast<long>(::getpid()));
    if (!Boxlane_Packet_Insert(name_)) refused("a new client");
  }
  ~WriterClient() { Boxlane_Packet_Delete(name_); }
  WriterClient(const WriterClient&) = delete;
  WriterClient& operator=(const WriterClient&) = delete;
  const char* name() const noexcept { return name_; }

 private:
  char name_[64];
};

// One writer call into a buffer of `room` bytes, returned as its own vector.
template <typename Call>
Bytes call_box(const char* what, std::size_t room, Call call) {
  Bytes out(room);
  int32_t len = 0;
  if (!call(out.data(), &len)) refused(what);
  if (len < 0 || static_cast<std::size_t>(len) > room) throw ToolError(std::string("internal: ") + what + " overran");
  out.resize(static_cast<std::size_t>(len));
  return out;
}

}  // namespace boxlane::tool
