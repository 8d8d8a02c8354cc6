#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "Platform/PathNames.h"
#include "Platform/UserDefaults.h"
#include "Platform/ValueError.h"
#include "Services/ServicesUtilities.h"
#include "SharedFilesXpcService/EntryPlacement.h"
#include "SharedFilesXpcService/ReceiveFileFromTransferHandler.h"
#include "SharedFilesXpcService/SharedFilesList.h"
#include "SharedFilesXpcService/TransferClaims.h"
#include "support/LogCapture.h"
#include "support/ScopedEnvironment.h"
#include "support/TemporaryFolder.h"

namespace fs = std::filesystem;

namespace {

std::string contents(const fs::path& path) {
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), {}};
}

// A received entry with the given fields (text values as the server sends them).
RecFileFromTransfer received(std::initializer_list<std::pair<const char*, const char*>> fields) {
  RecFileFromTransfer file;
  for (const auto& [key, text] : fields) {
    WireValue value = nlohmann::json(text);
    const std::string name = key;
    if (name == "ChangeType") file.changeType = value;
    if (name == "IsOwnerToSubscriber") file.isOwnerToSubscriber = value;
    if (name == "PrevFolderFileID") file.prevFolderFileId = value;
    if (name == "UserComputerID") file.userComputerId = value;
    if (name == "OwnerFileID") file.ownerFileId = value;
    if (name == "FullPath") file.fullPath = value;
    if (name == "FullPathFromFileTable") file.fullPathFromFileTable = value;
    if (name == "NickName") file.nickName = value;
    if (name == "FromCloud") file.fromCloud = value;
    if (name == "FromComputerID") file.fromComputerId = value;
    if (name == "ToComputerID") file.toComputerId = value;
  }
  return file;
}

TEST(EntryPlacementTest, LocalPathFollowsTheListAndInheritsThePathOfTheEntryBefore) {
  const Value::Array list = {Value(Value::Dictionary{{"OwnerFileID", "0"},
                                                     {"UserComputerMapID", "M1"},
                                                     {"FileName", "/h/Tallowbox/Ann (Shared)"},
                                                     {"Blocked", "0"}}),
                             Value(Value::Dictionary{{"OwnerFileID", "71"},
                                                     {"UserComputerMapID", "M1"},
                                                     {"FileName", "/h/Tallowbox/Ann (Shared)/Docs"},
                                                     {"Blocked", "0"}}),
                             Value(Value::Dictionary{{"OwnerFileID", "72"},
                                                     {"UserComputerMapID", "M1"},
                                                     {"FileName", "/h/Tallowbox/Ann (Shared)/Held"},
                                                     {"Blocked", "1"}})};
  auto product = []() -> std::string { return "/h/Tallowbox"; };
  auto placed = [&](const RecFileFromTransfer& file, const std::string& before) {
    return EntryPlacement::of(file, SharedFilesEntries(list), product, before);
  };
  // In the owner's root folder, and in a folder of it.
  EXPECT_EQ(placed(received({{"ChangeType", "1"},
                             {"IsOwnerToSubscriber", "1"},
                             {"PrevFolderFileID", "0"},
                             {"UserComputerID", "M1"},
                             {"FullPath", "Docs\\a.txt"}}),
                   "")
                .workingPath,
            "/h/Tallowbox/Ann (Shared)/a.txt");
  EXPECT_EQ(placed(received({{"ChangeType", "1"},
                             {"IsOwnerToSubscriber", "1"},
                             {"PrevFolderFileID", "71"},
                             {"FullPath", "Docs\\b.txt"}}),
                   "")
                .workingPath,
            "/h/Tallowbox/Ann (Shared)/Docs/b.txt");
  // An owner's root that is not in the list: the path of the entry before, with
  // this one's appended.
  EXPECT_EQ(placed(received({{"ChangeType", "1"},
                             {"IsOwnerToSubscriber", "1"},
                             {"PrevFolderFileID", "0"},
                             {"UserComputerID", "M9"},
                             {"FullPath", "Docs\\c.txt"}}),
                   "/h/Tallowbox/Ann (Shared)/a.txt")
                .workingPath,
            "/h/Tallowbox/Ann (Shared)/a.txtDocs/c.txt");
  // A folder that is blocked: the path is built from the owner's nick name.
  EntryPlacement blocked = placed(received({{"ChangeType", "1"},
                                            {"IsOwnerToSubscriber", "1"},
                                            {"PrevFolderFileID", "72"},
                                            {"NickName", "Ann"},
                                            {"FullPath", "\\Held\\d.txt"}}),
                                  "/h/Tallowbox/Ann (Shared)/a.txt");
  EXPECT_EQ(blocked.workingPath, "/h/Tallowbox/Ann/Held/d.txt");
  EXPECT_TRUE(blocked.builtFromNickName);
  // A rename of an item the list does not hold keeps the path before.
  EXPECT_EQ(
      placed(received({{"ChangeType", "2"}, {"IsOwnerToSubscriber", "1"}, {"OwnerFileID", "F7"}}),
             "/h/Tallowbox/Ann (Shared)/a.txt")
          .workingPath,
      "/h/Tallowbox/Ann (Shared)/a.txt");
  // From the server's file table; a cloud copy back to its own computer.
  EXPECT_EQ(
      placed(received({{"ChangeType", "1"}, {"FullPathFromFileTable", "h\\Tallowbox\\x"}}), "")
          .workingPath,
      "/h/Tallowbox/x");
  EXPECT_EQ(placed(received({{"ChangeType", "1"},
                             {"FullPathFromFileTable", "Docs\\y"},
                             {"FromCloud", "1"},
                             {"FromComputerID", "C1"},
                             {"ToComputerID", "C1"}}),
                   "")
                .workingPath,
            "/h/Tallowbox/Docs/y");
}

TEST(EntryPlacementTest, ProductFolderThatCannotBeWorkedOutEndsOnlyTheEntriesThatNeedIt) {
  const SharedFilesEntries list(Value::Array{Value(Value::Dictionary{
      {"OwnerFileID", "71"}, {"FileName", "/h/Tallowbox/Ann (Shared)/Docs"}, {"Blocked", "0"}})});
  auto unusable = []() -> std::string { throw ValueError("tallowboxPathKey holds a number"); };
  // From the list, and from the server's file table: placed.
  EXPECT_EQ(EntryPlacement::of(received({{"ChangeType", "1"},
                                         {"IsOwnerToSubscriber", "1"},
                                         {"PrevFolderFileID", "71"},
                                         {"FullPath", "Docs\\b.txt"}}),
                               list, unusable, "")
                .workingPath,
            "/h/Tallowbox/Ann (Shared)/Docs/b.txt");
  EXPECT_EQ(EntryPlacement::of(received({{"ChangeType", "1"}, {"FullPathFromFileTable", "h\\x"}}),
                               list, unusable, "")
                .workingPath,
            "/h/x");
  // A path built from the owner's nick name needs the product folder.
  EXPECT_THROW(EntryPlacement::of(received({{"ChangeType", "1"},
                                            {"IsOwnerToSubscriber", "1"},
                                            {"PrevFolderFileID", "99"},
                                            {"NickName", "Ann"},
                                            {"FullPath", "\\Held\\d.txt"}}),
                                  list, unusable, ""),
               ValueError);
}

TEST(EntryPlacementTest, PartialFileMirrorsTheTargetBelowTheDownloadFolder) {
  EXPECT_EQ(EntryPlacement::partialPath("/h/Tallowbox/Ann (Shared)/a.txt", "/h/Tallowbox",
                                        "/t/TallowboxTemp"),
            "/t/TallowboxTemp/Ann (Shared)/a.txt");
  EXPECT_EQ(
      EntryPlacement::partialPath("/h/TallowboxOld/a.txt", "/h/Tallowbox", "/t/TallowboxTemp"),
      "/h/TallowboxOld/a.txt")
      << "only the product folder itself is replaced";
}

TEST(TransferClaimsTest, AcknowledgedFileStaysClaimedUntilEveryReplyAskedForBeforeIsHandled) {
  std::optional<TransferClaims::PendingReply> onItsWay(TransferClaims::querySent());
  std::optional<TransferClaims::Claim> claim = TransferClaims::claim({"file:/t/a.bin"});
  ASSERT_TRUE(claim);
  EXPECT_FALSE(TransferClaims::claim({"file:/t/b.bin", "file:/t/a.bin"})) << "all or nothing";
  EXPECT_TRUE(TransferClaims::claim({"file:/t/b.bin"})) << "and nothing was taken";
  claim->releaseOnceEarlierRepliesAreHandled();
  EXPECT_FALSE(TransferClaims::claim({"file:/t/a.bin"}));
  static_cast<void>(TransferClaims::querySent());
  EXPECT_FALSE(TransferClaims::claim({"file:/t/a.bin"}))
      << "a later reply handled first: the earlier one, its pass still to run, may list the file";
  onItsWay.reset();
  EXPECT_TRUE(TransferClaims::claim({"file:/t/a.bin"}));

  // With no reply on its way, nothing can list the file again.
  claim = TransferClaims::claim({"file:/t/c.bin"});
  ASSERT_TRUE(claim);
  claim->releaseOnceEarlierRepliesAreHandled();
  EXPECT_TRUE(TransferClaims::claim({"file:/t/c.bin"}));
}

TEST(PathNamesTest, ComponentsAndExtensionsFollowThePlatformRules) {
  EXPECT_EQ(PathNames::lastPathComponent("/a/b.txt/"), "b.txt");
  EXPECT_EQ(PathNames::stringByDeletingLastPathComponent("/a/b.txt"), "/a");
  EXPECT_EQ(PathNames::stringByDeletingLastPathComponent("/a"), "/");
  EXPECT_EQ(PathNames::pathExtension("/a/x.tar.gz"), "gz");
  EXPECT_EQ(PathNames::pathExtension("/a/.profile"), "");
  EXPECT_EQ(PathNames::stringByDeletingPathExtension("/a/x.tar.gz"), "/a/x.tar");
  EXPECT_EQ(PathNames::stringByAppendingPathComponent("/a/", "/b"), "/a/b");
}

TEST(PlacementTest, TakenFileIsCopiedToTheFirstFreeNumberedNameBesideIt) {
  TemporaryFolder folder;
  std::ofstream(folder.file("x.txt")) << "original";
  std::ofstream(folder.file("x 1.txt")) << "older copy";
  EXPECT_EQ(ServicesUtilities::checkDuplicateAndCreate(folder.file("free.txt"), folder.path()),
            folder.file("free.txt"));
  EXPECT_FALSE(fs::exists(folder.file("free.txt")));

  std::string placed =
      ServicesUtilities::checkDuplicateAndCreate(folder.file("x.txt"), folder.path());
  EXPECT_EQ(placed, folder.file("x 2.txt"));
  EXPECT_EQ(contents(placed), "original") << "the existing item is duplicated";
  EXPECT_EQ(contents(folder.file("x.txt")), "original");
  EXPECT_EQ(contents(folder.file("x 1.txt")), "older copy");

  fs::create_directories(folder.path() / "Photos.album" / "inner");
  std::ofstream(folder.path() / "Photos.album" / "inner" / "p.jpg") << "jpg";
  placed = ServicesUtilities::checkDuplicateAndCreate(folder.file("Photos.album"), folder.path());
  EXPECT_EQ(placed, folder.file("Photos 1")) << "a folder's name loses its extension";
  EXPECT_EQ(contents(fs::path(placed) / "inner" / "p.jpg"), "jpg");
}

TEST(PlacementTest, CopyThatFailsHalfWayLeavesNoPartialTree) {
  TemporaryFolder folder;
  fs::create_directories(folder.path() / "Music" / "a");
  std::ofstream(folder.path() / "Music" / "a" / "song.mp3") << "la";
  ASSERT_EQ(::mkfifo((folder.path() / "Music" / "z-pipe").c_str(), 0600), 0);
  EXPECT_THROW(ServicesUtilities::checkDuplicateAndCreate(folder.file("Music"), folder.path()),
               std::runtime_error);
  std::vector<std::string> left;
  for (const auto& item : fs::directory_iterator(folder.path())) {
    left.push_back(item.path().filename().string());
  }
  EXPECT_EQ(left, std::vector<std::string>{"Music"}) << "no numbered copy, whole or in part";
}

class ReceiveHandlerTest : public ::testing::Test {
 protected:
  // First made, last gone: every change below is undone after the test.
  ScopedEnvironment environment;
  void SetUp() override {
    environment.update([&](Environment& e) { e.configFolder = config.path(); });
  }
  TemporaryFolder config;
  TemporaryFolder folder;
};

TEST_F(ReceiveHandlerTest, MovedItemGetsANumberedNameInTheGivenFolderWithoutExtension) {
  ReceiveFileFromTransferHandler handler;
  fs::create_directories(folder.path() / "dir");
  fs::create_directories(folder.path() / "top");
  std::ofstream(folder.path() / "dir" / "x.txt") << "x";
  std::ofstream(folder.path() / "top" / "x 1") << "taken";
  LogCapture log;
  EXPECT_EQ(handler.checkDuplicateAndCreate(folder.file("dir/x.txt"), folder.file("top")),
            folder.file("top/x 2"));
  EXPECT_TRUE(log.contains("----------------------"));
  EXPECT_FALSE(fs::exists(folder.file("top/x 2"))) << "nothing is copied";
  EXPECT_EQ(handler.checkDuplicateAndCreate(folder.file("dir/y.txt"), folder.file("top")),
            folder.file("dir/y.txt"));
}

TEST_F(ReceiveHandlerTest, ReceivedEntryIsAppendedAndItsFileNumberRecordedLater) {
  ReceiveFileFromTransferHandler handler;
  RecFileFromTransfer file;
  file.ownerFileId = "501";
  file.userComputerId = "77";
  file.isFile = "1";
  file.savedFileId = 9;
  std::string path = folder.file("plan.txt");
  handler.savePreFerences(file, path);
  std::ofstream(path) << "plan";
  handler.updateFileID(path);

  Value::Array list = SharedFilesList::load(UserDefaults::standardUserDefaults());
  ASSERT_EQ(list.size(), 1U);
  struct stat attributes {};
  ASSERT_EQ(::lstat(path.c_str(), &attributes), 0);
  EXPECT_EQ(list[0],
            Value(Value::Dictionary{{"OwnerFileID", "501"},
                                    {"UserComputerMapID", "77"},
                                    {"FileName", Value(path)},
                                    {"IsFile", "1"},
                                    {"MyFile", "0"},
                                    {"Blocked", "0"},
                                    {"DeleteKey", "0"},
                                    {"SavedFileID", Value::integer(9)},
                                    {"FileID", Value(std::to_string(attributes.st_ino))}}));
  EXPECT_EQ(handler.sharedFilesDefaultsArray(), list);

  EXPECT_THROW(handler.updateFileID(folder.file("missing.txt")), std::system_error);
  file.savedFileId.reset();
  EXPECT_THROW(handler.savePreFerences(file, path), ValueError) << "an absent value";
  file.savedFileId = nullptr;
  EXPECT_THROW(handler.savePreFerences(file, path), ValueError) << "null has no place in a list";
  EXPECT_EQ(SharedFilesList::load(UserDefaults::standardUserDefaults()).size(), 1U);
}

TEST_F(ReceiveHandlerTest, ClearTempEmptiesOnlyTheNamedDownloadFolder) {
  environment.update([&](Environment& e) { e.temporaryFolder = std::string(folder.path()) + "/"; });
  fs::create_directories(folder.path() / "TallowboxTemp" / "88" / "part");
  fs::permissions(folder.path() / "TallowboxTemp", fs::perms::owner_all);  // private, as made
  std::ofstream(folder.path() / "TallowboxTemp" / "88" / "a.bin") << "a";
  std::ofstream(folder.path() / "TallowboxTemp" / "keep.bin") << "k";
  ReceiveFileFromTransferHandler handler;
  handler.clearTemp("/anything/TallowboxTemp/88/a.bin");
  EXPECT_TRUE(fs::is_empty(folder.path() / "TallowboxTemp" / "88"));
  EXPECT_TRUE(fs::exists(folder.path() / "TallowboxTemp" / "keep.bin"));
  EXPECT_THROW(handler.clearTemp("/no/download/folder"), std::runtime_error);
  EXPECT_THROW(handler.clearTemp("/x/TallowboxTemp/../.."), std::runtime_error);
  EXPECT_TRUE(fs::exists(folder.path() / "TallowboxTemp" / "keep.bin"));
}

}  // namespace
