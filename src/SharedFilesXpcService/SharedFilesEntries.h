#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/PackedValue.h"
#include "Platform/Predicate.h"
#include "Platform/Value.h"

// The shared-files list as a pass works on it: its entries each kept packed, read
// field by field, and packed again only when one changes. A pass over a list of
// thousands of entries that looks at a few fields and changes a few entries
// costs a walk over the bytes, not a tree of every entry made and thrown away.
//
// Lookups answer exactly as the predicate over the unpacked list would (see
// Predicate); an entry that cannot hold a lookup's texts is passed over unread.
class SharedFilesEntries {
 public:
  SharedFilesEntries() = default;
  // The entries of a packed list (nothing for a value that is no array).
  explicit SharedFilesEntries(const PackedValue& list);
  explicit SharedFilesEntries(const Value::Array& list);

  std::size_t size() const { return entries_.size(); }
  // The entry at `position`, unpacked.
  Value entry(std::size_t position) const;
  // The value under `key` of the entry at `position`; nullopt when it has none.
  // Throws ValueError when the entry is not a dictionary.
  std::optional<PackedValue> field(std::size_t position, std::string_view key) const;

  // The positions of the entries matching `format` with `arguments`, in order.
  // Throws ValueError where the predicate over the list would.
  std::vector<std::size_t> positions(std::string_view format,
                                     std::vector<Predicate::Argument> arguments) const;
  // The same entries, unpacked.
  Value::Array filter(std::string_view format, std::vector<Predicate::Argument> arguments) const;

  void append(const Value& entry);
  // Sets `key` to `text` in the entry at `position`; an entry that holds that
  // text there already is left as it is. Throws ValueError when the entry is not
  // a dictionary.
  void setText(std::size_t position, const std::string& key, const std::string& text);
  // Removes the entries at `positions` (in increasing order).
  void erase(const std::vector<std::size_t>& positions);

  // The whole list packed, as it is stored and kept.
  PackedValue packed() const;

 private:
  std::vector<std::size_t> matching(const Predicate& predicate) const;
  void requireDictionary(std::size_t position) const;

  std::vector<PackedValue> entries_;
};
