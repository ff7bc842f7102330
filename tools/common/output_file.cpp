#include "tools/common/output_file.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

namespace {

// Small enough to stay in the L2 cache between filling and write(2), which
// copies it again into the page cache.
constexpr std::size_t kBufferSize = std::size_t{256} << 10;

// The temporary file an interrupt must not leave behind. One output at a
// time per process.
char g_temp_path[4096];
std::atomic<bool> g_temp_live{false};

extern "C" void remove_temp_and_die(int sig) {
  if (g_temp_live.load()) ::unlink(g_temp_path);
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

std::string error_text() { return std::strerror(errno); }

}  // namespace

OutputFile::OutputFile(const std::string& target) : target_(target), buffer_(kBufferSize) {
  const std::size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : target.substr(0, slash));
  const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  if (base.empty()) throw ToolError("output '" + target + "' names a directory, not a file");
  struct stat st {};
  if (::stat(target.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    throw ToolError("output '" + target + "' is a directory");
  }
  std::string pattern = (slash == std::string::npos ? "" : dir + "/") + "." + base + ".boxlane-XXXXXX";
  if (pattern.size() >= sizeof g_temp_path) throw ToolError("output path too long: " + target);
  // An interrupt between mkstemp and the handlers would leave the file behind: it waits until they are in place.
  sigset_t interrupts, before;
  sigemptyset(&interrupts);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&interrupts, sig);
  ::pthread_sigmask(SIG_BLOCK, &interrupts, &before);
  fd_ = ::mkstemp(pattern.data());
  if (fd_ < 0) {
    const std::string why = error_text();
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw ToolError("cannot write in '" + dir + "': " + why);
  }
  temp_ = pattern;
  std::memcpy(g_temp_path, temp_.c_str(), temp_.size() + 1);
  g_temp_live.store(true);
  std::signal(SIGINT, remove_temp_and_die);
  std::signal(SIGTERM, remove_temp_and_die);
  std::signal(SIGHUP, remove_temp_and_die);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

OutputFile::~OutputFile() {
  if (fd_ >= 0) ::close(fd_);
  if (!committed_ && !temp_.empty()) ::unlink(temp_.c_str());
  g_temp_live.store(false);
}

// A request larger than the block gets a block of its own; once it is
// written, filling goes back to blocks of kBufferSize, even though the
// buffer keeps its larger allocation.
uint8_t* OutputFile::reserve(std::size_t n) {
  if (used_ + n > std::max(kBufferSize, n)) flush();
  if (buffer_.size() < n) buffer_.resize(n);
  return buffer_.data() + used_;
}

void OutputFile::write(const uint8_t* data, std::size_t n) {
  if (n == 0) return;
  std::memcpy(reserve(n), data, n);
  advance(n);
}

void OutputFile::skip(uint64_t n) {
  flush();
  if (::lseek(fd_, static_cast<off_t>(n), SEEK_CUR) < 0) throw ToolError("cannot write '" + target_ + "': " + error_text());
  flushed_ += n;
}

// The file system reserves the blocks once instead of page by page as the
// writes arrive (about a tenth of mux's time on ext4). The file keeps its
// size, so a plan that were ever too large leaves no tail of zeros; where
// the file system cannot do it, nothing changes.
void OutputFile::preallocate(uint64_t size) noexcept {
  ::fallocate(fd_, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size));
}

void OutputFile::flush() {
  std::size_t done = 0;
  while (done < used_) {
    const ssize_t w = ::write(fd_, buffer_.data() + done, used_ - done);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) throw ToolError("cannot write '" + target_ + "': " + error_text());
    done += static_cast<std::size_t>(w);
  }
  flushed_ += used_;
  used_ = 0;
}

void OutputFile::patch(uint64_t at, const uint8_t* data, std::size_t n) {
  if (at >= flushed_) {
    std::memcpy(buffer_.data() + (at - flushed_), data, n);
    return;
  }
  flush();
  std::size_t done = 0;
  while (done < n) {
    const ssize_t w = ::pwrite(fd_, data + done, n - done, static_cast<off_t>(at + done));
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) throw ToolError("cannot write '" + target_ + "': " + error_text());
    done += static_cast<std::size_t>(w);
  }
}

void OutputFile::commit() {
  flush();
  // mkstemp makes the file private; give it the mode a new file would get.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  if (::fchmod(fd_, 0666 & ~mask) != 0 || ::close(fd_) != 0) {
    fd_ = -1;
    throw ToolError("cannot finish '" + target_ + "': " + error_text());
  }
  fd_ = -1;
  if (::rename(temp_.c_str(), target_.c_str()) != 0) {
    throw ToolError("cannot rename the finished file to '" + target_ + "': " + error_text());
  }
  committed_ = true;
  g_temp_live.store(false);
}

}  // namespace boxlane::tool
