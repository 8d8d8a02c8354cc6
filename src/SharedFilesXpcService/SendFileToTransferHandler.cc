#include "SharedFilesXpcService/SendFileToTransferHandler.h"

#include "Platform/UserDefaults.h"
#include "SharedFilesXpcService/ErrorLogReport.h"

void SendFileToTransferHandler::setDelegate(std::weak_ptr<SendFileToTransferDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<SendFileToTransferDelegate> SendFileToTransferHandler::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void SendFileToTransferHandler::FileToTransferMethod(const std::vector<FileToTransfer>& /*files*/) {
  if (auto told = delegate()) told->SendFileNotify();
}

void SendFileToTransferHandler::logErrorMethod(const std::exception& exception) {
  ErrorLogReport::send("SendFileToTransferHandler", "FileToTransferMethod", exception,
                       UserDefaults::persistentDomainForName("Quentara.Tallowbox"));
}
