// Feeds an arbitrary format and arbitrary arguments to the predicate filter, and
// evaluates what it reads over a small list of shared-file entries.
//
// The input is the format, then, after a NUL, the arguments, one per
// NUL-separated piece, each kind by its first character: "@text" a string,
// "#123" an integer, "?1" a boolean, ".2.5" a real, "-" or nothing absent, and
// anything else data.
//
// Creation must give a predicate or throw std::invalid_argument, and a format
// reads with one count of arguments only; evaluation must give an answer or throw
// ValueError, always ValueError for something that is not a dictionary; the
// filtered list must be the entries evaluation accepts, in order, and the same
// lookup over the list kept packed must find the same. Anything else
// (a crash, another exception, undefined behaviour) is a finding.
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/Predicate.h"
#include "Platform/ValueError.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"

namespace {

constexpr const char* kKeys[] = {"OwnerFileID", "UserComputerMapID", "Blocked",
                                 "MyFile",      "FileName",          "FileIDKey"};

Predicate::Argument argumentOf(std::string_view piece) {
  if (piece.empty() || piece == "-") return std::nullopt;
  const std::string_view rest = piece.substr(1);
  switch (piece.front()) {
    case '@':
      return Value(rest);
    case '#': {
      std::int64_t number = 0;
      std::from_chars(rest.data(), rest.data() + rest.size(), number);
      return Value::integer(number);
    }
    case '?':
      return Value::boolean(rest == "1");
    case '.': {
      double number = 0;
      std::from_chars(rest.data(), rest.data() + rest.size(), number);
      return Value::real(number);
    }
    default:
      return Value(Value::Data(piece.begin(), piece.end()));
  }
}

// Entries as the shared-files list holds them, some with keys missing or of
// other kinds, then one entry per argument with that argument under every key.
Value::Array entriesFor(const std::vector<Predicate::Argument>& arguments) {
  Value::Array entries = {
      Value(Value::Dictionary{{"OwnerFileID", Value("0")},
                              {"UserComputerMapID", Value("7")},
                              {"Blocked", Value("0")},
                              {"MyFile", Value("1")},
                              {"FileName", Value("/home/ann/Tallowbox/Ann (Shared)")},
                              {"FileIDKey", Value("12")}}),
      Value(Value::Dictionary{{"OwnerFileID", Value("12")},
                              {"Blocked", Value("1")},
                              {"FileName", Value("/home/ann/Tallowbox/Ann (Shared)/Photos")}}),
      Value(Value::Dictionary{{"OwnerFileID", Value::integer(0)},
                              {"Blocked", Value::boolean(false)},
                              {"FileName", Value(Value::Data{'/', 'a'})}}),
      Value(Value::Dictionary{}),
  };
  for (const Predicate::Argument& argument : arguments) {
    if (!argument) continue;
    Value::Dictionary entry;
    for (const char* key : kKeys) entry.emplace(key, *argument);
    entries.emplace_back(std::move(entry));
  }
  return entries;
}

// Whether `format` reads with `count` arguments, all absent.
bool reads(std::string_view format, std::size_t count) {
  try {
    static_cast<void>(Predicate(format, std::vector<Predicate::Argument>(count)));
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = input.find('\0');
  const std::string_view format = input.substr(0, end);
  std::vector<Predicate::Argument> arguments;
  for (std::size_t at = end; at != std::string_view::npos;) {
    const std::size_t next = input.find('\0', at + 1);
    arguments.push_back(argumentOf(input.substr(at + 1, next - at - 1)));
    at = next;
  }
  const Value::Array entries = entriesFor(arguments);

  const std::size_t count = arguments.size();
  const std::vector<Predicate::Argument> copies = arguments;
  std::optional<Predicate> predicate;
  try {
    predicate.emplace(format, std::move(arguments));
  } catch (const std::invalid_argument&) {
    // Reading depends on the format and the count of arguments only.
    if (reads(format, count)) __builtin_trap();
    return 0;
  }
  if (!reads(format, count) || reads(format, count + 1) ||
      (count > 0 && reads(format, count - 1))) {
    __builtin_trap();
  }

  Value::Array accepted;
  bool refused = false;
  for (const Value& entry : entries) {
    try {
      if (predicate->evaluateWithObject(entry)) accepted.push_back(entry);
    } catch (const ValueError&) {
      refused = true;  // BEGINSWITH[c] with a side that is not text
    }
  }
  try {
    const Value::Array filtered = predicate->filteredArray(entries);
    if (refused || filtered != accepted) __builtin_trap();
  } catch (const ValueError&) {
    if (!refused) __builtin_trap();
  }
  try {
    const Value::Array found = SharedFilesEntries(PackedValue(entries)).filter(format, copies);
    if (refused || found != accepted) __builtin_trap();
  } catch (const ValueError&) {
    if (!refused) __builtin_trap();
  }
  for (const Value& other : {Value("entry"), Value::integer(1), Value(Value::Array{})}) {
    try {
      static_cast<void>(predicate->evaluateWithObject(other));
      __builtin_trap();
    } catch (const ValueError&) {
      // Only dictionaries have keys.
    }
  }
  return 0;
}
