#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/PackedValue.h"
#include "Platform/Value.h"

// Property-list encoding of values. Reads XML and binary property lists
// (libplist); writes XML of its own, in the layout libplist gives it.
class PropertyList {
 public:
  // The deepest nesting of arrays and dictionaries read. A preference suite
  // needs four levels; anything past this bound is read as no property list.
  static constexpr int kMaximumDepth = 128;

  // The value held by `bytes`, or nullopt when they are not a property list or
  // nest deeper than kMaximumDepth.
  static std::optional<Value> parse(std::string_view bytes);
  // Whether `bytes` nest no deeper than kMaximumDepth, measured without
  // recursion and in time that grows with their length only.
  static bool withinDepth(std::string_view bytes);
  // The XML property list of `value`. Throws ValueError for kinds a property list
  // cannot hold (file handles, UUIDs, null).
  static std::string xml(const Value& value);
  // The same for a dictionary of packed values, without unpacking them.
  static std::string xml(const PackedValue::Dictionary& dictionary);
};
