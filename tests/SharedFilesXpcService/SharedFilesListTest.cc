#include "SharedFilesXpcService/SharedFilesList.h"

#include <gtest/gtest.h>

#include <fstream>

#include "Platform/ValueError.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace {

Value entry(const std::string& ownerFileId, const std::string& blocked) {
  return Value(Value::Dictionary{{"OwnerFileID", Value(ownerFileId)},
                                 {"UserComputerMapID", Value("5")},
                                 {"FileName", Value("/t/Tallowbox/Ann (Shared)/Docs")},
                                 {"Blocked", Value(blocked)}});
}

class SharedFilesListTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    environment.update([&](Environment& e) { e.configFolder = folder.path(); });
  }
  TemporaryFolder folder;
  UserDefaults& defaults = UserDefaults::standardUserDefaults();
};

}  // namespace

TEST_F(SharedFilesListTest, OfTwoEqualEntriesOnlyTheFirstChanges) {
  Value::Array list = {entry("9", "0"), entry("31", "1"), entry("31", "1")};
  Value match = SharedFilesList::filter(list, "(OwnerFileID == %@)", {Value("31")}).at(1);
  SharedFilesList::setValueOfEntry(list, match, "Blocked", "0");
  EXPECT_EQ(*list[1].objectForKey("Blocked"), Value("0"));
  EXPECT_EQ(*list[2].objectForKey("Blocked"), Value("1"));
  EXPECT_EQ(list[0], entry("9", "0"));
  // The changed entry is a new value: changing the old one again finds the second.
  SharedFilesList::setValueOfEntry(list, entry("31", "1"), "Blocked", "0");
  EXPECT_EQ(*list[2].objectForKey("Blocked"), Value("0"));
}

TEST_F(SharedFilesListTest, EntryNotInTheListOrNotADictionaryThrowsAndChangesNothing) {
  Value::Array list = {entry("1", "1")};
  EXPECT_THROW(SharedFilesList::setValueOfEntry(list, entry("2", "1"), "Blocked", "0"), ValueError);
  list.emplace_back("stray text");
  EXPECT_THROW(SharedFilesList::setValueOfEntry(list, Value("stray text"), "Blocked", "0"),
               ValueError);
  EXPECT_EQ(list[0], entry("1", "1"));
  EXPECT_EQ(list[1], Value("stray text"));
}

TEST_F(SharedFilesListTest, ListOfTheWrongKindThrowsAndIsLeftAsItIs) {
  defaults.setObject(Value("not a list"), "SharedFileDataKey");
  EXPECT_THROW(SharedFilesList::load(defaults), ValueError);
  EXPECT_EQ(defaults.objectForKey("SharedFileDataKey"), std::optional<Value>(Value("not a list")));

  // A number where an entry's text is expected reads by the value rules.
  defaults.setObject(Value(Value::Array{Value(Value::Dictionary{{"OwnerFileID", Value::integer(12)},
                                                                {"Blocked", Value("1")}})}),
                     "SharedFileDataKey");
  Value::Array list = SharedFilesList::load(defaults);
  EXPECT_TRUE(SharedFilesList::filter(list, "(OwnerFileID == %@)", {Value("12")}).empty());
}
