#include "SharedFilesXpcService/SharedFilesIndex.h"

#include "Platform/ValueError.h"

SharedFilesIndex::SharedFilesIndex(const Value::Array& list, std::string key)
    : key_(std::move(key)) {
  for (std::size_t position = 0; position < list.size(); ++position) {
    added(position, list[position]);
  }
}

void SharedFilesIndex::added(std::size_t position, const Value& entry) {
  if (entry.dictionary() == nullptr) {
    throw ValueError("a shared-files entry is a " + std::string(entry.kindName()) +
                     ", not a dictionary");
  }
  const Value* value = entry.objectForKey(key_);
  if (value == nullptr) {
    withoutKey_.push_back(position);
  } else if (const std::string* text = value->string()) {
    byText_[*text].push_back(position);
  }
}

std::vector<std::size_t> SharedFilesIndex::positions(const Value::Array& list,
                                                     const Predicate::Argument& value) const {
  if (!value) return withoutKey_;
  if (const std::string* text = value->string()) {
    auto found = byText_.find(*text);
    return found == byText_.end() ? std::vector<std::size_t>() : found->second;
  }
  // A number or another kind never equals text: only a scan can tell.
  const Predicate equal("(" + key_ + " == %@)", {value});
  std::vector<std::size_t> found;
  for (std::size_t position = 0; position < list.size(); ++position) {
    if (equal.evaluateWithObject(list[position])) found.push_back(position);
  }
  return found;
}
