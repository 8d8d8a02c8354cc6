#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/InputStream.h"

// One HTTP request. Headers go out as given and in the given order.
struct URLRequest {
  using Headers = std::vector<std::pair<std::string, std::string>>;

  std::string url;
  std::string httpMethod = "GET";
  Headers headers;
  std::string httpBody;
  // A streamed body, sent chunked with no Content-Length (instead of httpBody).
  std::shared_ptr<InputStream> httpBodyStream;
  // Seconds without a byte before the request times out.
  double timeoutInterval = 60;
  // A final answer outside 200-299 fails the task with -1011, and none of its body is handed on.
  bool requiresSuccessfulStatus = false;

  // Replaces the value of `field` (added at the end when new).
  void setValueForHTTPHeaderField(const std::string& value, const std::string& field);
  // Appends another `field` line.
  void addValueForHTTPHeaderField(const std::string& value, const std::string& field);
  // The first value of `field` (case-insensitive name), or "".
  std::string valueForHTTPHeaderField(const std::string& field) const;

  // Whether `url` parses as a URL.
  static bool isValidURL(const std::string& url);
};
