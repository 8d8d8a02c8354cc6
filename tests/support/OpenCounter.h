#pragma once

#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>

// Counts the times a file is opened, by any process, as the kernel reports them.
class OpenCounter {
 public:
  explicit OpenCounter(const std::string& path)
      : path_(path), fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (fd_ < 0 || ::inotify_add_watch(fd_, path.c_str(), IN_OPEN) < 0) {
      throw std::runtime_error("cannot watch " + path);
    }
  }
  ~OpenCounter() { ::close(fd_); }
  OpenCounter(const OpenCounter&) = delete;
  OpenCounter& operator=(const OpenCounter&) = delete;

  std::size_t count() {
    alignas(inotify_event) char buffer[4096];
    ssize_t n = 0;
    while ((n = ::read(fd_, buffer, sizeof buffer)) > 0) {
      for (ssize_t at = 0; at < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
        opens_ += (event->mask & IN_OPEN) != 0 ? 1 : 0;
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    return opens_;
  }

  // Makes the file another version without opening it (a later modification
  // time), so that a reader that reads it again only once it has changed opens
  // it at its next read.
  void change() const {
    namespace fs = std::filesystem;
    fs::last_write_time(path_, fs::last_write_time(path_) + std::chrono::seconds(1));
  }

 private:
  std::string path_;
  int fd_;
  std::size_t opens_ = 0;
};
