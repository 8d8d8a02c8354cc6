#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Platform/Value.h"

// How the service reads values, preference and server values alike, the way the
// platform's objects answer the same messages:
//  - integer reading: leading white space skipped, an optional sign, then digits up
//    to the first non-digit ("12abc" is 12, "abc" is 0); numbers give their integer
//    value (doubles truncate toward zero), booleans 0 or 1;
//  - an absent value answers like a message to nil: 0, false, never equal;
//  - a value of a kind that has no integer (array, dictionary, data, JSON null, ...)
//    throws ValueError, as the platform raises for an unrecognised message.
class Readings {
 public:
  // The integer at the start of `text`; saturates at the 64-bit limits.
  static std::int64_t integerFromText(std::string_view text);

  static std::int64_t integerValue(const Value* value);
  static std::int64_t integerValue(const std::optional<Value>& value);
  static std::int64_t integerValue(const std::optional<nlohmann::json>& value);

  // isEqual: an absent value is equal to nothing, not even another absent value.
  static bool isEqual(const Value* a, const Value* b);
  // The value is a string holding exactly `text` (case-sensitive; a number never is).
  static bool isEqualToText(const Value* value, std::string_view text);
  static bool isEqualToText(const std::optional<nlohmann::json>& value, std::string_view text);

  // The platform's boolean reading: leading white space, a sign and zeros
  // skipped, then "Y", "y", "T", "t" or a digit 1-9 is true; a number is true
  // when not zero; absent is false. Throws ValueError for null, arrays, objects.
  static bool boolValue(const std::optional<nlohmann::json>& value);

  // isEqualToString: sent to `value`: false when it is absent or `other` is no
  // text; throws ValueError when `value` is present but no text (a number, null,
  // an array, an object), as the message to it would.
  static bool isEqualToString(const std::optional<nlohmann::json>& value,
                              const std::optional<nlohmann::json>& other);
  static bool isEqualToString(const std::optional<nlohmann::json>& value, const char* text);
  // A server value as an HTTP header's value: text as it is, a number or boolean
  // as its JSON text, nullopt when absent (no header). Throws ValueError for JSON
  // null, arrays and objects, and for text holding CR, LF or U+0000, which would
  // end the header early.
  static std::optional<std::string> headerText(const std::optional<nlohmann::json>& value);

  // Whether `text` is well-formed UTF-8: no stray or missing continuation bytes, no
  // overlong forms, no surrogates, nothing past U+10FFFF.
  static bool isUTF8(std::string_view text);

  // A preference value as it goes into a server request: a string, number, list or
  // dictionary as it is; absent for nothing and for kinds a request does not carry
  // (data, a date), also inside a list or dictionary.
  static std::optional<nlohmann::json> requestValue(const Value* value);
  // A server value as the platform's object it decodes to: a string, a number,
  // the null object, an array or a dictionary; absent stays absent. As a
  // predicate argument, the null object, an array or a dictionary equals no
  // entry's text.
  static Value objectValue(const nlohmann::json& value);
  static std::optional<Value> objectValue(const std::optional<nlohmann::json>& value);
  // A server value as it goes into a preference list: a string or number as it
  // is. Throws ValueError for an absent value (it cannot be put into a
  // collection), for JSON null, arrays and objects, and for a value the
  // preference file would not give back exactly (text holding U+0000, an
  // integer of 2^63 or more).
  static Value listValue(const std::optional<nlohmann::json>& value);
  // The text a value shows when formatted into a path or a log line with "%@":
  // a string as it is, a number as its decimal text, "<null>" for JSON null and
  // "(null)" when absent. Throws ValueError for arrays and objects, and for text
  // holding U+0000, which no path can hold.
  static std::string formatted(const std::optional<nlohmann::json>& value);
};
