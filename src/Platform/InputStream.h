#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A stream of bytes read from a file, from a chosen offset on.
class InputStream {
 public:
  // Opens `path` for reading; `offset` is where reading starts (the platform's
  // file-current-offset property).
  InputStream(const std::string& path, std::uint64_t offset);
  ~InputStream();
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  // Up to `size` bytes; 0 at the end; -1 on a read error.
  long read(char* buffer, std::size_t size);

 private:
  int fd_ = -1;
};
