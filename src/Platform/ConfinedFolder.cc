#include "Platform/ConfinedFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "Platform/FileSystemFaults.h"

namespace {

std::system_error failure(const std::string& what, const std::string& path) {
  return {errno, std::generic_category(), what + " " + path};
}

// An owned descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Opens `relative` beneath `folder`; -1 with errno set when it cannot.
int openBeneath(int folder, const std::string& relative, std::uint64_t flags, mode_t mode = 0) {
  open_how how{};
  how.flags = flags | O_CLOEXEC;
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  for (;;) {
    long fd = ::syscall(SYS_openat2, folder, relative.c_str(), &how, sizeof how);
    if (fd < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    return static_cast<int>(fd);
  }
}

// A resolution the kernel refused for leaving the folder, or for a link where a
// folder or a file of our own was wanted.
bool refusedResolution(int error) { return error == EXDEV || error == ELOOP; }

// A link on the way is followed only while it stays beneath the folder.
Descriptor openFolder(int folder, const std::string& relative, const std::string& path) {
  int fd = openBeneath(folder, relative, O_RDONLY | O_DIRECTORY);
  if (fd < 0 && refusedResolution(errno)) {
    throw ConfinedFolder::Refused("refused to leave the folder for " + path);
  }
  if (fd < 0) throw failure("cannot open the folder of", path);
  return Descriptor(fd);
}

// The names in the folder open as `folder`, but "." and "..".
std::vector<std::string> namesIn(int folder, const std::string& path) {
  DIR* listing = ::fdopendir(::dup(folder));
  if (listing == nullptr) throw failure("cannot list", path);
  std::vector<std::string> names;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own
  while (dirent* entry = ::readdir(listing)) {
    std::string item = entry->d_name;
    if (item != "." && item != "..") names.push_back(std::move(item));
  }
  ::closedir(listing);
  return names;
}

std::string below(const std::string& path, const std::string& name) {
  std::string child = path;
  child += '/';
  child += name;
  return child;
}

// Copies the regular file open as `source` into the new file `name` of `folder`,
// which is given `mode` once whole.
void copyFile(int source, int folder, const std::string& name, mode_t mode,
              const std::string& path) {
  Descriptor target(FileSystemFaults::openat(
      folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (target.get() < 0) throw failure("cannot create a copy of", path);
  std::vector<char> buffer(1 << 16);
  for (;;) {
    ssize_t n = ::read(source, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw failure("cannot read", path);
    if (n == 0) break;
    if (!FileSystemFaults::writeAll(target.get(), buffer.data(), static_cast<std::size_t>(n))) {
      throw failure("cannot write a copy of", path);
    }
  }
  if (::fchmod(target.get(), mode & 07777) != 0) throw failure("cannot copy the mode of", path);
  if (FileSystemFaults::fsync(target.get()) != 0) throw failure("cannot flush a copy of", path);
}

// Copies `name` of `from` to the new `copy` of `to`: folders with all they hold,
// files, and links as links. Anything else (a FIFO, a device) fails the copy.
void copyTree(int from, const std::string& name, int to, const std::string& copy,
              const std::string& path) {
  struct stat st {};
  if (::fstatat(from, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    throw failure("cannot look at", path);
  }
  if (S_ISDIR(st.st_mode)) {
    if (FileSystemFaults::mkdirat(to, copy.c_str(), st.st_mode & 07777) != 0) {
      throw failure("cannot copy", path);
    }
    Descriptor source(FileSystemFaults::openat(from, name.c_str(),
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Descriptor target(FileSystemFaults::openat(to, copy.c_str(),
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (source.get() < 0 || target.get() < 0) throw failure("cannot copy", path);
    for (const std::string& item : namesIn(source.get(), path)) {
      copyTree(source.get(), item, target.get(), item, below(path, item));
    }
    return;
  }
  if (S_ISLNK(st.st_mode)) {
    std::vector<char> link(static_cast<std::size_t>(st.st_size) + 1);
    ssize_t n = ::readlinkat(from, name.c_str(), link.data(), link.size());
    if (n < 0) throw failure("cannot read the link", path);
    link[static_cast<std::size_t>(n)] = '\0';
    if (::symlinkat(link.data(), to, copy.c_str()) != 0) throw failure("cannot copy", path);
    return;
  }
  if (!S_ISREG(st.st_mode)) {
    errno = ENOTSUP;
    throw failure("cannot copy what is neither a file nor a folder:", path);
  }
  Descriptor source(FileSystemFaults::openat(
      from, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (source.get() < 0) throw failure("cannot open", path);
  copyFile(source.get(), to, copy, st.st_mode, path);
}

// Removes `name` of `folder`, with all it holds; what is already gone is fine.
void removeTree(int folder, const std::string& name, const std::string& path) {
  struct stat st {};
  if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    throw failure("cannot look at", path);
  }
  if (S_ISDIR(st.st_mode)) {
    Descriptor inside(FileSystemFaults::openat(folder, name.c_str(),
                                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (inside.get() < 0) throw failure("cannot open", path);
    for (const std::string& item : namesIn(inside.get(), path)) {
      removeTree(inside.get(), item, below(path, item));
    }
    if (FileSystemFaults::unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
      throw failure("cannot remove", path);
    }
    return;
  }
  if (FileSystemFaults::unlinkat(folder, name.c_str(), 0) != 0 && errno != ENOENT) {
    throw failure("cannot remove", path);
  }
}

// A hidden name beside `name` for a copy being made.
std::string partialName(const std::string& name) {
  static std::atomic<unsigned> made{0};
  return "." + name + ".partial-" + std::to_string(::getpid()) + "-" +
         std::to_string(made.fetch_add(1));
}

// Makes the folder at the absolute `path` with `mode`, and the missing folders
// above it; what fails is left to the open that follows.
void makeFolder(const std::string& path, mode_t mode) {
  const std::string parent = path.substr(0, path.rfind('/'));
  struct stat st {};
  if (!parent.empty() && ::stat(parent.c_str(), &st) != 0 && errno == ENOENT) {
    makeFolder(parent, 0777);
  }
  FileSystemFaults::mkdirat(AT_FDCWD, path.c_str(), mode);
}

// The permission bits of `mode` as four octal digits ("0755").
std::string octal(mode_t mode) {
  std::string digits;
  for (int shift = 9; shift >= 0; shift -= 3)
    digits += static_cast<char>('0' + ((mode >> shift) & 7));
  return digits;
}

}  // namespace

struct ConfinedFolder::Parent {
  Descriptor folder;
  std::string name;  // empty for the folder itself
};

ConfinedFolder::ConfinedFolder(const std::string& path) : ConfinedFolder(path, false) {}

ConfinedFolder ConfinedFolder::privateFolder(const std::string& path) {
  return ConfinedFolder(path, true);
}

ConfinedFolder::ConfinedFolder(const std::string& path, bool isPrivate) : path_(path) {
  std::filesystem::path normal = std::filesystem::path(path).lexically_normal();
  if (!normal.is_absolute()) throw Refused("refused a folder that is not absolute: " + path);
  std::string text = normal.string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();

  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isPrivate ? O_NOFOLLOW : 0);
  Descriptor folder(::open(text.c_str(), flags));
  if (folder.get() < 0 && errno == ENOENT) {
    makeFolder(text, isPrivate ? 0700 : 0777);
    folder = Descriptor(::open(text.c_str(), flags));
  }
  auto refuse = [&](const std::string& reason) {
    return Refused("refused the folder " + path_ + ": " + reason);
  };
  if (folder.get() < 0 && isPrivate && (errno == ENOTDIR || errno == ELOOP)) {
    struct stat st {};
    bool link = ::lstat(text.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    throw refuse(link ? "it is a link" : "it is not a folder");
  }
  if (folder.get() < 0) throw failure("cannot open the folder", text);
  if (isPrivate) {
    struct stat st {};
    if (::fstat(folder.get(), &st) != 0) throw failure("cannot look at the folder", text);
    if (st.st_uid != ::geteuid()) throw refuse("it belongs to another user");
    if ((st.st_mode & 077) != 0) {
      throw refuse("others may use it (mode " + octal(st.st_mode & 07777) + ")");
    }
  }
  fd_ = folder.release();
}

ConfinedFolder::~ConfinedFolder() {
  if (fd_ >= 0) ::close(fd_);
}

ConfinedFolder::ConfinedFolder(ConfinedFolder&& other) noexcept
    : path_(std::move(other.path_)), fd_(other.fd_) {
  other.fd_ = -1;
}

bool ConfinedFolder::holds(const std::string& path) const {
  return path == path_ ||
         (path.size() > path_.size() && path.compare(0, path_.size(), path_) == 0 &&
          (path_ == "/" || path[path_.size()] == '/'));
}

std::string ConfinedFolder::relativeOf(const std::string& path) const {
  if (!holds(path) || path.find('\0') != std::string::npos) {
    throw Refused("refused a path outside " + path_ + ": " + path);
  }
  std::string relative = path.substr(path_.size());
  std::size_t start = relative.find_first_not_of('/');
  relative = start == std::string::npos ? "" : relative.substr(start);
  while (!relative.empty() && relative.back() == '/') relative.pop_back();
  return relative;
}

ConfinedFolder::Parent ConfinedFolder::parentOf(const std::string& path) const {
  const std::string relative = relativeOf(path);
  Parent parent;
  if (relative.empty()) {
    parent.folder = Descriptor(::dup(fd_));
  } else {
    std::size_t slash = relative.rfind('/');
    parent.name = slash == std::string::npos ? relative : relative.substr(slash + 1);
    if (parent.name == "." || parent.name == "..") {
      throw Refused("refused a path that ends in " + parent.name + ": " + path);
    }
    parent.folder = slash == std::string::npos ? Descriptor(::dup(fd_))
                                               : openFolder(fd_, relative.substr(0, slash), path);
  }
  if (parent.folder.get() < 0) throw failure("cannot open the folder of", path);
  FileSystemFaults::resolved(path);
  return parent;
}

std::optional<struct stat> ConfinedFolder::status(const std::string& path) const {
  std::optional<Parent> parent;
  // Missing is an answer; a name the file system cannot hold, or cannot look
  // at, is an error.
  auto missing = [](int code) { return code == ENOENT || code == ENOTDIR; };
  try {
    parent.emplace(parentOf(path));
  } catch (const std::system_error& error) {
    if (missing(error.code().value())) return std::nullopt;  // a folder on the way is missing
    throw;
  }
  struct stat st {};
  int found = parent->name.empty()
                  ? ::fstat(parent->folder.get(), &st)
                  : ::fstatat(parent->folder.get(), parent->name.c_str(), &st, AT_SYMLINK_NOFOLLOW);
  if (found == 0) return st;
  if (missing(errno)) return std::nullopt;
  throw std::system_error(errno, std::generic_category(), "cannot look at " + path);
}

void ConfinedFolder::createDirectories(const std::string& path) const {
  const std::string relative = relativeOf(path);
  FileSystemFaults::resolved(path);
  Descriptor current(::dup(fd_));
  std::size_t start = 0;
  while (start < relative.size()) {
    std::size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    const std::string name = relative.substr(start, end - start);
    start = end + 1;
    if (name.empty() || name == ".") continue;
    if (name == "..") throw Refused("refused to climb in " + path);
    if (FileSystemFaults::mkdirat(current.get(), name.c_str(), 0777) != 0 && errno != EEXIST) {
      throw failure("cannot create", path);
    }
    current = openFolder(current.get(), name, path);
  }
}

int ConfinedFolder::openForAppend(const std::string& path) const {
  Parent parent = parentOf(path);
  if (parent.name.empty()) throw Refused("refused to write the folder itself: " + path);
  int fd = FileSystemFaults::openat(
      parent.folder.get(), parent.name.c_str(),
      O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd < 0 && errno == ELOOP) throw Refused("refused to write through a link: " + path);
  if (fd < 0) throw failure("cannot open", path);
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw Refused("refused to append to what is not a file: " + path);
  }
  return fd;
}

void ConfinedFolder::move(const std::string& from, const ConfinedFolder& target,
                          const std::string& to) const {
  Parent source = parentOf(from);
  Parent destination = target.parentOf(to);
  if (source.name.empty() || destination.name.empty()) {
    throw Refused("refused to move a folder the service writes in: " + from + " to " + to);
  }
  if (FileSystemFaults::renameat2(source.folder.get(), source.name.c_str(),
                                  destination.folder.get(), destination.name.c_str(),
                                  RENAME_NOREPLACE) == 0) {
    return;
  }
  if (errno != EXDEV) throw failure("cannot move " + from + " to", to);
  // Another file system: a flushed copy beside the target, renamed into place.
  Descriptor file(
      FileSystemFaults::openat(source.folder.get(), source.name.c_str(),
                               O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  struct stat st {};
  if (file.get() < 0 || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    throw failure("cannot move across file systems", from);
  }
  const std::string partial = partialName(destination.name);
  try {
    copyFile(file.get(), destination.folder.get(), partial, st.st_mode, from);
    if (FileSystemFaults::renameat2(destination.folder.get(), partial.c_str(),
                                    destination.folder.get(), destination.name.c_str(),
                                    RENAME_NOREPLACE) != 0) {
      throw failure("cannot move " + from + " to", to);
    }
  } catch (...) {
    FileSystemFaults::unlinkat(destination.folder.get(), partial.c_str(), 0);
    throw;
  }
  FileSystemFaults::unlinkat(source.folder.get(), source.name.c_str(), 0);
}

void ConfinedFolder::copy(const std::string& from, const std::string& to) const {
  Parent source = parentOf(from);
  Parent destination = parentOf(to);
  if (destination.name.empty()) throw Refused("refused to copy over the folder itself: " + to);
  if (source.name.empty()) throw Refused("refused to copy the folder into itself: " + from);
  // A folder copied below itself would copy its own copy without end. The folders
  // from the destination's up to the anchor are compared as they are on disk, so
  // a link on the way changes nothing.
  struct stat copied {};
  struct stat anchor {};
  if (::fstatat(source.folder.get(), source.name.c_str(), &copied, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(copied.st_mode) && ::fstat(fd_, &anchor) == 0) {
    Descriptor at(::fcntl(destination.folder.get(), F_DUPFD_CLOEXEC, 0));
    struct stat here {};
    while (at.get() >= 0 && ::fstat(at.get(), &here) == 0) {
      if (here.st_dev == copied.st_dev && here.st_ino == copied.st_ino) {
        std::string why = "refused to copy a folder into itself: " + from;
        why += " to ";
        why += to;
        throw Refused(why);
      }
      if (here.st_dev == anchor.st_dev && here.st_ino == anchor.st_ino) break;
      at = Descriptor(::openat(at.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
  }
  const std::string partial = partialName(destination.name);
  try {
    copyTree(source.folder.get(), source.name, destination.folder.get(), partial, from);
    if (FileSystemFaults::renameat2(destination.folder.get(), partial.c_str(),
                                    destination.folder.get(), destination.name.c_str(),
                                    RENAME_NOREPLACE) != 0) {
      throw failure("cannot copy " + from + " to", to);
    }
  } catch (...) {
    removeTree(destination.folder.get(), partial, to);
    throw;
  }
}

void ConfinedFolder::remove(const std::string& path) const {
  Parent parent = parentOf(path);
  if (parent.name.empty())
    throw Refused("refused to remove a folder the service writes in: " + path);
  removeTree(parent.folder.get(), parent.name, path);
}

void ConfinedFolder::flush(const std::string& path) const {
  Parent parent = parentOf(path);
  if (!parent.name.empty()) {
    Descriptor file(
        FileSystemFaults::openat(parent.folder.get(), parent.name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (file.get() >= 0) FileSystemFaults::fsync(file.get());
  }
  FileSystemFaults::fsync(parent.folder.get());
}
