#include "Platform/PackedValue.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// The bytes: each value is a tag, then what that kind needs; a length, a count or
// an index is an unsigned LEB128 number. A dictionary key is written as its
// number in the process's table of key names, so the keys every entry of a list
// repeats take a byte or two each, and a value's bytes mean the same wherever
// they lie; a key the table does not take is written as its text. File handles
// cannot be bytes: they stay beside them, each named by its place in `handles`.
struct PackedValue::Packed {
  std::string bytes;
  std::vector<Value::Handle> handles;
};

namespace {

// The names of dictionary keys, each numbered at its first use in the process
// and kept for as long as it runs. Only short names, and a bounded number of
// them: a preference file with endless distinct keys costs a fixed table, and
// the rest are packed as their text.
class KeyNames {
 public:
  static constexpr std::size_t kMost = 4096;
  static constexpr std::size_t kLongest = 64;

  // The number of `name`, numbered now if it has none; nullopt when the table
  // does not take it.
  std::optional<std::size_t> number(std::string_view name) {
    if (name.size() > kLongest) return std::nullopt;
    std::lock_guard lock(mutex_);
    if (auto known = numbers_.find(name); known != numbers_.end()) return known->second;
    const std::size_t next = count_.load(std::memory_order_relaxed);
    if (next == kMost) return std::nullopt;
    const auto* kept = new std::string(name);  // kept for as long as the process runs
    names_[next] = kept;
    numbers_.emplace(*kept, next);
    count_.store(next + 1, std::memory_order_release);
    return next;
  }

  // The name numbered `number`; read without a lock, as names are only added.
  std::string_view name(std::size_t number) const {
    if (number >= count_.load(std::memory_order_acquire)) {
      throw std::logic_error("a packed value names a key that has no number");
    }
    return *names_[number];
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::string_view, std::size_t> numbers_;  // guarded by mutex_
  std::array<const std::string*, kMost> names_{};              // each written once, before count_
  std::atomic<std::size_t> count_{0};
};

// Never destroyed: values may be packed while the process exits.
KeyNames& keyNames() {
  static auto* names = new KeyNames;
  return *names;
}

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
    arrayHeader(array.size());
    for (const Value& element : array) value(element);
  }

  // An array's tag and count: its elements follow.
  void arrayHeader(std::size_t count) {
    tag(kArray);
    this->count(count);
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
  // Twice the key's number plus one, or twice its length and its text.
  void key(const std::string& name) {
    auto seen = numbers_.find(name);
    if (seen == numbers_.end()) {
      const std::optional<std::size_t> number = keyNames().number(name);
      if (!number) {
        count(name.size() * 2);
        bytes_.append(name);
        return;
      }
      seen = numbers_.emplace(name, *number).first;
    }
    count(seen->second * 2 + 1);
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
  // The numbers of the keys written so far (they live in the value being
  // packed), without asking the table again.
  std::unordered_map<std::string_view, std::size_t> numbers_;
};

// Reads the bytes in order: tags, counts, texts and raw numbers.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

  std::size_t at() const { return at_; }
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
  // A key's name: from the table, or the text written in its place.
  std::string_view key() {
    const std::size_t n = count();
    if ((n & 1U) != 0) return keyNames().name(n / 2);
    return {take(n / 2), n / 2};
  }
  // Passes over one value.
  void skip() {
    switch (static_cast<Tag>(next())) {
      case kString:
      case kData:
        take(count());
        return;
      case kFalse:
      case kTrue:
      case kNull:
        return;
      case kSigned:
      case kUnsigned:
      case kReal:
      case kDate:
        take(sizeof(double));
        return;
      case kArray:
        for (std::size_t n = count(); n > 0; --n) skip();
        return;
      case kDictionary:
        for (std::size_t n = count(); n > 0; --n) {
          // A numbered key is only its number; a key written out, its text.
          if (const std::size_t key = count(); (key & 1U) == 0) take(key / 2);
          skip();
        }
        return;
      case kHandle:
        count();
        return;
      case kUuid:
        take(sizeof(Value::Uuid));
        return;
    }
    throw std::logic_error("a packed value holds an unknown tag");
  }

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
};

class Reader : Cursor {
 public:
  Reader(std::string_view bytes, const std::vector<Value::Handle>& handles)
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
          std::string name(key());
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
  const std::vector<Value::Handle>& handles_;
};

// Walks the bytes for a Visitor, as Reader does for a tree.
class Walker : Cursor {
 public:
  Walker(std::string_view bytes, PackedValue::Visitor& visitor)
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
  PackedValue::Visitor& visitor_;
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
    : packed_(pack([&](Writer& writer) { writer.value(value); })), length_(packed_->bytes.size()) {}

PackedValue::PackedValue(const Value::Array& array)
    : packed_(pack([&](Writer& writer) { writer.array(array); })), length_(packed_->bytes.size()) {}

std::string_view PackedValue::bytes() const {
  if (!packed_) return {};
  return std::string_view(packed_->bytes).substr(offset_, length_);
}

// The handles of the whole value these bytes lie in: a part of it may name any.
bool PackedValue::holdsHandles() const { return packed_ && !packed_->handles.empty(); }

Value PackedValue::unpacked() const {
  if (!packed_) return {};
  return Reader(bytes(), packed_->handles).value();
}

Value::Array PackedValue::unpackedArray() const {
  Value value = unpacked();
  return value.array() != nullptr ? std::move(*value.mutableArray()) : Value::Array();
}

Value::Kind PackedValue::kind() const {
  const std::string_view packed = bytes();
  if (packed.empty()) return Value::Kind::kString;
  switch (static_cast<Tag>(packed.front())) {
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
  Cursor cursor(bytes());
  cursor.next();
  return cursor.count();
}

void PackedValue::visit(Visitor& visitor) const {
  if (!packed_) {
    visitor.string("");
    return;
  }
  Walker(bytes(), visitor).value();
}

std::size_t PackedValue::size() const { return length_; }

std::vector<PackedValue> PackedValue::elements() const {
  std::vector<PackedValue> elements;
  if (kind() != Value::Kind::kArray) return elements;
  Cursor cursor(bytes());
  cursor.next();
  const std::size_t n = cursor.count();
  elements.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t from = cursor.at();
    cursor.skip();
    elements.push_back(PackedValue(packed_, offset_ + from, cursor.at() - from));
  }
  return elements;
}

PackedValue PackedValue::array(const std::vector<PackedValue>& elements) {
  // Handles are numbered by the value that holds them: such elements are packed
  // again, together.
  if (std::any_of(elements.begin(), elements.end(),
                  [](const PackedValue& element) { return element.holdsHandles(); })) {
    Value::Array values;
    values.reserve(elements.size());
    for (const PackedValue& element : elements) values.push_back(element.unpacked());
    return PackedValue(values);
  }
  // Nothing packed is an empty string.
  constexpr std::string_view kEmptyString("s\0", 2);
  std::size_t total = 0;
  for (const PackedValue& element : elements) {
    total += element.packed_ ? element.size() : kEmptyString.size();
  }
  auto packed = std::make_shared<Packed>();
  std::vector<Value::Handle> none;
  Writer writer(packed->bytes, none);
  packed->bytes.reserve(total + 11);
  writer.arrayHeader(elements.size());
  for (const PackedValue& element : elements) {
    packed->bytes += element.packed_ ? element.bytes() : kEmptyString;
  }
  const std::size_t length = packed->bytes.size();
  return PackedValue(std::move(packed), 0, length);
}

std::optional<PackedValue> PackedValue::objectForKey(std::string_view key) const {
  if (kind() != Value::Kind::kDictionary) return std::nullopt;
  Cursor cursor(bytes());
  cursor.next();
  for (std::size_t n = cursor.count(); n > 0; --n) {
    const std::string_view name = cursor.key();
    const std::size_t from = cursor.at();
    cursor.skip();
    if (name == key) return PackedValue(packed_, offset_ + from, cursor.at() - from);
  }
  return std::nullopt;
}

std::optional<std::string_view> PackedValue::text() const {
  if (kind() != Value::Kind::kString) return std::nullopt;
  if (!packed_) return std::string_view();
  Cursor cursor(bytes());
  cursor.next();
  const std::size_t n = cursor.count();
  return std::string_view(cursor.take(n), n);
}

bool PackedValue::mayHold(std::string_view text) const {
  const std::string_view packed = bytes();
  // memmem is the quicker for short texts; for long ones, over a short value,
  // its set-up costs more than the search.
  if (text.size() > 16) return packed.find(text) != std::string_view::npos;
  return text.empty() ||
         ::memmem(packed.data(), packed.size(), text.data(), text.size()) != nullptr;
}

bool PackedValue::operator==(const PackedValue& other) const {
  if (packed_ == other.packed_ && offset_ == other.offset_ && length_ == other.length_) {
    return true;
  }
  if (bytes() != other.bytes()) return false;
  if (!holdsHandles() && !other.holdsHandles()) return true;
  return unpacked() == other.unpacked();
}
