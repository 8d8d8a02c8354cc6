#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Value.h"

// A value kept as a few bytes instead of as its tree of nodes, for values that are
// held for long and read now and then: a suite between its reads, a pass's snapshot
// of the shared-files list. An entry of that list takes about 1.4 KB as nodes and
// about 120 bytes packed (each key a byte after its first appearance), so a list
// that grows by one entry per file received costs the process little for as long
// as it runs. Packing and unpacking are each one pass over the value; copies share
// the bytes, and nothing changes them once packed.
//
// A packed value stands on its own wherever it lies: dictionary keys are numbered
// once for the whole process, not per value. So an array's element, or a
// dictionary's value, is read in place as a value of its own (sharing the bytes),
// and an array is made of elements packed apart by joining their bytes: a pass
// reads one field of each entry of a long list, or changes one entry, without
// unpacking the others.
class PackedValue {
 public:
  // A dictionary whose values are kept packed, as a preference suite is held.
  using Dictionary = std::map<std::string, PackedValue, std::less<>>;

  // What a walk over a packed value meets, in order. An array or a dictionary is
  // announced with its count and closed after its last element; a dictionary
  // gives each key before its value. Texts and bytes are valid during the call.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    virtual void string(std::string_view text) = 0;
    virtual void number(const Value::Number& number) = 0;
    virtual void data(std::span<const std::uint8_t> bytes) = 0;
    virtual void date(Value::Date date) = 0;
    virtual void beginArray(std::size_t count) = 0;
    virtual void endArray() = 0;
    virtual void beginDictionary(std::size_t count) = 0;
    virtual void key(std::string_view name) = 0;
    virtual void endDictionary() = 0;
    // A file handle, a UUID or null.
    virtual void other(Value::Kind kind) = 0;
  };

  // Holds nothing: unpacks to an empty string, as Value() is.
  PackedValue() = default;
  explicit PackedValue(const Value& value);
  // The array as a value, packed without a copy of it.
  explicit PackedValue(const Value::Array& array);

  // A new tree, equal to the value packed.
  Value unpacked() const;
  // The array packed, as a new tree; empty when what is packed is no array.
  Value::Array unpackedArray() const;
  // The kind of the value packed, and the elements of an array or a dictionary
  // (0 for other kinds), read without unpacking it.
  Value::Kind kind() const;
  std::size_t count() const;
  // Walks the value packed without unpacking it (nothing packed walks as "").
  void visit(Visitor& visitor) const;
  // The bytes the packed value takes (file handles aside, which are shared).
  std::size_t size() const;

  // An array's elements, each read in place; empty for other kinds.
  std::vector<PackedValue> elements() const;
  // A packed array of `elements`, in order.
  static PackedValue array(const std::vector<PackedValue>& elements);
  // A dictionary's value under `key`, read in place; nullopt when the key is
  // absent or this is no dictionary.
  std::optional<PackedValue> objectForKey(std::string_view key) const;
  // The text of a packed string; nullopt for other kinds.
  std::optional<std::string_view> text() const;
  // Whether `text` occurs anywhere in the bytes: every text the value holds does,
  // so a value without it cannot hold it.
  bool mayHold(std::string_view text) const;

  // The same bytes and the same file handles. Two values packed to the same bytes
  // are equal; equal values of other types (1 and true) pack to other bytes.
  bool operator==(const PackedValue& other) const;

  // The bytes and the file handles beside them (see PackedValue.cc).
  struct Packed;

 private:
  PackedValue(std::shared_ptr<const Packed> packed, std::size_t offset, std::size_t length)
      : packed_(std::move(packed)), offset_(offset), length_(length) {}
  std::string_view bytes() const;
  bool holdsHandles() const;

  std::shared_ptr<const Packed> packed_;
  // Where this value's bytes lie in packed_'s: all of them, or one element or
  // field of the value packed there.
  std::size_t offset_ = 0;
  std::size_t length_ = 0;
};
