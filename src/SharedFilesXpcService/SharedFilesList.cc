#include "SharedFilesXpcService/SharedFilesList.h"

#include <algorithm>

#include "Platform/Log.h"
#include "Platform/ValueError.h"

namespace {
constexpr const char* kListKey = "SharedFileDataKey";
}  // namespace

Value::Array SharedFilesList::load(UserDefaults& defaults) {
  return loadPacked(defaults).unpackedArray();
}

PackedValue SharedFilesList::loadPacked(UserDefaults& defaults) {
  std::optional<PackedValue> stored = defaults.packedObjectForKey(kListKey);
  if (!stored) return PackedValue(Value::Array());
  if (stored->kind() == Value::Kind::kArray) return *stored;
  const std::string kind(stored->unpacked().kindName());
  Log::printf("SharedFileDataKey holds a %s, not a list; left as it is", kind.c_str());
  throw ValueError("SharedFileDataKey holds a " + kind + ", not a list");
}

std::mutex& SharedFilesList::changing() {
  static auto* mutex = new std::mutex;  // never destroyed: a pass may end as the process exits
  return *mutex;
}

void SharedFilesList::store(UserDefaults& defaults, const Value::Array& list) {
  storePacked(defaults, PackedValue(list));
}

void SharedFilesList::storePacked(UserDefaults& defaults, const PackedValue& list) {
  defaults.setPacked(list, kListKey);
  defaults.synchronize();
}

Value::Array SharedFilesList::filter(const Value::Array& list, std::string_view format,
                                     std::vector<Predicate::Argument> arguments) {
  return Predicate(format, std::move(arguments)).filteredArray(list);
}

void SharedFilesList::setValueOfEntry(Value::Array& list, const Value& entry,
                                      const std::string& key, const std::string& text) {
  auto found = std::find(list.begin(), list.end(), entry);
  if (found == list.end()) throw ValueError("The entry to change is not in the shared-files list");
  Value changed = entry;
  Value::Dictionary* fields = changed.mutableDictionary();
  if (fields == nullptr) {
    throw ValueError("A shared-files entry is a " + std::string(entry.kindName()) +
                     ", not a dictionary");
  }
  fields->insert_or_assign(key, Value(text));
  *found = std::move(changed);
}
