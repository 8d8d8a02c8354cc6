#pragma once

#include <cstdio>
#include <string>

// The SHA-256 of the file at `path` as sha256sum prints it: an independent
// measure of what the service and the reference server hold.
inline std::string sha256Of(const std::string& path) {
  std::string command = "sha256sum '" + path + "'";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string sum(64, '\0');
  sum.resize(pipe == nullptr ? 0 : std::fread(sum.data(), 1, sum.size(), pipe));
  if (pipe != nullptr) ::pclose(pipe);
  return sum;
}
