#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/PlatformError.h"

class URLSessionTask;

// Callbacks of tasks made without a completion handler, on the session's delegate
// queue. Defaults do nothing.
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  virtual void didReceiveData(URLSessionTask& /*task*/, const std::string& /*data*/) {}
  virtual void didSendBodyData(URLSessionTask& /*task*/, std::int64_t /*bytesSent*/,
                               std::int64_t /*totalBytesSent*/,
                               std::int64_t /*totalBytesExpectedToSend*/) {}
  virtual void didCompleteWithError(URLSessionTask& /*task*/,
                                    const std::optional<PlatformError>& /*error*/) {}
};
