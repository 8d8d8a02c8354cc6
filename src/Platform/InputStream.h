#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A stream of bytes read from a file, from a chosen offset on. Only a regular
// file (or a link to one) is ever read: a folder, a FIFO, a device, or a file that
// cannot be opened or positioned gives a stream that is not open and holds no
// bytes, as does an offset past the file's end.
class InputStream {
 public:
  // Opens `path` for reading, never waiting (a FIFO without a writer is refused,
  // not waited for); `offset` is where reading starts (the platform's
  // file-current-offset property).
  InputStream(const std::string& path, std::uint64_t offset);
  ~InputStream();
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  // Up to `size` bytes; 0 at the end (at once when not open); -1 on a read error.
  long read(char* buffer, std::size_t size);

 private:
  int fd_ = -1;
};
