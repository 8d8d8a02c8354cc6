#include "Platform/URLRequest.h"

#include <curl/curl.h>
#include <strings.h>

void URLRequest::setValueForHTTPHeaderField(const std::string& value, const std::string& field) {
  for (auto& [name, existing] : headers) {
    if (::strcasecmp(name.c_str(), field.c_str()) == 0) {
      existing = value;
      return;
    }
  }
  headers.emplace_back(field, value);
}

void URLRequest::addValueForHTTPHeaderField(const std::string& value, const std::string& field) {
  headers.emplace_back(field, value);
}

std::string URLRequest::valueForHTTPHeaderField(const std::string& field) const {
  for (const auto& [name, value] : headers) {
    if (::strcasecmp(name.c_str(), field.c_str()) == 0) return value;
  }
  return "";
}

bool URLRequest::isValidURL(const std::string& url) {
  CURLU* parsed = curl_url();
  CURLUcode result = curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0);
  curl_url_cleanup(parsed);
  return result == CURLUE_OK;
}
