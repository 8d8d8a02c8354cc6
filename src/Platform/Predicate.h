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
//  - `BEGINSWITH[c]` is a prefix test ignoring case as the platform does, for all
//    of Unicode (full case folding); an absent side never matches; a side that is
//    neither a string nor absent throws ValueError.
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

  // Texts that every dictionary the predicate accepts holds as values: the text
  // arguments of its `==` comparisons, all of which must hold. Empty when an
  // object without them could still be accepted, or could make evaluation throw
  // (a BEGINSWITH comparison), so that skipping it would change the outcome.
  std::vector<std::string_view> textsRequired() const;

  struct Node;

 private:
  std::unique_ptr<Node> root_;
  std::vector<Argument> arguments_;
};
