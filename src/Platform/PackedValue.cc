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

class Reader {
 public:
  Reader(const std::string& bytes, const std::vector<Value::Handle>& handles)
      : bytes_(bytes), handles_(handles) {}

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
  template <class Number>
  Number raw() {
    Number number{};
    std::memcpy(&number, take(sizeof number), sizeof number);
    return number;
  }

  const std::string& bytes_;
  const std::vector<Value::Handle>& handles_;
  std::size_t at_ = 0;
  std::vector<std::string> keys_;  // by first appearance
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

std::size_t PackedValue::size() const { return packed_ ? packed_->bytes.size() : 0; }

bool PackedValue::operator==(const PackedValue& other) const {
  if (packed_ == other.packed_) return true;
  if (!packed_ || !other.packed_) return size() == 0 && other.size() == 0;
  return packed_->bytes == other.packed_->bytes && packed_->handles == other.packed_->handles;
}
