#include "XPCKit/XPCUUID.h"

#include <functional>

#include "Platform/UniqueIdentifier.h"

XPCUUID XPCUUID::uuid() { return XPCUUID(UniqueIdentifier::random()); }

std::optional<XPCUUID> XPCUUID::uuidWithXPCObject(const XPCObject& object) {
  const XPCObject::UUID* bytes = object.uuidValue();
  if (bytes == nullptr) return std::nullopt;
  return XPCUUID(*bytes);
}

std::string XPCUUID::string() const { return UniqueIdentifier::canonicalString(uuidRef_); }

std::string XPCUUID::description() const { return "<XPCUUID " + string() + ">"; }

std::size_t XPCUUID::hash() const { return std::hash<std::string>{}(description()); }
