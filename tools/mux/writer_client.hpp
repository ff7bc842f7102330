// The writer client a `boxlane mux` run uses, removed however the run ends,
// and the message for a call the library refused.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

#include "boxlane/boxlane.h"
#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

[[noreturn]] inline void refused(const char* what) {
  char code[32];
  std::snprintf(code, sizeof code, "0x%08llX", static_cast<unsigned long long>(Boxlane_GetLastError(nullptr)));
  throw ToolError(std::string("the MP4 writer refused ") + what + " (error " + code + ")");
}

class WriterClient {
 public:
  WriterClient() {
    std::snprintf(name_, sizeof name_, "boxlane-mux-%ld", static_cast<long>(::getpid()));
    if (!Boxlane_Packet_Insert(name_)) refused("a new client");
  }
  ~WriterClient() { Boxlane_Packet_Delete(name_); }
  WriterClient(const WriterClient&) = delete;
  WriterClient& operator=(const WriterClient&) = delete;
  const char* name() const noexcept { return name_; }

 private:
  char name_[64];
};

}  // namespace boxlane::tool
