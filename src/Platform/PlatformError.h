#pragma once

#include <string>

// An error object as the platform hands it to completion handlers: a domain, a
// code and a description. URL errors use the domain "NSURLErrorDomain" with the
// platform's codes (-1001 timed out, -1004 cannot connect, -999 cancelled, ...).
class PlatformError {
 public:
  static constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
  static constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";

  PlatformError(std::string domain, long code, std::string localizedDescription)
      : domain_(std::move(domain)), code_(code), description_(std::move(localizedDescription)) {}

  const std::string& domain() const { return domain_; }
  long code() const { return code_; }
  const std::string& localizedDescription() const { return description_; }
  // "Error Domain=<domain> Code=<code> \"<description>\"", as the platform prints it.
  std::string description() const {
    return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + description_ +
           "\"";
  }

 private:
  std::string domain_;
  long code_;
  std::string description_;
};
