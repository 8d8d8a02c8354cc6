#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Readings.h"
#include "Platform/URLConnectionDelegate.h"
#include "Platform/URLSessionDelegate.h"
#include "Platform/Value.h"
#include "Services/OperationResult.h"
#include "Services/Records/RecFileFromTransfer.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferDelegate.h"

class ConfinedFolder;

// Receives the files the server has for this computer and places them in the
// product folder, recording each in the shared-files list. One handler per
// service object, made when a reply first lists files to receive, and kept.
//
// A receive pass walks the entries in order: it works out each item's local path,
// makes folders, renames, moves and deletes items, keeps the list in step,
// starts downloads and acknowledges what it handled. A download streams its
// bytes into a partial file under the download folder, is flushed and moved
// into place without replacing anything, and is then acknowledged. Every write
// goes through the two confined folders; a path that would leave them ends the
// pass by its guard. The download state below is one set, overwritten by each
// file entry: one download is in flight at a time, as the cycle waits for it.
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

  // The two downloads: from the cloud (started on the default-priority queue)
  // and from another computer (on the calling thread).
  void saveStreamFile(const RecFileFromTransfer& file);
  void saveUpdateReceiveFile(const RecFileFromTransfer& file);
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
  // Records the file number of the item at `path` in the first entry naming that
  // path and stores the list. Throws std::system_error when there is no such item.
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
  // Whether a server answer came with status 0 and a "ReturnStatus" of 0.
  template <class Record>
  static bool statusIsZero(const OperationResult<Record>& result, int status) {
    return status == 0 && result.record && Readings::integerValue(result.record->ReturnStatus) == 0;
  }

  void notify() const;
  bool checkTaskIs(const char* task) const;
  std::shared_ptr<ReceiveFileFromTransferDelegate> delegate() const;
  void setIAppsPrefs(Value::Dictionary prefs);
  void setSharedFilesDefaultsArray(Value::Array list);
  // One entry of a pass; `workingPath` carries over from the entry before.
  void receive(const RecFileFromTransfer& file, std::string& workingPath);
  // Sends UpdateFileReceived for `transfer`; ReturnStatus 0 notifies.
  void acknowledge(const WireValue& transfer);
  void startAsyncDownloadWithStreamRequest(const std::string& url, const std::string& postData);
  // A chunk of the answer, appended to the partial file; false when it failed.
  bool chunkArrived(const std::string& data);
  void finished();
  void failed(const PlatformError& error);
  // Runs `work` outside the pass (a download's end, a server answer); what it
  // throws is reported to the server, as the pass's guard would.
  void reportFailures(const std::function<void()>& work);

  // The two folders every write goes through, for the current preferences.
  ConfinedFolder productFolder() const;
  static ConfinedFolder downloadFolder();

  mutable std::mutex mutex_;  // guards the members below
  std::weak_ptr<ReceiveFileFromTransferDelegate> delegate_;
  Value::Dictionary iAppsPrefs_;
  Value::Array sharedFilesDefaultsArray_;
  std::string checkTask_;
  std::string finalPath_;
  std::string tempFilePath_;
  std::string fileLength_ = "0";
  WireValue sharedFileTransferID_;
  WireValue savedfileId_;
  std::optional<std::string> isFileExists_;
  std::shared_ptr<URLSessionTask> task_;  // the session download in flight
};
