#include "SharedFilesXpcService/ServiceFolders.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "Platform/Environment.h"
#include "Platform/ValueError.h"

namespace fs = std::filesystem;

namespace {

bool within(const fs::path& path, const fs::path& folder) {
  auto [folderEnd, pathAt] = std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
  return folderEnd == folder.end();
}

// The path with every link already on disk resolved; the part not yet on disk is
// taken as written.
fs::path resolved(const fs::path& path) {
  std::error_code error;
  fs::path canonical = fs::weakly_canonical(path, error);
  return error ? path.lexically_normal() : canonical;
}

// Whether `path` names `folder` or something below it: the part below must not
// climb (a ".." after a link on disk could lead anywhere), and what it resolves
// to must stay below the folder. The folder itself, which the user chose, may be
// written with ".." and is normalised first; a relative one is refused.
bool inside(const std::string& path, const std::string& folder) {
  if (path.compare(0, folder.size(), folder) != 0) return false;
  if (path.size() > folder.size() && path[folder.size()] != '/') return false;
  fs::path anchor = fs::path(folder).lexically_normal();
  if (!anchor.is_absolute()) return false;
  fs::path below = fs::path(path.substr(folder.size())).relative_path();
  for (const fs::path& component : below) {
    if (component == "..") return false;
  }
  fs::path anchorOnDisk = resolved(anchor);
  return within(resolved(anchor / below), anchorOnDisk);
}

}  // namespace

std::string ServiceFolders::productFolder(const Value::Dictionary& iAppsPrefs) {
  const Value* folder = Value::objectForKey(iAppsPrefs, "tallowboxPathKey");
  if (folder == nullptr) return "(null)/Tallowbox";
  if (folder->string() == nullptr) {
    throw ValueError("tallowboxPathKey holds a " + std::string(folder->kindName()) +
                     ", not a path");
  }
  return *folder->string() + "/Tallowbox";
}

std::string ServiceFolders::temporaryDirectory() { return Environment::current()->temporaryFolder; }

std::string ServiceFolders::downloadFolder() { return temporaryDirectory() + "TallowboxTemp"; }

void ServiceFolders::checkInside(const std::string& path, const Value::Dictionary& iAppsPrefs) {
  if (inside(path, productFolder(iAppsPrefs)) || inside(path, downloadFolder())) return;
  throw std::runtime_error("refused to write outside the product and download folders: " + path);
}
