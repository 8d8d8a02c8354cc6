#include "Services/DownloadConnection.h"

std::shared_ptr<DownloadConnection> DownloadConnection::initWithRequest(
    URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate, bool startImmediately,
    std::string tag) {
  std::shared_ptr<DownloadConnection> connection(
      new DownloadConnection(std::move(request), std::move(delegate), std::move(tag)));
  if (startImmediately) connection->start();
  return connection;
}

std::shared_ptr<DownloadConnection> DownloadConnection::initWithRequest(
    URLRequest request, std::shared_ptr<URLConnectionDelegate> delegate, std::string tag) {
  return initWithRequest(std::move(request), std::move(delegate), true, std::move(tag));
}
