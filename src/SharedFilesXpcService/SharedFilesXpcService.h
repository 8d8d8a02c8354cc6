#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "Platform/DispatchQueues.h"
#include "Platform/PackedValue.h"
#include "Platform/Value.h"
#include "Services/OperationResult.h"
#include "Services/Records/GetSharedFilesTransferDataResponseData.h"
#include "Services/Records/OwnerComputers.h"
#include "Services/Records/SharedfoldersWithStatus.h"
#include "SharedFilesXpcService/ApplicationPreferences.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferDelegate.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"
#include "SharedFilesXpcService/SendFileToTransferDelegate.h"
#include "SharedFilesXpcService/SendFileToTransferHandler.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"
#include "SharedFilesXpcService/SharedFilesXpcServiceProtocol.h"
#include "SharedFilesXpcService/TransferClaims.h"

// The service object of one calling peer. It owns that peer's transfer cycle: a
// step every two seconds that asks the server what is pending when no send or
// receive pass is in flight, and the two pass flags that say so.
//
// Each scheduled step holds the object, so it lives as long as a cycle it started.
// Every `SharedFile` starts one more independent cycle chain on the same object.
//
// The pass flags are written from the bus thread, the background queue, the main
// operation queue and the handlers' threads without a lock; a stale read only
// delays work by one step.
class SharedFilesXpcService : public SharedFilesXpcServiceProtocol,
                              public SendFileToTransferDelegate,
                              public ReceiveFileFromTransferDelegate,
                              public std::enable_shared_from_this<SharedFilesXpcService> {
 public:
  // Cycle steps run on `scheduler`'s background queue.
  static std::shared_ptr<SharedFilesXpcService> create(
      Scheduler& scheduler = DispatchQueues::shared());

  // Clears both pass flags and runs a cycle step, which schedules the next.
  void SharedFile() override;
  // Clears both pass flags (the server query failed).
  void unLockService();
  // The peer that asked for this object has left: its cycle steps stop at their
  // next step, and a step it earned never runs. Work in flight finishes first.
  void end();
  bool hasEnded() const { return ended_.load(); }
  // One step of the cycle; always schedules the next one a cycle period (two
  // seconds, Environment::cyclePeriod) later.
  // When neither pass flag is set it sets both and asks the server what is
  // pending; the reply's owner computers and folder states are processed at once,
  // its files to send and receive are handed to the two handlers' passes, and
  // each flag is cleared when its pass ends (at once when there is no work of
  // its kind). A failed query clears both flags; a reply the server refused
  // ("ReturnStatus" other than 0) leaves both set until the next `SharedFile`.
  void startSharedFileToTransfer();

  // Keeps one root folder ("<nick name> (Shared)" in the product folder) and one
  // root entry in the shared-files list per owner computer whose share is
  // active, and marks root entries and their first-level children blocked or
  // unblocked by the owners' status. Throws on values it cannot read, or on a
  // folder that would lie outside the product folder; the list is then not stored.
  void ProcessOwnerComputers(const std::vector<OwnerComputers>& owners);
  // Unblocks the list entries of every folder whose shared status is 1, and
  // stores the list when one had.
  void ProcessSharedFoldersWithStatus(const std::vector<SharedfoldersWithStatus>& folders);

  // What replaces a crash. Where a reply cannot be handled at all (its
  // "ReturnStatus" has no integer value, or it is not of its operation's shape),
  // the platform would have ended the process, and the application's next call
  // would have found both pass flags clear in a new one. The service instead
  // clears both flags itself, as if started again, and says why in one log
  // line; the next step queries afresh.
  void restartAfterUnreadableReply(const std::string& why);

  // Reports `exception` to the server's error log as the service's own.
  void logErrorMethod(const std::exception& exception);

  void SendFileNotify() override;
  void ReceiveFileNotify() override;
  // A file was sent or received. When the notification that follows leaves both
  // flags clear, one more step runs at once instead of at the next tick: the
  // server lists one file per reply, and a folder of small files would otherwise
  // move one file a period. At most one such step is pending, they start at
  // most ten times a second, and they obey the same flag test as every step;
  // failures never earn one, and the timer chains are untouched.
  void transferEndedWell() override;

  bool sendLock() const { return sendLock_.load(std::memory_order_relaxed); }
  bool receiveLock() const { return receiveLock_.load(std::memory_order_relaxed); }

  // The last snapshot of the application's preference suite.
  Value::Dictionary iAppsPrefs() const;

  Value::Array sharedFilesDefaultsArray() const;
  // Keeps `list` as the snapshot, and gives it back packed.
  PackedValue setSharedFilesDefaultsArray(const SharedFilesEntries& list);
  // The same for a list already packed.
  void setSharedFilesSnapshot(PackedValue array);

 private:
  explicit SharedFilesXpcService(Scheduler& scheduler);

  // The step's work: the query, when neither flag is set.
  void queryWhenIdle();
  // After a notification: the step a moved file earned, when both flags are clear.
  void passEnded();
  // The completion of the pending-work query; `reply` is handled when the receive
  // pass it starts has taken its claims, or at once.
  void transferDataArrived(const OperationResult<GetSharedFilesTransferDataResponseData>& result,
                           int status, std::shared_ptr<TransferClaims::PendingReply> reply);
  // Makes the root folder of `owner` and returns its new list entry. Throws
  // ValueError, before making anything, when the entry would not be kept exactly.
  static Value newRootFolder(const OwnerComputers& owner, const Value::Dictionary& prefs);
  std::shared_ptr<SendFileToTransferHandler> sendHandler();
  std::shared_ptr<ReceiveFileFromTransferHandler> receiveHandler();

  Scheduler& scheduler_;

  ApplicationPreferences iAppsPrefs_;  // guards itself
  mutable std::mutex mutex_;           // guards the members below
  // The list as the last owner or folder pass left it, packed: it is held
  // between passes.
  PackedValue sharedFilesDefaultsArray_;
  std::shared_ptr<SendFileToTransferHandler> sFTHandlerObj_;
  std::shared_ptr<ReceiveFileFromTransferHandler> rFTHandlerObj_;

  std::atomic<bool> receiveLock_{false};
  std::atomic<bool> sendLock_{false};
  // A file moved since the last query, and a step it earned is pending.
  std::atomic<bool> movedFile_{false};
  std::atomic<bool> stepPending_{false};
  std::atomic<bool> ended_{false};
  std::chrono::steady_clock::time_point lastEarnedStep_;  // guarded by mutex_
};
