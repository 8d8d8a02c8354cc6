#pragma once

#include <string>

#include "Platform/PlatformError.h"

class URLConnection;

// Callbacks of a connection, on the connection's own serial queue, in order:
// data as it arrives, then finished or failed, once.
class URLConnectionDelegate {
 public:
  virtual ~URLConnectionDelegate() = default;
  virtual void didReceiveData(URLConnection& /*connection*/, const std::string& /*data*/) {}
  virtual void connectionDidFinishLoading(URLConnection& /*connection*/) {}
  virtual void didFailWithError(URLConnection& /*connection*/, const PlatformError& /*error*/) {}
};
