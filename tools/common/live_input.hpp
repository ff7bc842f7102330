// An input read as it arrives: a regular file, standard input ("-"), a pipe
// or a FIFO. Bytes come in as the source produces them; the reader consumes
// them from the front, so only what is not yet used stays in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace boxlane::tool {

class LiveInput {
 public:
  // Opens the path, "-" for standard input. A FIFO is opened without waiting
  // for its writer, so two FIFOs fed by one program can be opened in any
  // order. Throws ToolError naming the path.
  explicit LiveInput(const std::string& path);
  ~LiveInput();
  LiveInput(const LiveInput&) = delete;
  LiveInput& operator=(const LiveInput&) = delete;

  // The path as given, or "standard input" for "-": for messages.
  const std::string& name() const noexcept { return name_; }
  // A regular file: always readable, and reading it never waits for a writer.
  bool regular() const noexcept { return regular_; }
  bool eof() const noexcept { return eof_; }

  // Reads once: at most `most` bytes of a regular file; of a pipe, what is
  // there (waiting for it, unless wait_for_input said the input is ready).
  // Returns the bytes read; 0 sets eof().
  std::size_t read_some(std::size_t most);

  // The bytes read and not yet consumed, and the input offset of the first.
  const uint8_t* data() const noexcept { return buffer_.data() + begin_; }
  std::size_t size() const noexcept { return end_ - begin_; }
  uint64_t offset() const noexcept { return offset_; }
  void consume(std::size_t n) noexcept;

  int fd() const noexcept { return fd_; }

 private:
  std::string name_;
  int fd_ = -1;
  bool owned_ = false;
  bool regular_ = false;
  bool eof_ = false;
  std::vector<uint8_t> buffer_;
  std::size_t begin_ = 0, end_ = 0;
  uint64_t offset_ = 0;
};

// Waits until one of the inputs whose `wanted` entry is true can be read
// (a regular file always can) or `stop` becomes true; returns false then.
bool wait_for_input(std::span<LiveInput* const> inputs, std::span<const bool> wanted, const volatile bool& stop);

// A file that holds a whole live input, for work that needs the input whole:
// a temporary file beside `near`, already removed from its directory, that
// the input is copied into. Several are filled at once, as their inputs
// produce data, so two FIFOs written by one program never block it.
class SpoolFile {
 public:
  explicit SpoolFile(const std::string& near);
  ~SpoolFile();
  SpoolFile(const SpoolFile&) = delete;
  SpoolFile& operator=(const SpoolFile&) = delete;
  void append(const uint8_t* data, std::size_t n);
  uint64_t size() const noexcept { return size_; }
  // A path that opens the file while this object lives.
  std::string path() const;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// Copies every input to the end into its spool file. `progress`, when
// given, is called now and then with the bytes copied so far.
void spool_inputs(std::span<LiveInput* const> inputs, std::span<SpoolFile* const> spools,
                  void (*progress)(uint64_t, void*) = nullptr, void* context = nullptr);

}  // namespace boxlane::tool
