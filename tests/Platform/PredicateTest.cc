#include "Platform/Predicate.h"

#include <gtest/gtest.h>

#include "Platform/ValueError.h"

namespace {

Value entry(std::initializer_list<std::pair<const std::string, std::string>> fields) {
  Value::Dictionary d;
  for (const auto& [k, v] : fields) d.emplace(k, Value(v));
  return Value(d);
}

}  // namespace

TEST(PredicateTest, EveryLookupFormatOfTheServiceParsesWithItsOwnSpacing) {
  Value e = entry({{"UserComputerMapID", "7"},
                   {"OwnerFileID", "0"},
                   {"Blocked", "0"},
                   {"MyFile", "1"},
                   {"FileName", "/home/u/Tallowbox/Ann (Shared)"},
                   {"FileIDKey", "12"}});
  struct Case {
    const char* format;
    std::vector<Predicate::Argument> arguments;
  };
  const Case cases[] = {
      {"(UserComputerMapID == %@) AND (OwnerFileID == %@)", {Value("7"), Value("0")}},
      {"(UserComputerMapID == %@)", {Value("7")}},
      {"(OwnerFileID == %@)", {Value("0")}},
      {"(OwnerFileID == %@) ", {Value("0")}},
      {"(FileIDKey == %@)", {Value("12")}},
      {"(OwnerFileID == %@) AND (Blocked == %@)", {Value("0"), Value("0")}},
      {"(UserComputerMapID==%@ AND OwnerFileID==%@)", {Value("7"), Value("0")}},
      {"(OwnerFileID == %@ AND MyFile == %@)", {Value("0"), Value("1")}},
      {"(OwnerFileID == %@ AND MyFile == %@ AND FileName == %@)",
       {Value("0"), Value("1"), Value("/home/u/Tallowbox/Ann (Shared)")}},
      {"(FileName == %@)", {Value("/home/u/Tallowbox/Ann (Shared)")}},
      {"FileName == %@", {Value("/home/u/Tallowbox/Ann (Shared)")}},
      {"FileName BEGINSWITH[c] %@", {Value("/HOME/U/tallowbox")}},
  };
  for (const Case& c : cases) {
    EXPECT_TRUE(Predicate(c.format, c.arguments).evaluateWithObject(e)) << c.format;
  }
  EXPECT_FALSE(Predicate("(UserComputerMapID==%@ AND OwnerFileID==%@)", {Value("7"), Value("1")})
                   .evaluateWithObject(e));
}

TEST(PredicateTest, EqualityIsExactTextNeverNumericNeverCaseFolded) {
  Value e = entry({{"OwnerFileID", "012"}, {"FileName", "/a/B"}});
  EXPECT_FALSE(Predicate("(OwnerFileID == %@)", {Value("12")}).evaluateWithObject(e));
  EXPECT_FALSE(Predicate("(OwnerFileID == %@)", {Value::integer(12)}).evaluateWithObject(e));
  EXPECT_FALSE(Predicate("(FileName == %@)", {Value("/a/b")}).evaluateWithObject(e));
  EXPECT_TRUE(Predicate("(OwnerFileID == %@)", {Value("012")}).evaluateWithObject(e));
  // A missing key equals only a missing argument.
  EXPECT_FALSE(Predicate("(Blocked == %@)", {Value("0")}).evaluateWithObject(e));
  EXPECT_TRUE(Predicate("(Blocked == %@)", {std::nullopt}).evaluateWithObject(e));
  EXPECT_FALSE(Predicate("(OwnerFileID == %@)", {std::nullopt}).evaluateWithObject(e));
}

TEST(PredicateTest, BeginsWithIgnoresCaseAndRefusesNonText) {
  Value e = entry({{"FileName", "/Users/ann/Tallowbox/Photos/x.jpg"}});
  EXPECT_TRUE(Predicate("FileName BEGINSWITH[c] %@", {Value("/users/ANN/tallowbox/photos")})
                  .evaluateWithObject(e));
  EXPECT_FALSE(Predicate("FileName BEGINSWITH[c] %@", {Value("/Users/ann/Tallowbox/Photos/x.jpgz")})
                   .evaluateWithObject(e));
  EXPECT_FALSE(Predicate("FileName BEGINSWITH[c] %@", {std::nullopt}).evaluateWithObject(e));
  EXPECT_FALSE(Predicate("Other BEGINSWITH[c] %@", {Value("/")}).evaluateWithObject(e));
  Value numbered(Value::Dictionary{{"FileName", Value::integer(5)}});
  EXPECT_THROW(Predicate("FileName BEGINSWITH[c] %@", {Value("5")}).evaluateWithObject(numbered),
               ValueError);
}

TEST(PredicateTest, BeginsWithIgnoresCaseBeyondAsciiAsThePlatformDoes) {
  auto begins = [](const char* name, const char* prefix) {
    return Predicate("FileName BEGINSWITH[c] %@", {Value(prefix)})
        .evaluateWithObject(Value(Value::Dictionary{{"FileName", name}}));
  };
  // Accented, Greek and Cyrillic letters, and a letter that folds to two.
  EXPECT_TRUE(begins("/Users/Émile/Été 2024/ΣΟΦΊΑ", "/users/émile/été 2024/σοφία"));
  EXPECT_TRUE(begins("/h/ФОТО/x", "/h/фото"));
  EXPECT_TRUE(begins("/h/STRASSE/x", "/h/straße"));
  EXPECT_FALSE(begins("/h/Émile", "/h/emile")) << "an accent is not a case";
  // Bytes that are not UTF-8 compare as they are, ASCII letters without case.
  EXPECT_TRUE(begins("/h/\xff/A", "/h/\xff/a"));
  EXPECT_FALSE(begins("/h/\xff", "/h/\xfe"));
}

TEST(PredicateTest, FilterKeepsOrderAndRefusesEntriesThatAreNotDictionaries) {
  Value::Array list = {entry({{"OwnerFileID", "1"}, {"FileName", "a"}}),
                       entry({{"OwnerFileID", "2"}, {"FileName", "b"}}),
                       entry({{"OwnerFileID", "1"}, {"FileName", "c"}})};
  Value::Array matches = Predicate("(OwnerFileID == %@)", {Value("1")}).filteredArray(list);
  ASSERT_EQ(matches.size(), 2U);
  EXPECT_EQ(*matches[0].objectForKey("FileName"), Value("a"));
  EXPECT_EQ(*matches[1].objectForKey("FileName"), Value("c"));

  list.emplace_back("not an entry");
  EXPECT_THROW(Predicate("(OwnerFileID == %@)", {Value("1")}).filteredArray(list), ValueError);
}

TEST(PredicateTest, FormatsOutsideTheGrammarAreRefusedAtCreation) {
  EXPECT_THROW(Predicate("(OwnerFileID == %@", {Value("1")}), std::invalid_argument);
  EXPECT_THROW(Predicate("OwnerFileID != %@", {Value("1")}), std::invalid_argument);
  EXPECT_THROW(Predicate("OwnerFileID == %@", {}), std::invalid_argument);
  EXPECT_THROW(Predicate("OwnerFileID == %@", {Value("1"), Value("2")}), std::invalid_argument);
  EXPECT_THROW(Predicate("A == %@ OR B == %@", {Value("1"), Value("2")}), std::invalid_argument);
}
