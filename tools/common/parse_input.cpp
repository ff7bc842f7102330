#include "tools/common/parse_input.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace boxlane::tool {

ParseInput::~ParseInput() {
  if (map_) ::munmap(const_cast<uint8_t*>(map_), static_cast<std::size_t>(size_));
  if (owned_ && fd_ >= 0) ::close(fd_);
}

bool ParseInput::open(const std::string& path, bool map) {
  if (path == "-") {
    fd_ = STDIN_FILENO;
    name_ = "standard input";
  } else {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    name_ = path;
    if (fd_ < 0) {
      error_ = "cannot open " + path + ": " + std::strerror(errno);
      return false;
    }
    owned_ = true;
  }
  struct stat info {};
  if (::fstat(fd_, &info) == 0 && S_ISREG(info.st_mode)) {
    seekable_ = true;
    size_ = static_cast<uint64_t>(info.st_size);
    const off_t here = ::lseek(fd_, 0, SEEK_CUR);
    position_ = here > 0 ? static_cast<uint64_t>(here) : 0;
    // Mapped when it can be; otherwise it is read like any other input.
    if (map && size_ > 0 && size_ <= SIZE_MAX) {
      void* map = ::mmap(nullptr, static_cast<std::size_t>(size_), PROT_READ, MAP_PRIVATE, fd_, 0);
      if (map != MAP_FAILED) map_ = static_cast<const uint8_t*>(map);
    }
  }
  return true;
}

std::span<const uint8_t> ParseInput::view(std::size_t size) {
  const uint64_t left = size_ > position_ ? size_ - position_ : 0;
  const auto n = static_cast<std::size_t>(std::min<uint64_t>(size, left));
  const std::span<const uint8_t> piece(map_ + position_, n);
  position_ += n;
  return piece;
}

void ParseInput::release(std::span<const uint8_t> piece) noexcept {
  if (!map_ || piece.empty()) return;
  const auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = (reinterpret_cast<uintptr_t>(piece.data()) + page - 1) / page * page;
  const auto end = reinterpret_cast<uintptr_t>(piece.data() + piece.size()) / page * page;
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
}

long ParseInput::read(uint8_t* data, std::size_t size) {
  for (;;) {
    const ssize_t n = ::read(fd_, data, size);
    if (n >= 0) {
      position_ += static_cast<uint64_t>(n);
      return static_cast<long>(n);
    }
    if (errno == EINTR) continue;
    error_ = "cannot read " + name_ + ": " + std::strerror(errno);
    return -1;
  }
}

uint64_t ParseInput::skip(uint64_t count) {
  if (map_) {
    const uint64_t present = std::min(count, size_ > position_ ? size_ - position_ : 0);
    position_ += present;
    return present;
  }
  if (seekable_) {
    // A seek past the end succeeds silently, so the file size decides what
    // was really there.
    const uint64_t present = std::min(count, size_ > position_ ? size_ - position_ : 0);
    if (::lseek(fd_, static_cast<off_t>(position_ + present), SEEK_SET) >= 0) {
      position_ += present;
      return present;
    }
  }
  uint8_t scrap[65536];
  uint64_t skipped = 0;
  while (skipped < count) {
    const long n = read(scrap, static_cast<std::size_t>(std::min<uint64_t>(sizeof scrap, count - skipped)));
    if (n <= 0) break;
    skipped += static_cast<uint64_t>(n);
  }
  return skipped;
}

}  // namespace boxlane::tool
