#include "Platform/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <limits>
#include <memory>

#include "Platform/ValueError.h"

namespace {

// libplist keeps dates as seconds since 2001-01-01.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct PlistDeleter {
  void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

std::string takeString(char* text) {
  std::string result = text == nullptr ? std::string() : std::string(text);
  free(text);  // NOLINT(cppcoreguidelines-no-malloc): libplist allocates with malloc
  return result;
}

std::optional<Value> fromNode(plist_t node, int depth) {
  if (node == nullptr || depth > 512) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      return Value(takeString(text));
    }
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value::boolean(b != 0);
    }
    case PLIST_UINT:
    case PLIST_UID: {
      // libplist 2.2 gives no way to tell a negative integer from a large unsigned
      // one; preference integers are signed, as the platform writes them.
      uint64_t u = 0;
      if (plist_get_node_type(node) == PLIST_UINT) {
        plist_get_uint_val(node, &u);
      } else {
        plist_get_uid_val(node, &u);
      }
      return Value::integer(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value::real(d);
    }
    case PLIST_DATE: {
      int32_t sec = 0;
      int32_t usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return Value(Value::Date{kSecondsFrom1970To2001 + sec + usec / 1e6});
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      Value::Data data(reinterpret_cast<const uint8_t*>(bytes),
                       reinterpret_cast<const uint8_t*>(bytes) + length);
      free(bytes);  // NOLINT(cppcoreguidelines-no-malloc)
      return Value(std::move(data));
    }
    case PLIST_ARRAY: {
      Value::Array array;
      uint32_t size = plist_array_get_size(node);
      array.reserve(size);
      for (uint32_t i = 0; i < size; ++i) {
        auto element = fromNode(plist_array_get_item(node, i), depth + 1);
        if (!element) return std::nullopt;
        array.push_back(std::move(*element));
      }
      return Value(std::move(array));
    }
    case PLIST_DICT: {
      Value::Dictionary dictionary;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (item == nullptr) {
          free(key);  // NOLINT(cppcoreguidelines-no-malloc)
          break;
        }
        std::string name = takeString(key);
        auto element = fromNode(item, depth + 1);
        if (!element) {
          free(it);  // NOLINT(cppcoreguidelines-no-malloc)
          return std::nullopt;
        }
        dictionary.insert_or_assign(std::move(name), std::move(*element));
      }
      free(it);  // NOLINT(cppcoreguidelines-no-malloc)
      return Value(std::move(dictionary));
    }
    default:
      return std::nullopt;
  }
}

PlistPtr toNode(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kString:
      return PlistPtr(plist_new_string(value.string()->c_str()));
    case Value::Kind::kNumber: {
      const Value::Number& n = *value.number();
      if (const bool* b = std::get_if<bool>(&n)) return PlistPtr(plist_new_bool(*b ? 1 : 0));
      if (const int64_t* i = std::get_if<int64_t>(&n)) {
        return PlistPtr(plist_new_uint(static_cast<uint64_t>(*i)));
      }
      if (const uint64_t* u = std::get_if<uint64_t>(&n)) return PlistPtr(plist_new_uint(*u));
      return PlistPtr(plist_new_real(std::get<double>(n)));
    }
    case Value::Kind::kData: {
      const Value::Data& d = *value.data();
      return PlistPtr(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
    }
    case Value::Kind::kDate: {
      double since2001 = value.date()->secondsSince1970 - kSecondsFrom1970To2001;
      double whole = std::floor(since2001);
      if (!(whole >= std::numeric_limits<int32_t>::min() &&
            whole <= std::numeric_limits<int32_t>::max())) {
        throw ValueError("A date out of the property-list range cannot be stored");
      }
      return PlistPtr(plist_new_date(static_cast<int32_t>(whole),
                                     static_cast<int32_t>((since2001 - whole) * 1e6)));
    }
    case Value::Kind::kArray: {
      PlistPtr array(plist_new_array());
      for (const Value& element : *value.array()) {
        plist_array_append_item(array.get(), toNode(element).release());
      }
      return array;
    }
    case Value::Kind::kDictionary: {
      PlistPtr dictionary(plist_new_dict());
      for (const auto& [key, element] : *value.dictionary()) {
        plist_dict_set_item(dictionary.get(), key.c_str(), toNode(element).release());
      }
      return dictionary;
    }
    case Value::Kind::kFileHandle:
    case Value::Kind::kUuid:
      break;
  }
  throw ValueError("A " + std::string(value.kindName()) + " cannot be stored in a property list");
}

}  // namespace

std::optional<Value> PropertyList::parse(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  PlistPtr owner(root);
  return fromNode(root, 0);
}

std::string PropertyList::xml(const Value& value) {
  PlistPtr root = toNode(value);
  char* text = nullptr;
  uint32_t length = 0;
  plist_to_xml(root.get(), &text, &length);
  std::string result(text == nullptr ? "" : text, length);
  plist_to_xml_free(text);
  return result;
}
