#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Platform/Value.h"
#include "XPCKit/XPCObject.h"

// A UUID as the legacy message bridge hands it over. Two are equal when their
// descriptions are, and hash as their descriptions do.
class XPCUUID {
 public:
  // A new random UUID.
  static XPCUUID uuid();
  // From the 16 bytes of an XPC UUID; nullopt for any other XPC type.
  static std::optional<XPCUUID> uuidWithXPCObject(const XPCObject& object);
  explicit XPCUUID(const Value::Uuid& uuidRef) : uuidRef_(uuidRef) {}

  const Value::Uuid& uuidRef() const { return uuidRef_; }
  // The canonical text, "68753A44-4D6F-1226-9C60-0050E4C00067".
  std::string string() const;
  // "<XPCUUID 68753A44-4D6F-1226-9C60-0050E4C00067>"
  std::string description() const;
  bool isEqual(const XPCUUID& other) const { return description() == other.description(); }
  bool operator==(const XPCUUID& other) const { return isEqual(other); }
  std::size_t hash() const;

  // A new XPC UUID of the same 16 bytes.
  XPCObject newXPCObject() const { return XPCObject::uuid(uuidRef_); }

 private:
  Value::Uuid uuidRef_;
};
