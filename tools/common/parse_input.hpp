// Where probe and remux read an MP4 stream from: a named file or standard
// input, read piece by piece, with a skip that seeks when the input is a
// regular file and reads and discards otherwise (pipes, sockets). A regular
// file is mapped, and its pieces are views into the mapping: nothing is
// copied, and the bytes of a skipped mdat are never touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace boxlane::tool {

class ParseInput {
 public:
  ParseInput() = default;
  ~ParseInput();
  ParseInput(const ParseInput&) = delete;
  ParseInput& operator=(const ParseInput&) = delete;

  // "-" is standard input. On failure, error() says why. `map` false reads
  // a regular file too, seeking over what is skipped: a mapping would bring
  // pages around every box it reads into the process, most of a fragmented
  // file's media data with them.
  bool open(const std::string& path, bool map = true);
  // Fills up to size bytes; 0 at the end of the input, -1 on a read error.
  long read(uint8_t* data, std::size_t size);
  // Whether the input is a mapped file, read with view() instead of read().
  bool mapped() const { return map_ != nullptr; }
  // The next piece of up to size bytes of a mapped file; empty at the end.
  std::span<const uint8_t> view(std::size_t size);
  // Lets the whole pages of a piece the parser is done with leave memory:
  // the parser keeps no pointer into a piece after Send returns, and a
  // mapped page read stays resident otherwise.
  void release(std::span<const uint8_t> piece) noexcept;
  // The input's size when it is a regular file; 0 otherwise.
  uint64_t file_size() const { return seekable_ ? size_ : 0; }
  // The bytes of a regular file past the last one read or skipped; 0 otherwise.
  uint64_t unread() const { return seekable_ && size_ > position_ ? size_ - position_ : 0; }
  // Moves count bytes on without reading them into the caller's buffer.
  // Returns how many were skipped: fewer than count only at the end.
  uint64_t skip(uint64_t count);

  const std::string& error() const { return error_; }
  const std::string& name() const { return name_; }

 private:
  const uint8_t* map_ = nullptr;
  int fd_ = -1;
  bool owned_ = false;
  bool seekable_ = false;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  std::string name_;
  std::string error_;
};

}  // namespace boxlane::tool
