#pragma once

#include <cstddef>
#include <memory>

#include "Platform/Value.h"

// A value kept as a few bytes instead of as its tree of nodes, for values that are
// held for long and read now and then: a suite between its reads, a pass's snapshot
// of the shared-files list. An entry of that list takes about 1.4 KB as nodes and
// about 120 bytes packed (each key a byte after its first appearance), so a list
// that grows by one entry per file received costs the process little for as long
// as it runs. Packing and unpacking are each one pass over the value; copies share
// the bytes, and nothing changes them once packed.
class PackedValue {
 public:
  // Holds nothing: unpacks to an empty string, as Value() is.
  PackedValue() = default;
  explicit PackedValue(const Value& value);
  // The array as a value, packed without a copy of it.
  explicit PackedValue(const Value::Array& array);

  // A new tree, equal to the value packed.
  Value unpacked() const;
  // The array packed, as a new tree; empty when what is packed is no array.
  Value::Array unpackedArray() const;
  // The bytes the packed value takes (file handles aside, which are shared).
  std::size_t size() const;

  // The same bytes and the same file handles. Two values packed to the same bytes
  // are equal; equal values of other types (1 and true) pack to other bytes.
  bool operator==(const PackedValue& other) const;

  // The bytes and the file handles beside them (see PackedValue.cc).
  struct Packed;

 private:
  std::shared_ptr<const Packed> packed_;
};
