#include "SharedFilesXpcService/SharedFilesEntries.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/ValueError.h"

namespace {

Value entry(const std::string& ownerFileId, const std::string& name, const std::string& blocked) {
  return Value(Value::Dictionary{{"OwnerFileID", Value(ownerFileId)},
                                 {"UserComputerMapID", "M1"},
                                 {"FileName", Value(name)},
                                 {"Blocked", Value(blocked)}});
}

// Entries whose texts turn up in other fields, numbers where text is expected,
// absent keys and twins: what a quick test on the bytes could get wrong.
Value::Array awkwardList() {
  Value::Array list;
  for (int i = 0; i < 40; ++i) {
    const std::string id = std::to_string(i);
    list.push_back(entry(id, "/h/T/Ann (Shared)/" + id, i % 3 == 0 ? "1" : "0"));
  }
  list.push_back(entry("7", "/h/T/Ann (Shared)/7", "0"));  // a twin of an entry above
  list.push_back(entry("0", "/h/T/Ann (Shared)/\xc3\x89T\xc3\xa9", "0"));
  list.push_back(Value(Value::Dictionary{{"OwnerFileID", Value::integer(12)},
                                         {"FileName", "/h/T/Ann (Shared)/12"},
                                         {"Blocked", "0"}}));
  list.push_back(Value(Value::Dictionary{{"FileName", "/h/T/Ann (Shared)/x"}}));
  return list;
}

TEST(SharedFilesEntriesTest, LookupsFindExactlyWhatThePredicateOverTheUnpackedListFinds) {
  const Value::Array list = awkwardList();
  const SharedFilesEntries entries{PackedValue(list)};
  struct Lookup {
    const char* format;
    std::vector<Predicate::Argument> arguments;
  };
  const std::vector<Lookup> lookups = {
      {"(OwnerFileID == %@)", {Value("12")}},  // "12" is in a name too, and a number
      {"(OwnerFileID == %@)", {Value::integer(12)}},
      {"(OwnerFileID == %@)", {std::nullopt}},
      {"(OwnerFileID == %@) AND (Blocked == %@)", {Value("7"), Value("0")}},
      {"(OwnerFileID == %@ AND Blocked == %@)", {Value("3"), Value("0")}},
      {"FileName == %@", {Value("/h/T/Ann (Shared)/x")}},
      {"FileName == %@", {Value("")}},
      {"FileName BEGINSWITH[c] %@", {Value("/H/t/ann (shared)/\xc3\xa9t")}},
      {"(UserComputerMapID==%@ AND OwnerFileID==%@)", {Value("M1"), Value("0")}},
  };
  for (const Lookup& lookup : lookups) {
    SCOPED_TRACE(lookup.format);
    EXPECT_EQ(entries.filter(lookup.format, lookup.arguments),
              Predicate(lookup.format, lookup.arguments).filteredArray(list));
  }
  EXPECT_EQ(entries.positions("(OwnerFileID == %@)", {Value("7")}),
            (std::vector<std::size_t>{7, 40}));
}

TEST(SharedFilesEntriesTest, EntryThatIsNoDictionaryIsRefusedAsThePredicateRefusesIt) {
  Value::Array list = awkwardList();
  list.insert(list.begin() + 5, Value("stray text"));
  SharedFilesEntries entries{PackedValue(list)};
  // Even by a lookup whose text the stray entry does not hold.
  EXPECT_THROW(entries.positions("(OwnerFileID == %@)", {Value("39")}), ValueError);
  EXPECT_THROW(entries.setText(5, "Blocked", "0"), ValueError);
  EXPECT_THROW(entries.field(5, "Blocked"), ValueError);
  // A list stored as something else has no entries.
  EXPECT_EQ(SharedFilesEntries(PackedValue(Value("not a list"))).size(), 0U);
}

TEST(SharedFilesEntriesTest, ChangesLeaveTheListAsTheSameChangesToTheUnpackedListWould) {
  Value::Array list = awkwardList();
  SharedFilesEntries entries{PackedValue(list)};

  entries.setText(7, "Blocked", "1");
  entries.setText(8, "Blocked", "0");     // holds it already
  entries.setText(41, "FileID", "5523");  // a key the entry lacks
  entries.append(entry("99", "/h/T/Ann (Shared)/99", "0"));
  entries.erase({0, 3, 43});

  list[7].mutableDictionary()->insert_or_assign("Blocked", Value("1"));
  list[41].mutableDictionary()->insert_or_assign("FileID", Value("5523"));
  list.push_back(entry("99", "/h/T/Ann (Shared)/99", "0"));
  list.erase(list.begin() + 43);
  list.erase(list.begin() + 3);
  list.erase(list.begin());

  EXPECT_EQ(entries.packed(), PackedValue(list));
  EXPECT_EQ(entries.packed().unpacked(), Value(list));
  EXPECT_EQ(entries.size(), list.size());
}

}  // namespace
