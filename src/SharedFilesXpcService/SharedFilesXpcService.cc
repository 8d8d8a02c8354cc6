#include "SharedFilesXpcService/SharedFilesXpcService.h"

#include <sys/stat.h>

#include <optional>
#include <system_error>

#include "Platform/ConfinedFolder.h"
#include "Platform/Environment.h"
#include "Platform/FreedMemory.h"
#include "Platform/Log.h"
#include "Platform/Readings.h"
#include "Platform/UserDefaults.h"
#include "Platform/ValueError.h"
#include "Services/JsonBody.h"
#include "Services/RestInterface.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/ErrorLogReport.h"
#include "SharedFilesXpcService/ServiceFolders.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"
#include "SharedFilesXpcService/SharedFilesIndex.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/TransferClaims.h"

namespace {

// A server value as a predicate argument: JSON null, an array or an object
// matches no entry's text.
Predicate::Argument argumentFor(const WireValue& value) { return Readings::objectValue(value); }

// The number of "/"-separated components of an entry's "FileName"; 0 without
// one, as the count of nothing is. Throws ValueError when the entry is not a
// dictionary or its "FileName" is not text.
std::size_t depthOf(const SharedFilesEntries& list, std::size_t position) {
  const std::optional<PackedValue> name = list.field(position, "FileName");
  if (!name) return 0;
  const std::optional<std::string_view> text = name->text();
  if (!text) {
    throw ValueError("a shared-files entry's FileName is a " +
                     std::string(name->unpacked().kindName()));
  }
  return static_cast<std::size_t>(std::count(text->begin(), text->end(), '/')) + 1;
}

}  // namespace

std::shared_ptr<SharedFilesXpcService> SharedFilesXpcService::create(Scheduler& scheduler) {
  return std::shared_ptr<SharedFilesXpcService>(new SharedFilesXpcService(scheduler));
}

SharedFilesXpcService::SharedFilesXpcService(Scheduler& scheduler) : scheduler_(scheduler) {}

void SharedFilesXpcService::SharedFile() {
  receiveLock_.store(false, std::memory_order_relaxed);
  sendLock_.store(false, std::memory_order_relaxed);
  startSharedFileToTransfer();
}

void SharedFilesXpcService::unLockService() {
  sendLock_.store(false, std::memory_order_relaxed);
  receiveLock_.store(false, std::memory_order_relaxed);
}

void SharedFilesXpcService::end() { ended_.store(true); }

void SharedFilesXpcService::startSharedFileToTransfer() {
  if (ended_.load()) return;
  queryWhenIdle();
  scheduler_.dispatchAfter(Environment::current()->cyclePeriod,
                           [self = shared_from_this()] { self->startSharedFileToTransfer(); });
}

void SharedFilesXpcService::queryWhenIdle() {
  iAppsPrefs_.refresh();

  if (!sendLock() && !receiveLock()) {
    movedFile_.store(false, std::memory_order_relaxed);
    sendLock_.store(true, std::memory_order_relaxed);
    receiveLock_.store(true, std::memory_order_relaxed);
    Value::Dictionary prefs = iAppsPrefs();
    GetSharedFilesTransferDataQuery query;
    query.computerId = Readings::requestValue(Value::objectForKey(prefs, "computerIdKey"));
    query.userId = Readings::requestValue(Value::objectForKey(prefs, "userIdKey"));
    auto reply = std::make_shared<TransferClaims::PendingReply>(TransferClaims::querySent());
    RestInterface::asyncGetSharedFilesTransferData(
        query,
        [self = shared_from_this(), reply](
            const OperationResult<GetSharedFilesTransferDataResponseData>& result,
            int status) mutable { self->transferDataArrived(result, status, std::move(reply)); });
  }
}

void SharedFilesXpcService::restartAfterUnreadableReply(const std::string& why) {
  Log::printf("Dropped a pending-work reply: %s", why.c_str());
  unLockService();
}

void SharedFilesXpcService::transferDataArrived(
    const OperationResult<GetSharedFilesTransferDataResponseData>& result, int status,
    std::shared_ptr<TransferClaims::PendingReply> reply) {
  if (const auto* error = std::get_if<PlatformError>(&result.transportResult);
      error != nullptr && error->domain() == RestInterface::kReplyShapeErrorDomain) {
    restartAfterUnreadableReply(error->localizedDescription());
    return;
  }
  if (status != 0 || !result.record) {
    unLockService();
    return;
  }
  const GetSharedFilesTransferDataResponseData& data = *result.record;
  try {
    // kept: a refused reply stalls the cycle until the application calls
    // SharedFile again; the timer keeps firing but sends nothing.
    if (Readings::integerValue(data.ReturnStatus) != 0) return;
  } catch (const ValueError& error) {
    restartAfterUnreadableReply(error.what());
    return;
  }
  Log::printf("owner finished %lu", static_cast<unsigned long>(data.OwnerComputersArray.size()));
  // Owners first, then folder states, both before any pass reads the list.
  // kept: their exceptions are dropped silently, and so are the send pass's; the
  // cycle goes on.
  if (!data.OwnerComputersArray.empty()) {
    try {
      ProcessOwnerComputers(data.OwnerComputersArray);
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
  }
  if (!data.SharedfoldersWithStatusArray.empty()) {
    try {
      ProcessSharedFoldersWithStatus(data.SharedfoldersWithStatusArray);
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
  }
  Log::line("finished process shared");
  // Each pass over the list gives back what it freed: the list grows by an entry
  // per file received, and so do the copies a pass makes while it runs.
  FreedMemory::giveBack();

  if (!data.fileToTransferArray.empty()) {
    scheduler_.dispatchAsync([handler = sendHandler(), files = data.fileToTransferArray] {
      try {
        handler->FileToTransferMethod(files);
      } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
      }
      FreedMemory::giveBack();
    });
  } else {
    sendLock_.store(false, std::memory_order_relaxed);
  }
  if (!data.RecFileFromTransferArray.empty()) {
    // The reply counts as handled once its entries have taken their claims.
    scheduler_.dispatchAsync([handler = receiveHandler(), files = data.RecFileFromTransferArray,
                              reply = std::move(reply)]() mutable {
      try {
        handler->recFileFromTransfer(files);
      } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
      }
      reply.reset();
      FreedMemory::giveBack();
    });
  } else {
    receiveLock_.store(false, std::memory_order_relaxed);
  }
}

std::shared_ptr<SendFileToTransferHandler> SharedFilesXpcService::sendHandler() {
  std::lock_guard lock(mutex_);
  if (!sFTHandlerObj_) {
    sFTHandlerObj_ = std::make_shared<SendFileToTransferHandler>();
    sFTHandlerObj_->setDelegate(std::weak_ptr<SendFileToTransferDelegate>(shared_from_this()));
  }
  return sFTHandlerObj_;
}

std::shared_ptr<ReceiveFileFromTransferHandler> SharedFilesXpcService::receiveHandler() {
  std::lock_guard lock(mutex_);
  if (!rFTHandlerObj_) {
    rFTHandlerObj_ = std::make_shared<ReceiveFileFromTransferHandler>();
    rFTHandlerObj_->setDelegate(std::weak_ptr<ReceiveFileFromTransferDelegate>(shared_from_this()));
  }
  return rFTHandlerObj_;
}

void SharedFilesXpcService::ProcessOwnerComputers(const std::vector<OwnerComputers>& owners) {
  Log::line("Owner Computer Process");
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  std::lock_guard changing(SharedFilesList::changing());
  SharedFilesEntries list(SharedFilesList::loadPacked(defaults));
  const Value::Dictionary prefs = iAppsPrefs();
  // Made at the first owner computer, as the first lookup over the list is.
  std::optional<SharedFilesIndex> byMapping;
  for (const OwnerComputers& owner : owners) {
    const Predicate::Argument mapId = argumentFor(owner.userComputerMapId);
    if (!byMapping) byMapping.emplace(list, "UserComputerMapID");
    const std::vector<std::size_t> ofMapping = byMapping->positions(list, mapId);
    std::vector<std::size_t> roots;
    for (std::size_t position : ofMapping) {
      const std::optional<PackedValue> ownerFileId = list.field(position, "OwnerFileID");
      if (ownerFileId && ownerFileId->text() == "0") roots.push_back(position);
    }

    // kept: every entry of the mapping one level deeper than a root entry is
    // blocked, wherever it lies; the folder states unblock the shared ones.
    for (std::size_t root : roots) {
      const std::size_t depth = depthOf(list, root);
      for (std::size_t position : ofMapping) {
        if (depthOf(list, position) == depth + 1) list.setText(position, "Blocked", "1");
      }
    }

    if (Readings::integerValue(owner.status) != 1) {
      for (std::size_t root : roots) list.setText(root, "Blocked", "1");
    } else if (!roots.empty()) {
      for (std::size_t root : roots) list.setText(root, "Blocked", "0");
    } else {
      try {
        list.append(newRootFolder(owner, prefs));
        byMapping->added(list, list.size() - 1);
      } catch (const ValueError& refused) {
        // A root entry the list could not give back exactly would never match
        // again, and every cycle would make another folder: refused before any
        // effect, this owner computer only.
        Log::printf("Refused the shared folder of owner computer %s: %s",
                    owner.userComputerMapId ? JsonBody::describe(*owner.userComputerMapId).c_str()
                                            : "(null)",
                    refused.what());
      }
    }
  }
  SharedFilesList::storePacked(defaults, setSharedFilesDefaultsArray(list));
  defaults.synchronize();
}

Value SharedFilesXpcService::newRootFolder(const OwnerComputers& owner,
                                           const Value::Dictionary& prefs) {
  const std::string productFolder = ServiceFolders::productFolder(prefs);
  const std::string wanted =
      productFolder + "/" + Readings::formatted(owner.nickName) + " (Shared)";
  Value::Dictionary entry;
  entry["OwnerFileID"] = "0";
  entry["UserComputerMapID"] = Readings::listValue(owner.userComputerMapId);
  entry["FileName"] = wanted;
  entry["IsFile"] = "0";
  entry["MyFile"] = "0";
  entry["SavedFileID"] = "";
  // kept: a new root entry holds the status as received ("1", blocked) and is
  // unblocked by the next cycle.
  entry["Blocked"] = Readings::listValue(owner.status);
  entry["DeleteKey"] = "0";

  // The product folder refuses a relative path of its own and a nick name that
  // would leave it; a link in the root folder's place is refused too, as it
  // could lead anywhere. Either ends the owner pass before anything is made in it.
  const ConfinedFolder product(productFolder);
  std::optional<struct stat> existing = product.status(wanted);
  if (existing && S_ISLNK(existing->st_mode)) {
    throw ConfinedFolder::Refused("refused a link in the place of " + wanted);
  }
  const std::string free = ServicesUtilities::checkDuplicateAndCreate(wanted, productFolder);
  if (!product.exists(free)) {
    // kept: a folder that cannot be made is ignored; the entry is recorded all
    // the same and the pass goes on.
    try {
      product.createDirectories(free);
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch)
    }
  }
  // kept: the entry names the wanted path and its file number even when a folder
  // of that name existed and the free path differs; it then names the older one.
  struct stat attributes {};
  if (::lstat(wanted.c_str(), &attributes) == 0)
    entry["FileID"] = std::to_string(attributes.st_ino);
  return Value(std::move(entry));
}

void SharedFilesXpcService::ProcessSharedFoldersWithStatus(
    const std::vector<SharedfoldersWithStatus>& folders) {
  Log::line("process shared ");
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
  setSharedFilesDefaultsArray({});
  std::lock_guard changing(SharedFilesList::changing());
  const PackedValue stored = SharedFilesList::loadPacked(defaults);
  setSharedFilesSnapshot(stored);
  // Without folder states nothing changes: the list is not unpacked for them.
  if (stored.count() == 0 || folders.empty()) return;
  SharedFilesEntries list(stored);
  // The list is stored once, after the last folder, instead of after each shared
  // one: nobody reads it in between but this pass. A failure stores what the
  // folders before it changed, as their own stores would have.
  bool changed = false;
  auto keep = [&] {
    const PackedValue packed = setSharedFilesDefaultsArray(list);
    if (changed) SharedFilesList::storePacked(defaults, packed);
  };
  try {
    std::optional<SharedFilesIndex> byOwnerFile;
    for (const SharedfoldersWithStatus& folder : folders) {
      if (!byOwnerFile) byOwnerFile.emplace(list, "OwnerFileID");
      const std::vector<std::size_t> matching =
          byOwnerFile->positions(list, argumentFor(folder.fileId));
      if (Readings::integerValue(folder.sharedStatus) != 1) continue;
      for (std::size_t position : matching) list.setText(position, "Blocked", "0");
      changed = true;
    }
  } catch (...) {
    keep();
    throw;
  }
  keep();
}

void SharedFilesXpcService::logErrorMethod(const std::exception& exception) {
  ErrorLogReport::send("SharedFilesXpcService", "URLSession", exception, iAppsPrefs_.refresh());
}

void SharedFilesXpcService::SendFileNotify() {
  sendLock_.store(false, std::memory_order_relaxed);
  passEnded();
}

void SharedFilesXpcService::ReceiveFileNotify() {
  receiveLock_.store(false, std::memory_order_relaxed);
  passEnded();
}

void SharedFilesXpcService::transferEndedWell() {
  movedFile_.store(true, std::memory_order_relaxed);
}

void SharedFilesXpcService::passEnded() {
  if (sendLock() || receiveLock() || !movedFile_.exchange(false)) return;
  if (stepPending_.exchange(true)) return;
  // Ten a second at most: a server that lists the same file for ever is asked
  // no more often than that.
  constexpr std::chrono::milliseconds kSpacing{100};
  std::chrono::nanoseconds wait{0};
  {
    std::lock_guard lock(mutex_);
    const auto since = std::chrono::steady_clock::now() - lastEarnedStep_;
    if (since < kSpacing) wait = kSpacing - since;
  }
  scheduler_.dispatchAfter(wait, [self = shared_from_this()] {
    {
      std::lock_guard lock(self->mutex_);
      self->lastEarnedStep_ = std::chrono::steady_clock::now();
    }
    self->stepPending_.store(false);
    if (!self->ended_.load()) self->queryWhenIdle();
  });
}

Value::Dictionary SharedFilesXpcService::iAppsPrefs() const { return iAppsPrefs_.snapshot(); }

Value::Array SharedFilesXpcService::sharedFilesDefaultsArray() const {
  PackedValue packed;
  {
    std::lock_guard lock(mutex_);
    packed = sharedFilesDefaultsArray_;
  }
  return packed.unpackedArray();
}

PackedValue SharedFilesXpcService::setSharedFilesDefaultsArray(const SharedFilesEntries& list) {
  PackedValue packed = list.packed();
  setSharedFilesSnapshot(packed);
  return packed;
}

void SharedFilesXpcService::setSharedFilesSnapshot(PackedValue array) {
  std::lock_guard lock(mutex_);
  sharedFilesDefaultsArray_ = std::move(array);
}
