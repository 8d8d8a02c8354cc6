#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/InputStream.h"

// What the engine keeps for one running transfer of a URLSessionTask. Only the
// engine thread touches it; only the engine and the task's destructor see this
// header, so libcurl stays out of every other one.
struct CurlTransfer {
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  std::string received;      // the answer so far, for tasks with a completion handler
  std::string downloadPath;  // download tasks: the temporary file
  int downloadFd = -1;
  std::shared_ptr<InputStream> body;
  std::int64_t bodyLength = -1;  // -1 for a stream, whose length is known at its end
  // Body bytes handed to libcurl, those gone to the connection, those the delegate
  // was told of, and whether the whole body has gone.
  std::int64_t bodyRead = 0;
  std::int64_t bodyGone = 0;
  std::int64_t bodyReported = 0;
  bool bodyEnded = false;
  // Header fields of the answer being received (a new one after an interim answer
  // or a redirect starts afresh).
  std::vector<std::pair<std::string, std::string>> headers;
  std::string hostKey;  // scheme, host and port: what the per-host limit counts
  std::chrono::milliseconds requestTimeout{60000};
  std::chrono::steady_clock::time_point lastActivity;
  curl_off_t bytesMoved = 0;
  // Data for a delegate not yet handed over, gathered into pieces; when its first
  // byte and the latest arrived, and whether the transfer is paused because the
  // delegate's queue holds enough.
  std::string pending;
  std::chrono::steady_clock::time_point pendingSince;
  std::chrono::steady_clock::time_point lastArrival;
  bool heldForDelegate = false;
  // Who sees the header block sent (tests), as the environment named it.
  std::function<void(const std::string& url, const std::string& block)> sentHeaders;
  bool timedOut = false;
  bool answerTooLong = false;
  // The status of an answer refused before its body was handed on (the request
  // requires a successful one).
  std::optional<long> refusedStatus;
};
