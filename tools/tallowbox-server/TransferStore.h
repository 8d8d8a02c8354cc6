#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

// The bytes the reference server holds, one file each in a folder of its own:
// what a computer has sent so far for a transfer, and the cloud's copies. Bodies
// are streamed in and out in pieces; no file is ever held whole in memory.
class TransferStore {
 public:
  // Hands the store the next piece of a body; false when the body has ended.
  using Reader = std::function<bool(const std::function<bool(const char*, std::size_t)>& sink)>;

  // Keeps its files in `folder`, which it creates when missing.
  void open(const std::string& folder);
  const std::string& folder() const { return folder_; }

  // Bytes held for `name` (0 when none).
  std::uint64_t size(const std::string& name) const;
  // Appends what `read` delivers to `name`, keeping at most `limit` bytes of it;
  // whether the whole body was kept.
  bool append(const std::string& name, const Reader& read, std::uint64_t limit = UINT64_MAX) const;
  // Replaces `name` with what `read` delivers, once it has all arrived.
  bool replace(const std::string& name, const Reader& read) const;
  // {"length": n, "sha256": "<hex>"} of what is held for `name`.
  nlohmann::json summary(const std::string& name) const;

  // The file that holds `name`.
  std::string pathOf(const std::string& name) const;

 private:
  std::string folder_;
  mutable std::mutex mutex_;  // one writer at a time
};
