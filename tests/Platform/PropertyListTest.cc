#include "Platform/PropertyList.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/ValueError.h"

namespace {

// Binary lists a damaged or hostile preference file may hold; each once ended
// the whole process inside libplist, or was read and then could never be stored.
template <std::size_t N>
std::string_view bytes(const char (&literal)[N]) {
  return {literal, N - 1};
}

TEST(PropertyListTest, BinaryListsWithANulInAStringOrKeyOrADateOutOfRangeAreUnreadable) {
  // A string "\0a" (UTF-16).
  EXPECT_FALSE(PropertyList::parse(bytes(
      "\x62\x70\x6c\x69\x73\x74\x30\x30\x63\x00\x61\x00\x00\x00\x62\x08\x00\x00\x00\x00\x00\x00"
      "\x01\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x0f")));
  // A dictionary whose key holds a NUL.
  EXPECT_FALSE(PropertyList::parse(bytes(
      "\x62\x70\x6c\x69\x73\x74\x30\x30\xd1\x01\x02\x63\x00\x61\x00\x00\x00\x62\x51\x63\x08\x0b"
      "\x12\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x14")));
  // An XML document with a NUL character inside a string.
  EXPECT_FALSE(PropertyList::parse(
      bytes("<?xml version=\"1.0\"?><plist version=\"1.0\"><string>a\0b</string></plist>")));
  // A date that is not a number: unreadable, or read as a date that can be stored.
  const std::optional<Value> date = PropertyList::parse(bytes(
      "\x62\x70\x6c\x69\x73\x74\x30\x30\x33\x7f\xf8\x00\x00\x00\x00\x00\x00\x08\x00\x00\x00\x00"
      "\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x11"));
  if (date) {
    EXPECT_NO_THROW(PropertyList::xml(*date));
  }
}

TEST(PropertyListTest, BinaryListOfOrdinaryValuesReadsAsItsXmlFormDoes) {
  const Value value(Value::Dictionary{{"name", "Ann"}, {"count", Value::integer(3)}});
  const std::string xml = PropertyList::xml(value);
  EXPECT_EQ(PropertyList::parse(xml), value);
  // The same dictionary, binary: {"count": 3, "name": "Ann"}.
  EXPECT_EQ(PropertyList::parse(bytes(
                "\x62\x70\x6c\x69\x73\x74\x30\x30\xd2\x01\x02\x03\x04\x55\x63\x6f\x75\x6e\x74\x54"
                "\x6e\x61\x6d\x65\x10\x03\x53\x41\x6e\x6e\x08\x0d\x13\x18\x1a\x00\x00\x00\x00\x00"
                "\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x05\x00\x00\x00\x00\x00\x00\x00\x00\x00"
                "\x00\x00\x00\x00\x00\x00\x1e")),
            value);
}

}  // namespace

namespace {

TEST(PropertyListTest, WrittenXmlReadsBackAsEveryKindItCanHoldAndEscapesWhatXmlReserves) {
  Value::Data bytes;
  for (int i = 0; i < 200; ++i) bytes.push_back(static_cast<std::uint8_t>(i * 7));
  const Value value(Value::Dictionary{
      {"text", "a<b> & \"c\" 'd' é"},
      {"key <&>", ""},
      {"yes", Value::boolean(true)},
      {"no", Value::boolean(false)},
      {"negative", Value::integer(-3)},
      {"large", Value::integer(-9223372036854775807LL - 1)},
      {"half", Value::real(1.5)},
      {"tenth", Value::real(0.1)},
      {"zero", Value::real(0)},
      {"date", Value(Value::Date{1700000000})},
      {"bytes", Value(bytes)},
      {"one byte", Value(Value::Data{0xFF})},
      {"none", Value(Value::Data{})},
      {"empty list", Value(Value::Array{})},
      {"empty dictionary", Value(Value::Dictionary{})},
      {"nested", Value(Value::Array{Value("x"), Value(Value::Dictionary{{"q", "w"}}),
                                    Value(Value::Array{Value(Value::Array{})})})}});
  const std::string xml = PropertyList::xml(value);
  EXPECT_EQ(PropertyList::parse(xml), value) << xml;
  EXPECT_NE(xml.find("<string>a&lt;b&gt; &amp; \"c\" 'd' é</string>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<key>key &lt;&amp;&gt;</key>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("<date>2023-11-14T22:13:20Z</date>"), std::string::npos) << xml;
  EXPECT_NE(xml.find("\t<key>empty list</key>\n\t<array/>\n"), std::string::npos) << xml;

  // Text ends at a NUL character; no XML document can hold one.
  EXPECT_EQ(PropertyList::parse(PropertyList::xml(Value(std::string("ab\0cd", 5)))), Value("ab"));
  // What a property list cannot hold is refused with the kind named.
  try {
    PropertyList::xml(Value(Value::Array{Value(Value::Null{})}));
    ADD_FAILURE() << "null was written";
  } catch (const ValueError& refused) {
    EXPECT_STREQ(refused.what(), "A null cannot be stored in a property list");
  }
}

}  // namespace
