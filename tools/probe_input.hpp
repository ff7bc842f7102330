// Where probe reads from: a named file or standard input, read piece by
// piece, with a skip that seeks when the input is a regular file and reads
// and discards otherwise (pipes, sockets).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace boxlane::tool {

class ProbeInput {
 public:
  ProbeInput() = default;
  ~ProbeInput();
  ProbeInput(const ProbeInput&) = delete;
  ProbeInput& operator=(const ProbeInput&) = delete;

  // "-" is standard input. On failure, error() says why.
  bool open(const std::string& path);
  // Fills up to size bytes; 0 at the end of the input, -1 on a read error.
  long read(uint8_t* data, std::size_t size);
  // Moves count bytes on without reading them into the caller's buffer.
  // Returns how many were skipped: fewer than count only at the end.
  uint64_t skip(uint64_t count);

  const std::string& error() const { return error_; }
  const std::string& name() const { return name_; }

 private:
  int fd_ = -1;
  bool owned_ = false;
  bool seekable_ = false;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  std::string name_;
  std::string error_;
};

}  // namespace boxlane::tool
