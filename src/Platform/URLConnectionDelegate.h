#pragma once

#include <cstdint>
#include <string>

#include "Platform/PlatformError.h"

class URLConnection;

// Callbacks of a connection, on the connection's own serial queue, in order:
// data as it arrives, then finished or failed, once.
class URLConnectionDelegate {
 public:
  virtual ~URLConnectionDelegate() = default;
  virtual void didReceiveData(URLConnection& /*connection*/, const std::string& /*data*/) {}
  virtual void didSendBodyData(URLConnection& /*connection*/, std::int64_t /*bytesWritten*/,
                               std::int64_t /*totalBytesWritten*/,
                               std::int64_t /*totalBytesExpectedToWrite*/) {}
  virtual void connectionDidFinishLoading(URLConnection& /*connection*/) {}
  virtual void didFailWithError(URLConnection& /*connection*/, const PlatformError& /*error*/) {}
};
