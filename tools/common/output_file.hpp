// The output file: written to a temporary file beside the target through one
// large buffer, renamed over the target only when everything succeeded, and
// removed on any failure (or when the process is interrupted).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace boxlane::tool {

class OutputFile {
 public:
  // Creates the temporary file; throws ToolError when the directory is not
  // writable.
  explicit OutputFile(const std::string& target);
  ~OutputFile();  // removes the temporary file unless commit() succeeded
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Room for n bytes at the current end of the file; valid until the next
  // call. Fill it, then advance(bytes_used).
  uint8_t* reserve(std::size_t n);
  void advance(std::size_t n) noexcept { used_ += n; }
  void write(const uint8_t* data, std::size_t n);
  // Leaves the next n bytes of the file to be written later with patch(),
  // without passing them through the buffer.
  void skip(uint64_t n);
  // Reserves room for a file of `size` bytes, if the file system can.
  void preallocate(uint64_t size) noexcept;
  // File position of the next byte written.
  uint64_t position() const noexcept { return flushed_ + used_; }
  // Overwrites bytes already written (a size field, a reserved moov).
  void patch(uint64_t at, const uint8_t* data, std::size_t n);
  // Flushes, closes and renames onto the target.
  void commit();

 private:
  void flush();

  std::string target_;
  std::string temp_;
  int fd_ = -1;
  std::vector<uint8_t> buffer_;
  std::size_t used_ = 0;
  uint64_t flushed_ = 0;
  bool committed_ = false;
};

}  // namespace boxlane::tool
