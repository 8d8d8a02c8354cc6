#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Value.h"
#include "Services/Records/RecFileFromTransfer.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferDelegate.h"

// Receives the files the server has for this computer and places them in the
// product folder, recording each in the shared-files list. One handler per
// service object, made when a reply first lists files to receive.
class ReceiveFileFromTransferHandler {
 public:
  // Takes its snapshot of the application's preferences.
  ReceiveFileFromTransferHandler();

  void setDelegate(std::weak_ptr<ReceiveFileFromTransferDelegate> delegate);

  // One receive pass over `files`; tells the delegate when it has ended. The pass
  // itself is not built yet: it ends at once, receiving nothing, so the cycle goes on.
  void recFileFromTransfer(const std::vector<RecFileFromTransfer>& files);

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

 private:
  std::shared_ptr<ReceiveFileFromTransferDelegate> delegate() const;
  void setIAppsPrefs(Value::Dictionary prefs);
  void setSharedFilesDefaultsArray(Value::Array list);

  mutable std::mutex mutex_;  // guards the members below
  std::weak_ptr<ReceiveFileFromTransferDelegate> delegate_;
  Value::Dictionary iAppsPrefs_;
  Value::Array sharedFilesDefaultsArray_;
};
