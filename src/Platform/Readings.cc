#include "Platform/Readings.h"

#include <cmath>
#include <limits>
#include <string>
#include <variant>

#include "Platform/ValueError.h"

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Truncates toward zero and saturates; NaN reads as 0.
std::int64_t truncated(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775808.0) return kMax;
  if (d < -9223372036854775808.0) return kMin;
  return static_cast<std::int64_t>(d);
}

}  // namespace

std::int64_t Readings::integerFromText(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  // Accumulate as a negative number so that the minimum is representable.
  std::int64_t result = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (result < (kMin + digit) / 10) return negative ? kMin : kMax;
    result = result * 10 - digit;
  }
  if (negative) return result;
  return result == kMin ? kMax : -result;
}

std::int64_t Readings::integerValue(const Value* value) {
  if (value == nullptr) return 0;
  if (const std::string* s = value->string()) return integerFromText(*s);
  if (const Value::Number* n = value->number()) {
    if (const bool* b = std::get_if<bool>(n)) return *b ? 1 : 0;
    if (const std::int64_t* i = std::get_if<std::int64_t>(n)) return *i;
    if (const std::uint64_t* u = std::get_if<std::uint64_t>(n))
      return static_cast<std::int64_t>(*u);
    return truncated(std::get<double>(*n));
  }
  throw ValueError("integerValue: a " + std::string(value->kindName()) + " has no integer value");
}

std::int64_t Readings::integerValue(const std::optional<Value>& value) {
  return integerValue(value ? &*value : nullptr);
}

std::int64_t Readings::integerValue(const std::optional<nlohmann::json>& value) {
  if (!value) return 0;
  const nlohmann::json& j = *value;
  switch (j.type()) {
    case nlohmann::json::value_t::string:
      return integerFromText(j.get_ref<const std::string&>());
    case nlohmann::json::value_t::boolean:
      return j.get<bool>() ? 1 : 0;
    case nlohmann::json::value_t::number_integer:
      return j.get<std::int64_t>();
    case nlohmann::json::value_t::number_unsigned:
      return static_cast<std::int64_t>(j.get<std::uint64_t>());
    case nlohmann::json::value_t::number_float:
      return truncated(j.get<double>());
    default:
      throw ValueError(std::string("integerValue: a JSON ") + j.type_name() +
                       " has no integer value");
  }
}

bool Readings::isEqual(const Value* a, const Value* b) {
  return a != nullptr && b != nullptr && *a == *b;
}

bool Readings::isEqualToText(const Value* value, std::string_view text) {
  const std::string* s = value == nullptr ? nullptr : value->string();
  return s != nullptr && *s == text;
}

bool Readings::isEqualToText(const std::optional<nlohmann::json>& value, std::string_view text) {
  return value && value->is_string() && value->get_ref<const std::string&>() == text;
}

bool Readings::boolValue(const std::optional<nlohmann::json>& value) {
  if (!value) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0;
  if (!value->is_string()) {
    throw ValueError(std::string("a JSON ") + value->type_name() + " has no truth value");
  }
  const std::string& text = value->get_ref<const std::string&>();
  std::size_t at = text.find_first_not_of(" \t\n\r\v\f");
  if (at != std::string::npos && (text[at] == '+' || text[at] == '-')) ++at;
  while (at < text.size() && text[at] == '0') ++at;
  if (at >= text.size()) return false;
  const char c = text[at];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

bool Readings::isEqualToString(const std::optional<nlohmann::json>& value,
                               const std::optional<nlohmann::json>& other) {
  if (!value) return false;
  if (!value->is_string()) {
    throw ValueError(std::string("isEqualToString: a JSON ") + value->type_name() + " is not text");
  }
  return other && other->is_string() &&
         value->get_ref<const std::string&>() == other->get_ref<const std::string&>();
}

bool Readings::isEqualToString(const std::optional<nlohmann::json>& value, const char* text) {
  return isEqualToString(value, std::optional<nlohmann::json>(std::string(text)));
}

std::optional<std::string> Readings::headerText(const std::optional<nlohmann::json>& value) {
  if (!value) return std::nullopt;
  if (value->is_number() || value->is_boolean()) return value->dump();
  if (!value->is_string()) {
    throw ValueError(std::string("a JSON ") + value->type_name() + " cannot be a header value");
  }
  const std::string& text = value->get_ref<const std::string&>();
  if (text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
    throw ValueError("a header value cannot hold a line break or U+0000");
  }
  return text;
}

std::optional<nlohmann::json> Readings::requestValue(const Value* value) {
  if (value == nullptr) return std::nullopt;
  if (const std::string* text = value->string()) return *text;
  if (const Value::Number* number = value->number()) {
    return std::visit([](auto n) { return nlohmann::json(n); }, *number);
  }
  // A list or a dictionary goes out as it stands, when all it holds can.
  if (const Value::Array* array = value->array()) {
    nlohmann::json list = nlohmann::json::array();
    for (const Value& element : *array) {
      std::optional<nlohmann::json> item = requestValue(&element);
      if (!item) return std::nullopt;
      list.push_back(std::move(*item));
    }
    return list;
  }
  if (const Value::Dictionary* dictionary = value->dictionary()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, element] : *dictionary) {
      std::optional<nlohmann::json> item = requestValue(&element);
      if (!item) return std::nullopt;
      object[key] = std::move(*item);
    }
    return object;
  }
  return std::nullopt;
}

namespace {

// A string, boolean or number as the platform's object; nullopt for other kinds.
std::optional<Value> scalarValue(const nlohmann::json& j) {
  switch (j.type()) {
    case nlohmann::json::value_t::string:
      return Value(j.get<std::string>());
    case nlohmann::json::value_t::boolean:
      return Value::boolean(j.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return Value::integer(j.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned:
      return Value::unsignedInteger(j.get<std::uint64_t>());
    case nlohmann::json::value_t::number_float:
      return Value::real(j.get<double>());
    default:
      return std::nullopt;
  }
}

}  // namespace

Value Readings::objectValue(const nlohmann::json& value) {
  if (std::optional<Value> scalar = scalarValue(value)) return std::move(*scalar);
  if (value.is_array()) {
    Value::Array array;
    array.reserve(value.size());
    for (const nlohmann::json& element : value) array.push_back(objectValue(element));
    return Value(std::move(array));
  }
  if (value.is_object()) {
    Value::Dictionary dictionary;
    for (const auto& [key, element] : value.items()) dictionary.emplace(key, objectValue(element));
    return Value(std::move(dictionary));
  }
  return Value(Value::Null{});
}

std::optional<Value> Readings::objectValue(const std::optional<nlohmann::json>& value) {
  if (!value) return std::nullopt;
  return objectValue(*value);
}

Value Readings::listValue(const std::optional<nlohmann::json>& value) {
  if (!value) throw ValueError("an absent value cannot be put into a list entry");
  const nlohmann::json& j = *value;
  if (j.is_string() && j.get_ref<const std::string&>().find('\0') != std::string::npos) {
    throw ValueError("text holding U+0000 cannot be kept exactly in a list entry");
  }
  if (j.is_number_unsigned() && j.get<std::uint64_t>() > static_cast<std::uint64_t>(kMax)) {
    throw ValueError("the integer " + j.dump() + " cannot be kept exactly in a list entry");
  }
  std::optional<Value> scalar = scalarValue(j);
  if (!scalar)
    throw ValueError(std::string("a JSON ") + j.type_name() + " cannot be put into a list entry");
  return std::move(*scalar);
}

std::string Readings::formatted(const std::optional<nlohmann::json>& value) {
  if (!value) return "(null)";
  if (value->is_null()) return "<null>";
  if (value->is_string()) {
    const std::string& text = value->get_ref<const std::string&>();
    if (text.find('\0') != std::string::npos) throw ValueError("text holding U+0000 names no path");
    return text;
  }
  if (value->is_number() || value->is_boolean()) return value->dump();
  throw ValueError(std::string("a JSON ") + value->type_name() + " has no text to show");
}

bool Readings::isUTF8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 1;
    char32_t point = lead;
    char32_t smallest = 0;
    if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, point = lead & 0x07U, smallest = 0x10000;
    } else if (lead >= 0xE0) {
      length = 3, point = lead & 0x0FU, smallest = 0x800;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, point = lead & 0x1FU, smallest = 0x80;
    } else if (lead >= 0x80) {
      return false;
    }
    if (lead >= 0xF5 || text.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0U) != 0x80U) return false;
      point = (point << 6U) | (next & 0x3FU);
    }
    if (point < smallest || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}
