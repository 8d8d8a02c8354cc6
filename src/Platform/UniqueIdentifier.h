#pragma once

#include <string>

#include "Platform/Value.h"

// Universally unique identifiers (libuuid): new random ones, and their canonical
// text, upper-case as the platform writes them ("68753A44-4D6F-1226-9C60-0050E4C00067").
class UniqueIdentifier {
 public:
  static Value::Uuid random();
  static std::string canonicalString(const Value::Uuid& uuid);
};
