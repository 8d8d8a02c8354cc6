#include "Platform/PackedValue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

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

}  // namespace
