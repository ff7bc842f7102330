// An input file mapped read-only into memory, so the elementary streams are
// scanned and copied into samples without an intermediate copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace boxlane::tool {

class MappedFile {
 public:
  // Throws ToolError naming the path when the file cannot be opened or read.
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  const uint8_t* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  const std::string& path() const noexcept { return path_; }

  // Lets the pages wholly before `p` leave memory (touched again, they are
  // read back from the file), a few MiB at a time, so a long input read
  // front to back never stays resident whole. Going back is allowed.
  void release_before(const uint8_t* p) noexcept;

 private:
  std::string path_;
  const uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t released_ = 0;  // pages before this offset were let go
};

}  // namespace boxlane::tool
