#pragma once

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/Readings.h"
#include "Platform/URLConnectionDelegate.h"
#include "Platform/URLSessionDelegate.h"
#include "Platform/Value.h"
#include "Services/OperationResult.h"
#include "Services/Records/IsFileExistsInCloudResponseData.h"
#include "Services/Records/RecFileFromTransfer.h"
#include "SharedFilesXpcService/ApplicationPreferences.h"
#include "SharedFilesXpcService/Download.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferDelegate.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"
#include "SharedFilesXpcService/TransferClaims.h"

// Receives the files the server has for this computer and places them in the
// product folder, recording each in the shared-files list. One handler per
// service object, made when a reply first lists files to receive, and kept.
//
// A receive pass walks the entries in order: it works out each item's local path
// (EntryPlacement), makes folders, renames, moves and deletes items, keeps the
// list in step, starts downloads and acknowledges what it handled. Each file
// entry that reaches its download step gets a Download of its own, so several
// may run at once without one file's bytes reaching another's partial file; a
// file already being received anywhere in the process waits for a later cycle.
// A download is flushed and moved into place without replacing anything, and
// only then acknowledged. Every write goes through the two confined folders; a
// path that would leave them ends the pass by its guard. Other file-system
// errors are ignored, except that a finished file that cannot be placed is not
// acknowledged, so that a later cycle places it.
class ReceiveFileFromTransferHandler
    : public URLSessionDelegate,
      public URLConnectionDelegate,
      public std::enable_shared_from_this<ReceiveFileFromTransferHandler> {
 public:
  // Takes its snapshot of the application's preferences.
  ReceiveFileFromTransferHandler();

  void setDelegate(std::weak_ptr<ReceiveFileFromTransferDelegate> delegate);

  // One receive pass over `files`, under one guard: an exception ends the pass,
  // is logged and reported, and notifies. An empty list notifies nobody.
  void recFileFromTransfer(const std::vector<RecFileFromTransfer>& files);

  // The two downloads of `download`: from the cloud (started on the
  // default-priority queue) and from another computer (on the calling thread).
  void saveStreamFile(const RecFileFromTransfer& file, std::shared_ptr<Download> download);
  void saveUpdateReceiveFile(const RecFileFromTransfer& file, std::shared_ptr<Download> download);
  // Acknowledges `file` (its completion only logs); no flow calls it.
  void updateReceivedCall(const RecFileFromTransfer& file);

  // A free path for an item being moved to `path`: the path itself when free,
  // otherwise "<tallowboxPath>/<name> <n>" for the first free n, where name is the
  // wanted name without its extension. Nothing is copied.
  std::string checkDuplicateAndCreate(const std::string& path, const std::string& tallowboxPath);
  // Appends the list entry of a received item placed at `path` and stores the list.
  // Throws ValueError when a value the entry needs is absent or of a kind a list
  // cannot hold.
  void savePreFerences(const RecFileFromTransfer& file, const std::string& path);
  // Records the file number of the item at `path` in the first entry of the
  // handler's list naming that path and stores the list. Throws
  // std::system_error when there is no such item.
  void updateFileID(const std::string& path);
  // Empties the download folder named by the component after "TallowboxTemp" in
  // `path`. Throws std::runtime_error when `path` names none.
  void clearTemp(const std::string& path);
  // Moves `name` to `toName`, both below the documents folder, within the
  // service's own folders only; failures are logged.
  void renameFileWithName(const std::string& name, const std::string& toName);

  // Reports `exception` to the server's error log as this handler's receive pass.
  void logErrorMethod(const std::exception& exception);

  Value::Dictionary iAppsPrefs() const;
  Value::Array sharedFilesDefaultsArray() const;
  // The paths and resume length of the download made last ("" and "0" before any).
  std::string finalPath() const;
  std::string tempFilePath() const;
  std::string fileLength() const;

  // A download's session callbacks, on the session's own serial queue.
  void didReceiveData(URLSessionTask& task, const std::string& data) override;
  void didCompleteWithError(URLSessionTask& task,
                            const std::optional<PlatformError>& error) override;
  // A download's connection callbacks, on the connection's own queue.
  void didReceiveData(URLConnection& connection, const std::string& data) override;
  void connectionDidFinishLoading(URLConnection& connection) override;
  void didFailWithError(URLConnection& connection, const PlatformError& error) override;

 private:
  // Whether a server answer came with status 0 and a "ReturnStatus" of 0. Throws
  // ValueError when "ReturnStatus" holds no integer value.
  template <class Record>
  static bool statusIsZero(const OperationResult<Record>& result, int status) {
    return status == 0 && result.record && Readings::integerValue(result.record->ReturnStatus) == 0;
  }

  void notify() const;
  // Notifies after a file was placed and acknowledged.
  void notifyArrived() const;
  std::shared_ptr<ReceiveFileFromTransferDelegate> delegate() const;
  // Keeps `list` as the snapshot, and gives it back packed.
  PackedValue setSharedFilesDefaultsArray(const SharedFilesEntries& list);
  // The same for a list already packed.
  void setSharedFilesSnapshot(PackedValue list);
  // The snapshot's entries, read in place.
  SharedFilesEntries sharedFilesEntries() const;
  // Keeps `list` as the snapshot and stores it as the shared-files list.
  void storeSharedFiles(const SharedFilesEntries& list);
  std::string productFolderPath() const;

  // One entry of a pass; `workingPath` carries over from the entry before.
  void receive(const RecFileFromTransfer& file, std::string& workingPath);
  // The steps of an added or changed item, a rename and a delete.
  void receiveAddition(const RecFileFromTransfer& file, const std::string& workingPath);
  void receiveRename(const RecFileFromTransfer& file, const std::string& workingPath);
  void receiveDelete(const RecFileFromTransfer& file, const std::string& workingPath);
  // The download of a file entry bound for `target`, made in the download
  // folder; nullptr (logged) when another download holds its paths or the
  // download folder is refused.
  std::shared_ptr<Download> prepareDownload(const RecFileFromTransfer& file,
                                            const std::string& target, TransferClaims::Claim claim);
  // Asks the cloud whether it has `file`, then fetches it.
  void askCloud(const RecFileFromTransfer& file, std::shared_ptr<Download> download);
  void cloudAnswered(const RecFileFromTransfer& file, const std::shared_ptr<Download>& download,
                     const OperationResult<IsFileExistsInCloudResponseData>& result, int status);
  // Sends UpdateFileReceived for `transfer`; ReturnStatus 0 notifies. Until the
  // answer comes, and after a good one as `acknowledged` says, its entry is
  // skipped.
  void acknowledge(const WireValue& transfer);
  // The server has taken `transfer` as received. A reply already on its way may
  // list it still; its entry is skipped until every such reply is handled, as
  // its steps would otherwise run twice (a second delete finds no entry and
  // takes the path of the entry before it).
  static void acknowledged(const WireValue& transfer);
  // Whether `transfer` is being acknowledged, or was so lately that a reply may
  // list it still.
  static bool acknowledgedLately(const WireValue& transfer);

  void startAsyncDownloadWithStreamRequest(const std::string& url, const std::string& postData,
                                           std::shared_ptr<Download> download);
  // The download of a running task or connection; `take` forgets it.
  std::shared_ptr<Download> running(const void* transfer, bool take = false);
  // A chunk of the answer, appended to the partial file; false when it failed.
  bool chunkArrived(Download& download, const std::string& data);
  void finished(const std::shared_ptr<Download>& download);
  void failed(const std::shared_ptr<Download>& download, const PlatformError& error);
  // Runs `work` outside the pass (a download's end, a server answer); what it
  // throws is reported to the server, as the pass's guard would.
  void reportFailures(const std::function<void()>& work);

  ApplicationPreferences iAppsPrefs_;  // guards itself
  mutable std::mutex mutex_;           // guards the members below
  std::weak_ptr<ReceiveFileFromTransferDelegate> delegate_;
  // The pass's snapshot of the list, packed: it is held between passes.
  PackedValue sharedFilesDefaultsArray_;
  // The last download made, for finalPath(), tempFilePath() and fileLength().
  std::shared_ptr<const Download> lastDownload_;
  // The transfer of the last cloud entry that reached its download.
  WireValue sharedFileTransferID_;
  // Downloads in flight, by their task or connection.
  std::map<const void*, std::shared_ptr<Download>> running_;
};
