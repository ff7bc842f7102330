#include "tools/common/mapped_file.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

MappedFile::MappedFile(const std::string& path) : path_(path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw ToolError("cannot open '" + path + "': " + std::strerror(errno));
  struct stat st {};
  const bool stated = ::fstat(fd, &st) == 0;
  if (!stated || !S_ISREG(st.st_mode)) {
    const int err = stated ? 0 : errno;  // errno is only fstat's when it failed
    ::close(fd);
    throw ToolError("'" + path + "' is not a regular file" + (err ? std::string(": ") + std::strerror(err) : ""));
  }
  size_ = static_cast<std::size_t>(st.st_size);
  if (size_ == 0) {
    ::close(fd);
    throw ToolError("'" + path + "' is empty");
  }
  void* map = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
  const int err = errno;
  ::close(fd);
  if (map == MAP_FAILED) throw ToolError("cannot read '" + path + "': " + std::strerror(err));
  ::madvise(map, size_, MADV_SEQUENTIAL);
  data_ = static_cast<const uint8_t*>(map);
}

void MappedFile::release_before(const uint8_t* p) noexcept {
  constexpr std::size_t kStep = std::size_t{8} << 20;
  if (!data_ || p < data_ || p > data_ + size_) return;
  static const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t end = static_cast<std::size_t>(p - data_) / page * page;
  if (end < released_) {
    released_ = end;  // a second pass starts again from the front
    return;
  }
  if (end - released_ < kStep) return;
  ::madvise(const_cast<uint8_t*>(data_) + released_, end - released_, MADV_DONTNEED);
  released_ = end;
}

MappedFile::~MappedFile() {
  if (data_) ::munmap(const_cast<uint8_t*>(data_), size_);
}

}  // namespace boxlane::tool
