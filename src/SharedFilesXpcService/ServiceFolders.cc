#include "SharedFilesXpcService/ServiceFolders.h"

#include <algorithm>
#include <cstdlib>
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
  fs::path wanted(path);
  bool climbs = false;
  for (const fs::path& component : wanted) climbs = climbs || component == "..";
  fs::path target = resolved(wanted);
  if (!climbs && wanted.is_absolute() &&
      (within(target, resolved(productFolder(iAppsPrefs))) ||
       within(target, resolved(downloadFolder())))) {
    return;
  }
  throw std::runtime_error("refused to write outside the product and download folders: " + path);
}
