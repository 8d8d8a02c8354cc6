#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Platform/ConfinedFolder.h"
#include "Platform/Environment.h"
#include "Platform/Log.h"
#include "Platform/PathNames.h"
#include "Platform/Readings.h"
#include "Platform/UserDefaults.h"
#include "Platform/ValueError.h"
#include "Services/NetWorkConnectionStatus.h"
#include "Services/RestInterface.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ErrorLogReport.h"
#include "SharedFilesXpcService/ServiceFolders.h"
#include "SharedFilesXpcService/SharedFilesList.h"

namespace fs = std::filesystem;

namespace {

// A server path ("a\\b") in local form ("a/b").
std::string local(const WireValue& path) {
  std::string text = Readings::formatted(path);
  for (char& c : text) {
    if (c == '\\') c = '/';
  }
  return text;
}

std::string textOf(const Value& entry, const char* key) {
  const Value* value = entry.objectForKey(key);
  if (value == nullptr) return "";
  if (value->string() == nullptr) {
    throw ValueError(std::string(key) + " holds a " + std::string(value->kindName()));
  }
  return *value->string();
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

void ReceiveFileFromTransferHandler::notify() const {
  if (auto told = delegate()) told->ReceiveFileNotify();
}

ConfinedFolder ReceiveFileFromTransferHandler::productFolder() const {
  return ConfinedFolder(ServiceFolders::productFolder(iAppsPrefs()));
}

ConfinedFolder ReceiveFileFromTransferHandler::downloadFolder() {
  return ConfinedFolder(ServiceFolders::downloadFolder());
}

void ReceiveFileFromTransferHandler::recFileFromTransfer(
    const std::vector<RecFileFromTransfer>& files) {
  if (files.empty()) return;
  try {
    setIAppsPrefs(UserDefaults::persistentDomainForName("Quentara.Tallowbox"));
    setSharedFilesDefaultsArray(SharedFilesList::load(UserDefaults::standardUserDefaults()));
    // kept: set once per pass, not per entry; an entry that assigns nothing
    // inherits the path of the entry before it.
    std::string workingPath;
    for (const RecFileFromTransfer& file : files) receive(file, workingPath);
  } catch (const std::exception& exception) {
    Log::printf("Receive Files Exception: %s", exception.what());
    logErrorMethod(exception);
    notify();
  }
}

void ReceiveFileFromTransferHandler::receive(const RecFileFromTransfer& file,
                                             std::string& workingPath) {
  const std::string product = ServiceFolders::productFolder(iAppsPrefs());
  const long long change = Readings::integerValue(file.changeType);
  const Value::Array list = sharedFilesDefaultsArray();
  auto first = [&](const char* format, std::vector<Predicate::Argument> arguments) {
    Value::Array found = SharedFilesList::filter(list, format, std::move(arguments));
    return found.empty() ? std::optional<Value>() : std::optional<Value>(found.front());
  };
  const Predicate::Argument ownerFileId = Readings::objectValue(file.ownerFileId);
  const std::string name = PathNames::lastPathComponent(local(file.fullPath));

  // Where the item lives on this computer.
  if (Readings::integerValue(file.isOwnerToSubscriber) == 1) {
    if (change == 1 && Readings::integerValue(file.prevFolderFileId) != 0) {
      auto parent = first("(OwnerFileID == %@) AND (Blocked == %@)",
                          {Readings::objectValue(file.prevFolderFileId), Value("0")});
      workingPath = parent ? textOf(*parent, "FileName") + "/" + name : "";
    } else if (change == 1) {
      auto root = first("(UserComputerMapID==%@ AND OwnerFileID==%@)",
                        {Readings::objectValue(file.userComputerId), Value("0")});
      if (root) {
        workingPath = textOf(*root, "FileName") + "/" + name;
      } else {
        workingPath += local(file.fullPath);  // kept: appends to the path before
      }
    } else if (auto entry =
                   first("(OwnerFileID == %@) AND (Blocked == %@)", {ownerFileId, Value("0")})) {
      workingPath = textOf(*entry, "FileName");
    }
  } else {
    workingPath =
        ServicesUtilities::convertPathToMac(Readings::formatted(file.fullPathFromFileTable));
  }
  if (Readings::integerValue(file.fromCloud) == 1 &&
      Readings::isEqualToString(file.fromComputerId, file.toComputerId) &&
      workingPath.rfind('/', 0) == 0) {
    workingPath = product + workingPath;
  }
  if (workingPath.empty()) {
    const std::string path =
        product + "/" + Readings::formatted(file.nickName) + local(file.fullPath);
    const ConfinedFolder folder = productFolder();
    folder.createDirectories(
        folder.exists(path) ? path : PathNames::stringByDeletingLastPathComponent(path));
    workingPath = path;
  }

  if (change == 1) {
    if (first("(OwnerFileID == %@ AND MyFile == %@)", {ownerFileId, Value("1")})) {
      // The item came from this computer: only acknowledged.
      Log::line("Connection Available......");
      if (NetWorkConnectionStatus::ConectionStatus()) {
        acknowledge(file.sharedFileTransferId);
      } else {
        Log::line("Connection not available....");
      }
    } else {
      const std::string target =
          first("(OwnerFileID == %@) AND (Blocked == %@)", {ownerFileId, Value("0")})
              ? ServicesUtilities::checkDuplicateAndCreate(workingPath, product)
              : workingPath;
      if (!target.empty()) {
        // A target that would leave the product folder is refused here, before
        // anything is fetched for it.
        static_cast<void>(productFolder().status(target));
        std::string temp = target;
        const std::string prefix = product + "/";
        if (temp.rfind(prefix, 0) == 0) {
          temp = ServiceFolders::downloadFolder() + "/" + temp.substr(prefix.size());
        }
        const ConfinedFolder download = downloadFolder();
        std::optional<struct stat> partial = download.status(temp);
        {
          std::lock_guard lock(mutex_);
          finalPath_ = target;
          tempFilePath_ = temp;
          fileLength_ = partial ? std::to_string(partial->st_size) : "0";
        }
        download.createDirectories(PathNames::stringByDeletingLastPathComponent(temp));
      }
      if (file.isOwnerToSubscriber) savePreFerences(file, target);
      if (!Readings::boolValue(file.isFile)) {
        const ConfinedFolder folder = productFolder();
        if (!folder.exists(target)) folder.createDirectories(target);
        if (!Readings::isEqualToString(file.fromComputerId, file.toComputerId)) {
          updateFileID(target);
        }
      } else if (Readings::integerValue(file.fromCloud) != 1) {
        if (!finalPath().empty()) {
          saveUpdateReceiveFile(file);
        } else {
          notify();
        }
      } else {
        IsFileExistsInCloudQuery query;
        query.strFullPath =
            "\\" + Readings::formatted(file.fromComputerId) + Readings::formatted(file.fullPath);
        if (NetWorkConnectionStatus::ConectionStatus()) {
          Log::line("Connection Available......");
          RestInterface::asyncIsFileExistsInCloud(
              query,
              [self = shared_from_this(), file](
                  const OperationResult<IsFileExistsInCloudResponseData>& result, int status) {
                self->reportFailures([&] {
                  if (status != 0 || !result.record) {
                    self->notify();
                    return;
                  }
                  if (Readings::isEqualToText(result.record->isExists, "True")) {
                    std::string finalPath;
                    std::string tempPath;
                    {
                      std::lock_guard lock(self->mutex_);
                      self->isFileExists_ = result.record->isExists ? "true" : "false";
                      self->sharedFileTransferID_ = file.sharedFileTransferId;
                    }
                    if (Readings::isEqualToString(file.fromComputerId, file.toComputerId)) {
                      finalPath = ServiceFolders::productFolder(self->iAppsPrefs()) + "/" +
                                  local(file.fullPath);
                      tempPath = ServiceFolders::downloadFolder() + "/" + local(file.fullPath);
                      self->productFolder().createDirectories(
                          PathNames::stringByDeletingLastPathComponent(finalPath));
                      downloadFolder().createDirectories(
                          PathNames::stringByDeletingLastPathComponent(tempPath));
                      std::lock_guard lock(self->mutex_);
                      self->finalPath_ = finalPath;
                      self->tempFilePath_ = tempPath;
                    }
                    self->saveStreamFile(file);
                    return;
                  }
                  // kept: the acknowledgement names the transfer of the last entry
                  // that reached a download, not this one.
                  UpdateFileReceivedQuery ack;
                  {
                    std::lock_guard lock(self->mutex_);
                    ack.sharedFileTransferID = self->sharedFileTransferID_;
                  }
                  ack.isFileExists = "True";
                  RestInterface::asyncUpdateFileReceived(
                      ack, [self](const OperationResult<UpdateFileReceivedResponseData>& answer,
                                  int answerStatus) {
                        if (answerStatus != 0 ||
                            ReceiveFileFromTransferHandler::statusIsZero(answer, answerStatus))
                          self->notify();
                        Log::line("inside  updatefilereceived service *****************");
                      });
                });
              });
        } else {
          Log::line("Connection not available...");
        }
      }
    }
  } else if (change == 2) {
    const std::string parent = PathNames::stringByDeletingLastPathComponent(workingPath);
    const std::string from = parent + "/" + name;
    std::string to = parent + "/" + PathNames::lastPathComponent(local(file.fullPathNew));
    if (first("(OwnerFileID == %@ AND MyFile == %@ AND FileName == %@)",
              {ownerFileId, Value("1"), Value(to)})) {
      acknowledge(file.sharedFileTransferId);
    } else {
      to = checkDuplicateAndCreate(to, product);
      const ConfinedFolder folder = productFolder();
      try {
        folder.move(from, folder, to);
      } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): ignored, as ever
      }
      Value::Array changed = SharedFilesList::load(UserDefaults::standardUserDefaults());
      // kept: the entries renamed are those of the working path, not of the old name.
      for (const Value& entry :
           SharedFilesList::filter(changed, "FileName == %@", {Value(workingPath)})) {
        SharedFilesList::setValueOfEntry(changed, entry, "FileName", to);
      }
      setSharedFilesDefaultsArray(changed);
      SharedFilesList::store(UserDefaults::standardUserDefaults(), changed);
    }
  } else if (change == 3 && file.ownerFileId) {
    Value::Array changed = SharedFilesList::load(UserDefaults::standardUserDefaults());
    const char* format = Readings::isEqualToString(file.isFile, "True")
                             ? "FileName == %@"
                             : "FileName BEGINSWITH[c] %@";
    Value::Array gone = SharedFilesList::filter(changed, format, {Value(workingPath)});
    std::erase_if(changed, [&](const Value& entry) {
      return std::find(gone.begin(), gone.end(), entry) != gone.end();
    });
    const ConfinedFolder folder = productFolder();
    if (folder.exists(workingPath)) folder.remove(workingPath);
    setSharedFilesDefaultsArray(changed);
    SharedFilesList::store(UserDefaults::standardUserDefaults(), changed);
  }

  // kept: a folder of an own item and an own rename are acknowledged twice.
  if (change == 2 || change == 3 || !Readings::boolValue(file.isFile)) {
    acknowledge(file.sharedFileTransferId);
  }
}

void ReceiveFileFromTransferHandler::acknowledge(const WireValue& transfer) {
  UpdateFileReceivedQuery query;
  query.sharedFileTransferID = transfer;
  query.isFileExists = "true";
  RestInterface::asyncUpdateFileReceived(
      query, [self = shared_from_this()](
                 const OperationResult<UpdateFileReceivedResponseData>& result, int status) {
        self->reportFailures([&] {
          if (ReceiveFileFromTransferHandler::statusIsZero(result, status)) self->notify();
        });
      });
}

void ReceiveFileFromTransferHandler::reportFailures(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& exception) {
    // Reported as the pass reports; and, where the platform would have ended
    // the process, only this pass's flag is cleared, so the cycle goes on.
    Log::printf("Receive Files Exception: %s", exception.what());
    logErrorMethod(exception);
    notify();
  }
}

std::string ReceiveFileFromTransferHandler::checkDuplicateAndCreate(
    const std::string& path, const std::string& tallowboxPath) {
  // Only looks: nothing is written here.
  auto exists = [](const std::string& candidate) {
    std::error_code error;
    return fs::exists(fs::symlink_status(candidate, error));
  };
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
  const ConfinedFolder download = downloadFolder();
  if (!download.holds(folder) || std::next(component)->string() == "..") {
    throw std::runtime_error("refused to empty " + folder);
  }
  std::error_code error;
  for (const auto& item : fs::directory_iterator(folder, error)) {
    try {
      download.remove(item.path().string());
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): errors are ignored
    }
  }
}

void ReceiveFileFromTransferHandler::renameFileWithName(const std::string& name,
                                                        const std::string& toName) {
  const std::string from = PathNames::stringByAppendingPathComponent(documentsFolder(), name);
  const std::string to = PathNames::stringByAppendingPathComponent(documentsFolder(), toName);
  std::error_code missing;
  if (!fs::exists(fs::symlink_status(from, missing))) {
    Log::printf("File %s doesn't exists", from.c_str());
    return;
  }
  try {
    // Through the product folder's facade, which refuses both names when they
    // lie outside it.
    const ConfinedFolder folder = productFolder();
    folder.move(from, folder, to);
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

bool ReceiveFileFromTransferHandler::checkTaskIs(const char* task) const {
  std::lock_guard lock(mutex_);
  return checkTask_ == task;
}

std::string ReceiveFileFromTransferHandler::finalPath() const {
  std::lock_guard lock(mutex_);
  return finalPath_;
}

std::string ReceiveFileFromTransferHandler::tempFilePath() const {
  std::lock_guard lock(mutex_);
  return tempFilePath_;
}

std::string ReceiveFileFromTransferHandler::fileLength() const {
  std::lock_guard lock(mutex_);
  return fileLength_;
}
