#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "Platform/FileHandle.h"

// One XPC value, as the platform's XPC objects are: null, bool, int64, uint64,
// double, date (nanoseconds since 1970), data, string, UUID, file descriptor,
// shared memory, array, dictionary, and the three connection errors that a
// connection hands its event handler. Strings and dictionary keys are C strings:
// they end at their first NUL.
//
// Descriptors (file descriptor and shared memory) are shared by every copy of
// the object and closed when the last one goes.
class XPCObject {
 public:
  enum class Type {
    kNull,
    kBool,
    kInt64,
    kUInt64,
    kDouble,
    kDate,
    kData,
    kString,
    kUUID,
    kFileDescriptor,
    kSharedMemory,
    kArray,
    kDictionary,
    kError,
  };
  enum class ConnectionError {
    kInterrupted,          // the service at the other end went away; it may come back
    kInvalid,              // the connection is over: the peer has gone, or it broke the protocol
    kTerminationImminent,  // this process is about to end
  };
  using Data = std::vector<std::uint8_t>;
  using UUID = std::array<std::uint8_t, 16>;
  using Descriptor = std::shared_ptr<const FileHandle>;
  using Array = std::vector<XPCObject>;
  using Dictionary = std::map<std::string, XPCObject, std::less<>>;

  // The key under which an error object holds its description.
  static constexpr const char* kErrorKeyDescription = "XPCErrorDescription";

  XPCObject() = default;  // null
  static XPCObject boolean(bool value) { return XPCObject(Storage(value)); }
  static XPCObject int64(std::int64_t value) { return XPCObject(Storage(value)); }
  static XPCObject uint64(std::uint64_t value) { return XPCObject(Storage(value)); }
  static XPCObject real(double value) { return XPCObject(Storage(value)); }
  static XPCObject date(std::int64_t nanosecondsSince1970) {
    return XPCObject(Storage(Date{nanosecondsSince1970}));
  }
  static XPCObject data(Data bytes) { return XPCObject(Storage(std::move(bytes))); }
  // Up to the first NUL of `text`.
  static XPCObject string(const std::string& text);
  static XPCObject uuid(const UUID& bytes) { return XPCObject(Storage(bytes)); }
  static XPCObject fileDescriptor(Descriptor descriptor) {
    return XPCObject(Storage(FileDescriptor{std::move(descriptor)}));
  }
  static XPCObject sharedMemory(Descriptor descriptor) {
    return XPCObject(Storage(SharedMemory{std::move(descriptor)}));
  }
  static XPCObject array(Array elements) { return XPCObject(Storage(std::move(elements))); }
  static XPCObject dictionary(Dictionary entries) { return XPCObject(Storage(std::move(entries))); }
  static XPCObject error(ConnectionError error) { return XPCObject(Storage(error)); }

  Type type() const { return static_cast<Type>(storage_.index()); }

  // Typed access: nullptr when the object is of another type.
  const bool* boolValue() const { return std::get_if<bool>(&storage_); }
  const std::int64_t* int64Value() const { return std::get_if<std::int64_t>(&storage_); }
  const std::uint64_t* uint64Value() const { return std::get_if<std::uint64_t>(&storage_); }
  const double* doubleValue() const { return std::get_if<double>(&storage_); }
  const std::int64_t* dateValue() const;
  const Data* dataValue() const { return std::get_if<Data>(&storage_); }
  const std::string* stringValue() const { return std::get_if<std::string>(&storage_); }
  const UUID* uuidValue() const { return std::get_if<UUID>(&storage_); }
  // The descriptor of a file descriptor or shared-memory object.
  const Descriptor* descriptor() const;
  const Array* arrayValue() const { return std::get_if<Array>(&storage_); }
  const Dictionary* dictionaryValue() const { return std::get_if<Dictionary>(&storage_); }
  const ConnectionError* connectionError() const { return std::get_if<ConnectionError>(&storage_); }

  // What an error object holds under kErrorKeyDescription ("Connection
  // interrupted", "Connection invalid", "Termination imminent"); "" otherwise.
  std::string errorDescription() const;

  // Same type and value; descriptors are equal only to themselves.
  bool operator==(const XPCObject& other) const;

 private:
  struct Null {
    bool operator==(const Null&) const = default;
  };
  struct Date {
    std::int64_t nanoseconds;
    bool operator==(const Date&) const = default;
  };
  struct FileDescriptor {
    Descriptor descriptor;
    bool operator==(const FileDescriptor&) const = default;
  };
  struct SharedMemory {
    Descriptor descriptor;
    bool operator==(const SharedMemory&) const = default;
  };
  // In the order of Type.
  using Storage =
      std::variant<Null, bool, std::int64_t, std::uint64_t, double, Date, Data, std::string, UUID,
                   FileDescriptor, SharedMemory, Array, Dictionary, ConnectionError>;
  explicit XPCObject(Storage storage) : storage_(std::move(storage)) {}

  Storage storage_;
};
