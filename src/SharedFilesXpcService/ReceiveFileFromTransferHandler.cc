#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Platform/Environment.h"
#include "Platform/Log.h"
#include "Platform/PathNames.h"
#include "Platform/Readings.h"
#include "Platform/UserDefaults.h"
#include "SharedFilesXpcService/ErrorLogReport.h"
#include "SharedFilesXpcService/ServiceFolders.h"
#include "SharedFilesXpcService/SharedFilesList.h"

namespace fs = std::filesystem;

namespace {

bool exists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

std::string documentsFolder() { return Environment::current()->homeFolder + "/Documents"; }

}  // namespace

ReceiveFileFromTransferHandler::ReceiveFileFromTransferHandler() {
  setIAppsPrefs({});
  setIAppsPrefs(UserDefaults::persistentDomainForName("Quentara.Tallowbox"));
}

void ReceiveFileFromTransferHandler::setDelegate(
    std::weak_ptr<ReceiveFileFromTransferDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<ReceiveFileFromTransferDelegate> ReceiveFileFromTransferHandler::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ReceiveFileFromTransferHandler::recFileFromTransfer(
    const std::vector<RecFileFromTransfer>& /*files*/) {
  if (auto told = delegate()) told->ReceiveFileNotify();
}

std::string ReceiveFileFromTransferHandler::checkDuplicateAndCreate(
    const std::string& path, const std::string& tallowboxPath) {
  if (!exists(path)) return path;
  // kept: the numbered name goes into the given folder, not beside the item, and
  // has no extension; the receive pass relies on where it lands.
  const std::string name =
      PathNames::stringByDeletingPathExtension(PathNames::lastPathComponent(path));
  for (long counter = 1;; ++counter) {
    std::string newPath = PathNames::stringByAppendingPathComponent(
        tallowboxPath, name + " " + std::to_string(counter));
    if (!exists(newPath)) {
      Log::line("----------------------");
      return newPath;
    }
  }
}

void ReceiveFileFromTransferHandler::savePreFerences(const RecFileFromTransfer& file,
                                                     const std::string& path) {
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  Value::Array list = SharedFilesList::load(defaults);
  setSharedFilesDefaultsArray(list);
  Value::Dictionary entry;
  entry["OwnerFileID"] = Readings::listValue(file.ownerFileId);
  entry["UserComputerMapID"] = Readings::listValue(file.userComputerId);
  entry["FileName"] = path;
  entry["IsFile"] = Readings::listValue(file.isFile);
  entry["MyFile"] = "0";
  entry["Blocked"] = "0";
  entry["DeleteKey"] = "0";
  entry["SavedFileID"] = Readings::listValue(file.savedFileId);
  list.emplace_back(std::move(entry));
  setSharedFilesDefaultsArray(list);
  SharedFilesList::store(defaults, list);
  defaults.synchronize();
}

void ReceiveFileFromTransferHandler::updateFileID(const std::string& path) {
  struct stat attributes {};
  if (::lstat(path.c_str(), &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "no file number for " + path);
  }
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  Value::Array list = SharedFilesList::load(defaults);
  Value::Array named = SharedFilesList::filter(list, "(FileName == %@)", {Value(path)});
  if (!named.empty()) {
    SharedFilesList::setValueOfEntry(list, named.front(), "FileID",
                                     std::to_string(attributes.st_ino));
  }
  setSharedFilesDefaultsArray(list);
  SharedFilesList::store(defaults, list);
  defaults.synchronize();
}

void ReceiveFileFromTransferHandler::clearTemp(const std::string& path) {
  const fs::path given(path);
  auto component = std::find(given.begin(), given.end(), fs::path("TallowboxTemp"));
  if (component == given.end() || std::next(component) == given.end()) {
    throw std::runtime_error("no download folder is named in " + path);
  }
  const std::string folder =
      ServiceFolders::downloadFolder() + "/" + std::next(component)->string();
  ServiceFolders::checkInside(folder, iAppsPrefs());
  std::error_code error;
  for (const auto& item : fs::directory_iterator(folder, error)) {
    std::error_code ignored;
    fs::remove_all(item.path(), ignored);
  }
}

void ReceiveFileFromTransferHandler::renameFileWithName(const std::string& name,
                                                        const std::string& toName) {
  const std::string from = PathNames::stringByAppendingPathComponent(documentsFolder(), name);
  const std::string to = PathNames::stringByAppendingPathComponent(documentsFolder(), toName);
  if (!exists(from)) {
    Log::printf("File %s doesn't exists", from.c_str());
    return;
  }
  try {
    ServiceFolders::checkInside(from, iAppsPrefs());
    ServiceFolders::checkInside(to, iAppsPrefs());
    fs::rename(from, to);
  } catch (const std::exception& error) {
    Log::printf("There is an Error: %s", error.what());
  }
}

void ReceiveFileFromTransferHandler::logErrorMethod(const std::exception& exception) {
  setIAppsPrefs({});
  setIAppsPrefs(UserDefaults::persistentDomainForName("Quentara.Tallowbox"));
  ErrorLogReport::send("ReceiveFileFromTransferHandler", "URLSession", exception, iAppsPrefs());
}

Value::Dictionary ReceiveFileFromTransferHandler::iAppsPrefs() const {
  std::lock_guard lock(mutex_);
  return iAppsPrefs_;
}

void ReceiveFileFromTransferHandler::setIAppsPrefs(Value::Dictionary prefs) {
  std::lock_guard lock(mutex_);
  iAppsPrefs_ = std::move(prefs);
}

Value::Array ReceiveFileFromTransferHandler::sharedFilesDefaultsArray() const {
  std::lock_guard lock(mutex_);
  return sharedFilesDefaultsArray_;
}

void ReceiveFileFromTransferHandler::setSharedFilesDefaultsArray(Value::Array list) {
  std::lock_guard lock(mutex_);
  sharedFilesDefaultsArray_ = std::move(list);
}
