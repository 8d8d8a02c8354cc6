#pragma once

// Told by the receive handler when its receive pass has ended.
class ReceiveFileFromTransferDelegate {
 public:
  virtual ~ReceiveFileFromTransferDelegate() = default;
  virtual void ReceiveFileNotify() = 0;
  // Told just before the notification of a download placed and acknowledged.
  virtual void transferEndedWell() {}
};
