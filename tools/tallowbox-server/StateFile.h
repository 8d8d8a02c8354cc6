#pragma once

#include <optional>
#include <string>

// The file in which the reference server keeps its state between runs. Every
// write replaces the whole file atomically (a temporary file in the same
// folder, flushed, then renamed over it, and the folder flushed), so a reader,
// or the server started again after being killed at any moment, finds either
// the previous text or the new one, never a mix.
class StateFile {
 public:
  explicit StateFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  // The file's text; nullopt when there is no file. Throws std::runtime_error
  // when it exists but cannot be read.
  std::optional<std::string> read() const;
  // Replaces the file with `text`. Throws std::runtime_error when it cannot.
  void write(const std::string& text) const;

 private:
  std::string path_;
};
