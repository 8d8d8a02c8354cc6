#pragma once

#include <memory>
#include <string>

#include "Platform/URLConnection.h"

// A connection that carries a tag, so that one delegate can tell its downloads
// apart.
class DownloadConnection : public URLConnection {
 public:
  static std::shared_ptr<DownloadConnection> initWithRequest(
      URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate, bool startImmediately,
      std::string tag);
  // Started at once.
  static std::shared_ptr<DownloadConnection> initWithRequest(
      URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate, std::string tag);

  const std::string& tag() const { return tag_; }

 private:
  DownloadConnection(URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate,
                     std::string tag)
      : URLConnection(std::move(request), std::move(delegate)), tag_(std::move(tag)) {}

  std::string tag_;
};
