#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/FileHandle.h"

// One value of the kinds that travel through preference suites and the legacy
// message bridge: string, number, data, date, array, dictionary, file handle and
// UUID; and the null object, which a decoded server value can be (JSON null) but
// no preference file can hold. An absent value ("nil") is never a Value: it is a null `const
// Value*` or an empty std::optional<Value>.
//
// Equality follows the platform's isEqual: numbers compare by numeric value
// (true == 1 == 1.0), a number never equals a string, file handles are equal only
// to themselves.
class Value {
 public:
  // A number keeps the type it was made with; its encoding tells it:
  // 'c' boolean, 'q' signed 64-bit, 'Q' unsigned 64-bit, 'd' double.
  using Number = std::variant<bool, std::int64_t, std::uint64_t, double>;
  using Data = std::vector<std::uint8_t>;
  struct Date {
    double secondsSince1970 = 0;
    bool operator==(const Date&) const = default;
  };
  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value, std::less<>>;
  using Handle = std::shared_ptr<const FileHandle>;
  using Uuid = std::array<std::uint8_t, 16>;
  struct Null {
    bool operator==(const Null&) const = default;
  };

  enum class Kind {
    kString,
    kNumber,
    kData,
    kDate,
    kArray,
    kDictionary,
    kFileHandle,
    kUuid,
    kNull
  };

  Value() : storage_(std::string()) {}
  Value(std::string text) : storage_(std::move(text)) {}             // NOLINT: implicit by design
  Value(const char* text) : storage_(std::string(text)) {}           // NOLINT
  Value(std::string_view text) : storage_(std::string(text)) {}      // NOLINT
  Value(Number number) : storage_(number) {}                         // NOLINT
  Value(Data data) : storage_(std::move(data)) {}                    // NOLINT
  Value(Date date) : storage_(date) {}                               // NOLINT
  Value(Array array) : storage_(std::move(array)) {}                 // NOLINT
  Value(Dictionary dictionary) : storage_(std::move(dictionary)) {}  // NOLINT
  Value(Handle handle) : storage_(std::move(handle)) {}              // NOLINT
  Value(Uuid uuid) : storage_(uuid) {}                               // NOLINT
  Value(Null null) : storage_(null) {}                               // NOLINT

  static Value boolean(bool b) { return Value(Number(b)); }
  static Value integer(std::int64_t i) { return Value(Number(i)); }
  static Value unsignedInteger(std::uint64_t u) { return Value(Number(u)); }
  static Value real(double d) { return Value(Number(d)); }

  Kind kind() const { return static_cast<Kind>(storage_.index()); }
  // A short name of the kind, for error texts: "string", "number", "array", ...
  std::string_view kindName() const;
  // The number's type encoding ('c', 'q', 'Q' or 'd'); throws ValueError for non-numbers.
  char objCType() const;

  // Typed access: nullptr when the value is of another kind.
  const std::string* string() const { return std::get_if<std::string>(&storage_); }
  const Number* number() const { return std::get_if<Number>(&storage_); }
  const Data* data() const { return std::get_if<Data>(&storage_); }
  const Date* date() const { return std::get_if<Date>(&storage_); }
  const Array* array() const { return std::get_if<Array>(&storage_); }
  const Dictionary* dictionary() const { return std::get_if<Dictionary>(&storage_); }
  Array* mutableArray() { return std::get_if<Array>(&storage_); }
  Dictionary* mutableDictionary() { return std::get_if<Dictionary>(&storage_); }
  const Handle* fileHandle() const { return std::get_if<Handle>(&storage_); }
  const Uuid* uuid() const { return std::get_if<Uuid>(&storage_); }
  bool isNull() const { return std::holds_alternative<Null>(storage_); }

  // Dictionary lookup as a message to the dictionary: the value under `key`, or
  // nullptr when there is none. Throws ValueError when this is not a dictionary.
  const Value* objectForKey(std::string_view key) const;

  // Lookup in a dictionary as the platform does: nullptr for a missing key.
  static const Value* objectForKey(const Dictionary& dictionary, std::string_view key);

  bool operator==(const Value& other) const;

 private:
  std::variant<std::string, Number, Data, Date, Array, Dictionary, Handle, Uuid, Null> storage_;
};
