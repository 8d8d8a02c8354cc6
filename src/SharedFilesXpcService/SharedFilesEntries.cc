#include "SharedFilesXpcService/SharedFilesEntries.h"

#include <algorithm>

#include "Platform/ValueError.h"

SharedFilesEntries::SharedFilesEntries(const PackedValue& list) : entries_(list.elements()) {}

SharedFilesEntries::SharedFilesEntries(const Value::Array& list) {
  entries_.reserve(list.size());
  for (const Value& entry : list) entries_.emplace_back(entry);
}

Value SharedFilesEntries::entry(std::size_t position) const {
  return entries_.at(position).unpacked();
}

std::optional<PackedValue> SharedFilesEntries::field(std::size_t position,
                                                     std::string_view key) const {
  requireDictionary(position);
  return entries_[position].objectForKey(key);
}

std::vector<std::size_t> SharedFilesEntries::positions(
    std::string_view format, std::vector<Predicate::Argument> arguments) const {
  return matching(Predicate(format, std::move(arguments)));
}

Value::Array SharedFilesEntries::filter(std::string_view format,
                                        std::vector<Predicate::Argument> arguments) const {
  Value::Array found;
  for (std::size_t position : positions(format, std::move(arguments))) {
    found.push_back(entry(position));
  }
  return found;
}

std::vector<std::size_t> SharedFilesEntries::matching(const Predicate& predicate) const {
  const std::vector<std::string_view> texts = predicate.textsRequired();
  std::vector<std::size_t> found;
  for (std::size_t position = 0; position < entries_.size(); ++position) {
    const PackedValue& candidate = entries_[position];
    // What is no dictionary is evaluated all the same: the predicate refuses it.
    const bool mayMatch = candidate.kind() != Value::Kind::kDictionary ||
                          std::all_of(texts.begin(), texts.end(), [&](std::string_view text) {
                            return candidate.mayHold(text);
                          });
    if (mayMatch && predicate.evaluateWithObject(candidate.unpacked())) found.push_back(position);
  }
  return found;
}

void SharedFilesEntries::append(const Value& entry) { entries_.emplace_back(entry); }

void SharedFilesEntries::setText(std::size_t position, const std::string& key,
                                 const std::string& text) {
  const std::optional<PackedValue> held = field(position, key);
  if (held && held->text() == text) return;
  Value changed = entries_[position].unpacked();
  changed.mutableDictionary()->insert_or_assign(key, Value(text));
  entries_[position] = PackedValue(changed);
}

void SharedFilesEntries::erase(const std::vector<std::size_t>& positions) {
  std::size_t next = 0;
  std::size_t kept = 0;
  for (std::size_t position = 0; position < entries_.size(); ++position) {
    if (next < positions.size() && positions[next] == position) {
      ++next;
      continue;
    }
    entries_[kept++] = entries_[position];
  }
  entries_.resize(kept);
}

PackedValue SharedFilesEntries::packed() const { return PackedValue::array(entries_); }

void SharedFilesEntries::requireDictionary(std::size_t position) const {
  const PackedValue& entry = entries_.at(position);
  if (entry.kind() != Value::Kind::kDictionary) {
    throw ValueError("A shared-files entry is a " + std::string(entry.unpacked().kindName()) +
                     ", not a dictionary");
  }
}
