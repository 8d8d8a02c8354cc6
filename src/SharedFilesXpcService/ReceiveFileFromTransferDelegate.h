#pragma once

// Told by the receive handler when its receive pass has ended.
class ReceiveFileFromTransferDelegate {
 public:
  virtual ~ReceiveFileFromTransferDelegate() = default;
  virtual void ReceiveFileNotify() = 0;
};
