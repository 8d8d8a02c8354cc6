#include "Services/ServicesUtilities.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/ScopedEnvironment.h"

namespace {

struct Answer {
  bool is10_7;
  bool isLessThan10_10;
};

// The answers with TALLOWBOX_APPKIT_VERSION set to `version` (unset for nullptr),
// read as the process reads its environment.
Answer withVersion(const char* version) {
  if (version == nullptr) {
    ::unsetenv("TALLOWBOX_APPKIT_VERSION");  // NOLINT(concurrency-mt-unsafe): one thread
  } else {
    ::setenv("TALLOWBOX_APPKIT_VERSION", version, 1);  // NOLINT(concurrency-mt-unsafe)
  }
  ScopedEnvironment environment([](Environment& e) { e = Environment::fromProcess(); });
  ::unsetenv("TALLOWBOX_APPKIT_VERSION");  // NOLINT(concurrency-mt-unsafe)
  return {ServicesUtilities::is10_7(), ServicesUtilities::isLessThan10_10()};
}

}  // namespace

TEST(ServicesUtilitiesTest, VersionTestsRoundTheAppKitVersionDown) {
  EXPECT_TRUE(withVersion("1138").is10_7);
  EXPECT_TRUE(withVersion("1138.5").is10_7);
  EXPECT_FALSE(withVersion("1137.99").is10_7);
  EXPECT_FALSE(withVersion("1139").is10_7);

  EXPECT_TRUE(withVersion("1138.5").isLessThan10_10);
  EXPECT_TRUE(withVersion("1342.9").isLessThan10_10);
  EXPECT_FALSE(withVersion("1343").isLessThan10_10);
  EXPECT_FALSE(withVersion("1137").isLessThan10_10) << "older than 10.7 answers no as well";
}

TEST(ServicesUtilitiesTest, UnsetOrUnreadableVersionIsACurrentSystem) {
  for (const char* version : {static_cast<const char*>(nullptr), "", "lion", "1138abc", "nan"}) {
    Answer answer = withVersion(version);
    EXPECT_FALSE(answer.is10_7) << (version ? version : "unset");
    EXPECT_FALSE(answer.isLessThan10_10) << (version ? version : "unset");
  }
}
