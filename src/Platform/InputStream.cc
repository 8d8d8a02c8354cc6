#include "Platform/InputStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cerrno>
#include <limits>

InputStream::InputStream(const std::string& path, std::uint64_t offset) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd_ < 0) return;
  struct stat st {};
  bool usable = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) &&
                offset <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
                ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) >= 0;
  if (!usable) {
    ::close(fd_);
    fd_ = -1;
  }
}

InputStream::~InputStream() {
  if (fd_ >= 0) ::close(fd_);
}

long InputStream::read(char* buffer, std::size_t size) {
  if (fd_ < 0) return 0;
  for (;;) {
    ssize_t n = ::read(fd_, buffer, size);
    if (n < 0 && errno == EINTR) continue;
    return static_cast<long>(n);
  }
}
