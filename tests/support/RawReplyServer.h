#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// A loopback peer that answers every connection with fixed bytes, whatever was
// asked, then closes it: for replies no HTTP server would send.
class RawReplyServer {
 public:
  RawReplyServer();
  ~RawReplyServer();
  RawReplyServer(const RawReplyServer&) = delete;
  RawReplyServer& operator=(const RawReplyServer&) = delete;

  // What the next connections get.
  void setReply(std::string bytes);
  std::string baseURL() const;

 private:
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;  // guards reply_
  std::shared_ptr<const std::string> reply_ = std::make_shared<const std::string>();
  std::thread thread_;
};
