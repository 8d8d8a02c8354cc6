#pragma once

#include <sys/stat.h>

#include <optional>
#include <stdexcept>
#include <string>

// A folder the service may write in, and every write below it. A path is
// resolved beneath the folder with openat2 (RESOLVE_BENEATH |
// RESOLVE_NO_MAGICLINKS), and each write acts with the *at calls on the folder
// it resolved, never following a link in its last component; so neither "..",
// an absolute path, nor a link already on disk or swapped in during a pass can
// carry a write out. The folder itself is never removed, moved or replaced.
//
// Paths are given whole ("/home/ann/Tallowbox/Ann (Shared)/a.txt") and must
// name the folder or something below it by their text; anything else is
// refused with ConfinedFolder::Refused, as is every write a resolution refuses.
// Other failures of the file system are std::system_error. Every call that
// writes goes through FileSystemFaults, where tests make it fail.
class ConfinedFolder {
 public:
  class Refused : public std::runtime_error {
   public:
    explicit Refused(const std::string& why) : std::runtime_error(why) {}
  };

  // The folder at `path` (absolute), made with its parents when missing.
  // Throws Refused for a relative path, std::system_error when it cannot be
  // made or opened.
  explicit ConfinedFolder(const std::string& path);
  // The folder at `path` as a private folder: made with mode 0700 when missing
  // (its parents as above), opened without following a link, and refused unless
  // it is a folder of this process's user that no one else may use. Throws
  // Refused, naming the folder and the reason, for a link, a folder of another
  // user or one open to group or others.
  static ConfinedFolder privateFolder(const std::string& path);
  ~ConfinedFolder();
  ConfinedFolder(ConfinedFolder&& other) noexcept;
  ConfinedFolder& operator=(ConfinedFolder&&) = delete;
  ConfinedFolder(const ConfinedFolder&) = delete;
  ConfinedFolder& operator=(const ConfinedFolder&) = delete;

  const std::string& path() const { return path_; }
  // Whether `path` names this folder or something below it, by its text.
  bool holds(const std::string& path) const;

  // What is at `path`, without following a link there; nullopt when nothing is.
  std::optional<struct stat> status(const std::string& path) const;
  bool exists(const std::string& path) const { return status(path).has_value(); }

  // Makes the folder at `path` and any missing folders above it.
  void createDirectories(const std::string& path) const;
  // Opens the file at `path` to append to it, made empty (mode 0600) when
  // missing; never a link, never truncated. The caller closes the descriptor.
  int openForAppend(const std::string& path) const;
  // Moves `from` (below this folder) to `to` (below `target`), failing with EEXIST
  // when `to` is taken; the file keeps its mode. Across file systems: a copy
  // beside `to`, flushed, renamed without replacing, then `from` removed; a copy
  // that fails part way is removed.
  void move(const std::string& from, const ConfinedFolder& target, const std::string& to) const;
  // Copies the file or folder at `from` to `to`, which must be free: made under a
  // hidden name beside it and renamed into place only when whole.
  void copy(const std::string& from, const std::string& to) const;
  // Removes the file or folder (with all it holds) at `path`; the folder itself
  // is refused.
  void remove(const std::string& path) const;
  // Flushes the file at `path` and the folder that holds it.
  void flush(const std::string& path) const;

 private:
  struct Parent;
  ConfinedFolder(const std::string& path, bool isPrivate);
  // The folder that holds `path`, resolved beneath this one, and its last name.
  Parent parentOf(const std::string& path) const;
  std::string relativeOf(const std::string& path) const;

  std::string path_;
  int fd_ = -1;
};
