#pragma once

// Told by the send handler when its send pass has ended.
class SendFileToTransferDelegate {
 public:
  virtual ~SendFileToTransferDelegate() = default;
  virtual void SendFileNotify() = 0;
  // Told just before the notification of an upload the server accepted.
  virtual void transferEndedWell() {}
};
