#include "StateFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Platform/FileHandle.h"

namespace {

std::system_error failure(const std::string& what, const std::string& path) {
  return {errno, std::generic_category(), what + " " + path};
}

}  // namespace

std::optional<std::string> StateFile::read() const {
  std::ifstream in(path_, std::ios::binary);
  if (!in) {
    if (!std::filesystem::exists(path_)) return std::nullopt;
    throw failure("cannot read", path_);
  }
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void StateFile::write(const std::string& text) const {
  const std::string temporary = path_ + ".writing";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw failure("cannot write", temporary);
  bool ok = FileHandle::writeAll(fd, text.data(), text.size()) && ::fsync(fd) == 0;
  ::close(fd);
  if (!ok || ::rename(temporary.c_str(), path_.c_str()) != 0) {
    std::system_error error = failure("cannot write", path_);
    ::unlink(temporary.c_str());
    throw error;
  }
  // The rename itself is made durable by flushing the folder that holds it.
  std::string folder = std::filesystem::path(path_).parent_path().string();
  int dir = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
}
