#include "XPCKit/XPCObject.h"

XPCObject XPCObject::string(const std::string& text) {
  return XPCObject(Storage(text.substr(0, text.find('\0'))));
}

const std::int64_t* XPCObject::dateValue() const {
  const Date* date = std::get_if<Date>(&storage_);
  return date == nullptr ? nullptr : &date->nanoseconds;
}

const XPCObject::Descriptor* XPCObject::descriptor() const {
  if (const auto* fd = std::get_if<FileDescriptor>(&storage_)) return &fd->descriptor;
  if (const auto* memory = std::get_if<SharedMemory>(&storage_)) return &memory->descriptor;
  return nullptr;
}

std::string XPCObject::errorDescription() const {
  const ConnectionError* error = connectionError();
  if (error == nullptr) return "";
  switch (*error) {
    case ConnectionError::kInterrupted:
      return "Connection interrupted";
    case ConnectionError::kInvalid:
      return "Connection invalid";
    case ConnectionError::kTerminationImminent:
      return "Termination imminent";
  }
  return "";
}

bool XPCObject::operator==(const XPCObject& other) const { return storage_ == other.storage_; }
