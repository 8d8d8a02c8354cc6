#include "Platform/Readings.h"

#include <gtest/gtest.h>

#include "Platform/ValueError.h"

using nlohmann::json;

TEST(ReadingsTest, TextReadsLikeThePlatformIntegerValue) {
  EXPECT_EQ(Readings::integerFromText(" -7"), -7);
  EXPECT_EQ(Readings::integerFromText("\t\n+42"), 42);
  EXPECT_EQ(Readings::integerFromText("12abc"), 12);
  EXPECT_EQ(Readings::integerFromText("1.9"), 1);
  EXPECT_EQ(Readings::integerFromText("abc"), 0);
  EXPECT_EQ(Readings::integerFromText(""), 0);
  EXPECT_EQ(Readings::integerFromText("-"), 0);
  EXPECT_EQ(Readings::integerFromText("- 5"), 0);
  EXPECT_EQ(Readings::integerFromText("007"), 7);
  EXPECT_EQ(Readings::integerFromText("99999999999999999999"), INT64_MAX);
  EXPECT_EQ(Readings::integerFromText("-99999999999999999999"), INT64_MIN);
  EXPECT_EQ(Readings::integerFromText("-9223372036854775808"), INT64_MIN);
}

TEST(ReadingsTest, PreferenceValuesReadByKind) {
  EXPECT_EQ(Readings::integerValue(nullptr), 0);
  EXPECT_EQ(Readings::integerValue(std::optional<Value>()), 0);
  Value text(" -7");
  EXPECT_EQ(Readings::integerValue(&text), -7);
  Value real = Value::real(-3.99);
  EXPECT_EQ(Readings::integerValue(&real), -3);
  Value yes = Value::boolean(true);
  EXPECT_EQ(Readings::integerValue(&yes), 1);
  Value huge = Value::real(1e300);
  EXPECT_EQ(Readings::integerValue(&huge), INT64_MAX);

  Value array(Value::Array{Value("1")});
  EXPECT_THROW(Readings::integerValue(&array), ValueError);
  Value dictionary(Value::Dictionary{});
  EXPECT_THROW(Readings::integerValue(&dictionary), ValueError);
  Value data(Value::Data{'1'});
  EXPECT_THROW(Readings::integerValue(&data), ValueError);
}

TEST(ReadingsTest, PreferenceIdentifiersGoIntoRequestsAsTheyStandListsAndDictionariesToo) {
  Value text("C1");
  EXPECT_EQ(Readings::requestValue(&text), json("C1"));
  Value number = Value::integer(42);
  EXPECT_EQ(Readings::requestValue(&number), json(42));
  Value list(Value::Array{Value("C1"), Value::integer(2)});
  EXPECT_EQ(Readings::requestValue(&list), json::parse(R"(["C1", 2])"));
  Value dictionary(Value::Dictionary{{"id", Value("C1")}, {"more", Value(Value::Array{})}});
  EXPECT_EQ(Readings::requestValue(&dictionary), json::parse(R"({"id": "C1", "more": []})"));
  Value data(Value::Data{'1'});
  EXPECT_EQ(Readings::requestValue(&data), std::nullopt);
  Value holdingData(Value::Array{Value("C1"), Value(Value::Data{'1'})});
  EXPECT_EQ(Readings::requestValue(&holdingData), std::nullopt);
  EXPECT_EQ(Readings::requestValue(nullptr), std::nullopt);
}

TEST(ReadingsTest, ServerValuesReadByKind) {
  EXPECT_EQ(Readings::integerValue(std::optional<json>()), 0);
  EXPECT_EQ(Readings::integerValue(std::optional<json>(json("12abc"))), 12);
  EXPECT_EQ(Readings::integerValue(std::optional<json>(json(2.7))), 2);
  EXPECT_EQ(Readings::integerValue(std::optional<json>(json(-2.7))), -2);
  EXPECT_EQ(Readings::integerValue(std::optional<json>(json(true))), 1);
  EXPECT_EQ(Readings::integerValue(std::optional<json>(json(18446744073709551615ULL))), -1);
  EXPECT_THROW(Readings::integerValue(std::optional<json>(json::array({1}))), ValueError);
  EXPECT_THROW(Readings::integerValue(std::optional<json>(json::object())), ValueError);
  EXPECT_THROW(Readings::integerValue(std::optional<json>(json(nullptr))), ValueError);
}

TEST(ReadingsTest, AbsentEqualsNothingAndNumbersNeverEqualText) {
  Value empty("");
  Value zero = Value::integer(0);
  EXPECT_FALSE(Readings::isEqual(nullptr, &empty));
  EXPECT_FALSE(Readings::isEqual(&zero, nullptr));
  EXPECT_FALSE(Readings::isEqual(nullptr, nullptr));
  EXPECT_FALSE(Readings::isEqualToText(nullptr, ""));

  Value twelve = Value::integer(12);
  Value twelveText("12");
  EXPECT_FALSE(Readings::isEqual(&twelve, &twelveText));
  EXPECT_FALSE(Readings::isEqualToText(&twelve, "12"));
  EXPECT_FALSE(Readings::isEqualToText(std::optional<json>(json(12)), "12"));
  EXPECT_TRUE(Readings::isEqualToText(std::optional<json>(json("12")), "12"));
  EXPECT_FALSE(Readings::isEqualToText(&twelveText, "012"));

  Value one = Value::integer(1);
  Value yes = Value::boolean(true);
  Value oneReal = Value::real(1.0);
  EXPECT_TRUE(Readings::isEqual(&one, &yes));
  EXPECT_TRUE(Readings::isEqual(&one, &oneReal));
  Value negative = Value::integer(-1);
  Value maxUnsigned = Value::unsignedInteger(UINT64_MAX);
  EXPECT_FALSE(Readings::isEqual(&negative, &maxUnsigned));
}

TEST(ReadingsTest, LookupInSomethingThatIsNotADictionaryThrows) {
  Value text("x");
  EXPECT_THROW(text.objectForKey("FileName"), ValueError);
  Value entry(Value::Dictionary{{"FileName", Value("/a")}});
  EXPECT_EQ(entry.objectForKey("Missing"), nullptr);
  EXPECT_EQ(*entry.objectForKey("FileName"), Value("/a"));
  EXPECT_EQ(Value::integer(1).objCType(), 'q');
  EXPECT_EQ(Value::boolean(false).objCType(), 'c');
  EXPECT_EQ(Value::unsignedInteger(1).objCType(), 'Q');
  EXPECT_EQ(Value::real(1).objCType(), 'd');
  EXPECT_THROW(text.objCType(), ValueError);
}
