#include "Services/ServicesUtilities.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "Platform/Environment.h"
#include "Platform/PathNames.h"

std::optional<double> ServicesUtilities::appKitVersionNumber() {
  return Environment::current()->appKitVersionNumber;
}

bool ServicesUtilities::is10_7() {
  std::optional<double> version = appKitVersionNumber();
  return version && std::floor(*version) == 1138.0;
}

bool ServicesUtilities::isLessThan10_10() {
  std::optional<double> version = appKitVersionNumber();
  if (!version) return false;
  double floored = std::floor(*version);
  return floored >= 1138.0 && floored < 1343.0;
}

std::string ServicesUtilities::baseURL() { return Environment::current()->baseURL; }

std::string ServicesUtilities::convertPathToMac(const std::string& path) {
  std::string local = "/" + path;
  for (char& c : local) {
    if (c == '\\') c = '/';
  }
  return local;
}

std::string ServicesUtilities::convertPathToWindows(const std::string& path) {
  std::string server = path.empty() ? path : path.substr(1);
  for (char& c : server) {
    if (c == '/') c = '\\';
  }
  return server;
}

namespace {

namespace fs = std::filesystem;

// Copies `from` (a file or a whole folder) to `to`, which must be free: the copy
// is made under a hidden name beside `to` and renamed into place only when whole,
// without replacing anything; a copy that fails half-way leaves nothing behind.
bool copyWhole(const std::string& from, const std::string& to) {
  static std::atomic<unsigned> copies{0};
  const std::string partial = PathNames::stringByAppendingPathComponent(
      PathNames::stringByDeletingLastPathComponent(to),
      "." + PathNames::lastPathComponent(to) + ".partial-" + std::to_string(::getpid()) + "-" +
          std::to_string(copies.fetch_add(1)));
  std::error_code error;
  fs::copy(from, partial, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (!error &&
      ::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  fs::remove_all(partial, error);
  return false;
}

}  // namespace

std::string ServicesUtilities::checkDuplicateAndCreate(const std::string& path,
                                                       const std::string& /*tallowboxPath*/) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error))) return path;
  const std::string folder = PathNames::stringByDeletingLastPathComponent(path);
  const std::string name =
      PathNames::stringByDeletingPathExtension(PathNames::lastPathComponent(path));
  const std::string extension = PathNames::pathExtension(path);
  const bool isDirectory = fs::is_directory(fs::symlink_status(path, error));
  // Taken names are skipped without limit. A copy that fails would fail the same
  // way under every name, so a few failures end the search.
  constexpr int kFailedCopiesAllowed = 3;
  int failedCopies = 0;
  for (long counter = 1;; ++counter) {
    std::string candidate = name + " " + std::to_string(counter);
    if (!isDirectory && !extension.empty()) candidate += "." + extension;
    std::string newPath = PathNames::stringByAppendingPathComponent(folder, candidate);
    if (fs::exists(fs::symlink_status(newPath, error))) continue;
    if (copyWhole(path, newPath)) return newPath;
    if (++failedCopies == kFailedCopiesAllowed) {
      throw std::runtime_error("cannot copy " + path + " to a free name");
    }
  }
}
