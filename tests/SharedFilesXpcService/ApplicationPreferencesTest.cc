#include "SharedFilesXpcService/ApplicationPreferences.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Platform/UserDefaults.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace {

// An error report refreshes the service's snapshot on one queue while the cycle
// reads the computer id from it on another: a query once went out without one,
// the server refused it, and the cycle stopped.
TEST(ApplicationPreferencesTest, SnapshotReadWhileAnotherQueueRefreshesItIsNeverEmpty) {
  TemporaryFolder folder;
  ScopedEnvironment environment;
  environment.update([&](Environment& e) { e.configFolder = folder.path(); });
  UserDefaults("Quentara.Tallowbox").setObject("C1", "computerIdKey");
  ApplicationPreferences prefs;
  prefs.refresh();

  std::atomic<bool> done{false};
  std::thread refresher([&] {
    for (int i = 0; i < 2000; ++i) prefs.refresh();
    done = true;
  });
  int empty = 0;
  while (!done) {
    if (prefs.snapshot().count("computerIdKey") == 0) ++empty;
  }
  refresher.join();
  EXPECT_EQ(empty, 0);
}

}  // namespace
