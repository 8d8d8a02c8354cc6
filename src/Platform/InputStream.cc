#include "Platform/InputStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

InputStream::InputStream(const std::string& path, std::uint64_t offset) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ >= 0 && offset > 0 && ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

InputStream::~InputStream() {
  if (fd_ >= 0) ::close(fd_);
}

long InputStream::read(char* buffer, std::size_t size) {
  if (fd_ < 0) return -1;
  for (;;) {
    ssize_t n = ::read(fd_, buffer, size);
    if (n < 0 && errno == EINTR) continue;
    return static_cast<long>(n);
  }
}
