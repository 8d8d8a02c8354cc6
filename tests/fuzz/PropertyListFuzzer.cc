// Feeds arbitrary bytes to the property-list reader, as a preference suite read
// from disk, XML or binary. Reading must give a value or nothing. What it reads
// is a value a property list holds: it must be written as XML without an error,
// and that XML read back as the same value, as far as XML carries it. Anything
// else (a crash, an exception, a leak, undefined behaviour, a stall) is a finding.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

#include "Platform/PropertyList.h"

namespace {

// Whether `back`, read from the XML written for `value`, is `value` as XML
// carries it: the same kinds and the same number types all through; an XML date
// holds whole seconds, so a date comes back as one of the two whole seconds
// around it; a real that is not a number comes back as one, which equals nothing.
bool sameAsWritten(const Value& value, const Value& back) {
  if (value.kind() != back.kind()) return false;
  if (const Value::Number* number = value.number()) {
    if (value.objCType() != back.objCType()) return false;
    const double* real = std::get_if<double>(number);
    if (real != nullptr && std::isnan(*real)) return std::isnan(std::get<double>(*back.number()));
    return value == back;
  }
  if (const Value::Date* date = value.date()) {
    const double seconds = back.date()->secondsSince1970;
    return seconds == std::floor(date->secondsSince1970) ||
           seconds == std::ceil(date->secondsSince1970);
  }
  if (const Value::Array* array = value.array()) {
    const Value::Array& other = *back.array();
    if (array->size() != other.size()) return false;
    for (std::size_t i = 0; i < array->size(); ++i) {
      if (!sameAsWritten((*array)[i], other[i])) return false;
    }
    return true;
  }
  if (const Value::Dictionary* dictionary = value.dictionary()) {
    const Value::Dictionary& other = *back.dictionary();
    if (dictionary->size() != other.size()) return false;
    for (const auto& [key, element] : *dictionary) {
      const Value* found = Value::objectForKey(other, key);
      if (found == nullptr || !sameAsWritten(element, *found)) return false;
    }
    return true;
  }
  return value == back;  // strings and data, byte for byte
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::optional<Value> value =
      PropertyList::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!value) return 0;
  const std::optional<Value> back = PropertyList::parse(PropertyList::xml(*value));
  if (!back || !sameAsWritten(*value, *back)) __builtin_trap();
  return 0;
}
