#include "Platform/PackedValue.h"

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// The bytes: each value is a tag, then what that kind needs; a length, a count or
// an index is an unsigned LEB128 number. A dictionary key is written once: the
// first time as its text, later as the number of its first appearance, so the
// keys every entry of a list repeats take a byte or two each. File handles cannot
// be bytes: they stay beside them, each named by its place in `handles`.
struct PackedValue::Packed {
  std::string bytes;
  std::vector<Value::Handle> handles;
};

namespace {

enum Tag : char {
  kString = 's',
  kFalse = 'f',
  kTrue = 't',
  kSigned = 'q',
  kUnsigned = 'Q',
  kReal = 'd',
  kData = 'D',
  kDate = 'T',
  kArray = 'a',
  kDictionary = 'o',
  kHandle = 'h',
  kUuid = 'u',
  kNull = 'n',
};

class Writer {
 public:
  Writer(std::string& bytes, std::vector<Value::Handle>& handles)
      : bytes_(bytes), handles_(handles) {}

  void array(const Value::Array& array) {
    tag(kArray);
    count(array.size());
    for (const Value& element : array) value(element);
  }

  void value(const Value& value) {
    switch (value.kind()) {
      case Value::Kind::kString:
        tag(kString);
        text(*value.string());
        break;
      case Value::Kind::kNumber:
        number(*value.number());
        break;
      case Value::Kind::kData: {
        const Value::Data& data = *value.data();
        tag(kData);
        count(data.size());
        bytes_.append(reinterpret_cast<const char*>(data.data()), data.size());
        break;
      }
      case Value::Kind::kDate:
        tag(kDate);
        raw(value.date()->secondsSince1970);
        break;
      case Value::Kind::kArray:
        array(*value.array());
        break;
      case Value::Kind::kDictionary:
        tag(kDictionary);
        count(value.dictionary()->size());
        for (const auto& [name, element] : *value.dictionary()) {
          key(name);
          this->value(element);
        }
        break;
      case Value::Kind::kFileHandle:
        tag(kHandle);
        count(handles_.size());
        handles_.push_back(*value.fileHandle());
        break;
      case Value::Kind::kUuid:
        tag(kUuid);
        bytes_.append(reinterpret_cast<const char*>(value.uuid()->data()), value.uuid()->size());
        break;
      case Value::Kind::kNull:
        tag(kNull);
        break;
    }
  }

 private:
  void tag(Tag tag) { bytes_.push_back(static_cast<char>(tag)); }
  void count(std::size_t n) {
    do {
      auto low = static_cast<unsigned char>(n & 0x7FU);
      n >>= 7U;
      bytes_.push_back(static_cast<char>(n != 0 ? (low | 0x80U) : low));
    } while (n != 0);
  }
  void text(const std::string& text) {
    count(text.size());
    bytes_.append(text);
  }
  // Twice the key's first appearance plus one, or twice its length and its text.
  void key(const std::string& name) {
    if (auto seen = keys_.find(name); seen != keys_.end()) {
      count(seen->second * 2 + 1);
      return;
    }
    keys_.emplace(name, keys_.size());
    count(name.size() * 2);
    bytes_.append(name);
  }
  template <class Number>
  void raw(Number number) {
    char copy[sizeof number];
    std::memcpy(copy, &number, sizeof number);
    bytes_.append(copy, sizeof number);
  }
  void number(const Value::Number& number) {
    if (const bool* b = std::get_if<bool>(&number)) {
      tag(*b ? kTrue : kFalse);
    } else if (const auto* i = std::get_if<std::int64_t>(&number)) {
      tag(kSigned);
      raw(*i);
    } else if (const auto* u = std::get_if<std::uint64_t>(&number)) {
      tag(kUnsigned);
      raw(*u);
    } else {
      tag(kReal);
      raw(std::get<double>(number));
    }
  }

  std::string& bytes_;
  std::vector<Value::Handle>& handles_;
  // The keys written so far (they live in the value being packed), by their order.
  std::unordered_map<std::string_view, std::size_t> keys_;
};

// Reads the bytes in order: tags, counts, texts and raw numbers.
class Cursor {
 public:
  explicit Cursor(const std::string& bytes) : bytes_(bytes) {}

  const char* take(std::size_t n) {
    if (n > bytes_.size() - at_) throw std::logic_error("a packed value ends early");
    const char* taken = bytes_.data() + at_;
    at_ += n;
    return taken;
  }
  char next() { return *take(1); }
  std::size_t count() {
    std::size_t n = 0;
    for (unsigned shift = 0;; shift += 7) {
      const auto byte = static_cast<unsigned char>(next());
      n |= static_cast<std::size_t>(byte & 0x7FU) << shift;
      if ((byte & 0x80U) == 0) return n;
    }
  }
  template <class Number>
  Number raw() {
    Number number{};
    std::memcpy(&number, take(sizeof number), sizeof number);
    return number;
  }

 private:
  const std::string& bytes_;
  std::size_t at_ = 0;
};

class Reader : Cursor {
 public:
  Reader(const std::string& bytes, const std::vector<Value::Handle>& handles)
      : Cursor(bytes), handles_(handles) {}

  Value value() {
    switch (static_cast<Tag>(next())) {
      case kString:
        return Value(text());
      case kFalse:
        return Value::boolean(false);
      case kTrue:
        return Value::boolean(true);
      case kSigned:
        return Value::integer(raw<std::int64_t>());
      case kUnsigned:
        return Value::unsignedInteger(raw<std::uint64_t>());
      case kReal:
        return Value::real(raw<double>());
      case kData: {
        const std::size_t n = count();
        const auto* at = reinterpret_cast<const std::uint8_t*>(take(n));
        return Value(Value::Data(at, at + n));
      }
      case kDate:
        return Value(Value::Date{raw<double>()});
      case kArray: {
        Value::Array array(count());
        for (Value& element : array) element = value();
        return Value(std::move(array));
      }
      case kDictionary: {
        Value::Dictionary dictionary;
        // Packed in key order, so each key goes at the end.
        for (std::size_t n = count(); n > 0; --n) {
          std::string name = key();
          dictionary.emplace_hint(dictionary.end(), std::move(name), value());
        }
        return Value(std::move(dictionary));
      }
      case kHandle:
        return Value(handles_.at(count()));
      case kUuid: {
        Value::Uuid uuid{};
        std::memcpy(uuid.data(), take(uuid.size()), uuid.size());
        return Value(uuid);
      }
      case kNull:
        return Value(Value::Null{});
    }
    throw std::logic_error("a packed value holds an unknown tag");
  }

 private:
  std::string text() {
    const std::size_t n = count();
    return {take(n), n};
  }
  std::string key() {
    const std::size_t n = count();
    if ((n & 1U) != 0) return keys_.at(n / 2);
    const char* at = take(n / 2);
    return keys_.emplace_back(at, n / 2);
  }
  const std::vector<Value::Handle>& handles_;
  std::vector<std::string> keys_;  // by first appearance
};

// Walks the bytes for a Visitor, as Reader does for a tree.
class Walker : Cursor {
 public:
  Walker(const std::string& bytes, PackedValue::Visitor& visitor)
      : Cursor(bytes), visitor_(visitor) {}

  void value() {
    switch (static_cast<Tag>(next())) {
      case kString: {
        const std::size_t n = count();
        visitor_.string({take(n), n});
        return;
      }
      case kFalse:
        visitor_.number(false);
        return;
      case kTrue:
        visitor_.number(true);
        return;
      case kSigned:
        visitor_.number(raw<std::int64_t>());
        return;
      case kUnsigned:
        visitor_.number(raw<std::uint64_t>());
        return;
      case kReal:
        visitor_.number(raw<double>());
        return;
      case kData: {
        const std::size_t n = count();
        visitor_.data({reinterpret_cast<const std::uint8_t*>(take(n)), n});
        return;
      }
      case kDate:
        visitor_.date(Value::Date{raw<double>()});
        return;
      case kArray: {
        const std::size_t n = count();
        visitor_.beginArray(n);
        for (std::size_t i = 0; i < n; ++i) value();
        visitor_.endArray();
        return;
      }
      case kDictionary: {
        const std::size_t n = count();
        visitor_.beginDictionary(n);
        for (std::size_t i = 0; i < n; ++i) {
          visitor_.key(key());
          value();
        }
        visitor_.endDictionary();
        return;
      }
      case kHandle:
        count();
        visitor_.other(Value::Kind::kFileHandle);
        return;
      case kUuid:
        take(sizeof(Value::Uuid));
        visitor_.other(Value::Kind::kUuid);
        return;
      case kNull:
        visitor_.other(Value::Kind::kNull);
        return;
    }
    throw std::logic_error("a packed value holds an unknown tag");
  }

 private:
  std::string_view key() {
    const std::size_t n = count();
    if ((n & 1U) != 0) return keys_.at(n / 2);
    return keys_.emplace_back(take(n / 2), n / 2);
  }
  PackedValue::Visitor& visitor_;
  std::vector<std::string_view> keys_;  // by first appearance, in the bytes
};
}  // namespace

namespace {

// Held for long: no spare capacity.
template <class Write>
std::shared_ptr<const PackedValue::Packed> pack(const Write& write) {
  auto packed = std::make_shared<PackedValue::Packed>();
  Writer writer(packed->bytes, packed->handles);
  write(writer);
  packed->bytes.shrink_to_fit();
  packed->handles.shrink_to_fit();
  return packed;
}

}  // namespace

PackedValue::PackedValue(const Value& value)
    : packed_(pack([&](Writer& writer) { writer.value(value); })) {}

PackedValue::PackedValue(const Value::Array& array)
    : packed_(pack([&](Writer& writer) { writer.array(array); })) {}

Value PackedValue::unpacked() const {
  if (!packed_) return {};
  return Reader(packed_->bytes, packed_->handles).value();
}

Value::Array PackedValue::unpackedArray() const {
  Value value = unpacked();
  return value.array() != nullptr ? std::move(*value.mutableArray()) : Value::Array();
}

Value::Kind PackedValue::kind() const {
  if (!packed_ || packed_->bytes.empty()) return Value::Kind::kString;
  switch (static_cast<Tag>(packed_->bytes.front())) {
    case kString:
      return Value::Kind::kString;
    case kFalse:
    case kTrue:
    case kSigned:
    case kUnsigned:
    case kReal:
      return Value::Kind::kNumber;
    case kData:
      return Value::Kind::kData;
    case kDate:
      return Value::Kind::kDate;
    case kArray:
      return Value::Kind::kArray;
    case kDictionary:
      return Value::Kind::kDictionary;
    case kHandle:
      return Value::Kind::kFileHandle;
    case kUuid:
      return Value::Kind::kUuid;
    case kNull:
      return Value::Kind::kNull;
  }
  throw std::logic_error("a packed value holds an unknown tag");
}

std::size_t PackedValue::count() const {
  const Value::Kind held = kind();
  if (held != Value::Kind::kArray && held != Value::Kind::kDictionary) return 0;
  Cursor cursor(packed_->bytes);
  cursor.next();
  return cursor.count();
}

void PackedValue::visit(Visitor& visitor) const {
  if (!packed_) {
    visitor.string("");
    return;
  }
  Walker(packed_->bytes, visitor).value();
}

std::size_t PackedValue::size() const { return packed_ ? packed_->bytes.size() : 0; }

bool PackedValue::operator==(const PackedValue& other) const {
  if (packed_ == other.packed_) return true;
  if (!packed_ || !other.packed_) return size() == 0 && other.size() == 0;
  return packed_->bytes == other.packed_->bytes && packed_->handles == other.packed_->handles;
}
