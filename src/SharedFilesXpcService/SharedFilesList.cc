#include "SharedFilesXpcService/SharedFilesList.h"

#include <algorithm>

#include "Platform/Log.h"
#include "Platform/ValueError.h"

namespace {
constexpr const char* kListKey = "SharedFileDataKey";
}  // namespace

Value::Array SharedFilesList::load(UserDefaults& defaults) {
  std::optional<Value> stored = defaults.objectForKey(kListKey);
  if (!stored) return {};
  if (Value::Array* list = stored->mutableArray()) return std::move(*list);
  Log::printf("SharedFileDataKey holds a %s, not a list; left as it is",
              std::string(stored->kindName()).c_str());
  throw ValueError("SharedFileDataKey holds a " + std::string(stored->kindName()) + ", not a list");
}

std::mutex& SharedFilesList::changing() {
  static auto* mutex = new std::mutex;  // never destroyed: a pass may end as the process exits
  return *mutex;
}

void SharedFilesList::store(UserDefaults& defaults, const Value::Array& list) {
  defaults.setObject(Value(list), kListKey);
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
