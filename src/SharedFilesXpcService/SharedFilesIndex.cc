#include "SharedFilesXpcService/SharedFilesIndex.h"

SharedFilesIndex::SharedFilesIndex(const SharedFilesEntries& list, std::string key)
    : key_(std::move(key)) {
  for (std::size_t position = 0; position < list.size(); ++position) added(list, position);
}

void SharedFilesIndex::added(const SharedFilesEntries& list, std::size_t position) {
  const std::optional<PackedValue> value = list.field(position, key_);
  if (!value) {
    withoutKey_.push_back(position);
  } else if (const std::optional<std::string_view> text = value->text()) {
    byText_[std::string(*text)].push_back(position);
  }
}

std::vector<std::size_t> SharedFilesIndex::positions(const SharedFilesEntries& list,
                                                     const Predicate::Argument& value) const {
  if (!value) return withoutKey_;
  if (const std::string* text = value->string()) {
    auto found = byText_.find(*text);
    return found == byText_.end() ? std::vector<std::size_t>() : found->second;
  }
  // A number or another kind never equals text: only a scan can tell.
  return list.positions("(" + key_ + " == %@)", {value});
}
