#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "Platform/Predicate.h"
#include "Platform/Value.h"
#include "SharedFilesXpcService/SharedFilesEntries.h"

// The positions of a shared-files list's entries by the value of one key, so that
// a pass finds an id's entries without scanning the whole list for each id. It
// answers exactly as the predicate "(<key> == %@)" over the list would: text
// matches text exactly, an absent argument matches the entries without the key,
// and an argument of another kind is looked for by scanning.
class SharedFilesIndex {
 public:
  // Throws ValueError when an entry is not a dictionary, as a predicate over the
  // list does.
  SharedFilesIndex(const SharedFilesEntries& list, std::string key);

  // The positions in `list` (the list the index was made of, changed only by
  // appending entries that were added) whose key equals `value`, in list order.
  std::vector<std::size_t> positions(const SharedFilesEntries& list,
                                     const Predicate::Argument& value) const;
  // Takes in the entry of `list` at `position`, just appended.
  void added(const SharedFilesEntries& list, std::size_t position);

 private:
  std::string key_;
  std::unordered_map<std::string, std::vector<std::size_t>> byText_;
  std::vector<std::size_t> withoutKey_;
};
