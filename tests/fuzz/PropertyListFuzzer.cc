// Feeds arbitrary bytes to the property-list reader, as a preference suite read
// from disk, XML or binary. Reading must give a value or nothing. What it reads
// is a value a property list holds: it must be written as XML without an error,
// and that XML read back as the same value, as far as XML carries it. Packed, it
// must unpack to the same bytes, and its elements and fields, read in place, must
// be those of the value packed apart. Anything
// else (a crash, an exception, a leak, undefined behaviour, a stall) is a finding.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/PackedValue.h"
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

// Whether the packed value, and each element or field read in place, is what
// packing its parts apart gives; packing is exact, so equal bytes are expected.
bool packsInPlace(const Value& value) {
  const PackedValue packed(value);
  if (!(PackedValue(packed.unpacked()) == packed)) return false;
  if (const Value::Array* array = value.array()) {
    const std::vector<PackedValue> elements = packed.elements();
    if (elements.size() != array->size() || !(PackedValue::array(elements) == packed)) return false;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      if (!(elements[i] == PackedValue((*array)[i]))) return false;
    }
  }
  if (const Value::Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, element] : *dictionary) {
      const std::optional<PackedValue> found = packed.objectForKey(key);
      if (!found || !(*found == PackedValue(element))) return false;
    }
  }
  if (const std::string* text = value.string()) {
    if (packed.text() != std::string_view(*text)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::optional<Value> value =
      PropertyList::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!value) return 0;
  const std::optional<Value> back = PropertyList::parse(PropertyList::xml(*value));
  if (!back || !sameAsWritten(*value, *back)) __builtin_trap();
  if (!packsInPlace(*value)) __builtin_trap();
  return 0;
}
