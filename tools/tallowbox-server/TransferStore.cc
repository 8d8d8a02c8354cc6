#include "TransferStore.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "Platform/FileHandle.h"

namespace {

std::string hex(const unsigned char* bytes, std::size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0xFU];
  }
  return text;
}

// Streams what `read` delivers into `fd`, at most `limit` bytes; whether the
// body ended within the limit and every byte was written.
bool pour(int fd, const TransferStore::Reader& read, std::uint64_t limit) {
  std::uint64_t kept = 0;
  bool ok = true;
  bool whole = read([&](const char* data, std::size_t length) {
    std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(length, limit - kept));
    ok = ok && FileHandle::writeAll(fd, data, take);
    kept += take;
    return ok && take == length;
  });
  return ok && whole;
}

}  // namespace

void TransferStore::open(const std::string& folder) {
  std::filesystem::create_directories(folder);
  folder_ = folder;
}

std::string TransferStore::pathOf(const std::string& name) const {
  // Any name, even one holding "/" or "..", maps to one plain file name.
  return folder_ + "/" + hex(reinterpret_cast<const unsigned char*>(name.data()), name.size()) +
         ".bin";
}

std::uint64_t TransferStore::size(const std::string& name) const {
  struct stat st {};
  return ::stat(pathOf(name).c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

bool TransferStore::append(const std::string& name, const Reader& read, std::uint64_t limit) const {
  std::lock_guard lock(mutex_);
  int fd = ::open(pathOf(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool whole = pour(fd, read, limit);
  ::close(fd);
  return whole;
}

bool TransferStore::replace(const std::string& name, const Reader& read) const {
  std::lock_guard lock(mutex_);
  const std::string path = pathOf(name);
  const std::string partial = path + ".partial";
  int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool whole = pour(fd, read, UINT64_MAX);
  ::close(fd);
  if (!whole || ::rename(partial.c_str(), path.c_str()) != 0) {
    ::unlink(partial.c_str());
    return false;
  }
  return true;
}

nlohmann::json TransferStore::summary(const std::string& name) const {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(),
                                                                 &EVP_MD_CTX_free);
  EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
  std::uint64_t length = 0;
  int fd = ::open(pathOf(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    std::array<char, 1 << 16> buffer{};
    for (;;) {
      ssize_t n = ::read(fd, buffer.data(), buffer.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      EVP_DigestUpdate(digest.get(), buffer.data(), static_cast<std::size_t>(n));
      length += static_cast<std::uint64_t>(n);
    }
    ::close(fd);
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
  unsigned int sumLength = 0;
  EVP_DigestFinal_ex(digest.get(), sum.data(), &sumLength);
  return {{"length", length}, {"sha256", hex(sum.data(), sumLength)}};
}
