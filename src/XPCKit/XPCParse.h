#pragma once

#include <optional>

#include "Platform/Value.h"
#include "XPCKit/XPCObject.h"

// The conversions between XPC objects and the service's values, in both
// directions. From XPC, each constructor answers nullopt (nothing) for an object
// of a type it does not take, and containers leave out what converts to
// nothing. To XPC, newXPCObject answers nullopt for a value that has no XPC form
// (the null object), and containers leave such values out.
class XPCParse {
 public:
  // By the object's type: dictionary, array, date, data (shared memory gives
  // nothing), string, UUID, file descriptor, and bool / int64 / uint64 / double
  // as numbers. Throws ValueError where an array's conversion does (below).
  static std::optional<Value> objectWithXPCObject(const XPCObject& object);

  // A pair is kept only when its key is UTF-8 and its value converts.
  static std::optional<Value> dictionaryWithContentsOfXPCObject(const XPCObject& object);
  // Each converted element is inserted at its source index, and an element that
  // converts to nothing is skipped; so one skipped before a later element puts
  // that element past the end, and ValueError is thrown (index beyond bounds).
  static std::optional<Value> arrayWithContentsOfXPCObject(const XPCObject& object);
  // Nanoseconds since 1970 divided by 1e9: seconds since 1970.
  static std::optional<Value> dateWithXPCObject(const XPCObject& object);
  // A copy of the bytes of an XPC data object; nothing for anything else,
  // shared memory included.
  static std::optional<Value> dataWithXPCObject(const XPCObject& object);
  // Nothing when the bytes are not UTF-8.
  static std::optional<Value> stringWithXPCObject(const XPCObject& object);
  // A handle on a duplicate of the descriptor, closed when the handle goes;
  // nothing when it cannot be duplicated.
  static std::optional<Value> fileHandleWithXPCObject(const XPCObject& object);
  // bool, uint64, int64 and double as numbers of those types.
  static std::optional<Value> numberWithXPCObject(const XPCObject& object);

  // A new XPC object for `value`. Dates go out as seconds × 1e9 truncated to a
  // signed 64-bit integer; strings and keys up to their first NUL; file handles
  // as their descriptor. Numbers: a boolean true as XPC bool true, an unsigned
  // 64-bit number as uint64, a signed one as int64, anything else (a boolean
  // false too) as a double.
  static std::optional<XPCObject> newXPCObject(const Value& value);
};
