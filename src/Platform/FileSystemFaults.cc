#include "Platform/FileSystemFaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "Platform/Environment.h"
#include "Platform/FileHandle.h"

namespace {

// The faults in force; nullptr when there are none.
std::shared_ptr<FileSystemFaults> faults() { return Environment::current()->fileSystemFaults; }

// -1 with errno set to `error`.
int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

void FileSystemFaults::failNext(Call call, int error, int count) {
  std::lock_guard lock(mutex_);
  rules_.at(static_cast<std::size_t>(call)) = {error, count};
}

void FileSystemFaults::failEvery(Call call, int error) {
  std::lock_guard lock(mutex_);
  rules_.at(static_cast<std::size_t>(call)) = {error, -1};
}

void FileSystemFaults::failWritesAfter(std::size_t bytes, int error) {
  std::lock_guard lock(mutex_);
  writableBytes_ = bytes;
  writeError_ = error;
}

void FileSystemFaults::onResolved(std::function<void(const std::string& path)> hook) {
  std::lock_guard lock(mutex_);
  hook_.swap(hook);  // the one replaced is destroyed once the lock is released
}

void FileSystemFaults::clear() {
  std::function<void(const std::string&)> hook;  // destroyed once the lock is released
  std::lock_guard lock(mutex_);
  rules_ = {};
  writableBytes_.reset();
  writeError_ = 0;
  hook.swap(hook_);
}

int FileSystemFaults::take(Call call) {
  std::lock_guard lock(mutex_);
  Rule& rule = rules_.at(static_cast<std::size_t>(call));
  if (rule.remaining == 0) return 0;
  if (rule.remaining > 0) --rule.remaining;
  return rule.error;
}

std::size_t FileSystemFaults::grantWrite(std::size_t length, int& error) {
  std::lock_guard lock(mutex_);
  if (!writableBytes_) return length;
  std::size_t granted = std::min(length, *writableBytes_);
  *writableBytes_ -= granted;
  if (granted < length) error = writeError_;
  return granted;
}

int FileSystemFaults::openat(int folder, const char* name, int flags, mode_t mode) {
  if (auto f = faults()) {
    if (int error = f->take(Call::kOpen)) return failWith(error);
  }
  return ::openat(folder, name, flags, mode);
}

int FileSystemFaults::mkdirat(int folder, const char* name, mode_t mode) {
  if (auto f = faults()) {
    if (int error = f->take(Call::kMkdir)) return failWith(error);
  }
  return ::mkdirat(folder, name, mode);
}

int FileSystemFaults::renameat2(int fromFolder, const char* from, int toFolder, const char* to,
                                unsigned flags) {
  if (auto f = faults()) {
    if (int error = f->take(Call::kRename)) return failWith(error);
  }
  return ::renameat2(fromFolder, from, toFolder, to, flags);
}

int FileSystemFaults::unlinkat(int folder, const char* name, int flags) {
  if (auto f = faults()) {
    if (int error = f->take(Call::kUnlink)) return failWith(error);
  }
  return ::unlinkat(folder, name, flags);
}

int FileSystemFaults::fsync(int fd) {
  if (auto f = faults()) {
    if (int error = f->take(Call::kFsync)) return failWith(error);
  }
  return ::fsync(fd);
}

bool FileSystemFaults::writeAll(int fd, const char* data, std::size_t length) {
  std::shared_ptr<FileSystemFaults> f = faults();
  if (!f) return FileHandle::writeAll(fd, data, length);
  int error = f->take(Call::kWrite);
  std::size_t granted = error == 0 ? f->grantWrite(length, error) : 0;
  if (!FileHandle::writeAll(fd, data, granted)) return false;
  if (error == 0) return true;
  errno = error;
  return false;
}

void FileSystemFaults::resolved(const std::string& path) {
  std::shared_ptr<FileSystemFaults> f = faults();
  if (!f) return;
  std::function<void(const std::string&)> hook;
  {
    std::lock_guard lock(f->mutex_);
    hook = f->hook_;
  }
  if (hook) hook(path);
}
