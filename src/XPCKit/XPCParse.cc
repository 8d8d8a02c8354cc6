#include "XPCKit/XPCParse.h"

#include <cmath>
#include <limits>
#include <string_view>

#include "Platform/Readings.h"
#include "Platform/ValueError.h"
#include "XPCKit/XPCUUID.h"

namespace {

// Seconds × 1e9 truncated. What lies outside the 64-bit range (or is not a
// number) becomes the integer the processor's truncating conversion gives for
// it, INT64_MIN.
std::int64_t nanoseconds(double seconds) {
  const double scaled = seconds * 1e9;
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (!(scaled >= -kLimit && scaled < kLimit)) {
    return std::numeric_limits<std::int64_t>::min();
  }
  return static_cast<std::int64_t>(scaled);
}

}  // namespace

std::optional<Value> XPCParse::objectWithXPCObject(const XPCObject& object) {
  switch (object.type()) {
    case XPCObject::Type::kDictionary:
      return dictionaryWithContentsOfXPCObject(object);
    case XPCObject::Type::kArray:
      return arrayWithContentsOfXPCObject(object);
    case XPCObject::Type::kDate:
      return dateWithXPCObject(object);
    case XPCObject::Type::kData:
    case XPCObject::Type::kSharedMemory:
      return dataWithXPCObject(object);
    case XPCObject::Type::kString:
      return stringWithXPCObject(object);
    case XPCObject::Type::kUUID:
      return Value(XPCUUID::uuidWithXPCObject(object)->uuidRef());
    case XPCObject::Type::kFileDescriptor:
      return fileHandleWithXPCObject(object);
    case XPCObject::Type::kBool:
    case XPCObject::Type::kUInt64:
    case XPCObject::Type::kInt64:
    case XPCObject::Type::kDouble:
      return numberWithXPCObject(object);
    case XPCObject::Type::kNull:
    case XPCObject::Type::kError:
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<Value> XPCParse::dictionaryWithContentsOfXPCObject(const XPCObject& object) {
  const XPCObject::Dictionary* entries = object.dictionaryValue();
  if (entries == nullptr) return std::nullopt;
  Value::Dictionary dictionary;
  for (const auto& [key, element] : *entries) {
    if (!Readings::isUTF8(key)) continue;
    std::optional<Value> converted = objectWithXPCObject(element);
    if (converted) dictionary.insert_or_assign(key, std::move(*converted));
  }
  return Value(std::move(dictionary));
}

std::optional<Value> XPCParse::arrayWithContentsOfXPCObject(const XPCObject& object) {
  const XPCObject::Array* elements = object.arrayValue();
  if (elements == nullptr) return std::nullopt;
  Value::Array array;
  for (std::size_t index = 0; index < elements->size(); ++index) {
    std::optional<Value> converted = objectWithXPCObject((*elements)[index]);
    if (!converted) continue;
    // kept: elements go in at their source index, so positions match the
    // sender's while every element converts; one that converts to nothing before
    // a later element ends the conversion with a range error, and the connection
    // drops that message.
    if (index > array.size()) {
      throw ValueError("insertObject:atIndex: index " + std::to_string(index) + " beyond bounds " +
                       (array.empty() ? std::string("for empty array")
                                      : "[0 .. " + std::to_string(array.size() - 1) + "]"));
    }
    array.insert(array.begin() + static_cast<std::ptrdiff_t>(index), std::move(*converted));
  }
  return Value(std::move(array));
}

std::optional<Value> XPCParse::dateWithXPCObject(const XPCObject& object) {
  const std::int64_t* nanoseconds = object.dateValue();
  if (nanoseconds == nullptr) return std::nullopt;
  return Value(Value::Date{static_cast<double>(*nanoseconds) / 1e9});
}

std::optional<Value> XPCParse::dataWithXPCObject(const XPCObject& object) {
  const XPCObject::Data* data = object.dataValue();
  if (data == nullptr) return std::nullopt;
  return Value(*data);
}

std::optional<Value> XPCParse::stringWithXPCObject(const XPCObject& object) {
  const std::string* text = object.stringValue();
  if (text == nullptr || !Readings::isUTF8(*text)) return std::nullopt;
  return Value(*text);
}

std::optional<Value> XPCParse::fileHandleWithXPCObject(const XPCObject& object) {
  if (object.type() != XPCObject::Type::kFileDescriptor) return std::nullopt;
  const XPCObject::Descriptor& descriptor = *object.descriptor();
  Value::Handle handle =
      descriptor ? FileHandle::duplicating(descriptor->fileDescriptor()) : nullptr;
  if (!handle) return std::nullopt;
  return Value(std::move(handle));
}

std::optional<Value> XPCParse::numberWithXPCObject(const XPCObject& object) {
  if (const bool* b = object.boolValue()) return Value::boolean(*b);
  if (const std::uint64_t* u = object.uint64Value()) return Value::unsignedInteger(*u);
  if (const std::int64_t* i = object.int64Value()) return Value::integer(*i);
  if (const double* d = object.doubleValue()) return Value::real(*d);
  return std::nullopt;
}

std::optional<XPCObject> XPCParse::newXPCObject(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kDictionary: {
      XPCObject::Dictionary entries;
      for (const auto& [key, element] : *value.dictionary()) {
        std::optional<XPCObject> converted = newXPCObject(element);
        if (converted)
          entries.insert_or_assign(key.substr(0, key.find('\0')), std::move(*converted));
      }
      return XPCObject::dictionary(std::move(entries));
    }
    case Value::Kind::kArray: {
      XPCObject::Array elements;
      for (const Value& element : *value.array()) {
        std::optional<XPCObject> converted = newXPCObject(element);
        if (converted) elements.push_back(std::move(*converted));
      }
      return XPCObject::array(std::move(elements));
    }
    case Value::Kind::kString:
      return XPCObject::string(*value.string());
    case Value::Kind::kData:
      return XPCObject::data(*value.data());
    case Value::Kind::kDate:
      return XPCObject::date(nanoseconds(value.date()->secondsSince1970));
    case Value::Kind::kFileHandle:
      return XPCObject::fileDescriptor(*value.fileHandle());
    case Value::Kind::kUuid:
      return XPCUUID(*value.uuid()).newXPCObject();
    case Value::Kind::kNumber: {
      const Value::Number& number = *value.number();
      const bool* boolean = std::get_if<bool>(&number);
      const bool isTrue = boolean != nullptr && *boolean;
      if (isTrue) return XPCObject::boolean(true);
      // kept: the test for false asks again whether the number is true, so it
      // never matches and a boolean false goes out as the double 0.0; the
      // bridge's peers read booleans false as doubles.
      if (isTrue) return XPCObject::boolean(false);
      if (const std::uint64_t* u = std::get_if<std::uint64_t>(&number))
        return XPCObject::uint64(*u);
      if (const std::int64_t* i = std::get_if<std::int64_t>(&number)) return XPCObject::int64(*i);
      return XPCObject::real(std::visit([](auto n) { return static_cast<double>(n); }, number));
    }
    case Value::Kind::kNull:
      return std::nullopt;
  }
  return std::nullopt;
}
