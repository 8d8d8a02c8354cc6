#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "Services/Records/FileToTransfer.h"
#include "SharedFilesXpcService/SendFileToTransferDelegate.h"

// Sends the files the server asks this computer for. One handler per service
// object, made when a reply first lists files to send.
class SendFileToTransferHandler {
 public:
  void setDelegate(std::weak_ptr<SendFileToTransferDelegate> delegate);

  // One send pass over `files`; tells the delegate when it has ended. The pass
  // itself is not built yet: it ends at once, sending nothing, so the cycle goes on.
  void FileToTransferMethod(const std::vector<FileToTransfer>& files);

  // Reports `exception` to the server's error log as this handler's send pass.
  void logErrorMethod(const std::exception& exception);

 private:
  std::shared_ptr<SendFileToTransferDelegate> delegate() const;

  mutable std::mutex mutex_;  // guards the member below
  std::weak_ptr<SendFileToTransferDelegate> delegate_;
};
