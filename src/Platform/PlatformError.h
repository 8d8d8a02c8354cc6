#pragma once

#include <string>

// An error object as the platform hands it to completion handlers: a domain, a
// code and a description. URL errors use the domain "NSURLErrorDomain" with the
// platform's codes, named below.
class PlatformError {
 public:
  static constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
  static constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";

  // The platform's URL error codes that transfers here produce.
  static constexpr long kUnknown = -1;  // only an internal failure of the engine
  static constexpr long kCancelled = -999;
  static constexpr long kBadURL = -1000;
  static constexpr long kTimedOut = -1001;
  static constexpr long kUnsupportedURL = -1002;
  static constexpr long kCannotFindHost = -1003;
  static constexpr long kCannotConnectToHost = -1004;
  static constexpr long kNetworkConnectionLost = -1005;
  static constexpr long kHTTPTooManyRedirects = -1007;
  static constexpr long kBadServerResponse = -1011;
  static constexpr long kFileDoesNotExist = -1100;
  static constexpr long kDataLengthExceedsMaximum = -1103;
  static constexpr long kSecureConnectionFailed = -1200;
  static constexpr long kServerCertificateUntrusted = -1202;
  static constexpr long kCannotCreateFile = -3000;
  static constexpr long kCannotWriteToFile = -3003;

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
