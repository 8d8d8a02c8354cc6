// Writes below one folder, on real folders, against paths and links that try to
// leave it.
#include "Platform/ConfinedFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/TemporaryFolder.h"

namespace fs = std::filesystem;

namespace {

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

class ConfinedFolderTest : public ::testing::Test {
 protected:
  void TearDown() override { ConfinedFolder::setResolvedHookForTesting(nullptr); }

  fs::path inside(const std::string& name) const { return root.path() / "Tallowbox" / name; }
  std::string at(const std::string& name) const { return inside(name).string(); }

  TemporaryFolder root;
  fs::path outside = root.path() / "outside";
  ConfinedFolder folder{(root.path() / "Tallowbox").string()};
};

}  // namespace

TEST_F(ConfinedFolderTest, WritesBelowTheFolderWork) {
  folder.createDirectories(at("Ann (Shared)/Docs/deep"));
  EXPECT_TRUE(fs::is_directory(inside("Ann (Shared)/Docs/deep")));
  int fd = folder.openForAppend(at("Ann (Shared)/Docs/a.txt"));
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "one", 3), 3);
  ::close(fd);
  fd = folder.openForAppend(at("Ann (Shared)/Docs/a.txt"));
  ASSERT_EQ(::write(fd, "two", 3), 3);
  ::close(fd);
  EXPECT_EQ(contents(inside("Ann (Shared)/Docs/a.txt")), "onetwo") << "appended, never truncated";
  folder.flush(at("Ann (Shared)/Docs/a.txt"));

  folder.copy(at("Ann (Shared)"), at("Ann (Shared) 1"));
  EXPECT_EQ(contents(inside("Ann (Shared) 1/Docs/a.txt")), "onetwo");
  folder.move(at("Ann (Shared) 1/Docs/a.txt"), folder, at("b.txt"));
  EXPECT_EQ(contents(inside("b.txt")), "onetwo");
  folder.remove(at("Ann (Shared) 1"));
  EXPECT_FALSE(fs::exists(inside("Ann (Shared) 1")));
  EXPECT_TRUE(folder.exists(at("b.txt")));
  EXPECT_FALSE(folder.exists(at("missing/c.txt")));
}

TEST_F(ConfinedFolderTest, MovesAndCopiesNeverReplaceAndAHalfFailedCopyLeavesNothing) {
  write(inside("a.txt"), "new");
  write(inside("b.txt"), "mine");
  try {
    folder.move(at("a.txt"), folder, at("b.txt"));
    FAIL() << "a taken name was replaced";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EEXIST);
  }
  EXPECT_EQ(contents(inside("b.txt")), "mine");
  EXPECT_EQ(contents(inside("a.txt")), "new") << "nothing changed";
  EXPECT_THROW(folder.copy(at("a.txt"), at("b.txt")), std::system_error);
  EXPECT_EQ(contents(inside("b.txt")), "mine");

  write(inside("Music/a/song.mp3"), "la");
  ASSERT_EQ(::mkfifo(inside("Music/z-pipe").c_str(), 0600), 0);
  EXPECT_THROW(folder.copy(at("Music"), at("Music 1")), std::system_error);
  std::vector<std::string> names;
  for (const auto& item : fs::directory_iterator(root.path() / "Tallowbox")) {
    names.push_back(item.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Music", "a.txt", "b.txt"}));
}

TEST_F(ConfinedFolderTest, ClimbingAbsolutePathsAndLinksOutAreRefusedAndNothingOutsideChanges) {
  fs::create_directories(outside);
  write(outside / "keep.txt", "keep");
  fs::create_directory_symlink(outside, inside("Eve (Shared)"));
  fs::create_symlink(outside / "keep.txt", inside("link.txt"));
  const std::string attempts[] = {at("../outside/new.txt"), (outside / "new.txt").string(),
                                  at("Eve (Shared)/new.txt"), at("a/../../outside/new.txt")};
  for (const std::string& path : attempts) {
    EXPECT_THROW(folder.createDirectories(path), ConfinedFolder::Refused) << path;
    EXPECT_THROW(::close(folder.openForAppend(path)), ConfinedFolder::Refused) << path;
    EXPECT_THROW(folder.remove(path), ConfinedFolder::Refused) << path;
  }
  EXPECT_THROW(::close(folder.openForAppend(at("link.txt"))), ConfinedFolder::Refused)
      << "never through a link";
  EXPECT_THROW(folder.remove(at("Eve (Shared)/keep.txt")), ConfinedFolder::Refused);
  EXPECT_THROW(folder.move(at("a"), folder, at("Eve (Shared)/a")), ConfinedFolder::Refused);
  folder.remove(at("Eve (Shared)"));
  EXPECT_FALSE(fs::is_symlink(inside("Eve (Shared)"))) << "the link itself goes";
  EXPECT_EQ(contents(outside / "keep.txt"), "keep") << "what it pointed to stays";
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);

  EXPECT_THROW(folder.remove(at("")), ConfinedFolder::Refused);
  EXPECT_THROW(folder.remove((root.path() / "Tallowbox").string()), ConfinedFolder::Refused);
  EXPECT_THROW(folder.move(at(""), folder, at("x")), ConfinedFolder::Refused);
  EXPECT_TRUE(fs::is_directory(root.path() / "Tallowbox")) << "the folder itself stays";
  EXPECT_THROW(ConfinedFolder("relative/Tallowbox"), ConfinedFolder::Refused);
}

TEST_F(ConfinedFolderTest, FolderSwappedForALinkAfterTheCheckStillCannotBeLeft) {
  fs::create_directories(outside);
  fs::create_directories(inside("Docs"));
  // Between the resolution of "Docs" and the write, "Docs" becomes a link out.
  ConfinedFolder::setResolvedHookForTesting([&](const std::string& /*path*/) {
    fs::rename(inside("Docs"), inside("Docs.away"));
    fs::create_directory_symlink(outside, inside("Docs"));
    ConfinedFolder::setResolvedHookForTesting(nullptr);
  });
  int fd = folder.openForAppend(at("Docs/report.txt"));
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "x", 1), 1);
  ::close(fd);
  EXPECT_TRUE(fs::is_empty(outside)) << "the write went to the folder that was resolved";
  EXPECT_EQ(contents(inside("Docs.away/report.txt")), "x");
}
