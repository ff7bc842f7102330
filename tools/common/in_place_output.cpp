#include "tools/common/in_place_output.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/common/tool_error.hpp"

namespace boxlane::tool {

InPlaceOutput::InPlaceOutput(const std::string& path) : path_(path) {
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) throw ToolError("cannot write '" + path + "': " + std::strerror(errno));
  struct stat st {};
  regular_ = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
}

InPlaceOutput::~InPlaceOutput() { ::close(fd_); }

void InPlaceOutput::write(const uint8_t* a, std::size_t na, const uint8_t* b, std::size_t nb) {
  iovec parts[2] = {{const_cast<uint8_t*>(a), na}, {const_cast<uint8_t*>(b), nb}};
  int first = 0;
  while (first < 2 && parts[first].iov_len == 0) ++first;
  while (first < 2) {
    const ssize_t w = ::writev(fd_, parts + first, 2 - first);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) throw ToolError("cannot write '" + path_ + "': " + std::strerror(errno));
    position_ += static_cast<uint64_t>(w);
    for (auto left = static_cast<std::size_t>(w); left > 0;) {
      iovec& part = parts[first];
      const std::size_t taken = std::min(left, part.iov_len);
      part.iov_base = static_cast<uint8_t*>(part.iov_base) + taken;
      part.iov_len -= taken;
      left -= taken;
      if (part.iov_len == 0) ++first;
    }
    while (first < 2 && parts[first].iov_len == 0) ++first;
  }
}

void InPlaceOutput::patch(uint64_t at, const std::vector<uint8_t>& bytes) {
  if (::pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(bytes.size()))
    throw ToolError("cannot write '" + path_ + "': " + std::strerror(errno));
}

void InPlaceOutput::sync() {
  if (::fdatasync(fd_) != 0 && errno != EINVAL) throw ToolError("cannot sync '" + path_ + "': " + std::strerror(errno));
}

}  // namespace boxlane::tool
