#include "Platform/URLRequest.h"

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
