#pragma once

#include <cstddef>
#include <memory>

// An open file descriptor shared by every copy of a value that carries it. The
// descriptor is closed when the last copy goes away.
class FileHandle {
 public:
  // Takes ownership of `descriptor` (closed on destruction when not negative).
  explicit FileHandle(int descriptor);
  ~FileHandle();
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  int fileDescriptor() const { return descriptor_; }

  // A handle of its own on a duplicate of `descriptor` (close-on-exec), or
  // nullptr when the descriptor cannot be duplicated (not open, no descriptor
  // left).
  static std::shared_ptr<const FileHandle> duplicating(int descriptor);

  // Writes all `length` bytes of `data` to `descriptor`, going on after an
  // interrupted call; false (errno set) when a write fails or writes nothing.
  static bool writeAll(int descriptor, const char* data, std::size_t length);

 private:
  int descriptor_;
};
