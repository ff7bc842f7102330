#include "tools/common/live_input.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

namespace {

// A pipe hands over at most 64 KiB at a time; a larger block lets a regular
// file be read in few calls.
constexpr std::size_t kPipeRead = std::size_t{256} << 10;

std::string error_text() { return std::strerror(errno); }

}  // namespace

LiveInput::LiveInput(const std::string& path) {
  if (path == "-") {
    name_ = "standard input";
    fd_ = STDIN_FILENO;
  } else {
    name_ = path;
    // O_NONBLOCK only so that opening a FIFO does not wait for its writer.
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) throw ToolError("cannot open '" + path + "': " + error_text());
    owned_ = true;
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags >= 0) ::fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK);
  }
  struct stat st {};
  if (::fstat(fd_, &st) != 0) throw ToolError("cannot read '" + name_ + "': " + error_text());
  if (S_ISDIR(st.st_mode)) throw ToolError("'" + name_ + "' is a directory");
  regular_ = S_ISREG(st.st_mode);
}

LiveInput::~LiveInput() {
  if (owned_) ::close(fd_);
}

std::size_t LiveInput::read_some(std::size_t most) {
  if (eof_) return 0;
  if (!regular_ || most == 0) most = kPipeRead;
  // Unused bytes move to the front before the buffer grows.
  if (begin_ > 0 && buffer_.size() - end_ < most) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (buffer_.size() - end_ < most) buffer_.resize(end_ + most);
  for (;;) {
    const ssize_t n = ::read(fd_, buffer_.data() + end_, most);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return 0;  // standard input left non-blocking by its owner
    if (n < 0) throw ToolError("cannot read '" + name_ + "': " + error_text());
    if (n == 0) eof_ = true;
    end_ += static_cast<std::size_t>(n);
    return static_cast<std::size_t>(n);
  }
}

void LiveInput::consume(std::size_t n) noexcept {
  if (n > size()) n = size();
  begin_ += n;
  offset_ += n;
  if (begin_ == end_) begin_ = end_ = 0;
}

bool wait_for_input(std::span<LiveInput* const> inputs, std::span<const bool> wanted, const volatile bool& stop) {
  pollfd fds[4];
  std::size_t count = 0;
  for (std::size_t i = 0; i < inputs.size() && count < 4; ++i) {
    if (!wanted[i] || inputs[i]->eof()) continue;
    if (inputs[i]->regular()) return true;
    fds[count++] = pollfd{inputs[i]->fd(), POLLIN, 0};
  }
  if (count == 0) return !stop;
  while (!stop) {
    // A signal that sets `stop` interrupts the wait; the time-out covers one
    // that arrives just before it starts.
    const int ready = ::poll(fds, count, 500);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) throw ToolError(std::string("cannot wait for input: ") + error_text());
  }
  return false;
}

SpoolFile::SpoolFile(const std::string& near) {
  const std::size_t slash = near.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : near.substr(0, slash));
  std::string pattern = dir + "/.boxlane-spool-XXXXXX";
  fd_ = ::mkstemp(pattern.data());
  if (fd_ < 0) throw ToolError("cannot write in '" + dir + "': " + error_text());
  // Gone from the directory at once: nothing is left behind however the run ends.
  ::unlink(pattern.c_str());
}

SpoolFile::~SpoolFile() {
  if (fd_ >= 0) ::close(fd_);
}

void SpoolFile::append(const uint8_t* data, std::size_t n) {
  std::size_t done = 0;
  while (done < n) {
    const ssize_t w = ::write(fd_, data + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) throw ToolError("cannot write a temporary copy of the input: " + error_text());
    done += static_cast<std::size_t>(w);
  }
  size_ += n;
}

std::string SpoolFile::path() const { return "/proc/self/fd/" + std::to_string(fd_); }

void spool_inputs(std::span<LiveInput* const> inputs, std::span<SpoolFile* const> spools,
                  void (*progress)(uint64_t, void*), void* context) {
  static const volatile bool never = false;
  bool wanted[4] = {true, true, true, true};
  uint64_t copied = 0, reported = 0;
  for (;;) {
    bool open = false;
    for (LiveInput* in : inputs) open = open || !in->eof();
    if (!open) break;
    wait_for_input(inputs, std::span<const bool>(wanted, inputs.size()), never);
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      LiveInput& in = *inputs[i];
      if (in.eof()) continue;
      if (!in.regular()) {
        pollfd fd{in.fd(), POLLIN, 0};
        if (::poll(&fd, 1, 0) <= 0) continue;
      }
      in.read_some(0);
      spools[i]->append(in.data(), in.size());
      copied += in.size();
      in.consume(in.size());
    }
    if (progress && copied - reported >= (std::size_t{16} << 20)) {
      reported = copied;
      progress(copied, context);
    }
  }
}

}  // namespace boxlane::tool
