#include "Platform/PackedValue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

Value entry(const std::string& name, const std::string& owner, const std::string& saved) {
  return Value(Value::Dictionary{{"Blocked", "0"},
                                 {"DeleteKey", "0"},
                                 {"FileID", "1234"},
                                 {"FileName", Value("/h/Tallowbox/A (Shared)/" + name)},
                                 {"IsFile", "True"},
                                 {"MyFile", "0"},
                                 {"OwnerFileID", Value(owner)},
                                 {"SavedFileID", Value(saved)},
                                 {"UserComputerMapID", "M1"}});
}

TEST(PackedValueTest, EveryKindComesBackEqualAndOfItsOwnType) {
  Value::Array many;
  for (int i = 0; i < 200; ++i) many.emplace_back(Value::integer(i));
  const auto handle = FileHandle::duplicating(STDIN_FILENO);
  const Value value(Value::Dictionary{
      {"text", "caf\xc3\xa9"},
      {"long", Value(std::string(300, 'x'))},
      {"empty", ""},
      {"yes", Value::boolean(true)},
      {"no", Value::boolean(false)},
      {"negative", Value::integer(-5)},
      {"huge", Value::unsignedInteger(18446744073709551615ULL)},
      {"real", Value::real(0.5)},
      {"data", Value(Value::Data{0, 1, 255})},
      {"date", Value(Value::Date{1e9})},
      {"many", Value(many)},
      {"nested", Value(Value::Array{Value(Value::Dictionary{{"text", "inner"}}), Value()})},
      {"handle", Value(handle)},
      {"uuid", Value(Value::Uuid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16})},
      {"null", Value(Value::Null{})}});
  const Value back = PackedValue(value).unpacked();
  EXPECT_EQ(back, value);
  // Numbers keep their type, not only their value.
  EXPECT_EQ(back.objectForKey("yes")->objCType(), 'c');
  EXPECT_EQ(back.objectForKey("negative")->objCType(), 'q');
  EXPECT_EQ(back.objectForKey("huge")->objCType(), 'Q');
  EXPECT_EQ(back.objectForKey("real")->objCType(), 'd');
  EXPECT_EQ(back.objectForKey("handle")->fileHandle()->get(), handle.get());
}

TEST(PackedValueTest, NothingPackedUnpacksToAnEmptyString) {
  EXPECT_EQ(PackedValue().unpacked(), Value(""));
  EXPECT_EQ(PackedValue().size(), 0U);
}

TEST(PackedValueTest, ListEntryAfterTheFirstTakesAByteForEachKey) {
  const PackedValue one(Value(Value::Array{entry("a.txt", "OF1", "S1")}));
  const PackedValue two(
      Value(Value::Array{entry("a.txt", "OF1", "S1"), entry("b.txt", "OF2", "S2")}));
  // Its tag and count, nine keys named by number, and its nine values: tag,
  // length and text each.
  EXPECT_EQ(two.size() - one.size(), 76U);
  EXPECT_EQ(two.unpacked(),
            Value(Value::Array{entry("a.txt", "OF1", "S1"), entry("b.txt", "OF2", "S2")}));
}

TEST(PackedValueTest, OnlyTheSameBytesAreEqualNotAnEqualNumberOfAnotherType) {
  EXPECT_EQ(PackedValue(entry("a.txt", "OF1", "S1")), PackedValue(entry("a.txt", "OF1", "S1")));
  EXPECT_FALSE(PackedValue(entry("a.txt", "OF1", "S1")) ==
               PackedValue(entry("a.txt", "OF1", "S2")));
  EXPECT_FALSE(PackedValue(Value::integer(1)) == PackedValue(Value::boolean(true)));
  EXPECT_EQ(PackedValue(Value::Array{Value("x")}), PackedValue(Value(Value::Array{Value("x")})));
}

TEST(PackedValueTest, ElementsAndFieldsReadInPlaceAreTheValuesPackedApart) {
  const Value::Array list = {entry("a.txt", "OF1", "S1"), Value("stray text"),
                             entry("b.txt", "OF2", "S2")};
  const PackedValue packed(list);
  const std::vector<PackedValue> elements = packed.elements();
  ASSERT_EQ(elements.size(), 3U);
  EXPECT_EQ(elements[0], PackedValue(entry("a.txt", "OF1", "S1")));
  EXPECT_EQ(elements[2].unpacked(), entry("b.txt", "OF2", "S2"));
  EXPECT_EQ(elements[1].text(), "stray text");

  // A field, and what is not there.
  EXPECT_EQ(elements[2].objectForKey("SavedFileID")->text(), "S2");
  EXPECT_EQ(elements[2].objectForKey("FileName")->unpacked(),
            Value("/h/Tallowbox/A (Shared)/b.txt"));
  EXPECT_FALSE(elements[2].objectForKey("Saved"));
  EXPECT_FALSE(elements[1].objectForKey("SavedFileID"));
  EXPECT_FALSE(elements[0].text());
  EXPECT_TRUE(PackedValue(Value("x")).elements().empty());

  // Joined again, changed or not, as the same list packed whole would be.
  std::vector<PackedValue> changed = elements;
  changed[1] = PackedValue(entry("c.txt", "OF3", "S3"));
  changed.emplace_back();
  EXPECT_EQ(PackedValue::array(elements), packed);
  EXPECT_EQ(PackedValue::array(changed),
            PackedValue(Value::Array{entry("a.txt", "OF1", "S1"), entry("c.txt", "OF3", "S3"),
                                     entry("b.txt", "OF2", "S2"), Value("")}));
  EXPECT_EQ(PackedValue::array({}).unpacked(), Value(Value::Array()));

  // A quick test for a text never misses one the value holds.
  EXPECT_TRUE(elements[2].mayHold("OF2"));
  EXPECT_FALSE(elements[0].mayHold("OF2"));
}

TEST(PackedValueTest, ElementsWithFileHandlesAndKeysBeyondTheTableComeBackWhole) {
  // Handles are numbered within the value that holds them: elements taken from
  // two values and joined still name their own.
  const auto in = FileHandle::duplicating(STDIN_FILENO);
  const auto out = FileHandle::duplicating(STDOUT_FILENO);
  const PackedValue first(Value::Array{Value(in)});
  const PackedValue second(Value::Array{Value(out)});
  const PackedValue joined =
      PackedValue::array({first.elements().front(), second.elements().front()});
  const Value back = joined.unpacked();
  EXPECT_EQ(back.array()->at(0).fileHandle()->get(), in.get());
  EXPECT_EQ(back.array()->at(1).fileHandle()->get(), out.get());

  // Keys too long for the table, and more distinct keys than it takes, are
  // packed as their text and read back all the same. (The list's keys are
  // numbered first, for the tests after this one in the same process.)
  static_cast<void>(PackedValue(entry("a.txt", "OF1", "S1")));
  Value::Dictionary many;
  for (int i = 0; i < 5000; ++i) many.emplace("key-" + std::to_string(i), Value::integer(i));
  many.emplace(std::string(100, 'k'), "long");
  const PackedValue packed{Value(many)};
  EXPECT_EQ(packed.unpacked(), Value(many));
  EXPECT_EQ(packed.objectForKey(std::string(100, 'k'))->text(), "long");
  EXPECT_EQ(packed.objectForKey("key-4999")->unpacked(), Value::integer(4999));
}

}  // namespace
