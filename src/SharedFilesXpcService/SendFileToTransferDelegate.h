#pragma once

// Told by the send handler when its send pass has ended.
class SendFileToTransferDelegate {
 public:
  virtual ~SendFileToTransferDelegate() = default;
  virtual void SendFileNotify() = 0;
};
