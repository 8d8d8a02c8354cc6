#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Value.h"

// A filter over dictionaries written in the platform's predicate format, with its
// arguments bound at creation, as in
//   Predicate("(UserComputerMapID == %@) AND (OwnerFileID == %@)", {mapId, "0"}).
// The format understands what the service's lookups use: `key == %@`,
// `key BEGINSWITH[c] %@`, AND, and parentheses, with free spacing.
//
//  - `==` is the platform's isEqual: strings compare exactly, a number never
//    equals a string, an absent key equals only an absent argument.
//  - `BEGINSWITH[c]` is a prefix test ignoring ASCII case; an absent side never
//    matches; a side that is neither a string nor absent throws ValueError.
//  - Evaluating an object that is not a dictionary throws ValueError.
// A format outside this grammar throws std::invalid_argument at creation.
class Predicate {
 public:
  using Argument = std::optional<Value>;

  Predicate(std::string_view format, std::vector<Argument> arguments);
  ~Predicate();
  Predicate(Predicate&&) noexcept;
  Predicate& operator=(Predicate&&) noexcept;

  bool evaluateWithObject(const Value& object) const;

  // The elements of `array` the predicate accepts, in order.
  Value::Array filteredArray(const Value::Array& array) const;

  struct Node;

 private:
  std::unique_ptr<Node> root_;
  std::vector<Argument> arguments_;
};
