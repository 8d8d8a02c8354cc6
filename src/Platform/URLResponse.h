#pragma once

#include <string>
#include <utility>
#include <vector>

// What the server answered before the body: status line and headers.
struct URLResponse {
  std::string url;
  long statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;

  // "<URLResponse: <url>> { Status Code: <code> }", for log lines.
  std::string description() const {
    return "<URLResponse: " + url + "> { Status Code: " + std::to_string(statusCode) + " }";
  }
};
