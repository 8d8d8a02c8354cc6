#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Value.h"

// Property-list encoding of values (libplist). Reads XML and binary property
// lists; writes XML.
class PropertyList {
 public:
  // The value held by `bytes`, or nullopt when they are not a property list.
  static std::optional<Value> parse(std::string_view bytes);
  // The XML property list of `value`. Throws ValueError for kinds a property list
  // cannot hold (file handles, UUIDs).
  static std::string xml(const Value& value);
};
