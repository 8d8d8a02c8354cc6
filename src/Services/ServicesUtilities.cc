#include "Services/ServicesUtilities.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Platform/ConfinedFolder.h"
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

std::string ServicesUtilities::checkDuplicateAndCreate(const std::string& path,
                                                       const std::string& tallowboxPath) {
  // The folder names nothing in the result; every copy stays inside it.
  const ConfinedFolder folder(tallowboxPath);
  std::optional<struct stat> existing = folder.status(path);
  if (!existing) return path;
  const std::string parent = PathNames::stringByDeletingLastPathComponent(path);
  const std::string name =
      PathNames::stringByDeletingPathExtension(PathNames::lastPathComponent(path));
  const std::string extension = PathNames::pathExtension(path);
  const bool isDirectory = S_ISDIR(existing->st_mode);
  // Taken names are skipped without limit. A copy that fails would fail the same
  // way under every name, so a few failures end the search.
  constexpr int kFailedCopiesAllowed = 3;
  int failedCopies = 0;
  for (long counter = 1;; ++counter) {
    std::string candidate = name + " " + std::to_string(counter);
    if (!isDirectory && !extension.empty()) candidate += "." + extension;
    std::string newPath = PathNames::stringByAppendingPathComponent(parent, candidate);
    if (folder.exists(newPath)) continue;
    try {
      folder.copy(path, newPath);
      return newPath;
    } catch (const std::system_error& error) {
      if (++failedCopies == kFailedCopiesAllowed) {
        throw std::runtime_error("cannot copy " + path + " to a free name: " + error.what());
      }
    }
  }
}
