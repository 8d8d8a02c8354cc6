// The user's own temporary folder, used when $TMPDIR is unset (as under systemd):
// made private, and refused when someone else got there first. Each case runs in a
// child process with an empty /var/tmp of its own (a private mount namespace), so
// the machine's /var/tmp is never touched; where a test may not make one, the test
// is skipped.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "Platform/ConfinedFolder.h"
#include "Platform/Environment.h"
#include "SharedFilesXpcService/ServiceFolders.h"

namespace {

namespace fs = std::filesystem;

constexpr int kCannotIsolate = 77;

// Runs `check` in a child with a fresh /var/tmp; its exit code (0 when it held,
// else the number of the check that failed), or kCannotIsolate.
int inOwnVarTmp(const std::function<int()>& check) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/var/tmp", "tmpfs", 0, "mode=1777") != 0) {
      ::_exit(kCannotIsolate);
    }
    int outcome = 99;
    try {
      outcome = check();
    } catch (...) {  // NOLINT(bugprone-empty-catch): reported as the exit code
    }
    ::_exit(outcome);
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

void useOwnTemporaryFolder() {
  Environment environment = *Environment::current();
  environment.temporaryFolder = Environment::ownTemporaryFolder();
  Environment::replace(environment);
}

bool privateFolder(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() &&
         (st.st_mode & 07777) == 0700;
}

// Whether opening the download folder is refused, naming the user's own folder.
bool refusedNamingOwnFolder() {
  try {
    ServiceFolders::openDownloadFolder();
  } catch (const ConfinedFolder::Refused& refused) {
    return std::string(refused.what()).find("/var/tmp/tallowbox-") != std::string::npos;
  }
  return false;
}

TEST(ServiceFoldersTest, WithoutTmpdirPartialFilesGoToAFolderOfTheUsersOwnMadePrivate) {
  const int outcome = inOwnVarTmp([] {
    ::unsetenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): a child of one thread
    const std::string own = "/var/tmp/tallowbox-" + std::to_string(::getuid()) + "/";
    if (Environment::fromProcess().temporaryFolder != own) return 1;
    useOwnTemporaryFolder();
    ::umask(0);  // the folders' modes do not depend on the umask
    ServiceFolders::openDownloadFolder();
    if (!privateFolder(own)) return 2;
    if (!privateFolder(own + "TallowboxTemp")) return 3;
    return 0;
  });
  if (outcome == kCannotIsolate) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(outcome, 0);
}

TEST(ServiceFoldersTest, OwnTemporaryFolderThatIsALinkOpenToAllOrAnotherUsersIsRefused) {
  const int outcome = inOwnVarTmp([] {
    useOwnTemporaryFolder();
    const fs::path own = Environment::ownTemporaryFolder();
    const fs::path planted = "/var/tmp/planted";
    fs::create_directories(planted / "TallowboxTemp");

    fs::create_directory_symlink(planted, own.parent_path());
    if (!refusedNamingOwnFolder()) return 1;
    fs::remove(own.parent_path());

    fs::create_directory(own);
    ::chmod(own.c_str(), 0777);
    if (!refusedNamingOwnFolder()) return 2;
    if (fs::exists(own / "TallowboxTemp")) return 3;

    if (::geteuid() == 0) {
      ::chmod(own.c_str(), 0700);
      if (::chown(own.c_str(), 4242, 4242) != 0) return 4;
      if (!refusedNamingOwnFolder()) return 5;
    }
    // Nothing was made through the link.
    if (!fs::is_empty(planted / "TallowboxTemp")) return 6;
    return 0;
  });
  if (outcome == kCannotIsolate) GTEST_SKIP() << "no private mount namespace here";
  EXPECT_EQ(outcome, 0);
}

}  // namespace
