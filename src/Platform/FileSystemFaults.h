#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

// The file-system calls every write of the service makes, and the faults tests
// make them meet.
//
// The static calls are what the folder facade (ConfinedFolder), the preference
// store and the downloads use in place of the system calls: each asks the
// environment in force for its faults (Environment::fileSystemFaults), fails as
// they say, and otherwise makes the real call. With no faults (nullptr, as
// always outside tests) they are the system calls.
//
// A test puts an object in the environment and sets it from any thread: the
// next call, the next n calls or every call of a kind fail with an errno, writes
// stop after a number of bytes (a full disk), or a hook runs between a path's
// resolution and the write on it.
class FileSystemFaults {
 public:
  // The calls below by name: kOpen is openat, kWrite one writeAll, and so on.
  enum class Call { kOpen, kMkdir, kRename, kWrite, kFsync, kUnlink };
  static constexpr std::size_t kCalls = 6;

  // The next `count` calls of `call` fail with `error` (in place of what was set
  // for that call before).
  void failNext(Call call, int error, int count = 1);
  // Every call of `call` fails with `error` until cleared.
  void failEvery(Call call, int error);
  // Writes go on for `bytes` more bytes in all (a write that crosses the limit
  // writes up to it), then fail with `error` until cleared.
  void failWritesAfter(std::size_t bytes, int error);
  // Runs `hook` with the path each time a path has been resolved and before the
  // write on it; nullptr: nothing runs.
  void onResolved(std::function<void(const std::string& path)> hook);
  // No more faults, no hook.
  void clear();

  // Each as the system call of its name: -1 with errno set when it fails.
  static int openat(int folder, const char* name, int flags, mode_t mode = 0);
  static int mkdirat(int folder, const char* name, mode_t mode);
  static int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
                       unsigned flags);
  static int unlinkat(int folder, const char* name, int flags);
  static int fsync(int fd);
  // Writes all `length` bytes of `data` to `fd`, going on after an interrupted
  // or partial write; false (errno set) when a write fails.
  static bool writeAll(int fd, const char* data, std::size_t length);
  // Called by the folder facade when `path` has been resolved.
  static void resolved(const std::string& path);

 private:
  struct Rule {
    int error = 0;
    int remaining = 0;  // negative: until cleared
  };

  // The errno this call of `call` fails with, 0 when it goes ahead.
  int take(Call call);
  // How many of `length` bytes a write may write; sets `error` when it must stop short.
  std::size_t grantWrite(std::size_t length, int& error);

  std::mutex mutex_;
  std::array<Rule, kCalls> rules_{};              // by Call; guarded by mutex_
  std::optional<std::size_t> writableBytes_;      // guarded by mutex_
  int writeError_ = 0;                            // guarded by mutex_
  std::function<void(const std::string&)> hook_;  // guarded by mutex_
};
