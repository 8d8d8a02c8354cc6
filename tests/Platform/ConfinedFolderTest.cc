// Writes below one folder, on real folders, against paths and links that try to
// leave it and a file system that fails part way; and the private download folder.
#include "Platform/ConfinedFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <memory>
#include <sstream>
#include <vector>

#include "Platform/FileSystemFaults.h"
#include "support/ScopedEnvironment.h"
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

// The names in the folder at `path`, sorted.
std::vector<std::string> namesIn(const fs::path& path) {
  std::vector<std::string> names;
  for (const auto& item : fs::directory_iterator(path)) {
    names.push_back(item.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The permission bits of what is at `path` in octal ("0644").
std::string modeOf(const fs::path& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return "missing";
  std::ostringstream digits;
  digits << std::oct << std::setw(4) << std::setfill('0') << (st.st_mode & 07777);
  return digits.str();
}

// What ConfinedFolder::Refused says when constructing a private folder at `path`.
std::string refusal(const fs::path& path) {
  try {
    ConfinedFolder::privateFolder(path.string());
  } catch (const ConfinedFolder::Refused& refused) {
    return refused.what();
  }
  return "not refused";
}

class ConfinedFolderTest : public ::testing::Test {
 protected:
  fs::path inside(const std::string& name) const { return root.path() / "Tallowbox" / name; }
  std::string at(const std::string& name) const { return inside(name).string(); }

  std::shared_ptr<FileSystemFaults> faults = std::make_shared<FileSystemFaults>();
  ScopedEnvironment environment{[this](Environment& e) { e.fileSystemFaults = faults; }};
  TemporaryFolder root;
  fs::path outside = root.path() / "outside";
  ConfinedFolder folder{(root.path() / "Tallowbox").string()};
};

}  // namespace

TEST_F(ConfinedFolderTest, MovesAndCopiesNeverReplaceWhatIsThere) {
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

  // A folder copied below itself, directly or through a link, is refused at once
  // instead of copying its own copy until descriptors or the stack run out.
  fs::create_directories(inside("d/e"));
  fs::create_directory_symlink(inside("d"), inside("toD"));
  EXPECT_THROW(folder.copy(at("d"), at("d/e/copy")), ConfinedFolder::Refused);
  EXPECT_THROW(folder.copy(at("d"), at("toD/copy")), std::exception);
  EXPECT_EQ(std::distance(fs::directory_iterator(inside("d")), fs::directory_iterator()), 1);
  folder.copy(at("d/e"), at("f"));
  EXPECT_TRUE(fs::is_directory(inside("f")));
}

TEST_F(ConfinedFolderTest, MoveAcrossFileSystemsLandsWholeOrLeavesNothingBesideTheTarget) {
  const ConfinedFolder download = ConfinedFolder::privateFolder((root.path() / "temp").string());
  const std::string partial = (root.path() / "temp" / "a.bin").string();
  std::string bytes;
  for (int i = 0; i < 300000; ++i) bytes += static_cast<char>('a' + i % 26);
  write(partial, bytes);
  fs::permissions(partial, fs::perms(0640));

  // The disk fills part way through the copy.
  faults->failNext(FileSystemFaults::Call::kRename, EXDEV);
  faults->failWritesAfter(100000, ENOSPC);
  try {
    download.move(partial, folder, at("a.bin"));
    FAIL() << "a copy that ran out of space was moved";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), ENOSPC);
  }
  EXPECT_EQ(contents(partial), bytes) << "the source is left as it was";
  EXPECT_TRUE(fs::is_empty(root.path() / "Tallowbox")) << "nothing at or beside the target";

  // The name is taken: the copy is made, then never renamed over it.
  faults->clear();
  write(inside("a.bin"), "mine");
  faults->failNext(FileSystemFaults::Call::kRename, EXDEV);
  try {
    download.move(partial, folder, at("a.bin"));
    FAIL() << "a taken name was replaced";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EEXIST);
  }
  EXPECT_EQ(contents(inside("a.bin")), "mine");
  EXPECT_EQ(namesIn(root.path() / "Tallowbox"), std::vector<std::string>{"a.bin"});
  EXPECT_EQ(contents(partial), bytes);

  fs::remove(inside("a.bin"));
  faults->failNext(FileSystemFaults::Call::kRename, EXDEV);
  download.move(partial, folder, at("a.bin"));
  EXPECT_EQ(contents(inside("a.bin")), bytes);
  EXPECT_EQ(modeOf(inside("a.bin")), "0640") << "the mode it had";
  EXPECT_EQ(namesIn(root.path() / "Tallowbox"), std::vector<std::string>{"a.bin"});
  EXPECT_TRUE(fs::is_empty(root.path() / "temp")) << "the source is gone";
}

TEST_F(ConfinedFolderTest, PrivateFolderThatIsALinkAFileOrOpenToOthersIsRefusedNamingIt) {
  const fs::path mine = root.path() / "mine";
  fs::create_directory(mine);
  fs::permissions(mine, fs::perms(0700));
  const fs::path link = root.path() / "link";
  fs::create_directory_symlink(mine, link);
  EXPECT_EQ(refusal(link), "refused the folder " + link.string() + ": it is a link");
  write(root.path() / "file", "");
  EXPECT_EQ(refusal(root.path() / "file"),
            "refused the folder " + (root.path() / "file").string() + ": it is not a folder");

  const fs::path open = root.path() / "open";
  fs::create_directory(open);
  fs::permissions(open, fs::perms(0750));
  EXPECT_EQ(refusal(open),
            "refused the folder " + open.string() + ": others may use it (mode 0750)");
}

TEST_F(ConfinedFolderTest, PrivateFolderOfAnotherUserIsRefusedNamingIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder to another user";
  const fs::path theirs = root.path() / "theirs";
  fs::create_directory(theirs);
  fs::permissions(theirs, fs::perms(0700));
  ASSERT_EQ(::chown(theirs.c_str(), 4242, 4242), 0);
  EXPECT_EQ(refusal(theirs),
            "refused the folder " + theirs.string() + ": it belongs to another user");
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
  faults->onResolved([&](const std::string& /*path*/) {
    fs::rename(inside("Docs"), inside("Docs.away"));
    fs::create_directory_symlink(outside, inside("Docs"));
    faults->onResolved(nullptr);
  });
  int fd = folder.openForAppend(at("Docs/report.txt"));
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "x", 1), 1);
  ::close(fd);
  EXPECT_TRUE(fs::is_empty(outside)) << "the write went to the folder that was resolved";
  EXPECT_EQ(contents(inside("Docs.away/report.txt")), "x");
}
