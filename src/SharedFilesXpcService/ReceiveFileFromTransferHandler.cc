#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Platform/ConfinedFolder.h"
#include "Platform/Environment.h"
#include "Platform/FreedMemory.h"
#include "Platform/Log.h"
#include "Platform/PathNames.h"
#include "Platform/Readings.h"
#include "Platform/UserDefaults.h"
#include "Platform/ValueError.h"
#include "Services/NetWorkConnectionStatus.h"
#include "Services/Records/UpdateFileReceivedResponseData.h"
#include "Services/RestInterface.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/EntryPlacement.h"
#include "SharedFilesXpcService/ErrorLogReport.h"
#include "SharedFilesXpcService/ServiceFolders.h"
#include "SharedFilesXpcService/SharedFilesList.h"

namespace fs = std::filesystem;

namespace {

std::string documentsFolder() { return Environment::current()->homeFolder + "/Documents"; }

// Runs a file-system step whose errors are ignored, as the platform's file
// manager calls are: only a refusal to leave the service's folders goes on up.
template <class Step>
void ignoringErrors(Step step) {
  try {
    step();
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): ignored, as the platform's
  }
}

// Whether anything is at `path`, as the platform's file manager answers: a path
// it cannot look at holds nothing.
bool exists(const ConfinedFolder& folder, const std::string& path) {
  bool found = false;
  ignoringErrors([&] { found = folder.exists(path); });
  return found;
}

}  // namespace

ReceiveFileFromTransferHandler::ReceiveFileFromTransferHandler() { iAppsPrefs_.refresh(); }

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

void ReceiveFileFromTransferHandler::notifyArrived() const {
  if (auto told = delegate()) {
    told->transferEndedWell();
    told->ReceiveFileNotify();
  }
}

std::string ReceiveFileFromTransferHandler::productFolderPath() const {
  return ServiceFolders::productFolder(iAppsPrefs());
}

void ReceiveFileFromTransferHandler::recFileFromTransfer(
    const std::vector<RecFileFromTransfer>& files) {
  if (files.empty()) return;
  // One pass goes through its entries at a time, in the whole process. A pass
  // started while another is still at it (an acknowledgement's notification lets
  // the cycle query again) waits, and then finds what the other acknowledged.
  static std::mutex passing;
  std::lock_guard onePass(passing);
  try {
    // kept: the application's snapshot is the one taken when this handler was
    // made (and again by an error report), not one per pass.
    {
      std::lock_guard changing(SharedFilesList::changing());
      setSharedFilesSnapshot(SharedFilesList::loadPacked(UserDefaults::standardUserDefaults()));
    }
    // kept: set once per pass, not per entry; an entry that assigns nothing
    // inherits the path of the entry before it.
    std::string workingPath;
    for (const RecFileFromTransfer& file : files) {
      if (acknowledgedLately(file.sharedFileTransferId)) {
        Log::printf("Skipped transfer %s: acknowledged a moment ago or being acknowledged",
                    Readings::formatted(file.sharedFileTransferId).c_str());
        notify();
        continue;
      }
      receive(file, workingPath);
    }
  } catch (const std::exception& exception) {
    Log::printf("Receive Files Exception: %s", exception.what());
    logErrorMethod(exception);
    notify();
  }
}

void ReceiveFileFromTransferHandler::receive(const RecFileFromTransfer& file,
                                             std::string& workingPath) {
  const EntryPlacement placement = EntryPlacement::of(
      file, sharedFilesEntries(), [this] { return productFolderPath(); }, workingPath);
  workingPath = placement.workingPath;
  if (placement.builtFromNickName) {
    // The item's folder, or the folder that is to hold it.
    const ConfinedFolder product(productFolderPath());
    const bool there = exists(product, workingPath);
    ignoringErrors([&] {
      product.createDirectories(there ? workingPath
                                      : PathNames::stringByDeletingLastPathComponent(workingPath));
    });
  }
  switch (Readings::integerValue(file.changeType)) {
    case 1:
      receiveAddition(file, workingPath);
      break;
    case 2:
      receiveRename(file, workingPath);
      break;
    case 3:
      if (file.ownerFileId) receiveDelete(file, workingPath);
      break;
    default:
      break;
  }
  // kept: a folder of an own item and an own rename are acknowledged twice.
  const long long change = Readings::integerValue(file.changeType);
  if (change == 2 || change == 3 || !Readings::boolValue(file.isFile)) {
    acknowledge(file.sharedFileTransferId);
  }
}

void ReceiveFileFromTransferHandler::receiveAddition(const RecFileFromTransfer& file,
                                                     const std::string& workingPath) {
  const SharedFilesEntries list = sharedFilesEntries();
  const Predicate::Argument ownerFileId = Readings::objectValue(file.ownerFileId);
  if (!list.positions("(OwnerFileID == %@ AND MyFile == %@)", {ownerFileId, Value("1")}).empty()) {
    // The item came from this computer: only acknowledged.
    Log::line("Connection Available......");  // kept: logged before the test
    if (NetWorkConnectionStatus::ConectionStatus()) {
      acknowledge(file.sharedFileTransferId);
    } else {
      Log::line("Connection not available....");
    }
    return;
  }
  const bool isFile = Readings::boolValue(file.isFile);
  // A file already being received, by this pass or another, waits for a later
  // cycle: the server lists it again until it is acknowledged.
  std::optional<TransferClaims::Claim> claim =
      isFile ? TransferClaims::claim({TransferClaims::downloadKey(workingPath)})
             : std::optional<TransferClaims::Claim>(TransferClaims::Claim());
  if (!claim) {
    Log::printf("Left for a later cycle: %s is being received already", workingPath.c_str());
    notify();
    return;
  }
  const std::string product = productFolderPath();
  const bool unblocked =
      !list.positions("(OwnerFileID == %@) AND (Blocked == %@)", {ownerFileId, Value("0")}).empty();
  const std::string target =
      unblocked ? ServicesUtilities::checkDuplicateAndCreate(workingPath, product) : workingPath;
  std::shared_ptr<Download> download;
  if (!target.empty()) {
    // A target that would leave the product folder is refused here, before
    // anything is fetched for it.
    ignoringErrors([&] { static_cast<void>(ConfinedFolder(product).status(target)); });
    download = prepareDownload(file, target, std::move(*claim));
    if (isFile && !download) {
      notify();
      return;
    }
  }
  if (file.isOwnerToSubscriber) savePreFerences(file, target);
  if (!isFile) {
    const ConfinedFolder folder(product);
    if (!exists(folder, target)) ignoringErrors([&] { folder.createDirectories(target); });
    // A folder that could not be made has no file number to record, and holds
    // up none of the entries after it.
    if (!Readings::isEqualToString(file.fromComputerId, file.toComputerId) &&
        exists(folder, target)) {
      updateFileID(target);
    }
  } else if (Readings::integerValue(file.fromCloud) != 1) {
    if (download) {
      saveUpdateReceiveFile(file, download);
    } else {
      notify();
    }
  } else {
    askCloud(file, download);
  }
}

std::shared_ptr<Download> ReceiveFileFromTransferHandler::prepareDownload(
    const RecFileFromTransfer& file, const std::string& target, TransferClaims::Claim claim) {
  // Only files are fetched; a folder needs no partial file.
  if (!Readings::boolValue(file.isFile)) return nullptr;
  const std::string product = productFolderPath();
  const std::string partial =
      EntryPlacement::partialPath(target, product, ServiceFolders::downloadFolder());
  std::optional<ConfinedFolder> download;
  try {
    download.emplace(ServiceFolders::openDownloadFolder());
  } catch (const std::exception& refused) {
    Log::printf("Nothing is downloaded: %s", refused.what());
    return nullptr;
  }
  ignoringErrors(
      [&] { download->createDirectories(PathNames::stringByDeletingLastPathComponent(partial)); });
  // Resumes from what an earlier attempt left.
  std::optional<struct stat> left;
  try {
    left = download->status(partial);
  } catch (const std::system_error& error) {
    // A name the file system cannot hold: nothing could be written for it.
    Log::printf("Nothing is downloaded for %s: %s", target.c_str(), error.what());
    return nullptr;
  }
  if (!claim.extend({TransferClaims::downloadKey(target), TransferClaims::downloadKey(partial)})) {
    Log::printf("Left for a later cycle: %s is being received already", target.c_str());
    return nullptr;
  }
  auto made = std::make_shared<Download>(
      Readings::integerValue(file.fromCloud) == 1 ? Download::Source::kCloud
                                                  : Download::Source::kComputer,
      partial, target, left ? static_cast<std::uint64_t>(left->st_size) : 0,
      ConfinedFolder(product), std::move(*download), std::move(claim));
  made->sharedFileTransferID = file.sharedFileTransferId;
  made->savedFileID = file.savedFileId;
  std::lock_guard lock(mutex_);
  lastDownload_ = made;
  return made;
}

void ReceiveFileFromTransferHandler::askCloud(const RecFileFromTransfer& file,
                                              std::shared_ptr<Download> download) {
  IsFileExistsInCloudQuery query;
  query.strFullPath =
      "\\" + Readings::formatted(file.fromComputerId) + Readings::formatted(file.fullPath);
  if (!NetWorkConnectionStatus::ConectionStatus()) {
    Log::line("Connection not available...");
    return;
  }
  Log::line("Connection Available......");
  RestInterface::asyncIsFileExistsInCloud(
      query, [self = shared_from_this(), file, download = std::move(download)](
                 const OperationResult<IsFileExistsInCloudResponseData>& result, int status) {
        self->reportFailures([&] { self->cloudAnswered(file, download, result, status); });
      });
}

void ReceiveFileFromTransferHandler::cloudAnswered(
    const RecFileFromTransfer& file, const std::shared_ptr<Download>& download,
    const OperationResult<IsFileExistsInCloudResponseData>& result, int status) {
  if (status != 0 || !result.record) {
    notify();
    return;
  }
  if (Readings::isEqualToText(result.record->isExists, "True")) {
    {
      std::lock_guard lock(mutex_);
      sharedFileTransferID_ = file.sharedFileTransferId;
    }
    if (download && Readings::isEqualToString(file.fromComputerId, file.toComputerId)) {
      // A copy coming back to the computer it came from goes to its own path.
      const std::string finalPath =
          productFolderPath() + "/" + EntryPlacement::local(file.fullPath);
      const std::string partial =
          ServiceFolders::downloadFolder() + "/" + EntryPlacement::local(file.fullPath);
      const ConfinedFolder product(productFolderPath());
      ignoringErrors([&] {
        product.createDirectories(PathNames::stringByDeletingLastPathComponent(finalPath));
      });
      ignoringErrors([&] {
        ServiceFolders::openDownloadFolder().createDirectories(
            PathNames::stringByDeletingLastPathComponent(partial));
      });
      if (!download->relocate(partial, finalPath)) {
        Log::printf("Left for a later cycle: %s is being received already", finalPath.c_str());
        notify();
        return;
      }
    }
    if (download) {
      saveStreamFile(file, download);
    } else {
      notify();
    }
    return;
  }
  // kept: the acknowledgement names the transfer of the last entry that reached
  // a download, not this one.
  UpdateFileReceivedQuery ack;
  {
    std::lock_guard lock(mutex_);
    ack.sharedFileTransferID = sharedFileTransferID_;
  }
  ack.isFileExists = "True";
  RestInterface::asyncUpdateFileReceived(
      ack, [self = shared_from_this()](
               const OperationResult<UpdateFileReceivedResponseData>& answer, int answerStatus) {
        self->reportFailures([&] {
          if (answerStatus != 0 || statusIsZero(answer, answerStatus)) self->notify();
        });
        Log::line("inside  updatefilereceived service *****************");
      });
}

void ReceiveFileFromTransferHandler::receiveRename(const RecFileFromTransfer& file,
                                                   const std::string& workingPath) {
  const std::string parent = PathNames::stringByDeletingLastPathComponent(workingPath);
  const std::string from =
      parent + "/" + PathNames::lastPathComponent(EntryPlacement::local(file.fullPath));
  std::string to =
      parent + "/" + PathNames::lastPathComponent(EntryPlacement::local(file.fullPathNew));
  if (!sharedFilesEntries()
           .positions("(OwnerFileID == %@ AND MyFile == %@ AND FileName == %@)",
                      {Readings::objectValue(file.ownerFileId), Value("1"), Value(to)})
           .empty()) {
    acknowledge(file.sharedFileTransferId);
    return;
  }
  const std::string product = productFolderPath();
  to = checkDuplicateAndCreate(to, product);
  const ConfinedFolder folder(product);
  ignoringErrors([&] { folder.move(from, folder, to); });
  std::lock_guard changing(SharedFilesList::changing());
  SharedFilesEntries list = sharedFilesEntries();
  // kept: the entries renamed are those of the working path, not of the old name.
  for (std::size_t position : list.positions("FileName == %@", {Value(workingPath)})) {
    list.setText(position, "FileName", to);
  }
  storeSharedFiles(list);
}

void ReceiveFileFromTransferHandler::receiveDelete(const RecFileFromTransfer& file,
                                                   const std::string& workingPath) {
  std::lock_guard changing(SharedFilesList::changing());
  SharedFilesEntries list = sharedFilesEntries();
  const char* format = Readings::isEqualToString(file.isFile, "True") ? "FileName == %@"
                                                                      : "FileName BEGINSWITH[c] %@";
  // Every entry equal to a matching one matches too: the matching ones go.
  list.erase(list.positions(format, {Value(workingPath)}));
  const ConfinedFolder folder(productFolderPath());
  if (exists(folder, workingPath)) ignoringErrors([&] { folder.remove(workingPath); });
  storeSharedFiles(list);
}

void ReceiveFileFromTransferHandler::acknowledge(const WireValue& transfer) {
  UpdateFileReceivedQuery query;
  query.sharedFileTransferID = transfer;
  query.isFileExists = "true";
  // Held while the acknowledgement is on its way, and after it as any other.
  auto sending = std::make_shared<TransferClaims::Claim>();
  if (transfer) {
    static_cast<void>(sending->extend({TransferClaims::acknowledgementKey(transfer->dump())}));
  }
  RestInterface::asyncUpdateFileReceived(
      query, [self = shared_from_this(), sending](
                 const OperationResult<UpdateFileReceivedResponseData>& result, int status) {
        self->reportFailures([&] {
          if (ReceiveFileFromTransferHandler::statusIsZero(result, status)) {
            sending->releaseOnceEarlierRepliesAreHandled();
            self->notify();
          }
        });
        sending->release();
      });
}

void ReceiveFileFromTransferHandler::acknowledged(const WireValue& transfer) {
  if (!transfer) return;
  if (auto claim = TransferClaims::claim({TransferClaims::acknowledgementKey(transfer->dump())})) {
    claim->releaseOnceEarlierRepliesAreHandled();
  }
}

bool ReceiveFileFromTransferHandler::acknowledgedLately(const WireValue& transfer) {
  return transfer && !TransferClaims::claim({TransferClaims::acknowledgementKey(transfer->dump())});
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
  // What a download's end or a server answer did to the list is given back.
  FreedMemory::giveBack();
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
  std::lock_guard changing(SharedFilesList::changing());
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  SharedFilesEntries list(SharedFilesList::loadPacked(defaults));
  Value::Dictionary entry;
  entry["OwnerFileID"] = Readings::listValue(file.ownerFileId);
  entry["UserComputerMapID"] = Readings::listValue(file.userComputerId);
  entry["FileName"] = path;
  entry["IsFile"] = Readings::listValue(file.isFile);
  entry["MyFile"] = "0";
  entry["Blocked"] = "0";
  entry["DeleteKey"] = "0";
  entry["SavedFileID"] = Readings::listValue(file.savedFileId);
  list.append(Value(std::move(entry)));
  storeSharedFiles(list);
  defaults.synchronize();
}

void ReceiveFileFromTransferHandler::updateFileID(const std::string& path) {
  struct stat attributes {};
  if (::lstat(path.c_str(), &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "no file number for " + path);
  }
  std::lock_guard changing(SharedFilesList::changing());
  SharedFilesEntries list = sharedFilesEntries();
  const std::vector<std::size_t> named = list.positions("(FileName == %@)", {Value(path)});
  if (!named.empty()) list.setText(named.front(), "FileID", std::to_string(attributes.st_ino));
  storeSharedFiles(list);
}

void ReceiveFileFromTransferHandler::clearTemp(const std::string& path) {
  const fs::path given(path);
  auto component = std::find(given.begin(), given.end(), fs::path("TallowboxTemp"));
  if (component == given.end() || std::next(component) == given.end()) {
    throw std::runtime_error("no download folder is named in " + path);
  }
  const std::string folder =
      ServiceFolders::downloadFolder() + "/" + std::next(component)->string();
  const ConfinedFolder download = ServiceFolders::openDownloadFolder();
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
    const ConfinedFolder folder(productFolderPath());
    folder.move(from, folder, to);
  } catch (const std::exception& error) {
    Log::printf("There is an Error: %s", error.what());
  }
}

void ReceiveFileFromTransferHandler::logErrorMethod(const std::exception& exception) {
  ErrorLogReport::send("ReceiveFileFromTransferHandler", "URLSession", exception,
                       iAppsPrefs_.refresh());
}

Value::Dictionary ReceiveFileFromTransferHandler::iAppsPrefs() const {
  return iAppsPrefs_.snapshot();
}

Value::Array ReceiveFileFromTransferHandler::sharedFilesDefaultsArray() const {
  PackedValue packed;
  {
    std::lock_guard lock(mutex_);
    packed = sharedFilesDefaultsArray_;
  }
  return packed.unpackedArray();
}

PackedValue ReceiveFileFromTransferHandler::setSharedFilesDefaultsArray(
    const SharedFilesEntries& list) {
  PackedValue packed = list.packed();
  setSharedFilesSnapshot(packed);
  return packed;
}

SharedFilesEntries ReceiveFileFromTransferHandler::sharedFilesEntries() const {
  std::lock_guard lock(mutex_);
  return SharedFilesEntries(sharedFilesDefaultsArray_);
}

void ReceiveFileFromTransferHandler::storeSharedFiles(const SharedFilesEntries& list) {
  SharedFilesList::storePacked(UserDefaults::standardUserDefaults(),
                               setSharedFilesDefaultsArray(list));
}

void ReceiveFileFromTransferHandler::setSharedFilesSnapshot(PackedValue list) {
  std::lock_guard lock(mutex_);
  sharedFilesDefaultsArray_ = std::move(list);
}

std::string ReceiveFileFromTransferHandler::finalPath() const {
  std::lock_guard lock(mutex_);
  return lastDownload_ ? lastDownload_->finalPath() : "";
}

std::string ReceiveFileFromTransferHandler::tempFilePath() const {
  std::lock_guard lock(mutex_);
  return lastDownload_ ? lastDownload_->partialPath() : "";
}

std::string ReceiveFileFromTransferHandler::fileLength() const {
  std::lock_guard lock(mutex_);
  return lastDownload_ ? lastDownload_->fileLength() : "0";
}
