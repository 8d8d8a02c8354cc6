#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

// Settings shared by every task of a session. Unset values are the platform's
// defaults: request time-out 60 s, resource time-out 7 days, 6 connections per host
// (the engine's limit across all sessions). A session's own limit holds its later
// tasks back until one of its transfers to the same host ends.
struct URLSessionConfiguration {
  std::vector<std::pair<std::string, std::string>> HTTPAdditionalHeaders;
  std::optional<double> timeoutIntervalForRequest;
  std::optional<double> timeoutIntervalForResource;
  std::optional<int> HTTPMaximumConnectionsPerHost;
  std::optional<bool> allowsCellularAccess;  // no cellular networks here; kept as set

  static URLSessionConfiguration defaultSessionConfiguration() { return {}; }
};
