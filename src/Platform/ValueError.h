#pragma once

#include <stdexcept>
#include <string>

// Raised where a value is used in a way its kind does not allow: an array asked
// for an integer, an index past the end, a lookup in something that is not a
// dictionary. Every pass catches it at its own edge; it never ends the process.
class ValueError : public std::runtime_error {
 public:
  explicit ValueError(const std::string& reason) : std::runtime_error(reason) {}
};
