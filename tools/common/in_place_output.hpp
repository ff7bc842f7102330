// An output file written in place, for a file that must be readable while
// it is written (a fragmented recording): each write is one system call, so
// a process that is killed leaves whole pieces and at most one torn one.
// Unlike OutputFile, nothing is renamed and nothing is removed on failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace boxlane::tool {

class InPlaceOutput {
 public:
  // Creates or empties the file; throws ToolError naming it.
  explicit InPlaceOutput(const std::string& path);
  ~InPlaceOutput();
  InPlaceOutput(const InPlaceOutput&) = delete;
  InPlaceOutput& operator=(const InPlaceOutput&) = delete;

  // Both pieces in one call (writev), so a piece is torn only by the kernel.
  void write(const uint8_t* a, std::size_t na, const uint8_t* b, std::size_t nb);
  // Overwrites bytes already written.
  void patch(uint64_t at, const std::vector<uint8_t>& bytes);
  // The data reaches the disk (fdatasync).
  void sync();
  // A regular file, which can be patched later.
  bool regular() const noexcept { return regular_; }
  uint64_t position() const noexcept { return position_; }

 private:
  std::string path_;
  int fd_ = -1;
  bool regular_ = false;
  uint64_t position_ = 0;
};

}  // namespace boxlane::tool
